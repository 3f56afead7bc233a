// Register launchers: they come, serve opens and go, orderly or not.
#include <chrono>
#include <future>

#include "tests/daemon/LauncherTest.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CLauncherProcess.h"

namespace vok::test {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr char kRegisterLauncher[] = "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER";
constexpr char kRegisterEmp[] = "__BROKER_CMD_NOTIFY_REGISTER_EMP";
constexpr char kUnregisterEmp[] = "__BROKER_CMD_NOTIFY_UNREGISTER_EMP";

class CExampleLauncher : public CLauncherProcess {
public:
    explicit CExampleLauncher(std::vector<std::string> arguments)
        : CLauncherProcess("example-register-launcher", std::move(arguments)) {}
};

class CMisbehavingLauncher : public CLauncherProcess {
public:
    explicit CMisbehavingLauncher(std::vector<std::string> arguments)
        : CLauncherProcess("fake-launcher", std::move(arguments)) {}
};

constexpr int kEmps = 10;
constexpr int kAnswered = 3;
constexpr int kInside = 3;

/// By where their opens are when the launcher dies.
const char* BehaviourOf(int nEmp) {
    if (nEmp < kAnswered) return "serve";
    if (nEmp < kAnswered + kInside) return "hang";  // inside the launcher's Open
    return "silent";                                // taken, but not reported
}

std::string Emp(int nEmp) {
    return "Emp" + std::to_string(nEmp);
}

/// The launcher's arguments: its name, and what it does with each EMP.
std::vector<std::string> LauncherOf(const char* (*pBehaviourOf)(int)) {
    std::vector<std::string> arguments{"Launcher"};
    for (int i = 0; i < kEmps; ++i) arguments.push_back(Emp(i) + '=' + pBehaviourOf(i));
    return arguments;
}

struct TimedOpen {
    ConnectionInfo info;
    std::chrono::steady_clock::duration took;
};

/// All of them at once, each for a client of its own.
std::vector<std::future<TimedOpen>> OpenAll() {
    std::vector<std::future<TimedOpen>> opens;
    for (int i = 0; i < kEmps; ++i) {
        opens.push_back(std::async(std::launch::async, [i] {
            const auto begin = std::chrono::steady_clock::now();
            const ConnectionInfo info = OpenEmp(Emp(i), std::to_string(41'000 + i));
            return TimedOpen{info, std::chrono::steady_clock::now() - begin};
        }));
    }
    return opens;
}

class RegisterLauncher : public LauncherTest {
protected:
    static std::vector<std::string> Launchers() {
        return Texts(CAdminClient().GetState().launchers);
    }
    /// As a launcher does that comes with one EMP.
    static void Register(const std::string& strLauncher, const std::string& strPort,
                         const std::string& strEmp) {
        CBrokerClient client;
        EXPECT_EQ(client.Execute("1", kRegisterLauncher, strLauncher, strPort), "Done");
        EXPECT_EQ(client.Execute("", kRegisterEmp, strEmp, strPort), "Done");
    }
    void ExpectFailedOpen(const std::string& strEmp, const std::string& strReason) {
        EXPECT_THAT(OpenEmp(strEmp), IsInvalid("127.0.0.1"));
        ExpectLine(
            0, "OpenEmp",
            "UNEXPECTED ERROR:[" + strReason + "] OCCURED. EmpName:[" + strEmp + "] bIsNew:[1].");
        EXPECT_THAT(KnownEmps(), IsEmpty());
        EXPECT_THAT(Connections(), IsEmpty());
    }
    /// The opens of a launcher that is killed when `kAnswered` have been answered and all others
    /// have reached it. What the answered ones got.
    std::vector<ConnectionInfo> OpenAllAndKill() {
        CMisbehavingLauncher launcher(LauncherOf(BehaviourOf));
        auto opens = OpenAll();
        std::vector<ConnectionInfo> answered;
        for (int i = 0; i < kAnswered; ++i) answered.push_back(opens[i].get().info);
        EXPECT_THAT(answered, Each(IsConnected()));
        for (int i = kAnswered; i < kEmps; ++i) EXPECT_TRUE(launcher.AwaitLine("open " + Emp(i)));
        AwaitLine(4, "SendOpenToEmpLauncher", "Open call end", kEmps - kInside);
        EXPECT_THAT(CAdminClient().GetState().waitingTickets, SizeIs(kEmps - kAnswered));

        launcher.Kill();
        for (int i = kAnswered; i < kEmps; ++i) {
            const TimedOpen open = opens[i].get();
            EXPECT_THAT(open.info, IsInvalid("127.0.0.1")) << Emp(i);
            EXPECT_LT(open.took, std::chrono::seconds(15)) << Emp(i);  // 10, on a busy machine
        }
        return answered;
    }
};

// ---- Coming ------------------------------------------------------------------------------------

TEST_F(RegisterLauncher, BringsItsEmps) {
    const CExampleLauncher launcher({"Launcher", "Weather", "Clock"});
    const std::string strPort = launcher.Port();
    EXPECT_THAT(Launchers(), ElementsAre("Launcher|" + strPort + "|Clock|Weather"));
    EXPECT_THAT(LinesOf("AddLauncherInfo"),
                ElementsAre("1 Add a new Register-Launcher:[Launcher," + strPort + "]."));
    EXPECT_THAT(
        LinesOf("RegisterEMP"),
        ElementsAre("1 [RegisterEMP] Emp[Weather], Launcher port[" + strPort + "]",
                    "4 [before] RegisterEMP, size:[0].",
                    "4 Add a new registeren emp:[Weather] into Launcher:[Launcher|" + strPort + "]",
                    "4 [after] RegisterEMP, size:[1].",
                    "1 [RegisterEMP] Emp[Clock], Launcher port[" + strPort + "]",
                    "4 [before] RegisterEMP, size:[1].",
                    "4 Add a new registeren emp:[Clock] into Launcher:[Launcher|" + strPort + "]",
                    "4 [after] RegisterEMP, size:[2]."));
}

TEST_F(RegisterLauncher, OfTheSameNameReplacesTheFormerOne) {
    CExampleLauncher former({"Launcher", "Weather"});
    CExampleLauncher launcher({"Launcher", "Clock"});
    ExpectLine(4, "AddLauncherInfo",
               "Old Register-Launcher:[Launcher," + former.Port() + "] to be updated.");
    EXPECT_THAT(Launchers(), ElementsAre("Launcher|" + launcher.Port() + "|Clock"));
    EXPECT_THAT(OpenEmp("Weather"), IsUntouched());

    EXPECT_EQ(former.Terminate(), 0);
    ExpectLine(0, "RemoveLauncherInfo",
               "The Register-Launcher:[Launcher," + former.Port() + "] does not exist in DB.");
    EXPECT_THAT(OpenEmp("Clock"), IsConnected());
}

TEST_F(RegisterLauncher, ThatIsUnknownCanNeitherRegisterNorUnregisterEmps) {
    const CExampleLauncher launcher({"Launcher", "Weather"});
    EXPECT_EQ(CBrokerClient().Execute("", kRegisterEmp, "Clock", "1"), "Error");
    ExpectLine(0, "Execute", ">>RegisterEMP:[Clock|1] failed.");
    EXPECT_EQ(CBrokerClient().Execute("", kUnregisterEmp, "Weather", "1"), "Error");
    ExpectLine(0, "Execute", ">>UnRegisterEMP:[Weather|1] failed.");
    EXPECT_THAT(Launchers(), ElementsAre("Launcher|" + launcher.Port() + "|Weather"));
}

// ---- Opening -----------------------------------------------------------------------------------

TEST_F(RegisterLauncher, StartsAnEmpOnItsFirstOpen) {
    const CExampleLauncher launcher({"Launcher", "Weather"});
    const ConnectionInfo info = OpenEmp("Weather");
    ASSERT_THAT(info, IsConnected());
    EXPECT_EQ(Greet(info), 1);
    EXPECT_NE(info.empPort, launcher.Port());
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(info)));

    const std::string strPort = launcher.Port();
    ExpectLine(4, "WhereIsEMP", "Register EMP:[Weather].");
    ExpectLine(4, "GetRegisterEMPInfo", ">>Find [Weather]'s Service name, Current Map size:[1].");
    ExpectLine(4, "GetRegisterEMPInfo",
               ">> Found it, it's Register Service name:[Launcher], port:[" + strPort + "].");
    EXPECT_THAT(LinesOf("StartEmp"),
                ElementsAre("4 EMP is register emp, send open function to Register launcher!",
                            "4 After GetRegisterEMPInfo, RegisterEMPName[Launcher], "
                            "RegisterEMPPort[" +
                                strPort + "], empName[Weather]"));
    EXPECT_THAT(LinesOf("SendOpenToEmpLauncher"),
                ElementsAre("4 Call EmpLauncher to start emp with name:Weather, cbSrvPath:40001, "
                            "launcherPort:" +
                                strPort,
                            "4 Before send open to launcher", "4 after send open to launcher",
                            "4 Open call end"));
}

TEST_F(RegisterLauncher, SharesASingleton) {
    const CExampleLauncher launcher({"Launcher", "Weather"});
    const ConnectionInfo first = OpenEmp("Weather");
    const ConnectionInfo second = OpenEmp("Weather", kOtherClient);
    EXPECT_EQ(second.empPort, first.empPort);
    EXPECT_GT(second.serial, first.serial);
    ExpectLine(4, "OpenEmp", "Singleton EMP: existing empPort[" + first.empPort + "] will be used");
    EXPECT_THAT(LinesOf("SendOpenToEmpLauncher"), SizeIs(4)) << "the launcher was asked once";
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(first) + '|' + kOtherClient));
}

TEST_F(RegisterLauncher, AllowsOneConnectionOnly) {
    const CExampleLauncher launcher({"--option", "0003", "Launcher", "Weather"});
    const ConnectionInfo first = OpenEmp("Weather");
    ASSERT_THAT(first, IsConnected());
    EXPECT_THAT(OpenEmp("Weather", kOtherClient), IsInvalid("127.0.0.1"));
    ExpectLine(3, "OpenEmp",
               "Singleton-OneConnection EMP: there is already connection, ignore this second "
               "open! Existing empPort[" +
                   first.empPort + "]");
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(first)));

    EXPECT_TRUE(CloseEmp(first));
    EXPECT_THAT(OpenEmp("Weather", kOtherClient), IsConnected()) << "now it is free";
}

TEST_F(RegisterLauncher, ThatDoesNotTakeTheRequestFailsTheOpenAtOnce) {
    CMisbehavingLauncher launcher({"Launcher", "Weather=refuse"});
    ExpectFailedOpen("Weather", "Start Emp failed");
    EXPECT_TRUE(launcher.AwaitLine("open Weather"));
    ExpectLine(4, "SendOpenToEmpLauncher", "Open call end");
}

TEST_F(RegisterLauncher, ThatDoesNotRunFailsTheOpenAtOnce) {
    const CRefusedPort port;
    Register("Launcher", port.PortText(), "Weather");
    ExpectFailedOpen("Weather", "Start Emp failed");
    EXPECT_THAT(LinesOf("SendOpenToEmpLauncher"), Contains(StartsWith("0 Transport Error : [")));
    EXPECT_EQ(m_Daemon.CountLines(4, "SendOpenToEmpLauncher", "Before send open to launcher"), 0);
}

// ---- Closing -----------------------------------------------------------------------------------

TEST_F(RegisterLauncher, KeepsAnEmpThatOtherClientsHold) {
    const CExampleLauncher launcher({"Launcher", "Weather"});
    const ConnectionInfo first = OpenEmp("Weather");
    const ConnectionInfo second = OpenEmp("Weather", kOtherClient);
    ASSERT_EQ(Greet(first), 1);
    ASSERT_EQ(Greet(second), 2);

    EXPECT_TRUE(CloseEmp(first));
    ExpectLine(4, "CloseEmp", "[Weather] Register EMP.");
    ExpectLine(1, "CloseEmp", "EMP:[Weather] ReferenceCounter:[1]");
    EXPECT_THAT(KnownEmps(), ElementsAre("Weather"));
    EXPECT_THAT(Connections(), ElementsAre(ConnectionText(second)));
}

TEST_F(RegisterLauncher, LosesRecordAndConnectionOfAnEmpWithItsLastClient) {
    const CExampleLauncher launcher({"Launcher", "Weather"});
    const ConnectionInfo info = OpenEmp("Weather");
    ASSERT_EQ(Greet(info), 1);

    EXPECT_TRUE(CloseEmp(info));
    ExpectLine(1, "CloseEmp", "RegisterEMP[Weather] ReferenceCounter[0]");
    EXPECT_THAT(KnownEmps(), IsEmpty());
    EXPECT_THAT(Connections(), IsEmpty());
    EXPECT_EQ(Ask(info.empPort, "Ping"), "1") << "its server stays";

    const ConnectionInfo next = OpenEmp("Weather");
    EXPECT_EQ(next.empPort, info.empPort);
    EXPECT_EQ(CountNew("Weather"), 2);
}

TEST_F(RegisterLauncher, LosesTheConnectionsOfAnApplication) {
    const CExampleLauncher launcher({"Launcher", "Clock", "Weather"});
    const ConnectionInfo clock = OpenEmp("Clock");
    ASSERT_EQ(Greet(clock), 1);
    ASSERT_EQ(Greet(OpenEmp("Weather")), 1);

    EXPECT_EQ(CAdminClient().CloseAll("another"), 0);
    EXPECT_THAT(Connections(), SizeIs(2));
    EXPECT_EQ(CAdminClient().CloseAll(kApp), 2);
    EXPECT_THAT(Connections(), IsEmpty());
    EXPECT_EQ(Ask(clock.empPort, "CountClients"), "0");
}

// ---- Going -------------------------------------------------------------------------------------

TEST_F(RegisterLauncher, MayNotUnregisterAnEmpInUse) {
    const CExampleLauncher launcher({"Launcher", "Weather"});
    const ConnectionInfo info = OpenEmp("Weather");
    const auto unregister = [&] {
        return CBrokerClient().Execute("", kUnregisterEmp, "Weather", launcher.Port());
    };
    EXPECT_EQ(unregister(), "Error");
    ExpectLine(0, "UnRegisterEMP", "UnRegisterEMP failed, EMP:[Weather] is in use now.");
    ExpectLine(0, "Execute", ">>UnRegisterEMP:[Weather|" + launcher.Port() + "] failed.");
    EXPECT_THAT(Launchers(), ElementsAre("Launcher|" + launcher.Port() + "|Weather"));

    EXPECT_TRUE(CloseEmp(info));
    EXPECT_EQ(unregister(), "Done");
    EXPECT_THAT(Launchers(), ElementsAre("Launcher|" + launcher.Port()));
    EXPECT_THAT(OpenEmp("Weather"), IsUntouched());
}

TEST_F(RegisterLauncher, ClosesEveryConnectionWhenItGoes) {
    CExampleLauncher launcher({"Launcher", "Clock", "Weather"});
    const ConnectionInfo first = OpenEmp("Weather");
    const ConnectionInfo second = OpenEmp("Weather", kOtherClient);
    ASSERT_EQ(Greet(first), 1);
    ASSERT_EQ(Greet(second), 2);

    EXPECT_EQ(launcher.Terminate(), 0);
    EXPECT_THAT(Launchers(), IsEmpty());
    EXPECT_THAT(KnownEmps(), IsEmpty());
    EXPECT_THAT(Connections(), IsEmpty());
    const std::string strPort = launcher.Port();
    ExpectLine(4, "UnRegisterEMP", "Remove Emp:[Clock] from Launcher:[Launcher|" + strPort + "].");
    ExpectLine(0, "UnRegisterEMP", "UnRegisterEMP failed, EMP:[Weather] is in use now.");
    const auto closing = [&](const char* szClient) {
        return "4 [StopVokLauncherServer] -> Close EMP:[Weather|" + std::string(szClient) + "|" +
               first.empPort + "].";
    };
    EXPECT_THAT(
        LinesOf("RemoveLauncherInfo"),
        ElementsAre("4 EMP Count:[1] <-> Launcher:[Launcher|" + strPort + "].",
                    "4 [RemoveLauncherInfo] emp:[Weather], port:[" + first.empPort + "].",
                    "4 ClientPortList size:[2].",
                    "4 [TODO] EmpInfo:[Weather|40001|" + first.empPort + "].",
                    "4 [TODO] EmpInfo:[Weather|40002|" + first.empPort + "].",
                    "4 [2] emp needs to be closed.", closing(kClient),
                    "4 [StopVokLauncherServer] -> Close EMP, Result:[1].", closing(kOtherClient),
                    "4 [StopVokLauncherServer] -> Close EMP, Result:[1].",
                    "1 Remove the Register-Launcher:[Launcher," + strPort + "]."));
}

TEST_F(RegisterLauncher, GoesWithoutAWordOfEmpsThatNobodyOpened) {
    Register("Launcher", "4000", "Weather");
    EXPECT_EQ(CBrokerClient().Execute("0", kRegisterLauncher, "Launcher", "4000"), "Done");
    EXPECT_THAT(
        LinesOf("RemoveLauncherInfo"),
        ElementsAre("4 EMP Count:[1] <-> Launcher:[Launcher|4000].",
                    "0 Failed to get port of EMP:[Weather].", "4 [0] emp needs to be closed.",
                    "1 Remove the Register-Launcher:[Launcher,4000]."));
    EXPECT_THAT(Launchers(), IsEmpty());
}

// ---- Dying -------------------------------------------------------------------------------------

TEST_F(RegisterLauncher, KilledInTheMiddleOfTenOpensLosesNothing) {
    const std::vector<ConnectionInfo> answered = OpenAllAndKill();

    admin::BrokerState state = CAdminClient().GetState();
    EXPECT_THAT(state.waitingTickets, IsEmpty());
    EXPECT_EQ(state.counters.failures, kEmps - kAnswered);
    EXPECT_THAT(KnownEmps(), ElementsAre("Emp0", "Emp1", "Emp2"))
        << "whose clients do not know yet";
    std::vector<std::string> connections;
    for (const ConnectionInfo& info : answered) connections.push_back(ConnectionText(info));
    EXPECT_THAT(Connections(), ElementsAreArray(connections));

    for (const ConnectionInfo& info : answered) EXPECT_FALSE(CloseEmp(info)) << "nobody answers";
    EXPECT_THAT(KnownEmps(), IsEmpty());
    EXPECT_THAT(Connections(), IsEmpty());

    const CMisbehavingLauncher launcher(LauncherOf([](int) { return "serve"; }));
    EXPECT_THAT(Launchers(), ElementsAre(StartsWith("Launcher|" + launcher.Port() + "|Emp0|")));
    for (auto& open : OpenAll()) {
        const ConnectionInfo info = open.get().info;
        EXPECT_THAT(info, IsConnected());
        EXPECT_EQ(Ask(info.empPort, "Ping"), "1");
    }
    state = CAdminClient().GetState();
    EXPECT_THAT(state.emps, SizeIs(kEmps));
    EXPECT_THAT(state.connections, SizeIs(kEmps));
    EXPECT_THAT(state.waitingTickets, IsEmpty());
}

}  // namespace
}  // namespace vok::test
