/// The stage of tests that run a broker in their own process.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "broker/CBroker.h"
#include "platform/ThreadMaker.h"
#include "tests/support/BrokerProbe.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/FakePlatform.h"

namespace vok::test {

/// Runs what it is told when a message comes: the moment between two steps of the code under test.
class CHookedLog : public CLogCapture {
public:
    /// Once, on the thread that logs, after the record has been taken. No broker lock may be held
    /// there that the hook needs.
    void Once(const std::string& strMessage, std::function<void()> hook) {
        const std::lock_guard<std::mutex> lock{m_HookMutex};
        m_mapHook[strMessage] = std::move(hook);
    }

    void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) override {
        CLogCapture::Write(nLevel, strPrefix, strMessage);
        std::function<void()> hook;
        {
            const std::lock_guard<std::mutex> lock{m_HookMutex};
            const auto it = m_mapHook.find(std::string(strMessage));
            if (it == m_mapHook.end()) return;
            hook = std::move(it->second);
            m_mapHook.erase(it);
        }
        hook();
    }

private:
    std::mutex m_HookMutex;
    std::map<std::string, std::function<void()>> m_mapHook;
};

/// "<level> <message>" of what one operation logged, in order.
inline std::vector<std::string> LinesOf(const CLogCapture& log, const std::string& strFunction) {
    std::vector<std::string> lines;
    for (const LogRecord& record : log.Records()) {
        if (record.Function() == strFunction)
            lines.push_back(std::to_string(record.nLevel) + ' ' + record.strMessage);
    }
    return lines;
}

inline bool HasLinesOf(const CLogCapture& log, const std::string& strFunction) {
    return !LinesOf(log, strFunction).empty();
}

/// The calling thread's name.
inline std::string ThreadName() {
    char szName[16] = {};
    (void)::prctl(PR_GET_NAME, szName, 0, 0, 0);  // fails only for a bad pointer
    return szName;
}

/// A broker on a fake platform. The first ticket gets serial 2; the log starts empty.
class BrokerTest : public ::testing::Test {
protected:
    BrokerTest() {
        Ticket::m_nCurSerial = 1;
        m_Log.Clear();
    }

    ~BrokerTest() override {
        m_Fake.processes.AwaitThreads();  // they use the broker
        ThreadMaker::NameThisThread(m_strFormerName.c_str());
        Ticket::m_nCurSerial = m_nFormerSerial;
    }

    CEmpInfo& EmpInfo() { return BrokerProbe::EmpInfo(m_Broker); }
    CConnectionDB& ConnectionDB() { return BrokerProbe::ConnectionDB(m_Broker); }

    /// An EMP whose record says so.
    void AddKnown(const std::string& strEmp, const std::string& strOption, EMP_STATUS eStatus) {
        EmpInfo().Add(strEmp, "1.0");
        EmpInfo().SetTypeOption(strEmp, strOption);
        EmpInfo().SetTypeStatus(strEmp, eStatus);
        m_Log.Clear();
    }

    std::string Execute(const std::string& strArg1, const std::string& strCmd,
                        const std::string& strArg3 = "", const std::string& strArg4 = "",
                        const std::string& strArg5 = "", const std::string& strArg6 = "") {
        std::string strResult;
        m_Broker.Execute(strResult, strArg1, strCmd, strArg3, strArg4, strArg5, strArg6);
        return strResult;
    }

    /// The report of a started EMP, as it comes from its process.
    std::string Report(const std::string& strSerial, const std::string& strPortAndPid,
                       const std::string& strOption,
                       const std::string& strStatus = "__SERVER_SUCCESS_TO_RUN") {
        return Execute("", "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", strSerial, strPortAndPid,
                       strStatus, strOption);
    }

    /// Every EMP that is started from now on reports so, with the serial that it was handed.
    void LetEmpsReport(const std::string& strPortAndPid, const std::string& strOption,
                       const std::string& strStatus = "__SERVER_SUCCESS_TO_RUN") {
        m_Fake.processes.OnFork([=](const ForkCall& call) {
            Report(call.arguments.at(2), strPortAndPid, strOption, strStatus);
        });
    }

    const std::string m_strFormerName = ThreadName();
    const unsigned int m_nFormerSerial = Ticket::m_nCurSerial;
    CHookedLog m_Log;
    FakePlatform m_Fake;
    CBroker m_Broker{m_Fake.Get()};
};

}  // namespace vok::test
