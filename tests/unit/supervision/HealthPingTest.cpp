#include <chrono>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BrokerLocks.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CTemporaryFolder.h"
#include "tests/support/TheBroker.h"

namespace vok {
namespace {

using namespace test;
using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const ClientEvent kReset{-50000, "E0003", "E0003"};
const EmpCall kPing{"Execute", {"/tmp/domain-socket-broker", "Ping", "", "", "", ""}};

/// A broker with one client of one EMP, which a register launcher serves.
class PingLoopTest : public BrokerTest {
protected:
    PingLoopTest() {
        BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Weather"});
        ConnectionDB().AddConnectionData(m_Key, m_Client.Address());
        m_Log.Clear();
        m_Broker.EnablePingTest(true);
    }

    /// The loop, on a thread of its own, until it has slept `nSleeps` times: so with one round less
    /// when pinging is enabled. `onSleep` is called in every sleep with its number, from 1 on: in
    /// sleep n, n - 1 rounds are over.
    void RunSleeps(int nSleeps, const std::function<void(int)>& onSleep = {}) {
        m_Fake.clock.OnSleep([&](int nSleep) {
            if (onSleep) onSleep(nSleep);
            if (nSleep >= nSleeps) m_Broker.RequestStop();
        });
        std::thread([this] { m_Broker.PingTest(); }).join();
    }

    std::vector<std::string> Lines() const { return LinesOf(m_Log, "PingTest"); }
    int PendingCount() { return ConnectionDB().GetConnectionDB()[m_Key].m_nPendingCount; }
    static std::string ExceedLine(const std::string& strEmp) {
        return "0 [" + strEmp + "] Exceed EMP_MAX_PENDING_COUNT!!!!! [4]";
    }

    CFakeEmp m_Emp;
    CFakeClient m_Client;
    const ConnectionKey m_Key{"Weather", m_Emp.PortText()};
};

// ---- Rounds ----

TEST_F(PingLoopTest, EmpThatAnswersIsPingedOnceARound) {
    RunSleeps(3);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(kPing, kPing));
    EXPECT_THAT(Lines(), ElementsAre("4 Start", "4 End", "4 Start", "4 End"));
    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(5s, 5s, 5s));
    EXPECT_THAT(m_Client.Events(), IsEmpty());
    EXPECT_EQ(PendingCount(), 0);
}

TEST_F(PingLoopTest, FirstRoundComesAfterTheFirstSleep) {
    std::vector<std::size_t> calls;

    RunSleeps(2, [&](int) { calls.push_back(m_Emp.Calls().size()); });

    EXPECT_THAT(calls, ElementsAre(0u, 1u));
}

TEST_F(PingLoopTest, WithoutConnectionsARoundIsEmpty) {
    ConnectionDB().RemoveEmpInfoFromConnDB(m_Key);
    m_Log.Clear();

    RunSleeps(2);

    EXPECT_THAT(Lines(), ElementsAre("4 Start", "4 End"));
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
}

struct RoundsCase {
    const char* szName;
    const char* szRounds;              // per round: 'f' the ping fails, 'a' it is answered
    std::vector<int> notificationsAt;  // the numbers of rounds, from 1 on
    int nPendingAfter;
};
void PrintTo(const RoundsCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class PingCountTest : public PingLoopTest, public ::testing::WithParamInterface<RoundsCase> {};

TEST_P(PingCountTest, TellsTheClientAtEveryFifthFailureInARow) {
    const std::string strRounds = GetParam().szRounds;
    const int nRounds = static_cast<int>(strRounds.size());
    std::vector<int> notificationsAt;
    std::size_t nKnown = 0;

    RunSleeps(nRounds + 1, [&](int nSleep) {
        const std::size_t nEvents = m_Client.Events().size();
        for (; nKnown < nEvents; ++nKnown) notificationsAt.push_back(nSleep - 1);
        if (nSleep <= nRounds)
            m_Emp.AnswerExecute("Ping", strRounds[nSleep - 1] == 'a' ? "1" : "0");
    });

    EXPECT_EQ(notificationsAt, GetParam().notificationsAt);
    EXPECT_THAT(m_Client.Events(), Each(kReset));
    EXPECT_THAT(m_Emp.Calls(), SizeIs(nRounds));
    EXPECT_EQ(m_Log.CountLines(LEVEL_ERROR, "PingTest", ExceedLine("Weather").substr(2)),
              static_cast<int>(notificationsAt.size()));
    EXPECT_EQ(PendingCount(), GetParam().nPendingAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PingCountTest,
    ::testing::Values(RoundsCase{"OneFailure", "f", {}, 1}, RoundsCase{"Four", "ffff", {}, 4},
                      RoundsCase{"FourAndAnAnswer", "ffffa", {}, 0},
                      RoundsCase{"Five", "fffff", {5}, 0}, RoundsCase{"Six", "ffffff", {5}, 1},
                      RoundsCase{"Ten", "ffffffffff", {5, 10}, 0},
                      RoundsCase{"EveryFifth", "ffffffffffffffff", {5, 10, 15}, 1},
                      RoundsCase{"AnswerStartsAgain", "ffffafffff", {10}, 0},
                      RoundsCase{"AnsweredNowAndThen", "ffaffaffaffaffa", {}, 0}),
    [](const auto& info) { return info.param.szName; });

TEST_F(PingLoopTest, LinesOfARoundThatTellsTheClient) {
    m_Emp.FailCalls("busy");

    RunSleeps(6, [this](int nSleep) {
        if (nSleep == 5) m_Log.Clear();
    });

    EXPECT_THAT(Lines(), ElementsAre("4 Start", ExceedLine("Weather"), "4 End"));
    EXPECT_THAT(LinesOf(m_Log, "SendCallbackNotification"),
                ElementsAre("4 1 RESET -> clientPort[" + m_Client.Address() + "]"));
}

TEST_F(PingLoopTest, EmpWhoseServerIsGoneFailsAsWell) {
    const CRefusedPort dead;
    ConnectionDB().RemoveEmpInfoFromConnDB(m_Key);
    ConnectionDB().AddConnectionData({"Weather", dead.PortText()}, m_Client.Address());

    RunSleeps(6);

    EXPECT_THAT(m_Client.Events(), ElementsAre(kReset));
    EXPECT_THAT(Lines(), Contains(ExceedLine("Weather")));
    // It is neither closed nor forgotten.
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", dead.PortText()}),
                ElementsAre(m_Client.Address()));
}

TEST_F(PingLoopTest, ClientWithAPathIsToldThere) {
    const CTemporaryFolder folder;
    const CFakeClient local{folder.Path("client")};
    ConnectionDB().AddConnectionData(m_Key, local.Address());
    m_Emp.FailCalls("busy");

    RunSleeps(6);

    EXPECT_THAT(local.Events(), ElementsAre(kReset));
    EXPECT_THAT(m_Client.Events(), IsEmpty());  // one client only, and paths come first
}

TEST_F(PingLoopTest, ClientThatCannotBeToldChangesNothing) {
    m_Client.FailCalls("busy");
    m_Emp.FailCalls("busy");

    RunSleeps(11);

    EXPECT_THAT(m_Client.Events(), ElementsAre(kReset, kReset));
    EXPECT_EQ(PendingCount(), 0);
}

TEST_F(PingLoopTest, EmpWithoutClientsIsPingedAndCountedAllTheSame) {
    ConnectionDB().RemoveClientPortFromConnDB(m_Key, m_Client.Address());
    m_Emp.FailCalls("busy");

    RunSleeps(7);

    EXPECT_THAT(m_Client.Events(), IsEmpty());
    EXPECT_THAT(m_Emp.Calls(), SizeIs(6));
    EXPECT_THAT(Lines(), Contains(ExceedLine("Weather")));
    EXPECT_EQ(PendingCount(), 1);
}

// ---- Which EMPs ----

TEST_F(PingLoopTest, EmpWithAProcessOfItsOwnIsNeverPinged) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.FailCalls("busy");

    RunSleeps(8);

    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(m_Client.Events(), IsEmpty());
    EXPECT_EQ(PendingCount(), 0);
}

TEST_F(PingLoopTest, GroupingAndUnknownEmpsArePinged) {
    const CFakeEmp clock;
    const CFakeEmp lost;
    BrokerProbe::SetGroup(m_Broker, "Group", "6000", {"Clock"});
    ConnectionDB().AddConnectionData({"Clock", clock.PortText()}, "40001");
    ConnectionDB().AddConnectionData({"Lost", lost.PortText()}, "40001");

    RunSleeps(2);

    EXPECT_THAT(clock.Calls(), ElementsAre(kPing));
    EXPECT_THAT(lost.Calls(), ElementsAre(kPing));
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(kPing));
    EXPECT_TRUE(
        m_Log.HasLine(LEVEL_ERROR, "GetEmpIP", "No type for [0]. It may assign EMPLOCATION_BROKER"))
        << m_Log.Text();
}

TEST_F(PingLoopTest, EmpsComeInKeyOrderAndAreCountedEachOnItsOwn) {
    CFakeEmp clock;
    clock.FailCalls("busy");
    m_Emp.FailCalls("busy");
    CFakeEmp zoo;
    BrokerProbe::SetGroup(m_Broker, "Group", "6000", {"Clock", "Zoo"});
    ConnectionDB().AddConnectionData({"Zoo", zoo.PortText()}, m_Client.Address());

    RunSleeps(8, [&](int nSleep) {
        if (nSleep == 3)  // two rounds later than the others
            ConnectionDB().AddConnectionData({"Clock", clock.PortText()}, m_Client.Address());
    });

    std::vector<std::string> exceeded;
    for (const std::string& strLine : Lines())
        if (strLine[0] == '0') exceeded.push_back(strLine);
    EXPECT_THAT(exceeded, ElementsAre(ExceedLine("Weather"), ExceedLine("Clock")));
    EXPECT_THAT(zoo.Calls(), SizeIs(7));
    EXPECT_EQ(PendingCount(), 2);
    // Where each is looked for, in one round.
    std::vector<std::string> order;
    for (const std::string& strLine : LinesOf(m_Log, "WhereIsEMP"))
        if (strLine.find("belongs to") != std::string::npos) order.push_back(strLine);
    order.erase(order.begin(), order.end() - 3);
    EXPECT_THAT(order, ElementsAre("4 [Clock] belongs to [4]", "4 [Weather] belongs to [5]",
                                   "4 [Zoo] belongs to [4]"));
}

// ---- Changes meanwhile, locks ----

TEST_F(PingLoopTest, EntryThatGoesDuringItsPingStaysAway) {
    m_Emp.OnCall([this](const EmpCall&) { ConnectionDB().RemoveEmpInfoFromConnDB(m_Key); });
    m_Emp.FailCalls("busy");

    RunSleeps(8);

    EXPECT_THAT(m_Emp.Calls(), SizeIs(1));
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), IsEmpty());
    EXPECT_THAT(m_Client.Events(), IsEmpty());
}

/// Fails to look for the files of one EMP, each time in another way.
class CFaultyFiles : public CFakeFiles {
public:
    bool Exists(const char* szPath) override {
        if (std::string(szPath).find("empClock") == std::string::npos) return false;
        if (++m_nFaults == 1) throw std::runtime_error("no memory");
        throw 42;
    }

private:
    int m_nFaults = 0;
};

TEST(PingLoop, ExceptionsAtOneEmpDoNotKeepTheOthersFromBeingPinged) {
    FakePlatform fake;
    CFaultyFiles files;
    Platform platform = fake.Get();
    platform.pFiles = &files;
    CBroker broker{platform};
    broker.EnablePingTest(true);
    const CFakeEmp clock;
    const CFakeEmp weather;
    CConnectionDB& db = BrokerProbe::ConnectionDB(broker);
    db.AddConnectionData({"Clock", clock.PortText()}, "40001");
    db.AddConnectionData({"Weather", weather.PortText()}, "40001");
    fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 3) broker.RequestStop();
    });
    const CLogCapture log;

    std::thread([&] { broker.PingTest(); }).join();

    EXPECT_THAT(clock.Calls(), IsEmpty());
    EXPECT_THAT(weather.Calls(), ElementsAre(kPing, kPing));
    const std::string strNot = "0 The ping of EMP [Clock] was not completed.";
    EXPECT_THAT(LinesOf(log, "PingTest"),
                ElementsAre("4 Start", strNot, "4 End", "4 Start", strNot, "4 End"));
}

TEST_F(PingLoopTest, NoLockIsHeldDuringTheCalls) {
    int nPings = 0;
    int nEvents = 0;
    m_Emp.FailCalls("busy");
    m_Emp.OnCall([&](const EmpCall&) {
        TakeEveryLock(m_Broker);
        ++nPings;
    });
    m_Client.OnEvent([&](const ClientEvent&) {
        TakeEveryLock(m_Broker);
        ++nEvents;
    });

    RunSleeps(6);

    EXPECT_EQ(nPings, 5);
    EXPECT_EQ(nEvents, 1);
}

// ---- The flags ----

TEST_F(PingLoopTest, DisabledLoopOnlySleeps) {
    m_Broker.EnablePingTest(false);

    RunSleeps(20);

    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(20));
    EXPECT_THAT(m_Fake.clock.Sleeps(), Each(Eq(5s)));
}

TEST_F(PingLoopTest, LoopOfAFailedServerOnlySleeps) {
    const CServerFailed failed;

    RunSleeps(20);

    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(20));
    EXPECT_THAT(m_Fake.clock.Sleeps(), Each(Eq(5s)));
}

TEST_F(PingLoopTest, FlagCountsFromTheEndOfTheSleepInWhichItChanges) {
    m_Broker.EnablePingTest(false);
    std::vector<std::size_t> calls;

    RunSleeps(7, [&](int nSleep) {
        calls.push_back(m_Emp.Calls().size());
        if (nSleep == 3) m_Broker.EnablePingTest(true);
        if (nSleep == 5) m_Broker.EnablePingTest(false);
    });

    EXPECT_THAT(calls, ElementsAre(0u, 0u, 0u, 1u, 2u, 2u, 2u));
}

TEST(PingLoop, IsDisabledAtFirst) {
    FakePlatform fake;
    const CBroker broker{fake.Get()};

    EXPECT_FALSE(BrokerProbe::IsPingTestEnabled(broker));
}

// ---- The end ----

TEST_F(PingLoopTest, LoopOfABrokerThatWasStoppedBeforeEndsAtOnce) {
    m_Broker.Destory();
    m_Log.Clear();

    RunSleeps(1000);

    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(PingLoopTest, StopDuringASleepEndsItWithoutAnotherRound) {
    RunSleeps(1000, [this](int nSleep) {
        if (nSleep == 2) m_Broker.Destory();
    });

    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(2));
    EXPECT_THAT(m_Emp.Calls(), SizeIs(1));
}

TEST_F(PingLoopTest, StopDuringARoundEndsItAfterTheCallUnderWay) {
    const CFakeEmp zoo;
    ConnectionDB().AddConnectionData({"Zoo", zoo.PortText()}, "40001");
    m_Emp.OnCall([this](const EmpCall&) { m_Broker.RequestStop(); });

    RunSleeps(1000);

    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(1));
    EXPECT_THAT(m_Emp.Calls(), SizeIs(1));
    EXPECT_THAT(zoo.Calls(), IsEmpty());
    EXPECT_THAT(Lines(), ElementsAre("4 Start"));
}

TEST_F(PingLoopTest, StopDuringTheLastCallOfARoundEndsItThere) {
    m_Emp.OnCall([this](const EmpCall&) { m_Broker.RequestStop(); });

    RunSleeps(1000);

    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(1));
    EXPECT_THAT(m_Emp.Calls(), SizeIs(1));
    EXPECT_THAT(Lines(), ElementsAre("4 Start", "4 End"));
}

TEST_F(PingLoopTest, StopEndsALoopThatIsDisabled) {
    m_Broker.EnablePingTest(false);

    RunSleeps(1000, [this](int nSleep) {
        if (nSleep == 4) m_Broker.RequestStop();
    });

    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(4));
}

// ---- PingTestWorker; what it does with a broker, see the tests that have a world of their own
// ----

class PingWorkerTest : public BrokerTest {};

TEST_F(PingWorkerTest, WithoutABrokerItEndsAndKeepsItsName) {
    EXPECT_EQ(CBroker::PingTestWorker(nullptr), nullptr);

    EXPECT_THAT(LinesOf(m_Log, "PingTestWorker"),
                ElementsAre("4 PingTestWoker starts",
                            "0 PingTestWoker cannot start due to the fact that pBroker is NULL"));
    EXPECT_THAT(m_Log.Records(), SizeIs(2));
    EXPECT_EQ(ThreadName(), m_strFormerName);
}

}  // namespace
}  // namespace vok
