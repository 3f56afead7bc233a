// Grouping processes: the first open of one of their EMPs starts them, the others go to them.
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "tests/daemon/LauncherTest.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kGroup[] = "Group";
constexpr char kProgram[] = "example-grouping-emp";

/// What makes an EMP a grouping process. Read when the broker starts.
void Configure(const fs::path& folder) {
    fs::create_directories(folder);
    std::ofstream(folder / "empGroup.xml")
        << "<Emp><Version>1.0</Version><GroupingEmps><Name>First</Name><Name>Second</Name>"
           "</GroupingEmps></Emp>\n"
        << std::flush;
}

/// With two EMPs, First and Second.
class GroupingBase : public LauncherTest {
protected:
    static std::vector<std::string> Groups() { return Texts(CAdminClient().GetState().groups); }
    /// The port that the broker knows of the grouping process.
    static std::string GroupPort() { return CAdminClient().GetState().groups.at(0).port; }

    void ExpectProcesses(std::size_t nProcesses) {
        EXPECT_EQ(ProcessesOf(m_strProgram).size(), nProcesses);
    }
    /// Waits until the broker has carried out the report of an EMP's stop, which the EMP sends by
    /// itself after its last client.
    void AwaitStopReport(const ConnectionInfo& info) {
        AwaitLine(4, "Execute",
                  "[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[" + info.empName + "], C|S:[" +
                      info.clientPort + "|" + info.empPort + "], Type:[1].");
    }
    void ExpectForked(int nTimes) {
        EXPECT_EQ(m_Daemon.CountLines(4, "StartEmp",
                                      "Grouping emp [Group]'s port is empty, process is not "
                                      "running, fork this process"),
                  nTimes);
    }

    std::string m_strProgram;
};

/// The grouping process came with the set.
class Grouping : public GroupingBase {
protected:
    void SetUp() override {
        CEmpInstaller::PreinstallCopy(kGroup, kProgram);
        m_strProgram = CEmpInstaller::ProgramPath(kGroup);
        Configure(fs::path(m_strProgram).parent_path());
        LauncherTest::SetUp();
    }

    /// As a crash does.
    void KillProcess() {
        const std::vector<int> pids = ProcessesOf(m_strProgram);
        ASSERT_EQ(pids.size(), 1u);
        ASSERT_EQ(::kill(pids[0], SIGKILL), 0);
        AwaitLine(4, "ForkEmp",
                  "WAITPID returns : [" + std::to_string(pids[0]) +
                      "].status : [9], execve return :[0] ");
    }
};

TEST_F(Grouping, IsKnownFromItsConfiguration) {
    EXPECT_THAT(Groups(), ElementsAre("Group|N/A|First|Second"));
    ExpectLine(1, "InsertGroupingEMP", "Grouping EMP [Group|N/A] hosts [2] EMPs.");
    ExpectProcesses(0);
}

TEST_F(Grouping, FirstOpenForksTheProcess) {
    const ConnectionInfo info = OpenEmp("First");
    ASSERT_THAT(info, IsConnected());
    EXPECT_EQ(Greet(info), 1);
    ExpectProcesses(1);
    EXPECT_THAT(Groups(), ElementsAre("Group|" + GroupPort() + "|First|Second"));
    EXPECT_NE(GroupPort(), info.empPort);
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(info)));

    ExpectLine(4, "WhereIsEMP", "Grouping EMP:[First].");
    ExpectLine(4, "GetGroupingEMPInfo", ">>>>>>>>Find [First]'s group name, Current Map size:[1].");
    ExpectLine(4, "GetGroupingEMPInfo", ">>Found it, it's group name:[Group], port:[N/A].");
    ExpectLine(4, "OpenEmp", "EMP Location is EMPLOCATION_GROUPING, GroupingEmpName is Group");
    EXPECT_THAT(LinesOf("StartEmp"),
                ElementsAre("4 >>>>>>>>>emp is [First], Grouping EMP [Group]'s port is [N/A]",
                            "4 Grouping emp [Group]'s port is empty, process is not running, fork "
                            "this process"));
    EXPECT_THAT(LinesOf("ConfirmGroupingEmpServer"),
                ElementsAre("4 >>>>>>>>Enter ConfirmGroupingEmpServer[Group] [" + GroupPort() +
                                "], map size is [1]",
                            "4 After confirm Grouping EMP port, map size is[1] "));
}

TEST_F(Grouping, SecondEmpComesThroughTheLauncher) {
    const ConnectionInfo first = OpenEmp("First");
    const std::size_t nLines = LinesOf("StartEmp").size();
    const ConnectionInfo second = OpenEmp("Second", kOtherClient);
    ASSERT_THAT(second, IsConnected());
    EXPECT_EQ(Greet(second), 1);
    EXPECT_NE(second.empPort, first.empPort);
    ExpectProcesses(1);
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(first), ConnectionText(second)));

    const std::string strPort = GroupPort();
    std::vector<std::string> lines = LinesOf("StartEmp");
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(nLines));
    EXPECT_THAT(
        lines,
        ElementsAre("4 Launcher Server [Group] is running well.",
                    "4 >>>>>>>>>emp is [Second], Grouping EMP [Group]'s port is [" + strPort + "]",
                    "4 EmpLauncher process is already running, send open function!",
                    "4 After GetGroupingEmpInfo, groupingEmpName[Group], groupingEMPPort[" +
                        strPort + "], empName[Second]"));
    EXPECT_THAT(LinesOf("SendOpenToEmpLauncher"),
                ElementsAre("4 Call EmpLauncher to start emp with name:Second, cbSrvPath:40002, "
                            "launcherPort:" +
                                strPort,
                            "4 Before send open to launcher", "4 after send open to launcher",
                            "4 Open call end"));
}

TEST_F(Grouping, SharesAnEmpThatRuns) {
    const ConnectionInfo first = OpenEmp("First");
    EXPECT_EQ(OpenEmp("First", kOtherClient).empPort, first.empPort);
    EXPECT_THAT(LinesOf("SendOpenToEmpLauncher"), IsEmpty());
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(first) + '|' + kOtherClient));
}

TEST_F(Grouping, KilledProcessIsFoundDeadAndForkedAnew) {
    const ConnectionInfo first = OpenEmp("First");
    const std::string strFormerPort = GroupPort();
    KillProcess();

    EXPECT_THAT(OpenEmp("Second"), IsConnected());
    ExpectLine(4, "StartEmp", "Maybe something wrong with [Group], reset the Map Info.");
    ExpectLine(4, "StartEmp", "Launcher Server [Group] is running well.");
    ExpectLine(4, "StartEmp",
               ">>>>>>>>>emp is [Second], Grouping EMP [Group]'s port is [" + strFormerPort + "]");
    ExpectLine(4, "ConfirmGroupingEmpServer",
               ">>>>>>>>Enter ConfirmGroupingEmpServer[Group] [N/A], map size is [1]");
    ExpectForked(2);
    ExpectProcesses(1);

    EXPECT_FALSE(CloseEmp(first)) << "it died with the process";
    const ConnectionInfo again = OpenEmp("First");
    EXPECT_THAT(again, IsConnected());
    EXPECT_EQ(Ask(again.empPort, "Ping"), "1");
    ExpectForked(2);
    ExpectProcesses(1);
}

TEST_F(Grouping, PreinstalledProcessOutlivesItsLastClient) {
    const ConnectionInfo info = OpenEmp("First");
    ASSERT_EQ(Greet(info), 1);
    const std::string strPort = GroupPort();
    EXPECT_TRUE(CloseEmp(info));
    AwaitStopReport(info);
    AwaitLine(4, "Execute", "[Grouping Emp] | name:[First], group:[Group].");
    AwaitLine(0, "Execute", "Grouping EMP [Group] is not in the map, return.");
    EXPECT_THAT(KnownEmps(), IsEmpty());
    EXPECT_THAT(Connections(), IsEmpty());
    EXPECT_EQ(GroupPort(), strPort);

    EXPECT_EQ(OpenEmp("First").empPort, info.empPort) << "its server still runs";
    EXPECT_EQ(CountNew("First"), 2);
    ExpectForked(1);
    ExpectProcesses(1);
}

/// The grouping process comes as an image.
class GroupingImage : public GroupingBase {
protected:
    void SetUp() override {
        std::string strReason;
        if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
        CEmpInstaller::InstallImageCopy(kGroup, kProgram);
        m_strProgram = CEmpInstaller::MountPoint(kGroup) + "/emp" + kGroup;
        Configure(CEmpInstaller::MountPoint(kGroup));  // below the mount
        LauncherTest::SetUp();
    }

    static bool IsGroupMounted() { return IsMounted(CEmpInstaller::MountPoint(kGroup)); }
    /// How many opens rely on the image; -1: it is not counted.
    static int MountCount() {
        for (const admin::MountState& mount : CAdminClient().GetState().mounts)
            if (mount.image == kGroup) return mount.count;
        return -1;
    }
};

TEST_F(GroupingImage, FirstOpenMountsAndForks) {
    ASSERT_FALSE(IsGroupMounted());
    const ConnectionInfo info = OpenEmp("First");
    ASSERT_THAT(info, IsConnected());
    EXPECT_TRUE(IsGroupMounted());
    EXPECT_EQ(MountCount(), 1);
    ExpectLine(4, "OpenEmp", "EMP COUNT: It's first time to open [Group] EMP.");
    ExpectForked(1);
    ExpectProcesses(1);

    EXPECT_THAT(OpenEmp("Second"), IsConnected());
    EXPECT_EQ(MountCount(), 2);
    ExpectForked(1);
}

TEST_F(GroupingImage, StopOfOneEmpLeavesTheProcessToTheOther) {
    const ConnectionInfo first = OpenEmp("First");
    const ConnectionInfo second = OpenEmp("Second");
    ASSERT_EQ(Greet(second), 1);
    EXPECT_TRUE(CloseEmp(first));
    ExpectLine(4, "CloseEmp", " EMP[First] belongs to group [Group].");
    ExpectLine(4, "CloseEmp", "[Umount]: Found EMP [Group] in the map. ");
    ExpectLine(3, "CloseEmp", "[After-Umount] Count Reduce 1, Emp=[Group], count=[1].");

    AwaitStopReport(first);
    AwaitLine(4, "Execute", "Grouping EMP [Group]'s EMP Count is [1], return.");
    EXPECT_THAT(KnownEmps(), ElementsAre("Second"));
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(second)));
    EXPECT_EQ(Ask(second.empPort, "CountClients"), "1");
    EXPECT_TRUE(IsGroupMounted());
    ExpectProcesses(1);
}

TEST_F(GroupingImage, StopOfTheLastEmpEndsTheProcessAndUnmounts) {
    const ConnectionInfo first = OpenEmp("First");
    const ConnectionInfo second = OpenEmp("Second");
    const std::string strPid = std::to_string(ProcessesOf(m_strProgram).at(0));
    EXPECT_TRUE(CloseEmp(first));
    AwaitLine(4, "Execute", "Grouping EMP [Group]'s EMP Count is [1], return.");
    EXPECT_TRUE(CloseEmp(second));

    AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ");
    ExpectLine(0, "Execute", "Grouping EMP [Group]'s EMP Count is 0, continue to kill and umount");
    ExpectLine(4, "Execute", "EMP proc name:[Group], pid:[" + strPid + "].");
    ExpectLine(4, "ExitEmpProc", "Reset Grouping EMP Port.");
    ExpectLine(0, "ExitEmpProc", "### Emit SIGTERM to EMP:[Group] pid:[" + strPid + "] ###");
    ExpectLine(3, "UnmoutEMP", "Umount for [Group] EMP Succeeded!");
    AwaitLine(4, "ForkEmp", "WAITPID returns : [" + strPid + "].status : [0], execve return :[0] ");
    EXPECT_FALSE(IsGroupMounted());
    EXPECT_EQ(MountCount(), -1);
    EXPECT_THAT(KnownEmps(), IsEmpty());
    EXPECT_THAT(Connections(), IsEmpty());
    EXPECT_THAT(Groups(), ElementsAre("Group|N/A|First|Second"));

    EXPECT_THAT(OpenEmp("Second"), IsConnected()) << "and again from the beginning";
    EXPECT_TRUE(IsGroupMounted());
    ExpectForked(2);
}

}  // namespace
}  // namespace vok::test
