#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/Limits.h"
#include "registry/CConnectionDB.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using test::CLogCapture;
using test::LogLines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

const ConnectionKey kWeather{"Weather", "4000"};
const ConnectionKey kAbsent{"Traffic", "4100"};

class CConnectionDBTest : public ::testing::Test {
protected:
    void Connect(const ConnectionKey& key, const std::string& strClientPort) {
        ASSERT_TRUE(m_DB.AddConnectionData(key, strClientPort));
        m_Log.Clear();
    }

    int PendingCount(const ConnectionKey& key) {
        const ConnectionMap map = m_DB.GetConnectionDB();
        const auto it = map.find(key);
        return it == map.end() ? -1 : it->second.m_nPendingCount;
    }

    /// The moments of an entry's clients, in their order.
    std::vector<CCoarseClock::time_point> Since(const ConnectionKey& key) {
        std::vector<CCoarseClock::time_point> moments;
        const ConnectionMap connections = m_DB.GetConnectionDB();
        for (const auto& client : connections.at(key).m_mapClient) moments.push_back(client.second);
        return moments;
    }

    CLogCapture m_Log;
    CConnectionDB m_DB;
};

/// Until the clock shows another time than now.
void AwaitTick() {
    const auto now = CCoarseClock::now();
    while (CCoarseClock::now() == now) continue;
}

TEST_F(CConnectionDBTest, StartsEmpty) {
    EXPECT_THAT(m_DB.GetConnectionDB(), IsEmpty());
    EXPECT_THAT(m_DB.GetConnectionKeyList(), IsEmpty());
}

TEST_F(CConnectionDBTest, LeaseAndReturnUseThePortPool) {
    EXPECT_EQ(m_DB.Lease(), kFirstPoolPort);
    EXPECT_EQ(m_DB.Lease(), kFirstPoolPort + 1);
    EXPECT_EQ(m_DB.Return(kFirstPoolPort), 0);
    EXPECT_EQ(m_DB.Return(kFirstPoolPort), -1);
    EXPECT_EQ(m_DB.Lease(), kFirstPoolPort);
}

TEST_F(CConnectionDBTest, PrintAllLogsEveryEntryAndClient) {
    Connect({"Weather", "4001"}, "6002");
    Connect({"Weather", "4001"}, "6001");
    Connect({"News", "4002"}, "6003");

    m_DB.PrintAll();

    EXPECT_THAT(
        LogLines(m_Log),
        ElementsAre("4 PrintAll: name:[News], empPort:[4002]", "4 PrintAll: , clientPort:[6003] ",
                    "4 PrintAll: -------------------", "4 PrintAll: name:[Weather], empPort:[4001]",
                    "4 PrintAll: , clientPort:[6001] ", "4 PrintAll: , clientPort:[6002] ",
                    "4 PrintAll: -------------------"));
}

TEST_F(CConnectionDBTest, PrintAllOfAnEmptyTableLogsNothing) {
    m_DB.PrintAll();

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CConnectionDBTest, AddConnectionDataMakesAnEntry) {
    EXPECT_TRUE(m_DB.AddConnectionData(kWeather, "6001"));

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("3 AddConnectionData: key[Weather][4000]. clientPort:[6001]"));
    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6001"));
    EXPECT_EQ(PendingCount(kWeather), 0);
}

TEST_F(CConnectionDBTest, AddConnectionDataOfASecondClientKeepsThePendingCount) {
    Connect(kWeather, "6001");
    m_DB.IncreasePendingCount(kWeather);

    EXPECT_TRUE(m_DB.AddConnectionData(kWeather, "6002"));

    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6001", "6002"));
    EXPECT_EQ(PendingCount(kWeather), 1);
}

TEST_F(CConnectionDBTest, AddConnectionDataOfAConnectedClientIsRefused) {
    Connect(kWeather, "6001");

    EXPECT_FALSE(m_DB.AddConnectionData(kWeather, "6001"));

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("3 AddConnectionData: key[Weather][4000]. clientPort:[6001]",
                            "0 AddConnectionData: [Weather][4000] is already in DB.. cannot add"));
    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6001"));
}

TEST_F(CConnectionDBTest, EachClientIsConnectedSinceItCame) {
    const auto before = CCoarseClock::now();
    Connect(kWeather, "6002");
    const auto between = CCoarseClock::now();
    AwaitTick();
    Connect(kWeather, "6001");
    const auto after = CCoarseClock::now();

    const auto since = Since(kWeather);

    ASSERT_EQ(since.size(), 2u);
    EXPECT_LE(before, since[1]);
    EXPECT_LE(since[1], between);
    EXPECT_LT(between, since[0]);
    EXPECT_LE(since[0], after);
}

TEST_F(CConnectionDBTest, ClientThatComesAgainIsConnectedSinceItCameFirst) {
    Connect(kWeather, "6001");
    const auto since = Since(kWeather);
    AwaitTick();

    EXPECT_FALSE(m_DB.AddConnectionData(kWeather, "6001"));

    EXPECT_EQ(Since(kWeather), since);
}

TEST_F(CConnectionDBTest, ClientThatLeftAndCameAgainIsConnectedSinceThen) {
    Connect(kWeather, "6001");
    const auto since = Since(kWeather);
    AwaitTick();

    ASSERT_TRUE(m_DB.RemoveClientPortFromConnDB(kWeather, "6001"));
    Connect(kWeather, "6001");

    EXPECT_LT(since[0], Since(kWeather)[0]);
}

TEST_F(CConnectionDBTest, RemoveConnectionDataErasesTheEntryWithItsLastClient) {
    Connect(kWeather, "6001");
    Connect(kWeather, "6002");

    EXPECT_TRUE(m_DB.RemoveConnectionData(kWeather, "6001"));
    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6002"));

    EXPECT_TRUE(m_DB.RemoveConnectionData(kWeather, "6002"));
    EXPECT_THAT(m_DB.GetConnectionKeyList(), IsEmpty());
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CConnectionDBTest, RemoveConnectionDataForgetsThePendingCount) {
    Connect(kWeather, "6001");
    m_DB.IncreasePendingCount(kWeather);

    ASSERT_TRUE(m_DB.RemoveConnectionData(kWeather, "6001"));
    Connect(kWeather, "6001");

    EXPECT_EQ(m_DB.IncreasePendingCount(kWeather), 0);
}

TEST_F(CConnectionDBTest, RemoveClientPortFromConnDBKeepsAnEntryWithoutClients) {
    Connect(kWeather, "6001");

    EXPECT_TRUE(m_DB.RemoveClientPortFromConnDB(kWeather, "6001"));

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
    EXPECT_THAT(m_DB.GetConnectionKeyList(), ElementsAre(kWeather));
    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), IsEmpty());
    EXPECT_EQ(m_DB.GetEmpPort("Weather"), "4000");
}

TEST_F(CConnectionDBTest, AnEntryWithoutClientsTakesClientsAgain) {
    Connect(kWeather, "6001");
    ASSERT_TRUE(m_DB.RemoveClientPortFromConnDB(kWeather, "6001"));

    EXPECT_TRUE(m_DB.AddConnectionData(kWeather, "6001"));

    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6001"));
}

TEST_F(CConnectionDBTest, RemoveEmpInfoFromConnDBErasesTheEntryWithItsClients) {
    Connect(kWeather, "6001");
    Connect(kWeather, "6002");
    Connect({"Weather", "4001"}, "6003");

    EXPECT_TRUE(m_DB.RemoveEmpInfoFromConnDB(kWeather));

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
    EXPECT_THAT(m_DB.GetConnectionKeyList(), ElementsAre(ConnectionKey{"Weather", "4001"}));
}

struct RefusedCase {
    const char* szName;
    bool (*pCall)(CConnectionDB& db);
    std::vector<std::string> lines;
};

class RefusedChangeTest : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedChangeTest, LogsAndChangesNothing) {
    CConnectionDB db;
    ASSERT_TRUE(db.AddConnectionData(kWeather, "6001"));
    const CLogCapture log;

    EXPECT_FALSE(GetParam().pCall(db));

    EXPECT_EQ(LogLines(log), GetParam().lines);
    EXPECT_THAT(db.GetConnectionKeyList(), ElementsAre(kWeather));
    EXPECT_THAT(db.GetClientPortNumList(kWeather), ElementsAre("6001"));
}

INSTANTIATE_TEST_SUITE_P(
    Of, RefusedChangeTest,
    ::testing::Values(
        RefusedCase{"RemoveConnectionDataWithUnknownKey",
                    [](CConnectionDB& db) { return db.RemoveConnectionData(kAbsent, "6001"); },
                    {"0 RemoveConnectionData: [Traffic][4100] is not in DB..  cannot remove. "
                     "clientPort[6001]"}},
        RefusedCase{"RemoveConnectionDataWithUnknownPort",
                    [](CConnectionDB& db) {
                        return db.RemoveConnectionData({"Weather", "4"}, "6001");
                    },
                    {"0 RemoveConnectionData: [Weather][4] is not in DB..  cannot remove. "
                     "clientPort[6001]"}},
        RefusedCase{"RemoveConnectionDataWithUnknownClient",
                    [](CConnectionDB& db) { return db.RemoveConnectionData(kWeather, "6009"); },
                    {"0 RemoveConnectionData: clientPort:[6009] is not in DB..  cannot remove. "
                     "The Key is [Weather][4000]"}},
        RefusedCase{
            "RemoveClientPortWithUnknownKey",
            [](CConnectionDB& db) { return db.RemoveClientPortFromConnDB(kAbsent, "6001"); },
            {"0 RemoveClientPortFromConnDB: Remove client:[6001], but Connection key "
             "<Traffic,4100> is not in the DB."}},
        RefusedCase{
            "RemoveClientPortWithUnknownClient",
            [](CConnectionDB& db) { return db.RemoveClientPortFromConnDB(kWeather, "6009"); },
            {"0 RemoveClientPortFromConnDB: the client:[6009] to be removed isn't in the "
             "DB."}},
        RefusedCase{"RemoveEmpInfoWithUnknownKey",
                    [](CConnectionDB& db) { return db.RemoveEmpInfoFromConnDB(kAbsent); },
                    {"0 RemoveEmpInfoFromConnDB: Not found, Connection key <Traffic,4100> is not "
                     "in the DB."}},
        RefusedCase{"ModifyWithUnknownKey",
                    [](CConnectionDB& db) {
                        return db.ModifyConnectionData(kAbsent, SERVER_TYPE_CALLBACK, "a", "b");
                    },
                    {"4 ModifyConnectionData: Before modify",
                     "0 ModifyConnectionData: There is no key in DB. key[Traffic]callback[4100]. "
                     "serverType[1]. old[a], new[b]"}},
        RefusedCase{
            "ModifyWithUnknownKeyWhosePortIsNoNumber",
            [](CConnectionDB& db) {
                return db.ModifyConnectionData({"Traffic", "/tmp/sock"}, SERVER_TYPE_EMP, "a", "b");
            },
            {"4 ModifyConnectionData: Before modify",
             "0 ModifyConnectionData: There is no key in DB. key[Traffic]callback[0]. "
             "serverType[0]. old[a], new[b]"}},
        RefusedCase{"ModifyWithUnknownKeyWhosePortIsHuge",
                    [](CConnectionDB& db) {
                        return db.ModifyConnectionData({"Traffic", "99999999999999999999"},
                                                       SERVER_TYPE_EMP, "a", "b");
                    },
                    {"4 ModifyConnectionData: Before modify",
                     "0 ModifyConnectionData: There is no key in DB. key[Traffic]"
                     "callback[2147483647]. serverType[0]. old[a], new[b]"}},
        RefusedCase{"ModifyWithUnknownType",
                    [](CConnectionDB& db) {
                        return db.ModifyConnectionData(kWeather, static_cast<eServerType>(2),
                                                       "6001", "6002");
                    },
                    {"4 ModifyConnectionData: Before modify",
                     "0 ModifyConnectionData: There is no key in DB. key[Weather]callback[4000]. "
                     "serverType[2]. old[6001], new[6002]"}}),
    [](const auto& info) { return info.param.szName; });

TEST_F(CConnectionDBTest, ModifyCallbackReplacesTheClient) {
    Connect(kWeather, "6001");

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_CALLBACK, "6001", "6002"));

    EXPECT_THAT(LogLines(m_Log), ElementsAre("4 ModifyConnectionData: Before modify",
                                             "4 ModifyConnectionData: After modify"));
    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6002"));
}

TEST_F(CConnectionDBTest, ModifyCallbackOfAnUnknownClientAddsTheNewOne) {
    Connect(kWeather, "6001");

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_CALLBACK, "6009", "6002"));

    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6001", "6002"));
}

TEST_F(CConnectionDBTest, ModifyCallbackKeepsTheClientsTime) {
    Connect(kWeather, "6001");
    const auto since = Since(kWeather);
    AwaitTick();

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_CALLBACK, "6001", "6001"));
    EXPECT_EQ(Since(kWeather), since);
    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_CALLBACK, "6001", "6002"));
    EXPECT_EQ(Since(kWeather), since);
    // Who is new is connected from now on.
    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_CALLBACK, "6009", "6003"));
    EXPECT_LT(since[0], Since(kWeather).at(1));
}

TEST_F(CConnectionDBTest, ModifyCallbackToAConnectedClientLeavesThatOne) {
    Connect(kWeather, "6001");
    AwaitTick();
    Connect(kWeather, "6002");
    const auto since = Since(kWeather);

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_CALLBACK, "6001", "6002"));

    EXPECT_THAT(m_DB.GetClientPortNumList(kWeather), ElementsAre("6002"));
    EXPECT_THAT(Since(kWeather), ElementsAre(since[1]));
}

TEST_F(CConnectionDBTest, ModifyEmpKeepsTheClientsTimes) {
    Connect(kWeather, "6001");
    const auto since = Since(kWeather);
    AwaitTick();

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_EMP, "4000", "4500"));

    EXPECT_EQ(Since({"Weather", "4500"}), since);
}

TEST_F(CConnectionDBTest, ModifyEmpMovesClientsAndPendingCount) {
    Connect(kWeather, "6001");
    Connect(kWeather, "6002");
    m_DB.IncreasePendingCount(kWeather);

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_EMP, "4000", "4500"));

    const ConnectionKey moved{"Weather", "4500"};
    EXPECT_THAT(LogLines(m_Log), ElementsAre("4 ModifyConnectionData: Before modify",
                                             "4 ModifyConnectionData: After modify"));
    EXPECT_THAT(m_DB.GetConnectionKeyList(), ElementsAre(moved));
    EXPECT_THAT(m_DB.GetClientPortNumList(moved), ElementsAre("6001", "6002"));
    EXPECT_EQ(PendingCount(moved), 1);
}

TEST_F(CConnectionDBTest, ModifyEmpCarriesOnWhenTheOldPortDoesNotMatch) {
    Connect(kWeather, "6001");

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_EMP, "4999", "4500"));

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("4 ModifyConnectionData: Before modify",
                            "0 ModifyConnectionData: [Weather] empPort was not matched. old[4000], "
                            "new[4999]",
                            "4 ModifyConnectionData: After modify"));
    EXPECT_THAT(m_DB.GetConnectionKeyList(), ElementsAre(ConnectionKey{"Weather", "4500"}));
}

TEST_F(CConnectionDBTest, ModifyEmpToItsOwnPortRemovesTheEntry) {
    Connect(kWeather, "6001");

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_EMP, "4000", "4000"));

    EXPECT_THAT(m_DB.GetConnectionKeyList(), IsEmpty());
}

TEST_F(CConnectionDBTest, ModifyEmpToATakenPortLeavesThatEntryAsItIs) {
    Connect(kWeather, "6001");
    Connect({"Weather", "4500"}, "6002");

    EXPECT_TRUE(m_DB.ModifyConnectionData(kWeather, SERVER_TYPE_EMP, "4000", "4500"));

    EXPECT_THAT(m_DB.GetConnectionKeyList(), ElementsAre(ConnectionKey{"Weather", "4500"}));
    EXPECT_THAT(m_DB.GetClientPortNumList({"Weather", "4500"}), ElementsAre("6002"));
}

struct PortCase {
    const char* szName;
    std::vector<ConnectionKey> keys;
    const char* szEmp;
    const char* szPort;
};

class GetEmpPortTest : public ::testing::TestWithParam<PortCase> {};

TEST_P(GetEmpPortTest, IsTheFirstInKeyOrder) {
    CConnectionDB db;
    for (const ConnectionKey& key : GetParam().keys) ASSERT_TRUE(db.AddConnectionData(key, "6001"));

    EXPECT_EQ(db.GetEmpPort(GetParam().szEmp), GetParam().szPort);
}

INSTANTIATE_TEST_SUITE_P(
    Port, GetEmpPortTest,
    ::testing::Values(
        PortCase{"EmptyTable", {}, "Weather", "-1"},
        PortCase{"UnknownBeforeAll", {{"Weather", "4000"}}, "News", "-1"},
        PortCase{"UnknownAfterAll", {{"Weather", "4000"}}, "Zoo", "-1"},
        PortCase{"PrefixOfAKnownName", {{"Weather", "4000"}}, "Weat", "-1"},
        PortCase{"LongerThanAKnownName", {{"Weather", "4000"}}, "Weather2", "-1"},
        PortCase{
            "OnlyServer", {{"News", "1"}, {"Weather", "4000"}, {"Zoo", "2"}}, "Weather", "4000"},
        PortCase{"OrderIsByBytes", {{"Weather", "9"}, {"Weather", "4000"}}, "Weather", "4000"},
        PortCase{"EmptyPort", {{"Weather", ""}, {"Weather", "1"}}, "Weather", ""},
        PortCase{"EmptyName", {{"", "5"}, {"Weather", "1"}}, "", "5"}),
    [](const auto& info) { return info.param.szName; });

TEST_F(CConnectionDBTest, IncreasePendingCountAnswersTheCountBefore) {
    Connect(kWeather, "6001");

    EXPECT_EQ(m_DB.IncreasePendingCount(kWeather), 0);
    EXPECT_EQ(m_DB.IncreasePendingCount(kWeather), 1);
    EXPECT_EQ(m_DB.IncreasePendingCount(kWeather), 2);
    m_DB.ResetPendingCount(kWeather);
    EXPECT_EQ(m_DB.IncreasePendingCount(kWeather), 0);
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CConnectionDBTest, PendingCountOfAnUnknownKeyIsZeroAndMakesNoEntry) {
    m_DB.ResetPendingCount(kAbsent);

    EXPECT_EQ(m_DB.IncreasePendingCount(kAbsent), 0);
    EXPECT_EQ(m_DB.IncreasePendingCount(kAbsent), 0);
    EXPECT_THAT(m_DB.GetConnectionKeyList(), IsEmpty());
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CConnectionDBTest, KeysComeInKeyOrder) {
    Connect({"Weather", "4001"}, "6001");
    Connect({"News", "9"}, "6001");
    Connect({"Weather", "4000"}, "6001");

    EXPECT_THAT(m_DB.GetConnectionKeyList(),
                ElementsAre(Pair("News", "9"), Pair("Weather", "4000"), Pair("Weather", "4001")));
}

TEST_F(CConnectionDBTest, GetClientPortNumListOfAnUnknownKeyIsEmptyAndMakesNoEntry) {
    EXPECT_THAT(m_DB.GetClientPortNumList(kAbsent), IsEmpty());
    EXPECT_THAT(m_DB.GetConnectionKeyList(), IsEmpty());
}

TEST_F(CConnectionDBTest, CopiesDoNotFollowLaterChanges) {
    Connect(kWeather, "6001");
    const ConnectionMap map = m_DB.GetConnectionDB();
    const std::set<std::string> clients = m_DB.GetClientPortNumList(kWeather);

    ASSERT_TRUE(m_DB.RemoveEmpInfoFromConnDB(kWeather));

    EXPECT_EQ(map.count(kWeather), 1u);
    EXPECT_THAT(clients, ElementsAre("6001"));
}

TEST(CConnectionDB, SerialisesThreadsThatChangeTheSameEntries) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    CConnectionDB db;
    ASSERT_TRUE(db.AddConnectionData(kWeather, "0"));
    std::atomic<int> nAdded{0};

    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
        threads.emplace_back([&db, &nAdded, n] {
            const std::string strOwn = "own" + std::to_string(n);
            for (int nRound = 0; nRound < kRounds; ++nRound) {
                // One client per round, so exactly one thread connects it.
                if (db.AddConnectionData({"News", "1"}, std::to_string(nRound))) ++nAdded;
                ASSERT_TRUE(db.AddConnectionData(kWeather, strOwn));
                ASSERT_EQ(db.GetClientPortNumList(kWeather).count(strOwn), 1u);
                ASSERT_EQ(db.GetEmpPort("Weather"), "4000");
                db.IncreasePendingCount(kWeather);
                ASSERT_EQ(db.GetConnectionDB().count(kWeather), 1u);
                ASSERT_FALSE(db.GetConnectionKeyList().empty());
                ASSERT_EQ(db.Return(db.Lease()), 0);
                ASSERT_TRUE(db.RemoveClientPortFromConnDB(kWeather, strOwn));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(nAdded, kRounds);
    EXPECT_EQ(db.GetClientPortNumList({"News", "1"}).size(), static_cast<std::size_t>(kRounds));
    EXPECT_EQ(db.IncreasePendingCount(kWeather), kThreads * kRounds);
    EXPECT_THAT(db.GetClientPortNumList(kWeather), ElementsAre("0"));
}

}  // namespace
}  // namespace vok
