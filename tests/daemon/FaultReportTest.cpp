// What the fault report of a failed open says, with more and more of a set's files there.
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;

void WriteFile(const std::string& strPath, const std::string& strText) {
    fs::create_directories(fs::path(strPath).parent_path());
    std::ofstream file{strPath};
    file << strText;
    ASSERT_TRUE(file.flush()) << strPath;
}

void InstallPolicy() {
    WriteFile("/opt/down/common/LogPolicyConfig.xml",
              "<LogPolicy><15_vok url=\"http://kpi.test/log\" queue_max=\"10\" expiration=\"60\" "
              "loglevel=\"2\"/></LogPolicy>\n");
}

/// Puts a file into /proc, which takes none by itself: everything else in it becomes a link to the
/// real one. For processes that are there already.
void InstallFaultInfo(const std::string& strText) {
    constexpr char kRealProc[] = "/run/proc";
    constexpr int kMostPids = 2000;  // the world is young
    fs::create_directories(kRealProc);
    ASSERT_EQ(::mount("/proc", kRealProc, nullptr, MS_BIND | MS_REC, nullptr), 0);
    ASSERT_EQ(::mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    for (const char* szName : {"self", "thread-self", "mounts", "filesystems", "sys", "devices"})
        fs::create_symlink(std::string(kRealProc) + '/' + szName, std::string("/proc/") + szName);
    for (int nPid = 1; nPid <= kMostPids; ++nPid) {
        const std::string strPid = '/' + std::to_string(nPid);
        fs::create_symlink(kRealProc + strPid, "/proc" + strPid);
    }
    WriteFile("/proc/kpi_fault_info_3rd", strText);
}

/// An open that fails as soon as the EMP has reported.
class FaultReport : public OpenCloseTest {
protected:
    void SetUp() override {
        OpenCloseTest::SetUp();
        CEmpInstaller::Preinstall("Faulty", CEmpBehaviour().Option(""));
    }

    void TearDown() override {
        fs::remove_all("/opt/down/common");
        if (!fs::exists("/proc/kpi_fault_info_3rd")) return;
        EXPECT_EQ(::umount2("/proc", MNT_DETACH), 0);
    }

    void FailAnOpen() {
        EXPECT_THAT(CBrokerClient().Open(kClient, "Faulty", "2.5", "tv.app"),
                    IsInvalid("127.0.0.1"));
        ExpectLine(4, "ReportLogToServer",
                   "Error with:[Faulty], Prepare report dev info to log server.");
        ExpectLine(3, "ReportLogToServer",
                   "Take time for operating ReportToLogServer for [0.100000] sec");
        ExpectLine(0, "OpenEmp", "[Completed] Report for Faulty to Log Server.");
    }

    void ExpectNoEvent() {
        EXPECT_THAT(m_Daemon.Log(), ::testing::Not(::testing::HasSubstr("KPI event")));
    }
};

TEST_F(FaultReport, WithoutAPolicyEndsBeforeTheLogger) {
    FailAnOpen();

    AwaitLine(0, "OnReportLogToServer", "Get attribute of [15_vok] failed.");
    EXPECT_FALSE(m_Daemon.HasLine(4, "OnReportLogToServer", "Prepare to destroy the logger task."));
    ExpectNoEvent();
}

TEST_F(FaultReport, WithoutFaultInformationHasNoEvent) {
    InstallPolicy();
    FailAnOpen();

    AwaitLine(4, "OnReportLogToServer", "Prepare to destroy the logger task.");
    ExpectLine(4, "OnReportLogToServer", "Log Server's url:[http://kpi.test/log].");
    ExpectLine(0, "OnReportLogToServer", "Error: /proc/kpi_fault_info_3rd Open Failed!!!");
    ExpectNoEvent();
}

TEST_F(FaultReport, TellsTheLogServer) {
    InstallPolicy();
    ASSERT_NO_FATAL_FAILURE(InstallFaultInfo("pid:1\nfault:2\n"));
    FailAnOpen();

    AwaitLine(4, "OnReportLogToServer", "Prepare to destroy the logger task.");
    const std::string strDescription =
        "{errtype=Faulty;empnm=2.5;empver=tv.app;vokver=5.100;thread=pid:1fault:2}";
    ExpectLine(3, "OnReportLogToServer", "Desc:[" + strDescription + "] of KPI log.");
    const std::string strLog = m_Daemon.Log();
    const std::size_t nEvent = strLog.find("KPI event service:[15_vok] url:[http://kpi.test/log] ");
    ASSERT_NE(nEvent, std::string::npos) << strLog;
    EXPECT_THAT(strLog.substr(nEvent, strLog.find('\n', nEvent) - nEvent),
                ::testing::AllOf(::testing::HasSubstr("category:[VOKERR] id:[EV001]"),
                                 ::testing::EndsWith("desc:[" + strDescription + "]")));
}

TEST_F(FaultReport, LeavesTheBrokerUnharmed) {
    InstallPolicy();
    FailAnOpen();
    AwaitLine(4, "OnReportLogToServer", "Prepare to destroy the logger task.");

    CEmpInstaller::Preinstall("Faulty");
    EXPECT_THAT(OpenEmp("Faulty"), IsConnected());
    EXPECT_TRUE(CDaemon::Await([&] { return !m_Daemon.HasThread("ReportToLogServ"); }));
}

}  // namespace
}  // namespace vok::test
