#include <boost/make_shared.hpp>
#include <unistd.h>

#include <chrono>
#include <future>
#include <limits>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "broker/Globals.h"
#include "platform/CVOKDebug.h"
#include "platform/EmpPaths.h"
#include "platform/ScopeGuard.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"
#include "vok_admin_types.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

admin::EmpState Emp(const std::string& strName, int nStatus, const std::string& strOption, int nPid,
                    int nLocation) {
    admin::EmpState emp;
    emp.name = strName;
    emp.status = nStatus;
    emp.option = strOption;
    emp.pid = nPid;
    emp.location = nLocation;
    return emp;
}

admin::ConnectionState Connection(const std::string& strEmp, const std::string& strPort,
                                  const std::vector<std::string>& clients, int nPending) {
    admin::ConnectionState connection;
    connection.empName = strEmp;
    connection.empPort = strPort;
    connection.clientPorts = clients;
    connection.pendingCount = nPending;
    return connection;
}

admin::MountState MountOf(const std::string& strImage, int nCount, bool bMounted) {
    admin::MountState mount;
    mount.image = strImage;
    mount.count = nCount;
    mount.mounted = bMounted;
    return mount;
}

admin::LauncherState Launcher(const std::string& strName, const std::string& strPort,
                              const std::vector<std::string>& emps) {
    admin::LauncherState launcher;
    launcher.name = strName;
    launcher.port = strPort;
    launcher.emps = emps;
    return launcher;
}

class BrokerStateTest : public BrokerTest {
protected:
    admin::BrokerState State() {
        admin::BrokerState state;
        m_Broker.GetState(state);
        // How old they are depends on the machine.
        for (admin::ConnectionState& connection : state.connections) {
            EXPECT_EQ(connection.clientAgesMs.size(), connection.clientPorts.size());
            for (const std::int64_t nAge : std::exchange(connection.clientAgesMs, {}))
                EXPECT_GE(nAge, 0);
        }
        return state;
    }

    void Connect(const std::string& strEmp, const std::string& strPort,
                 const std::string& strClientPort) {
        ASSERT_TRUE(ConnectionDB().AddConnectionData({strEmp, strPort}, strClientPort));
    }
};

// ---- Tables ----

TEST_F(BrokerStateTest, NewBrokerHasNothingToTell) {
    const admin::BrokerState state = State();

    EXPECT_EQ(state.version, "5.100");
    EXPECT_EQ(state.pid, ::getpid());
    EXPECT_GE(state.uptimeMs, 0);
    EXPECT_EQ(state.debugLevel, LEVEL_DETAIL);
    EXPECT_FALSE(state.pingEnabled);
    EXPECT_THAT(state.emps, IsEmpty());
    EXPECT_THAT(state.connections, IsEmpty());
    EXPECT_THAT(state.mounts, IsEmpty());
    EXPECT_THAT(state.launchers, IsEmpty());
    EXPECT_THAT(state.groups, IsEmpty());
    EXPECT_THAT(state.waitingTickets, IsEmpty());
    EXPECT_EQ(state.counters, admin::Counters());
}

TEST_F(BrokerStateTest, UptimeNeverGoesBack) {
    const auto nFirst = State().uptimeMs;
    EXPECT_GE(State().uptimeMs, nFirst);
}

TEST_F(BrokerStateTest, SettingsAreThoseOfTheMoment) {
    CVOKDebug::SetLogLevel(std::numeric_limits<unsigned short>::max());
    m_Broker.EnablePingTest(true);
    EXPECT_EQ(State().debugLevel, 65535);
    EXPECT_TRUE(State().pingEnabled);

    CVOKDebug::SetLogLevel(0);
    m_Broker.EnablePingTest(false);
    EXPECT_EQ(State().debugLevel, 0);
    EXPECT_FALSE(State().pingEnabled);
}

TEST_F(BrokerStateTest, EmpsAreSortedAndToldWithTheirPlace) {
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, 1234});
    m_Fake.AddPreinstalled("Weather");
    AddKnown("Clock", "0003", EMP_CLOSED);
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Clock"});
    AddKnown("Radio", "0002", EMP_OPENED);
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Radio"});
    EmpInfo().Add("Lost", "1.0");

    EXPECT_THAT(State().emps,
                ElementsAre(Emp("Clock", 3, "0003", 0, 4), Emp("Lost", 1, "0000", 0, 0),
                            Emp("Radio", 2, "0002", 0, 5), Emp("Weather", 2, "0001", 777, 2)));
}

TEST_F(BrokerStateTest, ItIsToldWhileAnImageIsBeingMounted) {
    std::future<admin::BrokerState> state;
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([&] {
        state = std::async(std::launch::async, [this] { return State(); });
        EXPECT_EQ(state.wait_for(std::chrono::seconds{30}), std::future_status::ready);
        throw std::runtime_error("enough");
    });
    ConnectionInfo info;
    m_Broker.OpenEmp(info, "40001", "Weather", "1.0", "app");
    EXPECT_THAT(state.get().mounts, ElementsAre(MountOf("Weather", 0, false)));
}

TEST_F(BrokerStateTest, ConnectionsAreSortedByEmpThenPort) {
    Connect("Weather", "9000", "40003");
    Connect("Weather", "10000", "40002");
    Connect("Weather", "10000", "/tmp/client");
    Connect("Clock", "9001", "40001");
    ConnectionDB().IncreasePendingCount({"Weather", "9000"});
    ConnectionDB().IncreasePendingCount({"Weather", "9000"});
    ASSERT_TRUE(ConnectionDB().RemoveClientPortFromConnDB({"Clock", "9001"}, "40001"));

    EXPECT_THAT(State().connections,
                ElementsAre(Connection("Clock", "9001", {}, 0),
                            Connection("Weather", "10000", {"/tmp/client", "40002"}, 0),
                            Connection("Weather", "9000", {"40003"}, 2)));
}

TEST_F(BrokerStateTest, ClientsAreToldWithTheirAge) {
    using namespace std::chrono_literals;
    const auto awaitAge = [](CCoarseClock::time_point since) {
        while (CCoarseClock::now() - since < 2ms) continue;
    };
    Connect("Weather", "9000", "40002");
    awaitAge(CCoarseClock::now());
    Connect("Weather", "9000", "40001");
    awaitAge(CCoarseClock::now());

    admin::BrokerState state;
    m_Broker.GetState(state);

    ASSERT_EQ(state.connections.size(), 1u);
    const admin::ConnectionState& connection = state.connections[0];
    EXPECT_THAT(connection.clientPorts, ElementsAre("40001", "40002"));
    ASSERT_EQ(connection.clientAgesMs.size(), 2u);
    EXPECT_GE(connection.clientAgesMs[0], 2);
    EXPECT_GE(connection.clientAgesMs[1], connection.clientAgesMs[0] + 2);
}

TEST_F(BrokerStateTest, MountsAreToldWithWhatIsThere) {
    BrokerProbe::SetMountCount(m_Broker, "Weather", 2);
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Clock", 0);
    m_Fake.AddImage("Clock");
    BrokerProbe::SetMountCount(m_Broker, "Gone", 1);

    EXPECT_THAT(State().mounts, ElementsAre(MountOf("Clock", 0, false), MountOf("Gone", 1, false),
                                            MountOf("Weather", 2, true)));
}

TEST_F(BrokerStateTest, LaunchersAndGroupsAreSorted) {
    BrokerProbe::SetLauncher(m_Broker, "B", "5000", {"Weather", "Clock"});
    BrokerProbe::SetLauncher(m_Broker, "A", "5001", {});
    BrokerProbe::SetGroup(m_Broker, "Sports", "N/A", {"Golf"});
    BrokerProbe::SetGroup(m_Broker, "Home", "40123", {"Radio"});

    const admin::BrokerState state = State();

    EXPECT_THAT(state.launchers, ElementsAre(Launcher("A", "5001", {}),
                                             Launcher("B", "5000", {"Clock", "Weather"})));
    EXPECT_THAT(state.groups, ElementsAre(Launcher("Home", "40123", {"Radio"}),
                                          Launcher("Sports", "N/A", {"Golf"})));
}

TEST_F(BrokerStateTest, OnlyTicketsThatAwaitAReportAreTold) {
    const auto makeTicket = [](bool bAwaits) {
        const auto spTicket = boost::make_shared<Ticket>("-1");
        spTicket->m_bAwaitsReport = bAwaits;
        return spTicket;
    };
    BrokerProbe::SetTicket(m_Broker, 9, makeTicket(true));
    BrokerProbe::SetTicket(m_Broker, 10, nullptr);  // of a report that nobody waited for
    BrokerProbe::SetTicket(m_Broker, 11, makeTicket(false));
    BrokerProbe::SetTicket(m_Broker, std::numeric_limits<unsigned int>::max(), makeTicket(true));

    EXPECT_THAT(State().waitingTickets, ElementsAre(9, 4294967295));
}

TEST_F(BrokerStateTest, OpenWaitsUntilItsEmpReports) {
    m_Fake.AddPreinstalled("Weather");
    admin::BrokerState meanwhile;
    m_Fake.processes.OnFork([&](const ForkCall& call) {
        meanwhile = State();
        Report(call.arguments.at(2), "40123|777", "0001");
    });

    ConnectionInfo info;
    m_Broker.OpenEmp(info, "40001", "Weather", "1.0", "app");

    EXPECT_THAT(meanwhile.waitingTickets, ElementsAre(2));
    EXPECT_THAT(meanwhile.emps, ElementsAre(Emp("Weather", 1, "0000", 0, 2)));
    EXPECT_THAT(meanwhile.connections, IsEmpty());
    const admin::BrokerState state = State();
    EXPECT_THAT(state.waitingTickets, IsEmpty());
    EXPECT_THAT(state.emps, ElementsAre(Emp("Weather", 2, "0001", 777, 2)));
    EXPECT_THAT(state.connections, ElementsAre(Connection("Weather", "40123", {"40001"}, 0)));
}

TEST_F(BrokerStateTest, WhatPeersSendAsBytesLeavesAsText) {
    const std::string strOdd = "a\xff\xc3\xa4z\xc3";  // an umlaut among bytes that are no text
    const std::string strText = "a\xef\xbf\xbd\xc3\xa4z\xef\xbf\xbd";  // each replaced by U+FFFD
    EmpInfo().Add(strOdd, "1.0");
    EmpInfo().SetTypeOption(strOdd, strOdd);
    Connect(strOdd, strOdd, strOdd);
    BrokerProbe::SetMountCount(m_Broker, strOdd, 1);
    BrokerProbe::SetLauncher(m_Broker, strOdd, strOdd, {strOdd});
    BrokerProbe::SetGroup(m_Broker, strOdd, strOdd, {strOdd});

    const admin::BrokerState state = State();

    EXPECT_THAT(state.emps, ElementsAre(Emp(strText, 1, strText, 0, 4)));
    EXPECT_THAT(state.connections, ElementsAre(Connection(strText, strText, {strText}, 0)));
    EXPECT_THAT(state.mounts, ElementsAre(MountOf(strText, 1, false)));
    EXPECT_THAT(state.launchers, ElementsAre(Launcher(strText, strText, {strText})));
    EXPECT_THAT(state.groups, ElementsAre(Launcher(strText, strText, {strText})));
}

TEST_F(BrokerStateTest, LookingAtEmpsLogsNothingOfWhereTheyLive) {
    EmpInfo().Add("Lost", "1.0");
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Clock"});
    EmpInfo().Add("Clock", "1.0");
    m_Log.Clear();

    State();

    EXPECT_THAT(m_Log.Messages(LEVEL_ERROR), IsEmpty());
    EXPECT_THAT(LinesOf(m_Log, "WhereIsEMP"), IsEmpty());
}

struct PlaceCase {
    const char* szName;
    bool bImage;
    bool bProgram;
    bool bMountedProgram;
    bool bGrouped;
    bool bRegistered;
};
void PrintTo(const PlaceCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class EmpPlaceTest : public BrokerStateTest, public ::testing::WithParamInterface<PlaceCase> {};

TEST_P(EmpPlaceTest, IsThatOfAnOpen) {
    const PlaceCase& c = GetParam();
    const std::set<std::string> setEmp{"../Weather", "Weather"};
    for (const std::string& strEmp : setEmp) {
        EmpInfo().Add(strEmp, "1.0");
        if (c.bImage) m_Fake.AddImage(strEmp);
        if (c.bProgram) m_Fake.AddPreinstalled(strEmp);
        if (c.bMountedProgram) m_Fake.files.Add(paths::DownloadedProgram(strEmp));
    }
    if (c.bGrouped) BrokerProbe::SetGroup(m_Broker, "Home", "N/A", setEmp);
    if (c.bRegistered) BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", setEmp);

    const auto emps = State().emps;

    ASSERT_EQ(emps.size(), 2u);
    for (const admin::EmpState& emp : emps)
        EXPECT_EQ(emp.location, m_Broker.WhereIsEMP(emp.name)) << emp.name;
}

INSTANTIATE_TEST_SUITE_P(Table, EmpPlaceTest,
                         ::testing::Values(PlaceCase{"Nowhere", false, false, false, false, false},
                                           PlaceCase{"Image", true, false, false, true, true},
                                           PlaceCase{"Program", false, true, false, true, true},
                                           PlaceCase{"MountedProgramOnly", false, false, true,
                                                     false, false},
                                           PlaceCase{"Group", false, false, false, true, true},
                                           PlaceCase{"Launcher", false, false, true, false, true}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(BrokerStateTest, StateIsFilledAnew) {
    AddKnown("Weather", "0001", EMP_OPENED);
    admin::BrokerState state;
    m_Broker.GetState(state);
    EmpInfo().Remove("Weather");

    admin::BrokerState fresh;
    m_Broker.GetState(fresh);

    EXPECT_THAT(state.emps, ElementsAre(Emp("Weather", 2, "0001", 0, 0)));
    EXPECT_THAT(fresh.emps, IsEmpty());
}

// ---- Counters ----

class BrokerCountersTest : public BrokerStateTest {
protected:
    ConnectionInfo Open(const std::string& strEmp, const std::string& strClientPort = "40001") {
        ConnectionInfo info;
        m_Broker.OpenEmp(info, strClientPort, strEmp, "1.0", "app");
        return info;
    }

    /// Opens, reuses, refusals, failures, closes, sweeps.
    std::vector<std::int64_t> Counts() {
        const admin::Counters counters = State().counters;
        return {counters.opens,    counters.reuses, counters.refusals,
                counters.failures, counters.closes, counters.sweeps};
    }

    CFakeEmp m_Emp;
    const CRefusedPort m_Nobody;
};

TEST_F(BrokerCountersTest, StartIsAnOpen) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport(m_Emp.PortText() + "|777", "0001");

    ASSERT_EQ(Open("Weather").empPort, m_Emp.PortText());

    EXPECT_THAT(Counts(), ElementsAre(1, 0, 0, 0, 0, 0));
}

TEST_F(BrokerCountersTest, SecondClientOfASingletonIsAReuse) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport(m_Emp.PortText() + "|777", "0001");

    Open("Weather", "40001");
    ASSERT_EQ(Open("Weather", "40002").empPort, m_Emp.PortText());

    EXPECT_THAT(Counts(), ElementsAre(2, 1, 0, 0, 0, 0));
    EXPECT_EQ(m_Fake.processes.Forks().size(), 1u);
}

TEST_F(BrokerCountersTest, SecondServerIsNoReuse) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport(m_Emp.PortText() + "|777", "0002");

    Open("Weather", "40001");
    Open("Weather", "40002");

    EXPECT_THAT(Counts(), ElementsAre(2, 0, 0, 0, 0, 0));
    EXPECT_EQ(m_Fake.processes.Forks().size(), 2u);
}

TEST_F(BrokerCountersTest, WhatIsAnsweredWithoutAStartIsARefusal) {
    Open("Nowhere");
    Open("");
    Open("Broker");
    AddKnown("Weather", "0003", EMP_OPENED);
    m_Fake.AddPreinstalled("Weather");
    Connect("Weather", m_Emp.PortText(), "40001");
    Open("Weather", "40002");
    EXPECT_THAT(Counts(), ElementsAre(4, 0, 4, 0, 0, 0));

    AddKnown("Stuck", "0001", EMP_PENDING);
    m_Fake.AddPreinstalled("Stuck");
    Open("Stuck");
    EXPECT_THAT(Counts(), ElementsAre(5, 0, 5, 0, 0, 0));
    EXPECT_THAT(m_Fake.processes.Forks(), IsEmpty());
}

TEST_F(BrokerCountersTest, StartThatIsUndoneIsAFailure) {
    m_Fake.AddPreinstalled("Weather");
    LetEmpsReport("40123|0", "0001");  // no process

    EXPECT_EQ(Open("Weather").empPort, "-1");

    EXPECT_THAT(Counts(), ElementsAre(1, 0, 0, 1, 0, 0));
}

TEST_F(BrokerCountersTest, UnknownFailureIsAFailure) {
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([] { throw std::runtime_error("no way"); });

    Open("Weather");

    EXPECT_THAT(Counts(), ElementsAre(1, 0, 0, 1, 0, 0));
}

TEST_F(BrokerCountersTest, EveryCloseRequestCounts) {
    ConnectionInfo info;
    info.empName = "Nowhere";
    EXPECT_FALSE(m_Broker.CloseEmp(info));
    EXPECT_FALSE(m_Broker.CloseEmp(info));

    EXPECT_THAT(Counts(), ElementsAre(0, 0, 0, 0, 2, 0));
}

TEST_F(BrokerCountersTest, SweepClosesWhoNoLongerAnswers) {
    AddKnown("Weather", "0001", EMP_OPENED);
    m_Fake.AddPreinstalled("Weather");
    Connect("Weather", m_Emp.PortText(), m_Nobody.PortText());

    EXPECT_EQ(m_Broker.SweepZombies(), 1);
    EXPECT_THAT(Counts(), ElementsAre(0, 0, 0, 0, 1, 1));

    m_Broker.PingTest_For_Webkit();  // nobody is left
    EXPECT_THAT(Counts(), ElementsAre(0, 0, 0, 0, 1, 2));
}

TEST_F(BrokerCountersTest, BrokerThatDoesNotServeDoesNotSweep) {
    gbVokBrokerServerFail = true;
    const ScopeGuard restore{[] { gbVokBrokerServerFail = false; }};

    EXPECT_EQ(m_Broker.SweepZombies(), 0);

    EXPECT_THAT(Counts(), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(BrokerCountersTest, ClosesForAnApplicationAreClosesAndNoSweep) {
    AddKnown("Weather", "0001", EMP_OPENED);
    m_Fake.AddPreinstalled("Weather");
    Connect("Weather", m_Emp.PortText(), "40001");
    Connect("Weather", m_Emp.PortText(), "40002");
    m_Emp.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");

    EXPECT_EQ(m_Broker.CloseAllEmpWithAppID("app", ""), 2);

    EXPECT_THAT(Counts(), ElementsAre(0, 0, 0, 0, 2, 0));
}

}  // namespace
}  // namespace vok
