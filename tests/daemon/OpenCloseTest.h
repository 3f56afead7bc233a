/// What the tests of opening and closing share: a daemon, and short ways to what clients and EMPs
/// do.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "VokEmp.h"
#include "platform/Number.h"
#include "rpc/CallOnce.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"
#include "tests/support/CEmpInstaller.h"

namespace vok::test {

/// What clients send that have nothing special to say.
inline constexpr char kClient[] = "40001";
inline constexpr char kOtherClient[] = "40002";
inline constexpr char kVersion[] = "1.0";
inline constexpr char kApp[] = "app";

inline constexpr char kReportStart[] = "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO";
inline constexpr char kReportStop[] = "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER";
inline constexpr char kRunning[] = "__SERVER_SUCCESS_TO_RUN";

/// A connection each: the calls of several threads do not wait for one another.
inline ConnectionInfo OpenEmp(const std::string& strEmp, const std::string& strClient = kClient) {
    return CBrokerClient().Open(strClient, strEmp, kVersion, kApp);
}

inline bool CloseEmp(const ConnectionInfo& info) {
    return CBrokerClient().Close(info);
}

/// What an EMP reports when it is up. The broker's answer.
inline std::string ReportStart(const std::string& strSerial, const std::string& strPortAndPid,
                               const std::string& strStatus = kRunning,
                               const std::string& strOption = "0001") {
    return CBrokerClient().Execute("", kReportStart, strSerial, strPortAndPid, strStatus,
                                   strOption);
}

/// What an EMP reports when it ends.
inline void ReportStop(const std::string& strEmp, const std::string& strPort,
                       const std::string& strType = "0") {
    CBrokerClient().Execute(kClient, kReportStop, strEmp, strPort, strType);
}

/// Gives a command to the EMP that serves on the port; "error" when it does not answer.
inline std::string Ask(const std::string& strPort, const std::string& strCmd,
                       const std::string& strArg3 = "") {
    std::string strAnswer = "error";
    RpcAddress address;
    address.strHost = "127.0.0.1";
    address.nPort = LeadingNumber(strPort);
    CallOnce<VokEmpClient>(
        address,
        [&](VokEmpClient& emp) { emp.Execute(strAnswer, kClient, strCmd, strArg3, "", "", ""); },
        [](const char*) {});
    return strAnswer;
}

/// What a client does first with the EMP that it got. Answers how many clients the EMP has now.
inline int Greet(const ConnectionInfo& info) {
    int nClients = -1;
    RpcAddress address;
    address.strHost = info.ip;
    address.nPort = LeadingNumber(info.empPort);
    CallOnce<VokEmpClient>(
        address,
        [&](VokEmpClient& emp) {
            nClients = emp.Open(info.clientPort, info.empName, kVersion, kApp);
        },
        [](const char*) {});
    return nClients;
}

inline void MakeFile(const std::string& strFile) {
    std::ofstream(strFile).flush();
}

/// A failed open, as the client sees it. `strIp` is empty when the open failed before the EMP was
/// found.
MATCHER_P(IsInvalid, strIp, "is the record of a failed open") {
    (void)result_listener;
    return arg.empName.empty() && arg.clientPort == "-1" && arg.empPort == "-1" &&
           arg.serial == 0 && arg.ip == strIp;
}

/// What the RPC library makes when the broker leaves the record alone.
MATCHER(IsUntouched, "is an empty record") {
    (void)result_listener;
    return arg == ConnectionInfo();
}

MATCHER(IsConnected, "is the record of a connection") {
    (void)result_listener;
    return !arg.empName.empty() && LeadingNumber(arg.empPort) > 0 && arg.serial > 0 &&
           arg.ip == "127.0.0.1";
}

class OpenCloseTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_Daemon.Start()) << m_Daemon.Log(); }

    void ExpectLine(int nLevel, const std::string& strFunction, const std::string& strMessage) {
        EXPECT_TRUE(m_Daemon.HasLine(nLevel, strFunction, strMessage))
            << nLevel << ' ' << strFunction << ": " << strMessage << '\n'
            << m_Daemon.Log();
    }
    void AwaitLine(int nLevel, const std::string& strFunction, const std::string& strMessage,
                   int nTimes = 1) {
        EXPECT_TRUE(m_Daemon.WaitForLine(nLevel, strFunction, strMessage, nTimes))
            << nLevel << ' ' << strFunction << ": " << strMessage << '\n'
            << m_Daemon.Log();
    }
    /// How often an open of the EMP found no record of it.
    int CountNew(const std::string& strEmp) const {
        return m_Daemon.CountLines(3, "OpenEmp", "Emp:[" + strEmp + "] is not in the m_EmpInfo.");
    }
    std::size_t CountProcesses(const std::string& strEmp) const {
        return ProcessesOf(CEmpInstaller::ProgramPath(strEmp)).size();
    }

    CDaemon m_Daemon;
};

}  // namespace vok::test
