/// The broker that fuzz targets call: on a faked platform, with something in every table.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "VokBrokerAdmin.h"
#include "broker/CBroker.h"
#include "platform/CVOKDebug.h"
#include "tests/fuzz/support/AtOnce.h"
#include "tests/fuzz/support/CPeersInMemory.h"
#include "tests/fuzz/support/CScript.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/TheBroker.h"

namespace vok::test {

/// Formats every record, at the highest level, and forgets it.
class CForgetfulLog : public ILogSink {
public:
    CForgetfulLog();
    ~CForgetfulLog() override;
    CForgetfulLog(const CForgetfulLog&) = delete;
    CForgetfulLog& operator=(const CForgetfulLog&) = delete;
    void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) override;

private:
    const unsigned short m_nFormerLevel = CVOKDebug::GetLogLevel();
};

/// A broker and its surroundings, for one input. Nothing happens outside of the process: no thread,
/// wait, process, mount, file or socket.
///
/// Both services are called through here, and so is what else may happen to a broker. After each
/// call it is looked at whether all that always holds still does; see `Check`.
class CStage {
public:
    CStage();
    ~CStage();
    CStage(const CStage&) = delete;
    CStage& operator=(const CStage&) = delete;

    /// Performs one line after the other. The first text of each names the operation; what names
    /// none stands for any.
    void Perform(const std::vector<ScriptLine>& lines);
    /// From now on, this happens whenever the broker starts a process or calls a peer, and is not
    /// inside of a call that has lines of its own.
    void SetMeanwhile(std::vector<ScriptLine> lines);

    CBroker& Broker() { return m_Broker; }
    /// The services, each call followed by the checks.
    std::shared_ptr<VokBrokerIf> Service() { return m_pService; }
    std::shared_ptr<admin::VokBrokerAdminIf> AdminService() { return m_pAdminService; }

    /// Puts an open's ticket into the table, as if its opener waited.
    void AddWaitingTicket(unsigned int nSerial, pid_t nForkedPid);

private:
    class CCheckedBroker;
    class CCheckedAdmin;
    class CCall;
    struct Operation;
    static const Operation kOperations[];

    void FillFiles();
    void FillTables();
    void AddOpened(const std::string& strEmp, const std::string& strOption,
                   const std::string& strPort, const std::vector<std::string>& clientPorts);

    void Perform(const ScriptLine& line);
    /// What a text stands for: "@" for the serial that was issued last.
    static std::string Meant(const std::string& strText);
    const ScriptLine* NextMeanwhile();
    void OnFork();
    PeerAnswer OnPeer();

    void Check();
    void CheckTables();
    void CheckTickets();
    void CheckState();
    void CheckOpens(std::int64_t nOpens);
    static void CheckWhereabouts(const admin::Whereabouts& whereabouts);

    /// Lines that happen while something else does, and how far they have come.
    struct Meanwhile {
        const std::vector<ScriptLine>* pLines;
        std::size_t nNext;
    };

    CAtOnce m_AtOnce;
    CForgetfulLog m_Log;
    FakePlatform m_Fake;
    CPeersInMemory m_Peers;
    const unsigned int m_nFormerSerial;
    CBroker m_Broker;
    CTheBroker m_TheBroker;
    std::shared_ptr<VokBrokerIf> m_pService;
    std::shared_ptr<admin::VokBrokerAdminIf> m_pAdminService;

    std::vector<ScriptLine> m_Ambient;
    std::vector<Meanwhile> m_Meanwhile;
    int m_nDepth = 0;  // of calls inside calls
    std::size_t m_nCalls = 0;
    std::set<unsigned int> m_setWaiting;  // serials without an opener
    std::size_t m_nAtFirst = 0;           // entries in all tables
    admin::Counters m_Counters;           // as they were at the last look
};

}  // namespace vok::test
