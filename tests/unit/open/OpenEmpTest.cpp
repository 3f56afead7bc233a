#include <boost/make_shared.hpp>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "broker/Globals.h"
#include "platform/Limits.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CFakeLauncher.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kMountCall[] =
    "Mount /opt/down/emps/empWeather_img/empWeather.img /opt/down/emps/empWeather";
constexpr char kUmountCall[] = "Umount /opt/down/emps/empWeather";

/// What a client may find in its record before the broker has written into it.
ConnectionInfo Untouched() {
    ConnectionInfo info;
    info.empName = "name before";
    info.clientPort = "client before";
    info.empPort = "port before";
    info.serial = 77;
    info.ip = "ip before";
    return info;
}

ConnectionInfo Info(const std::string& strEmp, const std::string& strClientPort,
                    const std::string& strEmpPort, int nSerial, const std::string& strIp) {
    ConnectionInfo info;
    info.empName = strEmp;
    info.clientPort = strClientPort;
    info.empPort = strEmpPort;
    info.serial = nSerial;
    info.ip = strIp;
    return info;
}

/// Serial and address stay as they were.
const ConnectionInfo kInvalidEarly = Info("", "-1", "-1", 77, "ip before");
const ConnectionInfo kInvalid = Info("", "-1", "-1", 77, "127.0.0.1");

std::string Join(const std::vector<std::string>& texts) {
    std::string strAll;
    for (const std::string& strText : texts) strAll += strText + '\n';
    return strAll;
}

class OpenEmpTest : public BrokerTest {
protected:
    ~OpenEmpTest() override { m_Fake.processes.AwaitThreads(); }

    ConnectionInfo Open(const std::string& strEmp, const std::string& strClientPort = "40001",
                        const std::string& strVersion = "1.0",
                        const std::string& strAppInfo = "app") {
        ConnectionInfo info = Untouched();
        m_Broker.OpenEmp(info, strClientPort, strEmp, strVersion, strAppInfo);
        return info;
    }

    std::vector<std::string> Lines() const { return LinesOf(m_Log, "OpenEmp"); }

    /// Those after the last line that begins so.
    std::vector<std::string> LinesAfter(const std::string& strBeginning) const {
        std::vector<std::string> lines = Lines();
        const auto it = std::find_if(lines.rbegin(), lines.rend(), [&](const std::string& strLine) {
            return strLine.compare(0, strBeginning.size(), strBeginning) == 0;
        });
        return {it.base(), lines.end()};
    }

    TicketMap Tickets() { return BrokerProbe::Tickets(m_Broker); }
    std::map<std::string, int> MountCounts() { return BrokerProbe::MountCounts(m_Broker); }

    std::string AddressOf(unsigned int nSerial) {
        char szAddress[32];
        std::snprintf(szAddress, sizeof szAddress, "%p",
                      static_cast<void*>(Tickets()[nSerial].get()));
        return szAddress;
    }
};

// ---- Arguments ----

struct ArgumentCase {
    const char* szName;
    const char* szEmp;
    const char* szVersion;
    const char* szAppInfo;
    const char* szLine;
    bool bTouched;
};
void PrintTo(const ArgumentCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class OpenEmpArgumentTest : public OpenEmpTest,
                            public ::testing::WithParamInterface<ArgumentCase> {};

TEST_P(OpenEmpArgumentTest, IsRefusedWithoutATrace) {
    const ArgumentCase& c = GetParam();
    m_Fake.AddPreinstalled("Weather");
    m_Fake.AddPreinstalled("Broker");

    const ConnectionInfo info = Open(c.szEmp, "40001", c.szVersion, c.szAppInfo);

    EXPECT_EQ(info, c.bTouched ? kInvalidEarly : Untouched());
    EXPECT_THAT(Lines(), ElementsAre(c.szLine));
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_EQ(Ticket::m_nCurSerial, 1u);
    EXPECT_FALSE(EmpInfo().IsAdded(c.szEmp));
    EXPECT_EQ(ThreadName(), m_strFormerName);
}

INSTANTIATE_TEST_SUITE_P(
    Table, OpenEmpArgumentTest,
    ::testing::Values(
        ArgumentCase{"NoName", "", "1.0", "app", "2 wrong parameters with NULL", false},
        ArgumentCase{"NoAppInfo", "Weather", "1.0", "", "2 wrong parameters with NULL", false},
        ArgumentCase{"BrokerWithoutAppInfo", "Broker", "1.0", "", "2 wrong parameters with NULL",
                     false},
        ArgumentCase{"Broker", "Broker", "1.0", "app", "0 Invalid opening, [Broker] is not a EMP.",
                     true},
        ArgumentCase{"BrokerWithoutVersion", "Broker", "", "app",
                     "0 Invalid opening, [Broker] is not a EMP.", true},
        ArgumentCase{"NoVersion", "Weather", "", "app", "2 wrong parameters with NULL.", true}),
    [](const auto& info) { return info.param.szName; });

TEST_F(OpenEmpTest, UnknownLocationLeavesTheResultAlone) {
    const ConnectionInfo info = Open("Weather");

    EXPECT_EQ(info, Untouched());
    EXPECT_THAT(Lines(), ElementsAre("4 ThreadName:[B-O-Weather] len:[11]", "0 Unknown location."));
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
}

TEST_F(OpenEmpTest, NamesItsThreadAfterTheEmp) {
    const std::pair<std::string, std::string> cases[] = {
        {"abc", "B-O-abc"},
        {"abcdefghij", "B-O-abcdefghij"},
        {"abcdefghijklmnopqrstuvwxy", "B-O-abcdefghij"},
    };
    for (const auto& [strEmp, strName] : cases) {
        m_Log.Clear();
        Open(strEmp);
        EXPECT_EQ(ThreadName(), strName);
        EXPECT_EQ(Lines()[0],
                  "4 ThreadName:[" + strName + "] len:[" + std::to_string(strName.size()) + "]");
    }
}

// ---- A new EMP ----

TEST_F(OpenEmpTest, NewEmpIsStartedRecordedAndToldToTheClient) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0001");

    const ConnectionInfo info = Open("Weather");

    EXPECT_EQ(info, Info("Weather", "40001", "40123", 2, "127.0.0.1"));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_EQ(EmpInfo().GetTypeOption("Weather"), "0001");
    EXPECT_EQ(EmpInfo().GetEmpPid("Weather"), 777);
    EXPECT_EQ(EmpInfo().GetEmpProcess("Weather").nStartTime, 4711u);
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", "40123")));
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}), ElementsAre("40001"));
    ASSERT_THAT(Tickets(), ElementsAre(Key(2)));  // kept, for late reports
    EXPECT_FALSE(Tickets()[2]->m_bInProgress);
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_FALSE(HasLinesOf(m_Log, "ReportLogToServer"));
}

TEST_F(OpenEmpTest, NewEmpIsLoggedStepByStep) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0001");

    Open("Weather");

    EXPECT_THAT(
        Lines(),
        ElementsAre(
            "4 ThreadName:[B-O-Weather] len:[11]",
            "4 # EMP INFO # name:[Weather] location:[2] IP:[127.0.0.1] ClientPort:[40001]",
            "3 Emp:[Weather] is not in the m_EmpInfo.",  //
            "3 Location:[2], Name:[Weather]",            //
            "4 Nothing to do with Mount/UMount.",
            "4 EMP:[Weather] Ticket(Serial:[2]) has been inserted",
            "4 forkEmpParams.ARGV_ticketSerial:[2], CbSrvPort:[40001]",
            "4 ## START wait... name:[Weather] Address:[" + AddressOf(2) + "],ticketSerial:[2]",
            // the serial that the client's record holds by then
            "4 ## END wait...  name:[Weather] ticketSerial:[77], EMPServerPortNum:[40123], "
            "EMPServerPidNum:[777]",
            "4 This is new EMP strOption [0001]",  //
            "4 This is new EMP pid [777]",         //
            "4 GetOption strOption []",
            "4 Add connectionData to connectionDB, name :[Weather], empport[40123], "
            "clientport[40001]",
            "4 empID:[Weather] Emp:[40123] , Serial:[2] , Option:[] , Status:[2]"));
}

TEST_F(OpenEmpTest, ProcessGetsProgramNameSerialAndCallbackPort) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0001");

    Open("Weather");

    ASSERT_THAT(m_Fake.processes.Forks(), SizeIs(1));
    const ForkCall call = m_Fake.processes.Forks()[0];
    EXPECT_EQ(call.strPath, "/usr/bin/emps/empWeather/empWeather");
    EXPECT_THAT(call.arguments, ElementsAre("Weather", "-DSINGLE_PROCESS", "2", "40001", "0", ""));
    ASSERT_NE(gpVokBrokerLibraryPath, nullptr);
    EXPECT_THAT(
        call.environment,
        ElementsAre(gpVokBrokerLibraryPath, "GST_REGISTRY=/home/app/.gstreamer-0.10/registry.bin",
                    "GST_REGISTRY_1_0=/home/app/.gstreamer-1.0/registry.bin"));
    EXPECT_TRUE(call.bExecute);
    EXPECT_EQ(Tickets()[2]->m_nForkedPid, CFakeProcesses::kFirstPid);
}

TEST_F(OpenEmpTest, ReportThatComesBeforeTheStartIsKept) {
    m_Fake.AddPreinstalled("Weather");
    m_Log.Once("forkEmpParams.ARGV_ticketSerial:[2], CbSrvPort:[40001]",
               [&] { Report("2", "40123|777", "0001"); });

    EXPECT_EQ(Open("Weather").empPort, "40123");
    m_Fake.processes.AwaitForks(1);  // its thread may not have come that far yet
}

TEST_F(OpenEmpTest, FailureStatusWithPidAndOptionStillOpens) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0002", "__SERVER_FAIL");

    EXPECT_EQ(Open("Weather").empPort, "40123");
    EXPECT_TRUE(
        m_Log.HasLine(LEVEL_ERROR, "ConfirmEMPServer", "The server has been run fail [40123]"));
}

TEST_F(OpenEmpTest, SerialBeyondFiveDigitsFindsItsWayBack) {
    m_Fake.AddPreinstalled("Weather");
    Ticket::m_nCurSerial = 123455;
    LetEmpsReport("40123|777", "0001");

    EXPECT_EQ(Open("Weather"), Info("Weather", "40001", "40123", 123456, "127.0.0.1"));
    EXPECT_EQ(m_Fake.processes.Forks()[0].arguments[2], "12345");
}

TEST_F(OpenEmpTest, LateReportNeverBlocksAndChangesNoConnection) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0001");
    Open("Weather");

    EXPECT_EQ(Report("2", "40124|778", "0002"), "ConfirmComplete");

    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", "40123")));
    EXPECT_EQ(EmpInfo().GetEmpPid("Weather"), 777);
}

TEST_F(OpenEmpTest, OpenAfterAGarbledReportWorks) {
    m_Fake.AddPreinstalled("Weather");
    EXPECT_ANY_THROW(Report("no number", "40123|777", "0001"));
    LetEmpsReport("40123|777", "0001");

    EXPECT_EQ(Open("Weather").empPort, "40123");
}

TEST_F(OpenEmpTest, TicketsOfFinishedOpensArePruned) {
    for (unsigned int nSerial = 10; nSerial < 10 + kMaxTickets; ++nSerial)
        BrokerProbe::SetTicket(m_Broker, nSerial, nullptr);
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|777", "0001");

    EXPECT_EQ(Open("Weather").empPort, "40123");

    EXPECT_THAT(Tickets(), SizeIs(kMaxTickets));
    EXPECT_THAT(Tickets(), Contains(Key(2)));
}

// ---- A known EMP ----

TEST_F(OpenEmpTest, LiveSingletonIsReused) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");
    m_Log.Clear();

    const ConnectionInfo info = Open("Weather", "40002");

    EXPECT_EQ(info, Info("Weather", "40002", "40123", 2, "127.0.0.1"));
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}),
                ElementsAre("40001", "40002"));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    EXPECT_THAT(Tickets(), ElementsAre(Key(2)));
    EXPECT_EQ(Tickets()[2]->m_strPort, "40123");
    EXPECT_THAT(
        Lines(),
        ElementsAre("4 ThreadName:[B-O-Weather] len:[11]",
                    "4 # EMP INFO # name:[Weather] location:[2] IP:[127.0.0.1] ClientPort:[40002]",
                    "3 strOption:[0001] ", "4 Singleton EMP: existing empPort[40123] will be used",
                    "3 Location:[2], Name:[Weather]",  //
                    "4 Nothing to do with Mount/UMount.",
                    "4 Add connectionData to connectionDB, name :[Weather], empport[40123], "
                    "clientport[40002]",
                    "4 empID:[Weather] Emp:[40123] , Serial:[2] , Option:[0001] , Status:[2]"));
}

TEST_F(OpenEmpTest, ClientThatIsAlreadyConnectedGetsItsServerAgain) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");

    EXPECT_EQ(Open("Weather", "40001").empPort, "40123");
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}), ElementsAre("40001"));
}

TEST_F(OpenEmpTest, ReportToTheTicketOfAReusedSingletonNeverBlocks) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");
    Open("Weather", "40002");

    EXPECT_EQ(Report("2", "40999|5", "0001"), "ConfirmComplete");

    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", "40123")));
}

TEST_F(OpenEmpTest, ClosedSingletonWithAConnectionIsReusedWithAWarning) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_CLOSED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");

    EXPECT_EQ(Open("Weather", "40002").empPort, "40123");

    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_THAT(Lines(),
                Contains("2 [Weather] is CLOSED status but ConnectionDB has connection info"));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
}

TEST_F(OpenEmpTest, TakenOneConnectionSingletonIsRefused) {
    m_Fake.AddMounted("Weather");
    AddKnown("Weather", "0003", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");

    EXPECT_EQ(Open("Weather", "40002"), kInvalid);

    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}), ElementsAre("40001"));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_FALSE(HasLinesOf(m_Log, "ReportLogToServer"));
    EXPECT_THAT(LinesAfter("4 # EMP INFO"),
                ElementsAre("3 strOption:[0003] ",
                            "3 Singleton-OneConnection EMP: there is already connection, ignore "
                            "this second open! Existing empPort[40123]"));
}

struct RestartCase {
    const char* szName;
    const char* szOption;
    bool bConnected;
    const char* szLine;
};
void PrintTo(const RestartCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class OpenEmpRestartTest : public OpenEmpTest, public ::testing::WithParamInterface<RestartCase> {};

TEST_P(OpenEmpRestartTest, GetsANewServerAndKeepsItsRecord) {
    const RestartCase& c = GetParam();
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", c.szOption, EMP_OPENED);
    EmpInfo().SetEmpPid("Weather", 555);
    if (c.bConnected) ConnectionDB().AddConnectionData({"Weather", "40100"}, "40001");
    LetEmpsReport("40123|777", "0009");
    m_Log.Clear();

    EXPECT_EQ(Open("Weather", "40002"), Info("Weather", "40002", "40123", 2, "127.0.0.1"));

    EXPECT_THAT(m_Fake.processes.Forks(), SizeIs(1));
    EXPECT_EQ(EmpInfo().GetTypeOption("Weather"), c.szOption);
    EXPECT_EQ(EmpInfo().GetEmpPid("Weather"), 555);
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}), ElementsAre("40002"));
    const std::string strOption = c.szOption;
    EXPECT_THAT(
        Lines(),
        ElementsAre(
            "4 ThreadName:[B-O-Weather] len:[11]",
            "4 # EMP INFO # name:[Weather] location:[2] IP:[127.0.0.1] ClientPort:[40002]",
            "3 strOption:[" + strOption + "] ", c.szLine,  //
            "3 Location:[2], Name:[Weather]",              //
            "4 Nothing to do with Mount/UMount.",
            "4 EMP:[Weather] Ticket(Serial:[2]) has been inserted",
            "4 forkEmpParams.ARGV_ticketSerial:[2], CbSrvPort:[40002]",
            "4 ## START wait... name:[Weather] Address:[" + AddressOf(2) + "],ticketSerial:[2]",
            "4 ## END wait...  name:[Weather] ticketSerial:[77], EMPServerPortNum:[40123], "
            "EMPServerPidNum:[777]",
            "4 GetOption strOption [" + strOption + "]",
            "4 Add connectionData to connectionDB, name :[Weather], empport[40123], "
            "clientport[40002]",
            "4 empID:[Weather] Emp:[40123] , Serial:[2] , Option:[" + strOption +
                "] , Status:[2]"));
}

INSTANTIATE_TEST_SUITE_P(
    Table, OpenEmpRestartTest,
    ::testing::Values(
        RestartCase{"LostSingleton", "0001", false,
                    "4 EmpInfo already got EMP. But ConnectinoDB doest not have it. "
                    "name:[Weather] empPort[-1]"},
        RestartCase{"FreeOneConnection", "0003", false,
                    "3 Singleton-OneConnection EMP: there used to get connection, [Weather]"},
        RestartCase{"NotSingleton", "0002", false, "3 [EMP_OPTION_NOT_SINGLETON] EMP:[Weather]"},
        RestartCase{"ConnectedNotSingleton", "0002", true,
                    "3 [EMP_OPTION_NOT_SINGLETON] EMP:[Weather]"},
        RestartCase{"UnknownOption", "0000", true,
                    "0 IT IS NOT SUPPOSED TO BE SEEN. name:[Weather], strOption:[0000]"}),
    [](const auto& info) { return info.param.szName; });

TEST_F(OpenEmpTest, KnownEmpMayReportWithoutPidAndOption) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0002", EMP_CLOSED);
    LetEmpsReport("40123|0", "");

    EXPECT_EQ(Open("Weather").empPort, "40123");
    EXPECT_EQ(EmpInfo().GetTypeOption("Weather"), "0002");
}

TEST_F(OpenEmpTest, StatusThatNeverSettlesRefuses) {
    m_Fake.AddMounted("Weather");
    AddKnown("Weather", "0001", EMP_ADDED);

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_ADDED);
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(LinesAfter("4 # EMP INFO"), IsEmpty());
    EXPECT_FALSE(HasLinesOf(m_Log, "ReportLogToServer"));
}

TEST_F(OpenEmpTest, OpenDuringAnotherOpenWaitsForItAndSharesItsServer) {
    m_Fake.AddPreinstalled("Weather");
    ConnectionInfo first = Untouched();
    std::thread opener{[&] { m_Broker.OpenEmp(first, "40001", "Weather", "1.0", "app"); }};
    m_Fake.processes.AwaitForks(1);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep != 1) return;
        Report("2", "40123|777", "0001");
        opener.join();
    });

    const ConnectionInfo second = Open("Weather", "40002");

    EXPECT_EQ(first.empPort, "40123");
    EXPECT_EQ(second, Info("Weather", "40002", "40123", 3, "127.0.0.1"));
    EXPECT_THAT(m_Fake.processes.Forks(), SizeIs(1));
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}),
                ElementsAre("40001", "40002"));
}

// ---- Status at the decision ----

TEST_F(OpenEmpTest, RecordThatVanishesRefusesAndForgetsTheCount) {
    m_Fake.AddMounted("Weather");
    m_Log.Once("Location:[2], Name:[Weather]", [&] { EmpInfo().Remove("Weather"); });

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());  // nothing is unmounted
    EXPECT_THAT(
        LinesAfter("0 Maybe something wrong"),
        ElementsAre("0 . EMP:[Weather]'s status:EMP_NOT_FOUND, Serial:[2], set invalid "
                    "info and remove item from m_mapEMP",
                    "0 [EMP EXCPETION NOT FOUND Umount]: Found EMP [Weather] in the map. "));
}

TEST_F(OpenEmpTest, RecordThatVanishesWithoutACountIsToldApart) {
    m_Fake.AddPreinstalled("Weather");
    m_Log.Once("Location:[2], Name:[Weather]", [&] { EmpInfo().Remove("Weather"); });

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(
        LinesAfter("4 Nothing to do"),
        ElementsAre("0 . EMP:[Weather]'s status:EMP_NOT_FOUND, Serial:[2], set invalid "
                    "info and remove item from m_mapEMP",
                    "0 [EMP EXCPETION NOT FOUND Umount]: EMP [Weather] is not in the map. "));
}

TEST_F(OpenEmpTest, RecordThatVanishesKeepsTheCountOfTheGroup) {
    BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {"Weather"});
    m_Fake.AddMounted("Group");
    m_Log.Once("Location:[4], Name:[Group]", [&] { EmpInfo().Remove("Weather"); });

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Group", 1)));
}

TEST_F(OpenEmpTest, PendingAndReservedStatusRefuseAndKeepTheCount) {
    for (const EMP_STATUS eStatus : {EMP_PENDING, EMP_RESERVED5}) {
        SCOPED_TRACE(eStatus);
        const std::string strEmp = "Emp" + std::to_string(eStatus);
        const std::string strSerial = std::to_string(Ticket::m_nCurSerial + 1);
        m_Fake.AddMounted(strEmp);
        m_Log.Once("Location:[2], Name:[" + strEmp + "]",
                   [&] { EmpInfo().SetTypeStatus(strEmp, eStatus); });

        EXPECT_EQ(Open(strEmp), kInvalid);

        EXPECT_THAT(Tickets(), IsEmpty());
        EXPECT_EQ(EmpInfo().GetTypeStatus(strEmp), eStatus);
        EXPECT_EQ(MountCounts()[strEmp], 1);
        EXPECT_EQ(Lines().back(), "0 Broker may return false due to status[" +
                                      std::to_string(eStatus) + "]. EMP:[" + strEmp + "] Serial:[" +
                                      strSerial + "]");
    }
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    EXPECT_FALSE(HasLinesOf(m_Log, "ReportLogToServer"));
}

TEST_F(OpenEmpTest, ReservedStatusOfAKnownSingletonRefusesToo) {
    m_Fake.AddMounted("Weather");
    AddKnown("Weather", "0001", EMP_RESERVED5);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 1);

    EXPECT_EQ(Open("Weather", "40002"), kInvalid);

    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 2)));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_RESERVED5);
}

TEST_F(OpenEmpTest, ReservedStatus6IsOpened) {
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Weather", "0001", EMP_RESERVED6);
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");

    EXPECT_EQ(Open("Weather", "40002").empPort, "40123");
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
}

// ---- Images ----

TEST_F(OpenEmpTest, FirstOpenMountsTheImage) {
    m_Fake.AddImage("Weather");
    LetEmpsReport("40123|777", "0001");

    EXPECT_EQ(Open("Weather").empPort, "40123");

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kMountCall));
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 1)));
    EXPECT_THAT(
        Join(Lines()),
        HasSubstr("3 Location:[2], Name:[Weather]\n"
                  "4 [Attention] Mount img:[/opt/down/emps/empWeather_img/empWeather.img] to "
                  "[/opt/down/emps/empWeather].\n"
                  "4 EMP COUNT: It's first time to open [Weather] EMP.\n"
                  "4 EMP:[Weather] Ticket(Serial:[2]) has been inserted\n"));
    // The program is looked for inside the image, also before it can be seen there.
    EXPECT_EQ(m_Fake.processes.Forks()[0].strPath, "/opt/down/emps/empWeather/empWeather");
}

TEST_F(OpenEmpTest, FailedMountDoesNotEndTheOpen) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.FailMounts(1);
    LetEmpsReport("40123|777", "0001");

    EXPECT_EQ(Open("Weather").empPort, "40123");

    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(
        Join(Lines()),
        HasSubstr("4 [Attention] Mount img:[/opt/down/emps/empWeather_img/empWeather.img] to "
                  "[/opt/down/emps/empWeather].\n"
                  "0 Failed to mount [/opt/down/emps/empWeather_img/empWeather.img] to "
                  "[/opt/down/emps/empWeather].\n"
                  "4 EMP:[Weather] Ticket"));
}

TEST_F(OpenEmpTest, EveryOpenOfAMountedImageIsCounted) {
    m_Fake.AddMounted("Weather");
    LetEmpsReport("40123|777", "0001");

    Open("Weather", "40001");
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 1)));
    EXPECT_THAT(Lines(),
                Contains("0 Maybe something wrong with [Weather]'s the count of mount/umount."));
    m_Log.Clear();
    Open("Weather", "40002");  // reuses the server
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 2)));
    EXPECT_THAT(Join(Lines()), Not(HasSubstr("Maybe something wrong")));
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

// ---- Grouping and register EMPs ----

TEST_F(OpenEmpTest, GroupingEmpStartsItsGroup) {
    BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {"Clock", "Weather"});
    m_Fake.AddMounted("Group");
    // Counted under the name of the group.
    LetEmpsReport("40123|777", "0001");

    EXPECT_EQ(Open("Weather"), Info("Weather", "40001", "40123", 2, "127.0.0.1"));

    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Group", 1)));
    ASSERT_THAT(m_Fake.processes.Forks(), SizeIs(1));
    const ForkCall call = m_Fake.processes.Forks()[0];
    EXPECT_EQ(call.strPath, "/opt/down/emps/empGroup/empGroup");
    EXPECT_THAT(call.arguments,
                ElementsAre("Weather", "-DSINGLE_PROCESS", "2", "40001", "0", "Group"));
    EXPECT_THAT(Join(Lines()),
                HasSubstr("4 EMP Location is EMPLOCATION_GROUPING, GroupingEmpName is Group\n"
                          "4 # EMP INFO # name:[Weather] location:[4] IP:[127.0.0.1] "
                          "ClientPort:[40001]\n"
                          "3 Emp:[Weather] is not in the m_EmpInfo.\n"
                          "3 Location:[4], Name:[Group]\n"));
}

TEST_F(OpenEmpTest, GroupingEmpWhoseGroupIsLostFailsToStart) {
    BrokerProbe::SetGroup(m_Broker, "Group", "N/A", {"Weather"});
    m_Log.Once("[Weather] belongs to [4]", [&] { BrokerProbe::ForgetGroups(m_Broker); });

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(Lines(), Contains("4 EMP Location is EMPLOCATION_GROUPING, GroupingEmpName is "));
    EXPECT_THAT(Lines(), Contains("3 Location:[4], Name:[]"));
    EXPECT_TRUE(
        m_Log.HasLine(LEVEL_ERROR, "StartEmp", ">>>>>>>>emp[Weather] is not in a grouping EMP"));
    EXPECT_EQ(Lines().back(),
              "0 UNEXPECTED ERROR:[Start Emp failed] OCCURED. EmpName:[Weather] bIsNew:[1].");
}

TEST_F(OpenEmpTest, RegisterEmpWithoutALauncherPortFails) {
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "", {"Weather"});

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_TRUE(HasLinesOf(m_Log, "ReportLogToServer"));
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_THAT(LinesAfter("4 forkEmpParams"),
                ElementsAre("0 [Fail] Open emp:[Weather], Prepare exception handling.",
                            "0 [Completed] Report for Weather to Log Server.",
                            "4 Nothing to do with Mount/UMount.",
                            "0 UNEXPECTED ERROR:[Start Emp failed] OCCURED. EmpName:[Weather] "
                            "bIsNew:[1]."));
}

TEST_F(OpenEmpTest, GroupingEmpIsOpenedByItsRunningGroup) {
    CFakeLauncher group;
    group.OnOpen([this](const LauncherOpen& open) {
        Report(std::to_string(open.nTicketSerial), "40123|777", "0001");
    });
    BrokerProbe::SetGroup(m_Broker, "Group", group.PortText(), {"Clock", "Weather"});
    m_Fake.AddMounted("Group");

    EXPECT_EQ(Open("Weather"), Info("Weather", "40001", "40123", 2, "127.0.0.1"));
    EXPECT_EQ(Open("Clock", "/tmp/client"), Info("Clock", "/tmp/client", "40123", 3, "127.0.0.1"));

    EXPECT_THAT(group.Opens(), ElementsAre(LauncherOpen{"Weather", 2, "40001"},
                                           LauncherOpen{"Clock", 3, "/tmp/client"}));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Group", 2)));
}

TEST_F(OpenEmpTest, GroupingEmpThatItsRunningGroupRefusesFails) {
    CFakeLauncher group;
    group.Answer(0);
    BrokerProbe::SetGroup(m_Broker, "Group", group.PortText(), {"Weather"});

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(group.Opens(), ElementsAre(LauncherOpen{"Weather", 2, "40001"}));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_EQ(Lines().back(),
              "0 UNEXPECTED ERROR:[Start Emp failed] OCCURED. EmpName:[Weather] bIsNew:[1].");
}

TEST_F(OpenEmpTest, RegisterEmpIsOpenedByItsLauncher) {
    CFakeLauncher launcher;
    launcher.OnOpen([this](const LauncherOpen& open) {
        Report(std::to_string(open.nTicketSerial), "40123|777", "0001");
    });
    BrokerProbe::SetLauncher(m_Broker, "Launcher", launcher.PortText(), {"Weather"});

    EXPECT_EQ(Open("Weather"), Info("Weather", "40001", "40123", 2, "127.0.0.1"));

    EXPECT_THAT(launcher.Opens(), ElementsAre(LauncherOpen{"Weather", 2, "40001"}));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", "40123"}), ElementsAre("40001"));
}

TEST_F(OpenEmpTest, RegisterEmpWhoseLauncherIsGoneFails) {
    const CRefusedPort port;
    BrokerProbe::SetLauncher(m_Broker, "Launcher", port.PortText(), {"Weather"});

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_EQ(Lines().back(),
              "0 UNEXPECTED ERROR:[Start Emp failed] OCCURED. EmpName:[Weather] bIsNew:[1].");
}

// ---- Undoing ----

struct NoReportCase {
    const char* szName;
    const char* szReport;
    const char* szOption;
    const char* szLastLine;  // of the wait
};
void PrintTo(const NoReportCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class OpenEmpUndoTest : public OpenEmpTest, public ::testing::WithParamInterface<NoReportCase> {};

TEST_P(OpenEmpUndoTest, ReportWithoutWhatANewEmpNeedsIsUndone) {
    const NoReportCase& c = GetParam();
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport(c.szReport, c.szOption);

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), IsEmpty());
    EXPECT_TRUE(HasLinesOf(m_Log, "ReportLogToServer"));
    EXPECT_THAT(LinesAfter(c.szLastLine),
                ElementsAre("0 [Fail] Open emp:[Weather], Prepare exception handling.",
                            "0 [Completed] Report for Weather to Log Server.",
                            "4 Nothing to do with Mount/UMount.",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

INSTANTIATE_TEST_SUITE_P(
    Table, OpenEmpUndoTest,
    ::testing::Values(NoReportCase{"NoOption", "40123|777", "", "4 ## END wait..."},
                      NoReportCase{"NoPid", "40123|0", "0001",
                                   "4 This is new EMP strOption [0001]"},
                      NoReportCase{"Neither", "40123|0", "", "4 ## END wait..."}),
    [](const auto& info) { return info.param.szName; });

/// A known EMP whose group is lost: its start fails, and what stands in the tables is undone.
class OpenEmpFailureTest : public OpenEmpTest {
protected:
    /// Fails the start of an EMP that a report without an option ends.
    ConnectionInfo FailToOpen(const std::string& strEmp) {
        LetEmpsReport("40123|777", "");
        return Open(strEmp);
    }
};

TEST_F(OpenEmpFailureTest, FailedRestartKeepsTheRecordAsClosed) {
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "", {"Weather"});
    AddKnown("Weather", "0002", EMP_OPENED);

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_CLOSED);
    EXPECT_EQ(Lines().back(),
              "0 UNEXPECTED ERROR:[Start Emp failed] OCCURED. EmpName:[Weather] bIsNew:[0].");
}

TEST_F(OpenEmpFailureTest, LastCountUnmountsTheImage) {
    m_Fake.AddMounted("Weather");

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kUmountCall));
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("4 Umount for [Weather] EMP Succeeded!",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

TEST_F(OpenEmpFailureTest, FurtherCountIsLoweredAndTheImageStays) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 1);

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 1)));
    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("4 EMP COUNT: Emp=[Weather], count=[2].",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

TEST_F(OpenEmpFailureTest, CountThatACloseHasTakenGoesBelowZero) {
    m_Fake.AddMounted("Weather");
    m_Fake.processes.OnFork([this](const ForkCall& call) {
        BrokerProbe::SetMountCount(m_Broker, "Weather", 0);
        Report(call.arguments.at(2), "40123|777", "");
    });

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", -1)));
    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("4 EMP COUNT: Emp=[Weather], count=[0].",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

TEST_F(OpenEmpFailureTest, ImageThatCannotBeUnmountedKeepsItsCount) {
    m_Fake.AddMounted("Weather");
    m_Fake.mounter.FailUmounts(1);

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 1)));
    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

TEST_F(OpenEmpFailureTest, ImageThatHasGoneMeanwhileIsForgotten) {
    m_Fake.AddMounted("Weather");
    m_Fake.mounter.FailUmounts(1);
    m_Fake.mounter.OnUmount([&] { m_Fake.files.Delete("/opt/down/emps/empWeather/empWeather"); });

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("0 TargetEmpFile:[Weather] doesn't exist, remove it from [m_mapEmp]",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

TEST_F(OpenEmpFailureTest, UncountedImageIsLeftAlone) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.FailMounts(1);  // so there is no count, and then somebody else mounts it
    m_Fake.mounter.OnMount([&] { m_Fake.AddMounted("Weather"); });

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("0 EMP COUNT: EMP [Weather] is not in the map.",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

// It looks as if it were not mounted, and is logged so. If it stayed, no repaired image could be
// mounted in its place.
TEST_F(OpenEmpFailureTest, ImageWithoutItsProgramIsUnmounted) {
    m_Fake.AddImage("Weather");  // and mounting does not make its program appear

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kMountCall, kUmountCall));
    EXPECT_THAT(MountCounts(), IsEmpty());
    EXPECT_THAT(LinesAfter("0 [Completed]"),
                ElementsAre("0 Maybe it was not mounted yet.",
                            "0 UNEXPECTED ERROR:[New EMP is failed to Open] OCCURED. "
                            "EmpName:[Weather] bIsNew:[1]."));
}

TEST_F(OpenEmpFailureTest, ImageWithoutItsProgramThatCannotBeUnmountedStaysCounted) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.FailUmounts(1);

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kMountCall, kUmountCall));
    EXPECT_THAT(MountCounts(), ElementsAre(Pair("Weather", 1)));
}

TEST_F(OpenEmpFailureTest, ImageThatWasNotMountedIsNotUnmounted) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.FailMounts(1);

    EXPECT_EQ(FailToOpen("Weather"), kInvalid);

    EXPECT_THAT(m_Fake.mounter.Calls(), ElementsAre(kMountCall));
    EXPECT_THAT(MountCounts(), IsEmpty());
}

TEST_F(OpenEmpFailureTest, ReportAfterTheUndoFindsNoTicket) {
    m_Fake.AddPreinstalled("Weather");
    FailToOpen("Weather");

    EXPECT_EQ(Report("2", "40123|777", "0001"), "ConfirmComplete");

    EXPECT_THAT(Tickets(), ElementsAre(Pair(2, nullptr)));
    EXPECT_TRUE(m_Log.HasLine(LEVEL_ERROR, "ConfirmEMPServer",
                              "ticket isn't valid. port:[40123]. Broker do not wake condition up"));
}

TEST_F(OpenEmpFailureTest, TextThatIsThrownAnywhereIsUndone) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([] { throw std::string("no way"); });

    EXPECT_EQ(Open("Weather"), kInvalid);

    EXPECT_THAT(Tickets(), IsEmpty());
    EXPECT_EQ(Lines().back(), "0 UNEXPECTED ERROR:[no way] OCCURED. EmpName:[Weather] bIsNew:[1].");
}

TEST_F(OpenEmpFailureTest, ExceptionThatIsNeitherTextNorBadAllocUndoesNothing) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([] { throw std::runtime_error("no way"); });

    ConnectionInfo expected = Untouched();
    expected.ip = "127.0.0.1";
    EXPECT_EQ(Open("Weather"), expected);

    EXPECT_THAT(Tickets(), ElementsAre(Key(2)));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_ADDED);
    EXPECT_EQ(Lines().back(), "0 UNEXPECTED ERROR OCCURED, EMP:[Weather].");
    EXPECT_FALSE(HasLinesOf(m_Log, "ReportLogToServer"));
    EXPECT_THAT(MountCounts(), IsEmpty());  // and its lock is free
}

}  // namespace
}  // namespace vok
