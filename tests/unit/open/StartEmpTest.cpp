#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "broker/Globals.h"
#include "open/ExecImage.h"
#include "open/StartEmp.h"
#include "platform/CUniqueFd.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CFakeLauncher.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kProgram[] = "/usr/bin/emps/empWeather/empWeather";

ForkEmpParams Params(const char* szPath = kProgram) {
    ForkEmpParams params;
    params.ARGV_path = szPath;
    CopyBounded(params.ARGV_empName, "Weather");
    params.ARGV_ticketSerial = 42;
    params.CbSrvPort = "40001";
    return params;
}

// ---- StartEmp ----

class StartEmpTest : public BrokerTest {
protected:
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (const std::string& strLine : LinesOf(m_Log, "StartEmp")) {
            // What else this process has open is not ours to say.
            if (strLine.find("close-on-exec") == std::string::npos) lines.push_back(strLine);
        }
        return lines;
    }

    bool Start(eEmpLocation location) {
        ForkEmpParams params = Params();
        CopyBounded(params.ARGV_groupingEmpName, "Group");
        return m_Broker.StartEmp("Weather", &params, location);
    }
};

TEST_F(StartEmpTest, WithoutParametersNothingStarts) {
    for (const int nLocation : {0, 2, 4, 5}) {
        m_Log.Clear();
        EXPECT_FALSE(m_Broker.StartEmp("Weather", nullptr, static_cast<eEmpLocation>(nLocation)));
        EXPECT_THAT(Lines(), ElementsAre("0 StartEmp failed, forkEmpParams is NULL!"));
    }
}

TEST_F(StartEmpTest, ExternalEmpIsForkedFromCopiesOfItsParameters) {
    m_Fake.files.Add(kProgram);
    {
        auto strPath = std::make_unique<std::string>(kProgram);
        auto params = std::make_unique<ForkEmpParams>(Params(strPath->c_str()));
        EXPECT_TRUE(m_Broker.StartEmp("Weather", params.get(), EMPLOCATION_EXTERNAL));
        strPath->assign(strPath->size(), '#');
    }  // all of it is gone, whether the thread has run or not

    m_Fake.processes.AwaitForks(1);
    const ForkCall call = m_Fake.processes.Forks()[0];
    EXPECT_EQ(call.strPath, kProgram);
    EXPECT_THAT(call.arguments, ElementsAre("Weather", "-DSINGLE_PROCESS", "42", "40001", "0", ""));
    EXPECT_TRUE(call.bExecute);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(StartEmpTest, ExternalEmpLeavesNoDescriptorOpenForItsProcess) {
    const CUniqueFd fd{::open("/dev/null", O_RDONLY)};  // as a library may have opened it
    const CUniqueFd closing{::open("/dev/null", O_RDONLY | O_CLOEXEC)};
    ASSERT_TRUE(fd.IsOpen() && closing.IsOpen());

    EXPECT_TRUE(Start(EMPLOCATION_EXTERNAL));

    EXPECT_EQ(::fcntl(fd.Get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    const auto line = [](int nFd) {
        return "4 debug] close-on-exec bit off [" + std::to_string(nFd) + "]";
    };
    EXPECT_THAT(LinesOf(m_Log, "StartEmp"), Contains(line(fd.Get())));
    EXPECT_THAT(LinesOf(m_Log, "StartEmp"), Not(Contains(line(closing.Get()))));
    m_Fake.processes.AwaitForks(1);
}

TEST_F(StartEmpTest, GroupingEmpWithoutAGroupFails) {
    EXPECT_FALSE(Start(EMPLOCATION_GROUPING));
    EXPECT_THAT(Lines(), ElementsAre("0 >>>>>>>>emp[Weather] is not in a grouping EMP"));
}

TEST_F(StartEmpTest, GroupThatDoesNotRunIsForked) {
    BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {"Weather"});

    EXPECT_TRUE(Start(EMPLOCATION_GROUPING));

    m_Fake.processes.AwaitForks(1);
    EXPECT_THAT(m_Fake.processes.Forks()[0].arguments,
                ElementsAre("Weather", "-DSINGLE_PROCESS", "42", "40001", "0", "Group"));
    EXPECT_THAT(LinesOf(m_Log, "StartEmp"),  // no sweep here
                ElementsAre("4 >>>>>>>>>emp is [Weather], Grouping EMP [Group]'s port is [N/A]",
                            "4 Grouping emp [Group]'s port is empty, process is not running, fork "
                            "this process"));
    EXPECT_FALSE(HasLinesOf(m_Log, "IsLauncherServerRunning"));
}

TEST_F(StartEmpTest, GroupThatDoesNotAnswerIsResetAndForked) {
    const CRefusedPort port;
    BrokerProbe::SetGroup(m_Broker, "Group", port.PortText(), {"Weather"});

    EXPECT_TRUE(Start(EMPLOCATION_GROUPING));

    m_Fake.processes.AwaitForks(1);
    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Group", "N/A"), ElementsAre("Weather"))));
    EXPECT_THAT(LinesOf(m_Log, "IsLauncherServerRunning"),
                ElementsAre(MatchesRegex("3 It seems something wrong with Server:\\[127.0.0.1," +
                                         port.PortText() + "\\], ErrCode:\\[.+\\]")));
    EXPECT_THAT(Lines(),
                ElementsAre("4 Maybe something wrong with [Group], reset the Map Info.",
                            "4 Launcher Server [Group] is running well.",  // always said
                            "4 >>>>>>>>>emp is [Weather], Grouping EMP [Group]'s port is [" +
                                port.PortText() + "]",
                            "4 Grouping emp [Group]'s port is empty, process is not running, fork "
                            "this process"));
}

TEST_F(StartEmpTest, GroupThatRunsIsAskedToOpen) {
    CFakeLauncher group;
    const std::string strPort = group.PortText();
    BrokerProbe::SetGroup(m_Broker, "Group", strPort, {"Weather"});

    EXPECT_TRUE(Start(EMPLOCATION_GROUPING));
    group.Answer(0);
    EXPECT_FALSE(Start(EMPLOCATION_GROUPING));

    const LauncherOpen open{"Weather", 42, "40001"};
    EXPECT_THAT(group.Opens(), ElementsAre(open, open));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Group", strPort), ElementsAre("Weather"))));
    std::vector<std::string> lines = Lines();
    ASSERT_THAT(lines, SizeIs(8));  // the same four, twice
    lines.resize(4);
    EXPECT_THAT(
        lines,
        ElementsAre("4 Launcher Server [Group] is running well.",
                    "4 >>>>>>>>>emp is [Weather], Grouping EMP [Group]'s port is [" + strPort + "]",
                    "4 EmpLauncher process is already running, send open function!",
                    "4 After GetGroupingEmpInfo, groupingEmpName[Group], groupingEMPPort[" +
                        strPort + "], empName[Weather]"));
}

TEST_F(StartEmpTest, GroupThatStopsMeanwhileFails) {
    CFakeLauncher group;
    BrokerProbe::SetGroup(m_Broker, "Group", group.PortText(), {"Weather"});
    m_Log.Once("EmpLauncher process is already running, send open function!",
               [&] { m_Broker.ConfirmGroupingEmpServer("Group", "N/A"); });

    EXPECT_FALSE(Start(EMPLOCATION_GROUPING));

    EXPECT_THAT(group.Opens(), IsEmpty());
    EXPECT_EQ(Lines().back(),
              "4 After GetGroupingEmpInfo, groupingEmpName[Group], groupingEMPPort[N/A], "
              "empName[Weather]");
}

TEST_F(StartEmpTest, RegisterEmpGoesToItsLauncher) {
    CFakeLauncher launcher;
    BrokerProbe::SetLauncher(m_Broker, "Launcher", launcher.PortText(), {"Weather"});

    EXPECT_TRUE(Start(EMPLOCATION_REGISTER));

    EXPECT_THAT(launcher.Opens(), ElementsAre(LauncherOpen{"Weather", 42, "40001"}));
    EXPECT_THAT(Lines(),
                ElementsAre("4 EMP is register emp, send open function to Register launcher!",
                            "4 After GetRegisterEMPInfo, RegisterEMPName[Launcher], "
                            "RegisterEMPPort[" +
                                launcher.PortText() + "], empName[Weather]"));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    launcher.Answer(0);
    EXPECT_FALSE(Start(EMPLOCATION_REGISTER));
}

TEST_F(StartEmpTest, RegisterEmpWhoseLauncherIsGoneFails) {
    const CRefusedPort port;
    BrokerProbe::SetLauncher(m_Broker, "Launcher", port.PortText(), {"Weather"});

    EXPECT_FALSE(Start(EMPLOCATION_REGISTER));

    EXPECT_THAT(LinesOf(m_Log, "SendOpenToEmpLauncher"),
                ElementsAre("4 Call EmpLauncher to start emp with name:Weather, cbSrvPath:40001, "
                            "launcherPort:" +
                                port.PortText(),
                            MatchesRegex("0 Transport Error : \\[.+\\]")));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
}

TEST_F(StartEmpTest, RegisterEmpWithoutALauncherPortFailsAtOnce) {
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "", {"Weather"});

    EXPECT_FALSE(Start(EMPLOCATION_REGISTER));

    EXPECT_FALSE(HasLinesOf(m_Log, "SendOpenToEmpLauncher"));
    EXPECT_THAT(Lines(),
                ElementsAre("4 EMP is register emp, send open function to Register launcher!",
                            "4 After GetRegisterEMPInfo, RegisterEMPName[Launcher], "
                            "RegisterEMPPort[], empName[Weather]",
                            "0 RegisterEMPPort is empty, RegisterEmp launcher is not running, "
                            "return false.RegisterEMPName[Launcher], RegisterEMPPort[], "
                            "empName[Weather]"));
}

TEST_F(StartEmpTest, RegisterEmpThatNobodyServesFailsAtOnce) {
    EXPECT_FALSE(Start(EMPLOCATION_REGISTER));
    EXPECT_EQ(Lines().back(),
              "0 RegisterEMPPort is empty, RegisterEmp launcher is not running, return "
              "false.RegisterEMPName[], RegisterEMPPort[], empName[Weather]");
}

TEST_F(StartEmpTest, EverythingElseGoesThroughTheLauncherProxyAndFails) {
    for (const int nLocation : {0, 1, 3, 6}) {
        SCOPED_TRACE(nLocation);
        m_Log.Clear();
        EXPECT_FALSE(Start(static_cast<eEmpLocation>(nLocation)));
        EXPECT_EQ(LinesOf(m_Log, "Open").at(0),
                  "4 Open call start with name:Weather, cbSrvPath:40001, launcherPort:, "
                  "ip:127.0.0.1");
    }
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
}

// ---- ForkEmp ----

class ForkEmpTest : public BrokerTest {
protected:
    /// Here and now instead of on a thread of its own.
    void Fork(const ForkEmpParams& params, const char* szLibraryPath = "LD_LIBRARY_PATH=/lib") {
        CBroker::ForkEmp(new OwnedForkEmpParams(params, szLibraryPath, m_Fake.Get()));
    }

    /// The lines of both of its functions but the first two, which are the same in every case.
    std::vector<std::string> FurtherLines() const {
        std::vector<std::string> lines;
        for (const LogRecord& record : m_Log.Records()) {
            if (record.Function() == "ForkEmp" || record.Function() == "get_first_line")
                lines.push_back(std::to_string(record.nLevel) + ' ' + record.Function() + ": " +
                                record.strMessage);
        }
        lines.erase(lines.begin(), lines.begin() + 2);
        return lines;
    }
};

TEST_F(ForkEmpTest, ProgramIsExecutedAndReaped) {
    m_Fake.files.Add(kProgram);
    m_Fake.processes.SetExitStatus(3 << 8);

    Fork(Params());

    EXPECT_EQ(ThreadName(), "VOK-B-ForkEmp");
    const std::vector<std::string> lines = LinesOf(m_Log, "ForkEmp");
    ASSERT_THAT(lines, SizeIs(5));
    EXPECT_EQ(lines[0], std::string("4 [") + kProgram + "] , ARGV: [Weather, 42, 0]");
    EXPECT_THAT(lines[1],
                MatchesRegex(std::string("4 execution : \\[") + kProgram +
                             "\\] ARGV\\[0\\]:\\[Weather\\] ARGV\\[1\\]:\\[-DSINGLE_PROCESS\\] "
                             "ARGV\\[2\\]:\\[42\\] ARGV\\[3\\]:\\[40001\\] ARGV\\[4\\]:\\[0\\] "
                             "ARGV\\[5\\]:\\[\\] envp\\[0x[0-9a-f]+\\] \n"));
    EXPECT_EQ(lines[2], "4 [PASSED] filtering script file.");
    EXPECT_EQ(lines[3], "4 WAITPID returns : [700001].status : [768], execve return :[0] ");
    EXPECT_EQ(lines[4], "4 WIFEXITED : [1] <- Non_zero is a normal termination. WEXITSTATUS : [3]");

    ASSERT_THAT(m_Fake.processes.Forks(), SizeIs(1));
    const ForkCall call = m_Fake.processes.Forks()[0];
    EXPECT_TRUE(call.bExecute);
    EXPECT_THAT(
        call.environment,
        ElementsAre("LD_LIBRARY_PATH=/lib", "GST_REGISTRY=/home/app/.gstreamer-0.10/registry.bin",
                    "GST_REGISTRY_1_0=/home/app/.gstreamer-1.0/registry.bin"));
    EXPECT_THAT(m_Fake.processes.Calls(), ElementsAre("AwaitChild 700001"));
}

TEST_F(ForkEmpTest, WithoutALibraryPathTheEnvironmentIsEmpty) {
    Fork(Params(), nullptr);
    EXPECT_THAT(m_Fake.processes.Forks().at(0).environment, IsEmpty());
}

TEST_F(ForkEmpTest, ProcessKilledByASignalIsNoNormalTermination) {
    m_Fake.files.Add(kProgram);
    m_Fake.processes.SetExitStatus(SIGKILL);

    Fork(Params());

    EXPECT_THAT(FurtherLines(),
                ElementsAre("4 ForkEmp: [PASSED] filtering script file.",
                            "4 ForkEmp: WAITPID returns : [700001].status : [9], execve return "
                            ":[0] ",
                            "4 ForkEmp: WIFEXITED : [0] <- Non_zero is a normal termination. "
                            "WEXITSTATUS : [0]"));
}

TEST_F(ForkEmpTest, ScriptIsRefusedWithoutBeingExecuted) {
    m_Fake.files.Add(kProgram, "#!/bin/sh -xefuv\nrm -rf /\n");

    Fork(Params());

    EXPECT_FALSE(m_Fake.processes.Forks().at(0).bExecute);
    EXPECT_THAT(FurtherLines(),
                ElementsAre("0 ForkEmp: [ERROR] Invalid EMP format:[#!/bin/sh -xefu]",
                            "4 ForkEmp: WAITPID returns : [700001].status : [0], execve return "
                            ":[0] ",
                            "4 ForkEmp: WIFEXITED : [1] <- Non_zero is a normal termination. "
                            "WEXITSTATUS : [0]"));
}

TEST_F(ForkEmpTest, OnlyTheVeryFirstBytesMakeAScript) {
    for (const char* szContent : {"", "#", "!#", " #!/bin/sh", "\n#!/bin/sh", "ELF #!"}) {
        SCOPED_TRACE(szContent);
        m_Log.Clear();
        m_Fake.files.Add(kProgram, szContent);
        Fork(Params());
        EXPECT_TRUE(m_Fake.processes.Forks().back().bExecute);
        EXPECT_EQ(FurtherLines()[0], "4 ForkEmp: [PASSED] filtering script file.");
    }
    m_Fake.files.Add(kProgram, "#!");
    Fork(Params());
    EXPECT_FALSE(m_Fake.processes.Forks().back().bExecute);
}

TEST_F(ForkEmpTest, UnreadableFileIsExecutedAndSaysItself) {
    m_Fake.processes.SetForkResult({0, 0, ENOENT});

    Fork(Params());

    EXPECT_TRUE(m_Fake.processes.Forks().at(0).bExecute);
    EXPECT_THAT(
        FurtherLines(),
        ElementsAre(std::string("0 get_first_line: Failed to open file:[") + kProgram + "].",
                    "4 ForkEmp: [PASSED] filtering script file.",
                    std::string("0 ForkEmp: execution:[") + kProgram +
                        "] is fail,error[777],errno[2]-[No such file or directory]-[No "
                        "such file or directory]",
                    "4 ForkEmp: WAITPID returns : [700001].status : [0], execve return "
                    ":[0] ",
                    "4 ForkEmp: WIFEXITED : [1] <- Non_zero is a normal termination. "
                    "WEXITSTATUS : [0]"));
}

TEST_F(ForkEmpTest, FailedForkEndsTheThread) {
    m_Fake.files.Add(kProgram);
    m_Fake.processes.SetForkResult({-1, EAGAIN, 0});

    Fork(Params());

    EXPECT_THAT(FurtherLines(), ElementsAre("4 ForkEmp: [PASSED] filtering script file.",
                                            "0 ForkEmp: fork error."));
    EXPECT_THAT(m_Fake.processes.Calls(), IsEmpty());
}

TEST_F(ForkEmpTest, TicketLearnsItsProcessAndIsNotKeptForIt) {
    m_Fake.files.Add(kProgram);
    ForkEmpParams params = Params();
    params.spTicket = boost::shared_ptr<Ticket>(new Ticket("-1"));

    Fork(params);

    EXPECT_EQ(params.spTicket->m_nForkedPid, 700001);
    EXPECT_EQ(params.spTicket.use_count(), 1);
}

TEST_F(ForkEmpTest, SerialOfSixDigitsArrivesCut) {
    ForkEmpParams params = Params();
    params.ARGV_ticketSerial = 123456;

    Fork(params);

    EXPECT_EQ(m_Fake.processes.Forks().at(0).arguments[2], "12345");
    EXPECT_EQ(LinesOf(m_Log, "ForkEmp")[0],
              std::string("4 [") + kProgram + "] , ARGV: [Weather, 123456, 0]");
}

// ---- ExitEmpProc ----

class ExitEmpProcTest : public BrokerTest {
protected:
    /// Here and now instead of on a thread of its own.
    void* Exit(bool bGrouping = false) {
        auto* const pBlock = new ExitEmpBlock;
        pBlock->strEmp = "Weather";
        pBlock->strPort = "40123";
        pBlock->bGrouping = bGrouping;
        pBlock->process = {777, 4711};
        pBlock->pBroker = &m_Broker;
        return CBroker::ExitEmpProc(pBlock);
    }
};

TEST_F(ExitEmpProcTest, NullBlockIsRefused) {
    EXPECT_EQ(CBroker::ExitEmpProc(nullptr), nullptr);
    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ", "0 NULL Param for [ExitEmpProc]."));
}

TEST_F(ExitEmpProcTest, BlockWithoutABrokerIsRefusedAndFreed) {
    EXPECT_EQ(CBroker::ExitEmpProc(new ExitEmpBlock), nullptr);
    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ", "0 NULL Param for [ExitEmpProc]."));
}

TEST_F(ExitEmpProcTest, ProcessIsTerminatedAndAwaited) {
    EXPECT_EQ(Exit(), nullptr);

    EXPECT_THAT(m_Fake.processes.Calls(), ElementsAre("Signal 777/4711 15", "AwaitEnd 777 2000"));
    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ",
                            "0 ### Emit SIGTERM to EMP:[Weather] pid:[777] ###",
                            "4 ==Leave ExitEmpProc==. "));
    EXPECT_FALSE(HasLinesOf(m_Log, "UnmoutEMP"));
}

TEST_F(ExitEmpProcTest, MountedImageIsUnmountedAfterTheProcessHasEnded) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);
    std::vector<std::string> callsBefore;
    m_Fake.mounter.OnUmount([&] { callsBefore = m_Fake.processes.Calls(); });

    Exit();

    EXPECT_THAT(callsBefore, ElementsAre("Signal 777/4711 15", "AwaitEnd 777 2000"));
    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre("Umount /opt/down/emps/empWeather"));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ",
                            "0 ### Emit SIGTERM to EMP:[Weather] pid:[777] ###",
                            "4 ==Leave ExitEmpProc==. "));
}

TEST_F(ExitEmpProcTest, UsedImageStays) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 2);

    Exit();

    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", 2)));
}

TEST_F(ExitEmpProcTest, ImageThatCannotBeUnmountedIsTold) {
    m_Fake.AddMounted("Weather");
    m_Fake.mounter.FailUmounts(1);
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);

    Exit();

    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ",
                            "0 ### Emit SIGTERM to EMP:[Weather] pid:[777] ###",
                            "0 Umount EMP:[Weather] failed.", "4 ==Leave ExitEmpProc==. "));
}

TEST_F(ExitEmpProcTest, GroupIsMarkedAsNotRunningFirst) {
    BrokerProbe::SetGroup(m_Broker, "Weather", "40123", {"Clock"});

    Exit(true);

    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Weather", "N/A"), ElementsAre("Clock"))));
    EXPECT_THAT(LinesOf(m_Log, "ExitEmpProc"),
                ElementsAre("4 ==Enter ExitEmpProc==. ", "4 Reset Grouping EMP Port.",
                            "0 ### Emit SIGTERM to EMP:[Weather] pid:[777] ###",
                            "4 ==Leave ExitEmpProc==. "));
}

TEST_F(ExitEmpProcTest, ProcessThatIsAnotherByNowIsSpared) {
    m_Fake.AddMounted("Weather");
    m_Fake.processes.RefuseSignals();
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);

    Exit();

    EXPECT_THAT(m_Fake.processes.Calls(), ElementsAre("Signal 777/4711 15"));  // none is awaited
    EXPECT_THAT(m_Fake.mounter.Calls(), SizeIs(1));
    EXPECT_THAT(
        LinesOf(m_Log, "ExitEmpProc"),
        ElementsAre("4 ==Enter ExitEmpProc==. ",
                    "0 ### Emit SIGTERM to EMP:[Weather] pid:[777] ###",
                    "0 No signal was sent: [777] is not known to be the process that reported "
                    "as EMP:[Weather].",
                    "4 ==Leave ExitEmpProc==. "));
}

}  // namespace
}  // namespace vok
