#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "registry/CEmpInfo.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using test::CLogCapture;
using test::LogLines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;

class CEmpInfoTest : public ::testing::Test {
protected:
    /// A record that differs from a new one in everything.
    void AddOpened(const std::string& strName) {
        ASSERT_TRUE(m_Info.Add(strName, "1.0"));
        ASSERT_TRUE(m_Info.SetTypeOption(strName, "0003"));
        ASSERT_TRUE(m_Info.SetTypeStatus(strName, EMP_OPENED));
        ASSERT_TRUE(m_Info.SetEmpProcess(strName, {77, 1234}));
        m_Log.Clear();
    }

    CLogCapture m_Log;
    CEmpInfo m_Info;
};

TEST(EmpDataInfo, IsOfNoEmpAtFirst) {
    const CEmpDataInfo record;
    EXPECT_EQ(record.GetStatus(), EMP_NOT_FOUND);
    EXPECT_EQ(record.GetOption(), "0000");
    EXPECT_EQ(record.GetEmpPid(), 0);
}

TEST(EmpStatus, HasTheValuesThatPeersOfTheLogKnow) {
    EXPECT_EQ(EMP_NOT_FOUND, 0);
    EXPECT_EQ(EMP_ADDED, 1);
    EXPECT_EQ(EMP_OPENED, 2);
    EXPECT_EQ(EMP_CLOSED, 3);
    EXPECT_EQ(EMP_PENDING, 4);
    EXPECT_EQ(EMP_RESERVED5, 5);
    EXPECT_EQ(EMP_RESERVED6, 6);
}

TEST(CEmpDataInfo, StartsEmptyWithTheDefaultOption) {
    const CEmpDataInfo info;

    EXPECT_EQ(info.GetStatus(), EMP_NOT_FOUND);
    EXPECT_EQ(info.GetOption(), "0000");
    EXPECT_EQ(info.GetEmpPid(), 0);
    EXPECT_EQ(info.GetEmpProcess().nStartTime, 0u);
}

TEST(CEmpDataInfo, TakesTheStatusOfItsConstructor) {
    const CEmpDataInfo info{"Weather", "1.0", EMP_PENDING};

    EXPECT_EQ(info.GetStatus(), EMP_PENDING);
    EXPECT_EQ(info.GetOption(), "0000");
    EXPECT_EQ(info.GetEmpPid(), 0);
}

TEST(CEmpDataInfo, AccessorsKeepWhatIsSetAndLogNothing) {
    const CLogCapture log;
    CEmpDataInfo info;

    EXPECT_TRUE(info.SetStatus(EMP_RESERVED6));
    EXPECT_TRUE(info.SetEmpPid(-5));

    EXPECT_EQ(info.GetStatus(), EMP_RESERVED6);
    EXPECT_EQ(info.GetEmpPid(), -5);
    EXPECT_THAT(LogLines(log), IsEmpty());
}

TEST(CEmpDataInfo, SetOptionLogsTheNewOptionAndTheArgument) {
    const CLogCapture log;
    CEmpDataInfo info;

    EXPECT_TRUE(info.SetOption("01"));

    EXPECT_THAT(LogLines(log), ElementsAre("4 CEmpDataInfo::SetOption: member option [0100] , "
                                           "parameter [01]"));
}

TEST(CEmpDataInfo, GetOptionLogsTheOption) {
    const CLogCapture log;
    const CEmpDataInfo info;

    EXPECT_EQ(info.GetOption(), "0000");

    EXPECT_THAT(LogLines(log), ElementsAre("4 CEmpDataInfo::GetOption: member option [0000] "));
}

struct OptionCase {
    const char* szName;
    const char* szArgument;
    const char* szStored;
};

class SetOptionTest : public ::testing::TestWithParam<OptionCase> {};

TEST_P(SetOptionTest, OverwritesFromTheStart) {
    CEmpDataInfo info;

    info.SetOption(GetParam().szArgument);

    EXPECT_EQ(info.GetOption(), GetParam().szStored);
}

INSTANTIATE_TEST_SUITE_P(Option, SetOptionTest,
                         ::testing::Values(OptionCase{"SameLengthReplacesAll", "0002", "0002"},
                                           OptionCase{"ShorterLeavesTheTail", "01", "0100"},
                                           OptionCase{"EmptyChangesNothing", "", "0000"},
                                           OptionCase{"LongerReplacesAll", "000312", "000312"}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(CEmpInfoTest, AddOfANewNameMakesADefaultRecord) {
    EXPECT_TRUE(m_Info.Add("Weather", "1.0"));

    EXPECT_THAT(LogLines(m_Log), ElementsAre("4 CEmpInfo::Add: Add a new item to mapInfo: "));
    EXPECT_TRUE(m_Info.IsAdded("Weather"));
    EXPECT_EQ(m_Info.GetTypeStatus("Weather"), EMP_ADDED);
    EXPECT_EQ(m_Info.GetTypeOption("Weather"), "0000");
    EXPECT_EQ(m_Info.GetEmpPid("Weather"), 0);
    EXPECT_EQ(m_Info.GetEmpProcess("Weather").nStartTime, 0u);
}

TEST_F(CEmpInfoTest, AddOfAKnownNameKeepsItsRecord) {
    AddOpened("Weather");

    EXPECT_FALSE(m_Info.Add("Weather", "2.0"));

    EXPECT_THAT(LogLines(m_Log), ElementsAre("4 CEmpInfo::Add: [Weather] is already in map"));
    EXPECT_EQ(m_Info.GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_EQ(m_Info.GetTypeOption("Weather"), "0003");
    EXPECT_EQ(m_Info.GetEmpPid("Weather"), 77);
    EXPECT_EQ(m_Info.GetEmpProcess("Weather").nStartTime, 1234u);
}

TEST_F(CEmpInfoTest, RemoveForgetsTheRecord) {
    AddOpened("Weather");

    EXPECT_TRUE(m_Info.Remove("Weather"));

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
    EXPECT_FALSE(m_Info.IsAdded("Weather"));
    EXPECT_TRUE(m_Info.Add("Weather", "2.0"));
    EXPECT_EQ(m_Info.GetTypeOption("Weather"), "0000");
    EXPECT_EQ(m_Info.GetEmpPid("Weather"), 0);
}

TEST_F(CEmpInfoTest, RemoveOfAnUnknownNameIsTrueAndLogsNothing) {
    AddOpened("Weather");

    EXPECT_TRUE(m_Info.Remove("Traffic"));

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
    EXPECT_TRUE(m_Info.IsAdded("Weather"));
}

TEST_F(CEmpInfoTest, RecordsOfDifferentNamesAreIndependent) {
    AddOpened("Weather");
    ASSERT_TRUE(m_Info.Add("weather", ""));

    EXPECT_EQ(m_Info.GetTypeStatus("weather"), EMP_ADDED);
    EXPECT_TRUE(m_Info.Remove("weather"));
    EXPECT_EQ(m_Info.GetTypeStatus("Weather"), EMP_OPENED);
}

TEST_F(CEmpInfoTest, SetTypeOptionLogsAndOverwrites) {
    ASSERT_TRUE(m_Info.Add("Weather", "1.0"));
    m_Log.Clear();

    EXPECT_TRUE(m_Info.SetTypeOption("Weather", "01"));

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("3 CEmpInfo::SetTypeOption: [Weather] has an option [01] ",
                            "4 CEmpDataInfo::SetOption: member option [0100] , parameter [01]"));
    EXPECT_EQ(m_Info.GetTypeOption("Weather"), "0100");
}

TEST_F(CEmpInfoTest, GetTypeOptionLogsThroughTheRecord) {
    AddOpened("Weather");

    EXPECT_EQ(m_Info.GetTypeOption("Weather"), "0003");

    EXPECT_THAT(LogLines(m_Log), ElementsAre("4 CEmpDataInfo::GetOption: member option [0003] "));
}

TEST_F(CEmpInfoTest, StatusIsStoredWhateverItsValue) {
    AddOpened("Weather");

    for (const int nStatus : {0, 1, 2, 3, 4, 5, 6, 7, -1}) {
        EXPECT_TRUE(m_Info.SetTypeStatus("Weather", static_cast<EMP_STATUS>(nStatus)));
        EXPECT_EQ(m_Info.GetTypeStatus("Weather"), nStatus);
    }
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CEmpInfoTest, SetEmpPidForgetsTheStartTime) {
    AddOpened("Weather");

    EXPECT_TRUE(m_Info.SetEmpPid("Weather", 78));

    EXPECT_EQ(m_Info.GetEmpPid("Weather"), 78);
    EXPECT_EQ(m_Info.GetEmpProcess("Weather").nPid, 78);
    EXPECT_EQ(m_Info.GetEmpProcess("Weather").nStartTime, 0u);
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CEmpInfoTest, SetEmpProcessKeepsPidAndStartTime) {
    AddOpened("Weather");

    EXPECT_TRUE(m_Info.SetEmpProcess("Weather", {79, 18'000'000'000'000'000'000u}));

    EXPECT_EQ(m_Info.GetEmpPid("Weather"), 79);
    EXPECT_EQ(m_Info.GetEmpProcess("Weather").nPid, 79);
    EXPECT_EQ(m_Info.GetEmpProcess("Weather").nStartTime, 18'000'000'000'000'000'000u);
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CEmpInfoTest, VersionsAreNotKept) {
    AddOpened("Weather");

    EXPECT_EQ(m_Info.GetTypeVersion("Weather"), "");
    EXPECT_TRUE(m_Info.SetTypeVersion("Weather", "2.0"));
    EXPECT_EQ(m_Info.GetTypeVersion("Weather"), "");
    EXPECT_TRUE(m_Info.SetTypeVersion("Traffic", "2.0"));
    EXPECT_EQ(m_Info.GetTypeVersion("Traffic"), "");
    EXPECT_FALSE(m_Info.IsAdded("Traffic"));
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(CEmpInfoTest, GettersOfAnUnknownNameAnswerNothingQuietly) {
    EXPECT_FALSE(m_Info.IsAdded("Traffic"));
    EXPECT_EQ(m_Info.GetTypeOption("Traffic"), "");
    EXPECT_EQ(m_Info.GetTypeStatus("Traffic"), EMP_NOT_FOUND);
    EXPECT_EQ(m_Info.GetEmpPid("Traffic"), 0);
    EXPECT_EQ(m_Info.GetEmpProcess("Traffic").nPid, 0);
    EXPECT_EQ(m_Info.GetEmpProcess("Traffic").nStartTime, 0u);
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

struct UnknownCase {
    const char* szName;
    bool (*pSet)(CEmpInfo& info);
    const char* szLine;
};

class UnknownEmpTest : public ::testing::TestWithParam<UnknownCase> {};

TEST_P(UnknownEmpTest, IsRefusedWithAnError) {
    const CLogCapture log;
    CEmpInfo info;

    EXPECT_FALSE(GetParam().pSet(info));

    EXPECT_THAT(LogLines(log), ElementsAre(GetParam().szLine));
    EXPECT_FALSE(info.IsAdded("Traffic"));
}

INSTANTIATE_TEST_SUITE_P(
    Setter, UnknownEmpTest,
    ::testing::Values(
        UnknownCase{"SetTypeOption",
                    [](CEmpInfo& info) { return info.SetTypeOption("Traffic", "0001"); },
                    "0 CEmpInfo::SetTypeOption: [Traffic] is not in map"},
        UnknownCase{"EndFailedOpen",
                    [](CEmpInfo& info) {
                        info.EndFailedOpen("Traffic", true);
                        return false;
                    },
                    "0 CEmpInfo::SetTypeStatus: error : Traffic is not found setStatus(3)"},
        UnknownCase{"SetTypeStatus",
                    [](CEmpInfo& info) { return info.SetTypeStatus("Traffic", EMP_OPENED); },
                    "0 CEmpInfo::SetTypeStatus: error : Traffic is not found setStatus(2)"},
        UnknownCase{"SetEmpPid", [](CEmpInfo& info) { return info.SetEmpPid("Traffic", 42); },
                    "0 CEmpInfo::SetEmpPid: error : Traffic is not found SetEmpPid(42)"},
        UnknownCase{"SetEmpProcess",
                    [](CEmpInfo& info) {
                        return info.SetEmpProcess("Traffic", {42, 7});
                    },
                    "0 CEmpInfo::SetEmpPid: error : Traffic is not found SetEmpPid(42)"}),
    [](const auto& info) { return info.param.szName; });

TEST_F(CEmpInfoTest, GetEmpInfoGivesEveryRecordInOrder) {
    EXPECT_THAT(m_Info.GetEmpInfo(), IsEmpty());
    AddOpened("Weather");
    ASSERT_TRUE(m_Info.Add("Clock", "2.0"));
    m_Log.Clear();

    const auto records = m_Info.GetEmpInfo();

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
    ASSERT_THAT(records, ElementsAre(Key("Clock"), Key("Weather")));
    EXPECT_EQ(records.at("Clock").GetStatus(), EMP_ADDED);
    EXPECT_EQ(records.at("Weather").GetStatus(), EMP_OPENED);
    EXPECT_EQ(records.at("Weather").GetOption(), "0003");
    EXPECT_EQ(records.at("Weather").GetEmpPid(), 77);
    EXPECT_EQ(records.at("Weather").GetEmpProcess().nStartTime, 1234u);
}

TEST_F(CEmpInfoTest, GetEmpInfoGivesCopies) {
    AddOpened("Weather");
    auto records = m_Info.GetEmpInfo();

    m_Info.SetTypeStatus("Weather", EMP_CLOSED);
    records.at("Weather").SetEmpPid(5);

    EXPECT_EQ(records.at("Weather").GetStatus(), EMP_OPENED);
    EXPECT_EQ(m_Info.GetEmpPid("Weather"), 77);
    m_Info.Remove("Weather");
    EXPECT_EQ(records.count("Weather"), 1u);
}

TEST(CEmpInfo, SerialisesThreadsThatAddAndRemoveTheSameNames) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    CEmpInfo info;
    std::atomic<int> nAdded{0};

    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
        threads.emplace_back([&info, &nAdded, n] {
            const std::string strOwn = "Own" + std::to_string(n);
            for (int nRound = 0; nRound < kRounds; ++nRound) {
                // One name per round, so exactly one thread wins it.
                if (info.Add("Shared" + std::to_string(nRound), "")) ++nAdded;
                ASSERT_TRUE(info.Add(strOwn, ""));
                ASSERT_TRUE(info.SetTypeOption(strOwn, "0001"));
                ASSERT_TRUE(info.SetEmpProcess(strOwn, {nRound, 1}));
                ASSERT_TRUE(info.SetTypeStatus(strOwn, EMP_OPENED));
                ASSERT_EQ(info.GetEmpPid(strOwn), nRound);
                ASSERT_EQ(info.GetTypeOption(strOwn), "0001");
                ASSERT_TRUE(info.Remove(strOwn));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(nAdded, kRounds);
    EXPECT_FALSE(info.IsAdded("Own0"));
}

}  // namespace
}  // namespace vok
