#include <boost/lexical_cast.hpp>

#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;

constexpr char kReport[] = "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO";
constexpr char kGrouping[] = "__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER";
constexpr char kLauncher[] = "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER";
constexpr char kRegister[] = "__BROKER_CMD_NOTIFY_REGISTER_EMP";
constexpr char kUnregister[] = "__BROKER_CMD_NOTIFY_UNREGISTER_EMP";
constexpr char kStop[] = "__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER";
constexpr char kCloseAll[] = "CloseAllEmpWithAppID ";
constexpr char kPrepare[] = "__CLIENT_CMD_PREPARE_TO_CLOSE";

class ExecuteTest : public BrokerTest {
protected:
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "Execute"); }
};

// ---- Command words ----

TEST_F(ExecuteTest, WordsAreComparedExactly) {
    for (const char* szWord :
         {"", "GetVOKVersion ", "getvokversion", "GetVOKVersio", "CloseAllEmpWithAppID",
          "CloseAllEmpWithAppID  ", "__BROKER_CMD_NOTIFY_REGISTER_EM", "hello"}) {
        m_Log.Clear();
        EXPECT_EQ(Execute("1", szWord, "3", "4", "5", "6"), "");
        EXPECT_THAT(Lines(), ElementsAre(std::string("0 there is no command for broker "
                                                     "execution[") +
                                         szWord + "]"));
    }
    EXPECT_FALSE(HasLinesOf(m_Log, "CloseAllEmpWithAppID"));
}

TEST_F(ExecuteTest, VersionIsTold) {
    EXPECT_EQ(Execute("40001", "GetVOKVersion"), "5.100");

    EXPECT_EQ(ThreadName(), "B-E-GetVOKVer");
    EXPECT_THAT(Lines(), ElementsAre("4 fromPort:[40001] , strCmd:[GetVOKVersion]",
                                     "4 ThreadName:[B-E-GetVOKVer] len:[13]",
                                     "4 VOK FullVERSION STRING[5.100]"));
    EXPECT_THAT(LinesOf(m_Log, "GetFullVersion"), ElementsAre("4 GetFullVersion : [5.100]."));
}

// ---- Missing arguments ----

struct MissingCase {
    const char* szName;
    const char* szCmd;
    std::vector<std::string> arguments;  // 1, 3, 4, 5
    std::vector<std::string> lines;
};
void PrintTo(const MissingCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class ExecuteMissingTest : public ExecuteTest, public ::testing::WithParamInterface<MissingCase> {};

TEST_P(ExecuteMissingTest, IsRefusedWithoutAResult) {
    const MissingCase& c = GetParam();
    const std::vector<std::string>& args = c.arguments;
    EmpInfo().Add("E", "1.0");
    EmpInfo().SetEmpPid("E", 777);
    m_Log.Clear();

    EXPECT_EQ(Execute(args[0], c.szCmd, args[1], args[2], args[3], "6"), "");

    EXPECT_EQ(Lines(), c.lines);
    for (const char* szReached :
         {"ConfirmEMPServer", "ConfirmGroupingEmpServer", "UpdateLauncherInfo", "RegisterEMP",
          "UnRegisterEMP", "CloseAllEmpWithAppID", "ExitEmpProc"})
        EXPECT_FALSE(HasLinesOf(m_Log, szReached)) << szReached;
    EXPECT_TRUE(EmpInfo().IsAdded("E"));
    EXPECT_EQ(ThreadName(), m_strFormerName);
}

const std::string kGroupingHead =
    "4 >>> BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER_PORT cmd is received in CBroker::execute!";
const std::string kLauncherHead =
    "4 >>> BROKER_CMD_NOTIFY_REGISTEREMP_SERVER_PORT cmd is received in CBroker::execute!";
const std::string kNoGrouping = "0 >>> GroupingEmp name or port is empty!";
const std::string kNoLauncher = "0 [Register] Necessary info is empty!";
const std::string kNoRegister = "0 RegisterEmpName or LauncherServerPort is empty!";
const std::string kNoStop =
    "0 [BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Any necessary param is empty.";

INSTANTIATE_TEST_SUITE_P(
    Table, ExecuteMissingTest,
    ::testing::Values(
        MissingCase{"ReportSerial",
                    kReport,
                    {"1", "", "4000|1", "5"},
                    {"4 EMP Server:[4000|1], strCmd:[__BROKER_CMD_NOTIFY_EMP_SERVER_INFO]",
                     "0 >>> Ticket Serial is NULL!!!"}},
        MissingCase{"GroupingName",
                    kGrouping,
                    {"1", "", "5000", "5"},
                    {kGroupingHead,
                     "4 Grouping EMP Server name[],  port/path:[5000], "
                     "strCmd:[__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER]",
                     kNoGrouping}},
        MissingCase{"GroupingPort",
                    kGrouping,
                    {"1", "Group", "", "5"},
                    {kGroupingHead,
                     "4 Grouping EMP Server name[Group],  port/path:[], "
                     "strCmd:[__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER]",
                     kNoGrouping}},
        MissingCase{"LauncherOption",
                    kLauncher,
                    {"", "L", "5000", "5"},
                    {kLauncherHead,
                     "4 Launcher Info:[L|5000], strCmd:[__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER]",
                     kNoLauncher}},
        MissingCase{"LauncherName",
                    kLauncher,
                    {"1", "", "5000", "5"},
                    {kLauncherHead,
                     "4 Launcher Info:[|5000], strCmd:[__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER]",
                     kNoLauncher}},
        MissingCase{
            "LauncherPort",
            kLauncher,
            {"1", "L", "", "5"},
            {kLauncherHead, "4 Launcher Info:[L|], strCmd:[__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER]",
             kNoLauncher}},
        MissingCase{"RegisterName",
                    kRegister,
                    {"1", "", "5000", "5"},
                    {"4 [REGISTER] comes from Launcher[,5000].", kNoRegister}},
        MissingCase{"RegisterPort",
                    kRegister,
                    {"1", "E", "", "5"},
                    {"4 [REGISTER] comes from Launcher[E,].", kNoRegister}},
        MissingCase{"UnregisterName",
                    kUnregister,
                    {"1", "", "5000", "5"},
                    {"4 [UNREGISTER] comes from Launcher[,5000].", kNoRegister}},
        MissingCase{"UnregisterPort",
                    kUnregister,
                    {"1", "E", "", "5"},
                    {"4 [UNREGISTER] comes from Launcher[E,].", kNoRegister}},
        MissingCase{
            "StopName",
            kStop,
            {"1", "", "4000", "0"},
            {"4 [BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[], C|S:[1|4000], Type:[0].", kNoStop}},
        MissingCase{
            "StopPort",
            kStop,
            {"1", "E", "", "0"},
            {"4 [BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[E], C|S:[1|], Type:[0].", kNoStop}},
        MissingCase{
            "StopType",
            kStop,
            {"1", "E", "4000", ""},
            {"4 [BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[E], C|S:[1|4000], Type:[].", kNoStop}},
        MissingCase{"CloseAllApplication",
                    kCloseAll,
                    {"40001", "", "key", "5"},
                    {"4 Port/Path:[] , strCmd:[CloseAllEmpWithAppID ]",
                     "0 Broker got wrong parametres from Port/Path:[40001]"}},
        MissingCase{"PrepareApplication",
                    kPrepare,
                    {"40001", "", "key", "5"},
                    {"4 Port/Path:[40001], strCmd:[__CLIENT_CMD_PREPARE_TO_CLOSE]",
                     "0 Broker got wrong parametres from Port/Path:[40001]"}}),
    [](const auto& info) { return info.param.szName; });

// ---- Reports ----

TEST_F(ExecuteTest, ReportIsConfirmedAlsoWhenNobodyWaits) {
    EXPECT_EQ(Execute("", kReport, "7", "4000|1234", "__SERVER_SUCCESS_TO_RUN", "0001"),
              "ConfirmComplete");

    EXPECT_EQ(ThreadName(), "B-E-NOTIFY_EMP");
    EXPECT_THAT(Lines(), ElementsAre("4 EMP Server:[4000|1234], "
                                     "strCmd:[__BROKER_CMD_NOTIFY_EMP_SERVER_INFO]",
                                     "4 ThreadName:[B-E-NOTIFY_EMP] len:[14]"));
    EXPECT_EQ(LinesOf(m_Log, "ConfirmEMPServer").back(),
              "0 ticket isn't valid. port:[4000]. Broker do not wake condition up");
}

TEST_F(ExecuteTest, ReportWithAGarbledSerialThrowsToTheRpcLayer) {
    EXPECT_THROW(Execute("", kReport, "seven", "4000|1234", "", ""), boost::bad_lexical_cast);
}

TEST_F(ExecuteTest, GroupingReportIsConfirmed) {
    BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {"Weather"});

    EXPECT_EQ(Execute("", kGrouping, "Group", "5000"), "ConfirmComplete");

    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Group", "5000"), ElementsAre("Weather"))));
    EXPECT_THAT(Lines(), ElementsAre(kGroupingHead,
                                     "4 Grouping EMP Server name[Group],  port/path:[5000], "
                                     "strCmd:[__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER]"));
    EXPECT_EQ(ThreadName(), m_strFormerName);
}

TEST_F(ExecuteTest, GroupingReportOfAnUnknownGroupIsConfirmedAndAddsNothing) {
    EXPECT_EQ(Execute("", kGrouping, "Group", "5000"), "ConfirmComplete");

    EXPECT_THAT(BrokerProbe::Groups(m_Broker), IsEmpty());
}

// ---- Launchers ----

TEST_F(ExecuteTest, LauncherWithAnUnknownOptionIsDoneAndChangesNothing) {
    EXPECT_EQ(Execute("7", kLauncher, "Launcher", "5000"), "Done");

    EXPECT_THAT(LinesOf(m_Log, "UpdateLauncherInfo"), ElementsAre("0 Unknown option:[7]."));
    EXPECT_THAT(BrokerProbe::Launchers(m_Broker), IsEmpty());
    EXPECT_THAT(Lines(), ElementsAre(kLauncherHead,
                                     "4 Launcher Info:[Launcher|5000], "
                                     "strCmd:[__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER]"));
}

TEST_F(ExecuteTest, RegistrationWithAnUnknownLauncherIsAnError) {
    EXPECT_EQ(Execute("", kRegister, "Weather", "5000"), "Error");

    EXPECT_THAT(LinesOf(m_Log, "RegisterEMP"),
                ElementsAre("1 [RegisterEMP] Emp[Weather], Launcher port[5000]"));
    EXPECT_THAT(Lines(), ElementsAre("4 [REGISTER] comes from Launcher[Weather,5000].",
                                     "0 >>RegisterEMP:[Weather|5000] failed."));
}

TEST_F(ExecuteTest, UnregistrationWithAnUnknownLauncherIsAnError) {
    EXPECT_EQ(Execute("", kUnregister, "Weather", "5000"), "Error");

    EXPECT_EQ(LinesOf(m_Log, "UnRegisterEMP").at(0),
              "1 [UnRegisterEMP] Emp[Weather], Launcher port[5000].");
    EXPECT_THAT(Lines(), ElementsAre("4 [UNREGISTER] comes from Launcher[Weather,5000].",
                                     "0 >>UnRegisterEMP:[Weather|5000] failed."));
}

// ---- Closing everything ----

/// An EMP with two clients, of which the first belongs to the application "app", "widget".
class ExecuteCloseAllTest : public ExecuteTest {
protected:
    ExecuteCloseAllTest() {
        m_Fake.AddPreinstalled("Weather");
        AddKnown("Weather", "0002", EMP_OPENED);
        for (const char* szClient : {"40001", "40002"})
            ConnectionDB().AddConnectionData(m_Key, szClient);
        m_Emp.OnCall([this](const EmpCall& call) {
            const EmpCall owner{"Execute", {"40001", "CompareAppID", "app", "widget", "", ""}};
            m_Emp.AnswerExecute("CompareAppID", call == owner ? "EMP_OWNS_APP_ID" : "no");
        });
        m_Log.Clear();
    }

    CFakeEmp m_Emp;
    const ConnectionKey m_Key{"Weather", m_Emp.PortText()};
};

TEST_F(ExecuteCloseAllTest, ConnectionsOfTheApplicationAreClosed) {
    EXPECT_EQ(Execute("40009", kCloseAll, "app", "widget"), "");

    EXPECT_THAT(ConnectionDB().GetClientPortNumList(m_Key), ElementsAre("40002"));
    EXPECT_EQ(LinesOf(m_Log, "CloseAllEmpWithAppID").back(), "4 End with retCnt:[1]");
    EXPECT_THAT(Lines(), ElementsAre("4 Port/Path:[app] , strCmd:[CloseAllEmpWithAppID ]",
                                     "4 ThreadName:[B-E-CloseAllEm] len:[14]"));
}

TEST_F(ExecuteCloseAllTest, PrepareToCloseClosesThemAsWell) {
    EXPECT_EQ(Execute("40009", kPrepare, "app", "widget"), "");

    EXPECT_THAT(ConnectionDB().GetClientPortNumList(m_Key), ElementsAre("40002"));
    EXPECT_EQ(LinesOf(m_Log, "CloseAllEmpWithAppID").back(), "4 End with retCnt:[1]");
    EXPECT_THAT(Lines(), ElementsAre("4 Port/Path:[40009], strCmd:[__CLIENT_CMD_PREPARE_TO_CLOSE]",
                                     "4 ThreadName:[B-E-CloseAllEm] len:[14]"));
}

TEST_F(ExecuteTest, CloseAllWithoutConnectionsNamesItsThread) {
    for (const char* szCommand : {kCloseAll, kPrepare}) {
        SCOPED_TRACE(szCommand);
        m_Log.Clear();
        ThreadMaker::NameThisThread("former");
        EXPECT_EQ(Execute("40001", szCommand, "app", "widget"), "");
        EXPECT_EQ(ThreadName(), "B-E-CloseAllEm");  // a close would give it another name
        EXPECT_EQ(LinesOf(m_Log, "CloseAllEmpWithAppID").back(), "4 End with retCnt:[0]");
    }
}

// ---- Stopping an EMP ----

class ExecuteStopTest : public ExecuteTest {
protected:
    /// An EMP that runs: its record, and its connections.
    void AddRunning(const std::string& strEmp) {
        EmpInfo().Add(strEmp, "1.0");
        EmpInfo().SetEmpProcess(strEmp, {777, 4711});
        ConnectionDB().AddConnectionData({strEmp, "4000"}, "40001");
        ConnectionDB().AddConnectionData({strEmp, "4001"}, "40001");
        m_Log.Clear();
    }

    std::string Stop(const std::string& strType = "0") {
        return Execute("40001", kStop, "Weather", "4000", strType);
    }

    void ExpectRecordsGone() {
        EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
        EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", "4001")));
    }

    static std::string Head(const std::string& strType = "0") {
        return "4 [BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[Weather], C|S:[40001|4000], Type:[" +
               strType + "].";
    }

    /// Waits for the thread that carries out the stop.
    void AwaitStop() {
        m_Fake.processes.AwaitSignals(1);
        m_Fake.processes.AwaitThreads();
    }
};

TEST_F(ExecuteStopTest, UnknownEmpIsRefused) {
    ConnectionDB().AddConnectionData({"Weather", "4000"}, "40001");

    EXPECT_EQ(Stop(), "");

    EXPECT_THAT(Lines(), ElementsAre(Head(), "0 EMP:[Weather]->pid:[0], maybe it's not existed."));
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", "4000")));
}

TEST_F(ExecuteStopTest, EmpWithoutAPidIsRefused) {
    EmpInfo().Add("Weather", "1.0");

    EXPECT_EQ(Stop(), "");

    EXPECT_EQ(Lines().back(), "0 EMP:[Weather]->pid:[0], maybe it's not existed.");
    EXPECT_TRUE(EmpInfo().IsAdded("Weather"));
}

TEST_F(ExecuteStopTest, EmpWithAProcessIsStoppedOnAThreadOfItsOwn) {
    AddRunning("Weather");
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 0);

    EXPECT_EQ(Stop(), "");
    AwaitStop();

    ExpectRecordsGone();
    EXPECT_THAT(Lines(), ElementsAre(Head(), "4 EMP proc name:[Weather], pid:[777].",
                                     "4 Create thread to Stop and unmount emp."));
    EXPECT_THAT(m_Fake.processes.Calls(), ElementsAre("Signal 777/4711 15", "AwaitEnd 777 2000"));
    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre("Umount /opt/down/emps/empWeather"));
    EXPECT_FALSE(HasLinesOf(m_Log, "ConfirmGroupingEmpServer"));
}

TEST_F(ExecuteStopTest, EmpThatLivesNowhereIsStoppedAsWell) {
    AddRunning("Weather");

    EXPECT_EQ(Stop("garbage"), "");
    AwaitStop();

    EXPECT_THAT(m_Fake.processes.Calls(), ElementsAre("Signal 777/4711 15", "AwaitEnd 777 2000"));
}

TEST_F(ExecuteStopTest, EmpWithoutAConnectionIsStoppedAsWell) {
    EmpInfo().Add("Weather", "1.0");
    EmpInfo().SetEmpProcess("Weather", {777, 4711});

    EXPECT_EQ(Stop(), "");
    AwaitStop();

    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
}

TEST_F(ExecuteStopTest, EmpThatIsAThreadLosesItsRecordsOnly) {
    for (const char* szType : {"2", " 2", "2x"}) {
        AddRunning("Weather");

        EXPECT_EQ(Stop(szType), "");

        ExpectRecordsGone();
        EXPECT_THAT(Lines(),
                    ElementsAre(Head(szType), "4 [Register] Weather is in form of thread."));
    }
    EXPECT_FALSE(HasLinesOf(m_Log, "WhereIsEMP"));
}

TEST_F(ExecuteStopTest, GroupThatIsNotCountedStays) {
    AddRunning("Weather");
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});

    EXPECT_EQ(Stop("1"), "");

    ExpectRecordsGone();
    EXPECT_THAT(Lines(), ElementsAre(Head("1"), "4 [Grouping Emp] | name:[Weather], group:[Group].",
                                     "0 Grouping EMP [Group] is not in the map, return."));
}

TEST_F(ExecuteStopTest, GroupThatIsStillUsedStays) {
    AddRunning("Weather");
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});
    BrokerProbe::SetMountCount(m_Broker, "Group", 2);

    EXPECT_EQ(Stop("1"), "");

    ExpectRecordsGone();
    EXPECT_THAT(Lines(), ElementsAre(Head("1"), "4 [Grouping Emp] | name:[Weather], group:[Group].",
                                     "4 Grouping EMP [Group]'s EMP Count is [2], return."));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Group", 2)));
}

TEST_F(ExecuteStopTest, GroupThatNobodyUsesIsStopped) {
    AddRunning("Weather");
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});
    BrokerProbe::SetMountCount(m_Broker, "Group", 0);
    m_Fake.AddMounted("Group");

    EXPECT_EQ(Stop("1"), "");
    AwaitStop();

    ExpectRecordsGone();
    EXPECT_THAT(Lines(),
                ElementsAre(Head("1"), "4 [Grouping Emp] | name:[Weather], group:[Group].",
                            "0 Grouping EMP [Group]'s EMP Count is 0, continue to kill and umount",
                            "4 EMP proc name:[Group], pid:[777].",
                            "4 Create thread to Stop and unmount emp."));
    EXPECT_TRUE(
        m_Log.HasLine(LEVEL_ERROR, "ExitEmpProc", "### Emit SIGTERM to EMP:[Group] pid:[777] ###"));
    EXPECT_TRUE(HasLinesOf(m_Log, "ConfirmGroupingEmpServer"));
    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre("Umount /opt/down/emps/empGroup"));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
}

TEST_F(ExecuteStopTest, GroupThatIsLostMeanwhileIsNoGroup) {
    AddRunning("Weather");
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});
    m_Log.Once("[Weather] belongs to [4]", [&] { BrokerProbe::ForgetGroups(m_Broker); });

    EXPECT_EQ(Stop("1"), "");

    EXPECT_THAT(Lines(), ElementsAre(Head("1"), "4 [Grouping Emp] | name:[Weather], group:[].",
                                     "0 Grouping EMP [] is not in the map, return."));
}

TEST_F(ExecuteStopTest, MountTableIsFreeAfterEveryAnswer) {
    AddRunning("Weather");
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});
    Stop("1");

    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
}

}  // namespace
}  // namespace vok
