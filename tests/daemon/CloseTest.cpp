// Closing: what the EMP is told, and how the tables follow its answer.
#include <csignal>
#include <future>

#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {
namespace {

class Close : public OpenCloseTest {
protected:
    /// Ends the EMP without telling the broker, as a crash does.
    void Crash(const ConnectionInfo& info) {
        const std::string strPid = Ask(info.empPort, "Pid");
        ASSERT_EQ(::kill(std::stoi(strPid), SIGKILL), 0);
        AwaitLine(4, "ForkEmp",
                  "WAITPID returns : [" + strPid + "].status : [9], execve return :[0] ");
    }
};

ConnectionInfo Connection(const std::string& strEmp, const std::string& strClient,
                          const std::string& strPort) {
    ConnectionInfo info;
    info.empName = strEmp;
    info.clientPort = strClient;
    info.empPort = strPort;
    return info;
}

TEST_F(Close, OfAnUnknownEmpFails) {
    EXPECT_FALSE(CloseEmp(Connection("Nowhere", kClient, "4000")));
    ExpectLine(0, "CloseEmp", "[Nowhere] Unknown-type EMP, Maybe it had already been closed.");
}

TEST_F(Close, OfAnEmpThatHasGoneSucceeds) {
    CEmpInstaller::Preinstall("Weather");
    EXPECT_TRUE(CloseEmp(Connection("Weather", kClient, "4000")));
    ExpectLine(0, "CheckStatus", "[Weather]'s status is EMP_NOT_FOUND - return error");
    ExpectLine(4, "CloseEmp",
               "emp:Weather status: EMP_NOT_FOUND, Maybe it was closed by other client.");
}

TEST_F(Close, OfTheLastClientKeepsTheEntryAndTheRecord) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    ASSERT_EQ(Greet(info), 1);

    EXPECT_TRUE(CloseEmp(info));
    ExpectLine(
        4, "CloseEmp",
        "RPC Request:[CEmpAppBase::Close], empPort:[" + info.empPort + "], clientport[40001]");
    EXPECT_EQ(Ask(info.empPort, "Clients"), "");

    const ConnectionInfo again = OpenEmp("Weather", kOtherClient);
    EXPECT_EQ(again.empPort, info.empPort) << "the server is still connected to nobody";
    EXPECT_EQ(CountNew("Weather"), 1);
}

TEST_F(Close, OfOneOfTwoClientsLeavesTheOther) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo first = OpenEmp("Weather");
    const ConnectionInfo second = OpenEmp("Weather", kOtherClient);
    ASSERT_EQ(Greet(first), 1);
    ASSERT_EQ(Greet(second), 2);

    EXPECT_TRUE(CloseEmp(first));
    ExpectLine(1, "CloseEmp", "EMP:[Weather] ReferenceCounter:[1]");
    EXPECT_EQ(Ask(first.empPort, "Clients"), kOtherClient);

    EXPECT_TRUE(CloseEmp(second));
    EXPECT_EQ(m_Daemon.CountLines(1, "CloseEmp", "EMP:[Weather] ReferenceCounter:[1]"), 1);
    EXPECT_EQ(Ask(first.empPort, "Clients"), "");
}

TEST_F(Close, TwiceOnlyMissesTheConnection) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    ASSERT_TRUE(CloseEmp(info));
    EXPECT_TRUE(CloseEmp(info));
    ExpectLine(0, "RemoveClientPortFromConnDB",
               "the client:[40001] to be removed isn't in the DB.");
}

TEST_F(Close, ThatFailsForgetsASingleton) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Option("0001"));
    const ConnectionInfo info = OpenEmp("Weather");
    Crash(info);

    EXPECT_FALSE(CloseEmp(info));
    ExpectLine(0, "CloseEmp", "Error!! EMP[Weather] ReferenceCounter[-1] ");

    const ConnectionInfo next = OpenEmp("Weather");
    EXPECT_THAT(next, IsConnected());
    EXPECT_NE(Ask(next.empPort, "Pid"), "error");
    EXPECT_EQ(CountNew("Weather"), 2);
}

TEST_F(Close, ThatFailsDropsOnlyItsOwnClientOfASingleton) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Option("0001").AnswersClose(-5));
    const ConnectionInfo first = OpenEmp("Weather");
    const ConnectionInfo second = OpenEmp("Weather", kOtherClient);
    EXPECT_FALSE(CloseEmp(first));
    ExpectLine(0, "CloseEmp", "Error!! EMP[Weather] ReferenceCounter[-5] ");

    EXPECT_TRUE(CloseEmp(second)) << "there is no record any more: the EMP counts as gone";
    EXPECT_EQ(CountNew("Weather"), 1);
}

TEST_F(Close, ThatFailsKeepsTheRecordOfOthers) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Option("0002"));
    const ConnectionInfo info = OpenEmp("Weather");
    Crash(info);

    EXPECT_FALSE(CloseEmp(info));
    EXPECT_THAT(OpenEmp("Weather"), IsConnected());
    ExpectLine(3, "OpenEmp", "strOption:[0002] ");
    EXPECT_EQ(CountNew("Weather"), 1);
}

TEST_F(Close, WaitsForAnOpenInProgress) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().ReportsWhenExists("/tmp/go"));
    auto open = std::async(std::launch::async, [] { return OpenEmp("Weather"); });
    AwaitLine(3, "OpenEmp", "Emp:[Weather] is not in the m_EmpInfo.");
    auto close = std::async(std::launch::async,
                            [] { return CloseEmp(Connection("Weather", kOtherClient, "1")); });
    AwaitLine(4, "CheckStatus", "[Weather] Wait for status[1] change");
    MakeFile("/tmp/go");

    EXPECT_THAT(open.get(), IsConnected());
    EXPECT_FALSE(close.get()) << "nobody serves on port 1";
    ExpectLine(0, "CloseEmp", "Error!! EMP[Weather] ReferenceCounter[-1] ");
}

TEST_F(Close, NamesTheThreadAfterEmpAndPorts) {
    struct {
        const char* szEmp;
        const char* szClient;
        const char* szPort;
        const char* szLine;
    } const cases[] = {
        {"abc", "40001", "40123", "ThreadName:[B-C-abc0123] len:[11]"},
        {"abcdefghij", "40067", "40189", "ThreadName:[B-C-abcdefg6789] len:[15]"},
        // The end of a shorter port ends the name.
        {"four", "4009", "40123", "ThreadName:[B-C-four9] len:[9]"},
        {"three", "400", "40123", "ThreadName:[B-C-three] len:[9]"},
        {"emps", "40001", "4567", "ThreadName:[B-C-emps017] len:[11]"},
        {"long", "123456789012", "40123", "ThreadName:[B-C-long4523] len:[12]"},
    };
    for (const auto& name : cases) {
        EXPECT_FALSE(CloseEmp(Connection(name.szEmp, name.szClient, name.szPort)));
        ExpectLine(4, "CloseEmp", name.szLine);
    }
}

// ---- With an EMP whose start has failed
// ------------------------------------------------------------

class SlowClose : public Close {};

TEST_F(SlowClose, IsRefusedAfterAFailedStart) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Option("0002"));
    const ConnectionInfo first = OpenEmp("Weather");
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Silent());
    ASSERT_THAT(OpenEmp("Weather"), IsInvalid("127.0.0.1"));
    ExpectLine(0, "OpenEmp",
               "UNEXPECTED ERROR:[An exception occured in waiting] OCCURED. EmpName:[Weather] "
               "bIsNew:[0].");

    EXPECT_FALSE(CloseEmp(first));
    ExpectLine(0, "CloseEmp", "[Weather] status[3] is incorrect");

    CEmpInstaller::Preinstall("Weather");
    EXPECT_THAT(OpenEmp("Weather"), IsConnected()) << "opens go on";
    EXPECT_EQ(CountNew("Weather"), 1);
    EXPECT_TRUE(CloseEmp(first));
}

}  // namespace
}  // namespace vok::test
