// What an EMP is started with, and what is not started at all.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <memory>
#include <optional>
#include <vector>

#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;

constexpr char kRecord[] = "/tmp/start-record";
constexpr char kGst[] = "GST_REGISTRY=/home/app/.gstreamer-0.10/registry.bin";
constexpr char kGst1[] = "GST_REGISTRY_1_0=/home/app/.gstreamer-1.0/registry.bin";

/// Opens the EMP, which writes down its start.
StartRecord OpenAndRead(const std::string& strEmp, const std::string& strClient = kClient) {
    CEmpInstaller::Preinstall(strEmp, CEmpBehaviour().Records(kRecord));
    EXPECT_THAT(OpenEmp(strEmp, strClient), IsConnected());
    return ReadStartRecord(kRecord);
}

class Start : public OpenCloseTest {};

// ---- Arguments
// ------------------------------------------------------------------------------------

TEST_F(Start, HandsOverTheArguments) {
    EXPECT_THAT(OpenAndRead("Weather").arguments,
                ElementsAre("Weather", "-DSINGLE_PROCESS", "2", "40001", "0", ""));
}

TEST_F(Start, CutsALongName) {
    for (const std::size_t nLength : {47, 48, 49}) {
        const std::string strEmp(nLength, 'n');
        ::unlink(kRecord);
        EXPECT_EQ(OpenAndRead(strEmp).arguments.at(0), strEmp.substr(0, 47)) << nLength;
    }
}

TEST_F(Start, CutsALongClientPort) {
    for (const std::size_t nLength : {108, 109, 300}) {
        const std::string strClient(nLength, '/');
        CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Option("0002").Records(kRecord));
        ::unlink(kRecord);
        const ConnectionInfo info = OpenEmp("Weather", strClient);
        EXPECT_EQ(info.clientPort, strClient) << "the connection has all of it";
        EXPECT_EQ(ReadStartRecord(kRecord).arguments.at(3), strClient.substr(0, 108)) << nLength;
    }
}

// ---- Environment
// ----------------------------------------------------------------------------------

struct LibraryPathCase {
    const char* szName;
    std::optional<std::string> path;
    std::vector<std::string> expected;
};
void PrintTo(const LibraryPathCase& testCase, std::ostream* pStream) {
    *pStream << testCase.szName;
}

constexpr std::size_t kName = sizeof "LD_LIBRARY_PATH=" - 1;

class StartEnvironment : public ::testing::TestWithParam<LibraryPathCase> {};

TEST_P(StartEnvironment, IsLibraryPathAndRegistries) {
    CDaemon::Options options;
    options.environment["LD_LIBRARY_PATH"] = GetParam().path;
    options.environment["SECRET"] = "of the daemon";
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start(options)) << daemon.Log();

    EXPECT_EQ(OpenAndRead("Weather").environment, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Start, StartEnvironment,
    ::testing::Values(
        LibraryPathCase{
            "LibraryPathSet", "/first:/second", {"LD_LIBRARY_PATH=/first:/second", kGst, kGst1}},
        LibraryPathCase{"LibraryPathEmpty", "", {"LD_LIBRARY_PATH=", kGst, kGst1}},
        LibraryPathCase{"LibraryPathUnset", std::nullopt, {"LD_LIBRARY_PATH=", kGst, kGst1}},
        LibraryPathCase{"LongestLibraryPath",
                        std::string(1203 - kName, 'p'),
                        {"LD_LIBRARY_PATH=" + std::string(1203 - kName, 'p'), kGst, kGst1}},
        // Without its first entry there is no environment at all.
        LibraryPathCase{"LibraryPathTooLong", std::string(1204 - kName, 'p'), {}}),
    [](const auto& info) { return info.param.szName; });

// ---- Signals, descriptors, limits
// -----------------------------------------------------------------

TEST_F(Start, LeavesNoSignalBlockedOrIgnored) {
    const StartRecord record = OpenAndRead("Weather");
    EXPECT_EQ(record.strBlockedSignals, "0000000000000000");
    EXPECT_EQ(record.strIgnoredSignals, "0000000000000000");
}

TEST_F(Start, HandsOverStandardDescriptorsOnly) {
    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int i = 0; i < 30; ++i) {
        clients.push_back(std::make_unique<CBrokerClient>());
        EXPECT_EQ(clients.back()->Version(), "5.100") << "it is connected";
    }
    EXPECT_THAT(OpenAndRead("Weather").descriptors, ElementsAre(0, 1, 2));
}

TEST(StartLimit, IsTheOneThatTheDaemonWasStartedWith) {
    CDaemon::Options options;
    options.limits[RLIMIT_NOFILE] = {300, 700};
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start(options)) << daemon.Log();
    EXPECT_EQ(OpenAndRead("Weather").strDescriptorLimit, "300 700");
}

TEST(StartSweep, HandsOverNothingThatTheDaemonInherited) {
    CDaemon::Options options;
    options.descriptors = {50, 77};
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start(options)) << daemon.Log();
    ASSERT_THAT(daemon.OpenDescriptors(), IsSupersetOf({50, 77}));

    for (const char* const szEmp : {"First", "Second"}) {
        ::unlink(kRecord);
        EXPECT_THAT(OpenAndRead(szEmp).descriptors, ElementsAre(0, 1, 2));
        // Once: from then on they have the bit.
        for (const char* const szFd : {"50", "77"})
            EXPECT_EQ(daemon.CountLines(4, "StartEmp",
                                        "debug] close-on-exec bit off [" + std::string(szFd) + "]"),
                      1);
    }
    int nSwept = 0;
    for (const DaemonLogLine& line : daemon.LogLines())
        nSwept += line.strMessage.rfind("debug] close-on-exec", 0) == 0 ? 1 : 0;
    EXPECT_EQ(nSwept, 2) << "the broker's own have it from birth";
}

// ---- The process's end
// ----------------------------------------------------------------------------

TEST_F(Start, ReapsTheProcess) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    EXPECT_TRUE(m_Daemon.HasThread("VOK-B-ForkEmp"));
    const std::string strPid = Ask(info.empPort, "Pid");

    ASSERT_EQ(Ask(info.empPort, "ReportStop", "0"), "");
    AwaitLine(4, "ForkEmp", "WAITPID returns : [" + strPid + "].status : [0], execve return :[0] ");
    AwaitLine(4, "ForkEmp",
              "WIFEXITED : [1] <- Non_zero is a normal termination. WEXITSTATUS : [0]");
    EXPECT_TRUE(CDaemon::Await([&] { return !m_Daemon.HasThread("VOK-B-ForkEmp"); }));
}

TEST_F(Start, ReapsAKilledProcess) {
    CEmpInstaller::Preinstall("Weather");
    const std::string strPid = Ask(OpenEmp("Weather").empPort, "Pid");
    ASSERT_EQ(::kill(std::stoi(strPid), SIGKILL), 0);
    AwaitLine(4, "ForkEmp", "WAITPID returns : [" + strPid + "].status : [9], execve return :[0] ");
    AwaitLine(4, "ForkEmp",
              "WIFEXITED : [0] <- Non_zero is a normal termination. WEXITSTATUS : [0]");
}

// ---- What never reports
// ---------------------------------------------------------------------------

class SlowStart : public OpenCloseTest {
protected:
    void ExpectTimeout(const std::string& strEmp) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_THAT(OpenEmp(strEmp), IsInvalid("127.0.0.1"));
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(took, std::chrono::milliseconds(9900));
        EXPECT_LT(took, std::chrono::seconds(20));
        ExpectLine(0, "OpenEmp",
                   "UNEXPECTED ERROR:[An exception occured in waiting] OCCURED. EmpName:[" +
                       strEmp + "] bIsNew:[1].");
    }
};

TEST_F(SlowStart, OfASilentEmpIsUndone) {
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().Silent());
    ExpectTimeout("Weather");
    ExpectLine(0, "OpenEmp", "[Look] 10s past, launch Emp:[Weather,2] timeout, rc:[110]");
    ExpectLine(0, "OpenEmp", "[Fail] Open emp:[Weather], Prepare exception handling.");
    ExpectLine(0, "OpenEmp", "[Completed] Report for Weather to Log Server.");

    EXPECT_EQ(ReportStart("2", "4000|4242"), "ConfirmComplete") << "too late";
    ExpectLine(0, "ConfirmEMPServer",
               "ticket isn't valid. port:[4000]. Broker do not wake condition up");

    CEmpInstaller::Preinstall("Weather");
    EXPECT_THAT(OpenEmp("Weather"), IsConnected());
    EXPECT_EQ(CountNew("Weather"), 2);
}

// All at once, as each takes 10 seconds.
TEST_F(SlowStart, OfWhatCannotRunTimesOutAndSaysWhy) {
    const std::string strLong(50, 'n');  // its path has two characters too many
    CEmpInstaller::Preinstall(strLong);
    CEmpInstaller::Preinstall("Dying", CEmpBehaviour().With("exit", "now"));
    CEmpInstaller::PreinstallFile("Script", "#!/bin/sh -e -x -u -v\nexit 0\n");
    CEmpInstaller::PreinstallFile("NotExecutable",
                                  "\x7f"
                                  "ELF",
                                  0644);
    CEmpInstaller::PreinstallFile("Text", "neither a script nor a program\n");
    std::string strForeign(64, '\0');  // the header of a program for another machine
    strForeign.replace(0, 20,
                       std::string("\x7f"
                                   "ELF\x02\x01\x01\0\0\0\0\0\0\0\0\0\x02\0\xf3\x7f",
                                   20));
    CEmpInstaller::PreinstallFile("Foreign", strForeign);

    std::vector<std::future<void>> opens;
    for (const std::string& strEmp :
         {strLong, std::string("Dying"), std::string("Script"), std::string("NotExecutable"),
          std::string("Text"), std::string("Foreign")})
        opens.push_back(std::async(std::launch::async, [this, strEmp] { ExpectTimeout(strEmp); }));
    for (auto& open : opens) open.get();

    const auto failed = [](const std::string& strPath, int nErrno, const std::string& strText) {
        return "execution:[" + strPath + "] is fail,error[777],errno[" + std::to_string(nErrno) +
               "]-[" + strText + "]-[" + strText + "]";
    };
    const std::string strCut = CEmpInstaller::ProgramPath(strLong).substr(0, 119);
    ExpectLine(0, "get_first_line", "Failed to open file:[" + strCut + "].");
    ExpectLine(0, "ForkEmp", failed(strCut, ENOENT, "No such file or directory"));
    ExpectLine(0, "ForkEmp", "[ERROR] Invalid EMP format:[#!/bin/sh -e -x]");
    ExpectLine(0, "ForkEmp",
               failed(CEmpInstaller::ProgramPath("NotExecutable"), EACCES, "Permission denied"));
    ExpectLine(0, "ForkEmp",
               failed(CEmpInstaller::ProgramPath("Text"), ENOEXEC, "Exec format error"));
    ExpectLine(0, "ForkEmp",
               failed(CEmpInstaller::ProgramPath("Foreign"), ENOEXEC, "Exec format error"));
    EXPECT_EQ(m_Daemon.CountLines(4, "ForkEmp", "[PASSED] filtering script file."), 5);
    for (const auto& line : m_Daemon.LogLines())
        EXPECT_EQ(line.strMessage.find("execution:[" + CEmpInstaller::ProgramPath("Script")),
                  std::string::npos);
    EXPECT_TRUE(ProcessesOf(CEmpInstaller::ProgramPath("Dying")).empty());
}

}  // namespace
}  // namespace vok::test
