/// A broker in this process, on a platform that costs nothing.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "broker/CBroker.h"
#include "platform/CVOKDebug.h"
#include "tests/support/FakePlatform.h"

namespace vok::bench {

/// Answers what it was told and, unlike the tests' own, writes nothing down.
class CQuietFiles : public vok::test::CFakeFiles {
public:
    bool Exists(const char* szPath) override {
        // Nothing has been downloaded, and what is asked for most often is answered at once.
        return szPath[1] == 'u' && m_setPath.count(szPath) != 0;
    }
    /// Of a preinstalled EMP, below /usr.
    void AddPath(const std::string& strPath) { m_setPath.insert(strPath); }

private:
    std::set<std::string, std::less<>> m_setPath;
};

/// Takes records and forgets them, for as long as it lives.
class CForgetfulLog : public ILogSink {
public:
    CForgetfulLog() { CVOKDebug::SetSink(this); }
    ~CForgetfulLog() override { CVOKDebug::SetSink(nullptr); }
    CForgetfulLog(const CForgetfulLog&) = delete;
    CForgetfulLog& operator=(const CForgetfulLog&) = delete;

    void Write(int, std::string_view, std::string_view) override {}
};

/// The tables are filled as on a set: see the methods. One at a time.
class CBrokerStage {
public:
    CBrokerStage() : broker(PlatformOf(*this)) {}

    /// EMPs that run, singletons with files of their own: "Emp0000" and on, each with clients of
    /// the ports "40000" and on.
    void AddRunning(int nEmps, int nClientsOfEach);
    /// One more, at a port of its own.
    void AddRunning(const std::string& strEmp, const std::string& strPort, int nClients);
    /// Grouping processes and register launchers, so many of each, with EMPs that nobody else has.
    void AddLaunchers(int nLaunchers, int nEmpsOfEach);
    /// Tickets of opens that are over, as many as are kept.
    void FillTickets();

    CForgetfulLog log;
    vok::test::FakePlatform fake;
    CQuietFiles files;
    CBroker broker;

private:
    static Platform PlatformOf(CBrokerStage& stage);
};

}  // namespace vok::bench
