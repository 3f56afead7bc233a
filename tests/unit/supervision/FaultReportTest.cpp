#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/NoThreads.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kPolicyFile[] = "/opt/down/common/LogPolicyConfig.xml";
constexpr char kFaultFile[] = "/proc/kpi_fault_info_3rd";

constexpr char kUrlLine[] = "4 Log Server's url:[http://log].";
constexpr char kDescLine[] =
    "3 Desc:[{errtype=E1;empnm=Weather;empver=1.0;vokver=5.100;thread=fault}] of KPI log.";
constexpr char kEndLine[] = "4 Prepare to destroy the logger task.";

constexpr char kConfCall[] = "SetServiceConf 15_vok|10|20|0|3|http://log";
constexpr char kEventCall[] = "AddEvent VOKERR|10|20|0|3";
constexpr char kHeaderCall[] = "SetEventHeader openfail|E1|Weather|5.100";
constexpr char kLogCall[] =
    "AddEventLog EV001|{errtype=E1;empnm=Weather;empver=1.0;vokver=5.100;thread=fault}|Fake TV";

/// A set on which faults are reported.
void Prepare(FakePlatform& platform) {
    platform.kpi.SetPolicy(
        kPolicyFile, "15_vok",
        {{"url", "http://log"}, {"queue_max", "10"}, {"expiration", "20"}, {"loglevel", "3"}});
    platform.files.Add(kFaultFile, "fault\n");
}

/// The body of the report's thread, on the test's.
class FaultReportTest : public ::testing::Test {
protected:
    FaultReportTest() { Prepare(m_Fake); }

    void Report(const std::string& strErrType = "E1", const std::string& strEmp = "Weather",
                const std::string& strEmpVersion = "1.0") {
        void* const pResult = CBroker::OnReportLogToServer(new FaultReport{
            strErrType, strEmp, strEmpVersion, CBroker::GetFullVersion(), m_Fake.Get(), nullptr});
        EXPECT_EQ(pResult, nullptr);
    }

    std::vector<std::string> Lines() const { return LinesOf(m_Log, "OnReportLogToServer"); }

    CHookedLog m_Log;
    FakePlatform m_Fake;
};

TEST_F(FaultReportTest, ConfiguresTheLoggerAddsTheEventAndFlushes) {
    std::vector<std::string> callsBeforeTheEnd;
    m_Log.Once("Prepare to destroy the logger task.",
               [&] { callsBeforeTheEnd = m_Fake.kpi.Calls(); });

    Report();

    EXPECT_THAT(Lines(), ElementsAre(kUrlLine, kDescLine, kEndLine));
    EXPECT_THAT(callsBeforeTheEnd,
                ElementsAre("Create", kConfCall, kEventCall, kHeaderCall, kLogCall, "Flush"));
    EXPECT_THAT(m_Fake.kpi.Calls(), ElementsAre("Create", kConfCall, kEventCall, kHeaderCall,
                                                kLogCall, "Flush", "Destroy"));
}

TEST_F(FaultReportTest, NullRecordIsRefused) {
    EXPECT_EQ(CBroker::OnReportLogToServer(nullptr), nullptr);

    EXPECT_THAT(Lines(), ElementsAre("0 KPI main info shouldn't be empty."));
    EXPECT_THAT(m_Fake.kpi.Calls(), IsEmpty());
}

TEST_F(FaultReportTest, WithoutAPolicyThereIsNoLogger) {
    FakePlatform without;
    without.files.Add(kFaultFile, "fault\n");

    (void)CBroker::OnReportLogToServer(
        new FaultReport{"E1", "Weather", "1.0", "5.100", without.Get(), nullptr});

    EXPECT_THAT(Lines(), ElementsAre("0 Get attribute of [15_vok] failed."));
    EXPECT_THAT(without.kpi.Calls(), IsEmpty());
}

TEST_F(FaultReportTest, WithoutFaultInformationTheEventIsNotAdded) {
    m_Fake.files.Delete(kFaultFile);

    Report();

    EXPECT_THAT(Lines(), ElementsAre(kUrlLine, "0 Error: /proc/kpi_fault_info_3rd Open Failed!!!",
                                     kEndLine));
    EXPECT_THAT(m_Fake.kpi.Calls(),
                ElementsAre("Create", kConfCall, kEventCall, kHeaderCall, "Destroy"));
}

TEST_F(FaultReportTest, WithoutAModelTheEventGoesAllTheSame) {
    m_Fake.kpi.SetModel(-22, "not taken");

    Report();

    EXPECT_THAT(Lines(), ElementsAre(kUrlLine, kDescLine, "0 Fail to get value :[-22]", kEndLine));
    EXPECT_THAT(m_Fake.kpi.Calls(),
                Contains("AddEventLog EV001|{errtype=E1;empnm=Weather;empver=1.0;vokver=5.100;"
                         "thread=fault}|"));
    EXPECT_THAT(m_Fake.kpi.Calls(), Contains("Flush"));
}

/// A library that throws where it must not.
class CThrowingKpi : public CFakeKpi {
public:
    int GetSystemInfo(const char*, std::string&) override { throw 42; }
};

TEST_F(FaultReportTest, WhateverIsThrownEndsTheReportOnly) {
    CThrowingKpi kpi;
    kpi.SetPolicy(kPolicyFile, "15_vok", {});
    Platform platform = m_Fake.Get();
    platform.pKpi = &kpi;

    EXPECT_EQ(CBroker::OnReportLogToServer(
                  new FaultReport{"E1", "Weather", "1.0", "5.100", platform, nullptr}),
              nullptr);

    EXPECT_EQ(Lines().back(), "0 A fault report was not completed.");
    EXPECT_EQ(kpi.Calls().back(), "Destroy");
}

// ---- Operations that fail ----

struct FailCase {
    const char* szOperation;
    std::vector<std::string> lines;  // after the first
    std::vector<std::string> calls;
};
void PrintTo(const FailCase& c, std::ostream* pStream) {
    *pStream << c.szOperation;
}

class FaultReportFailTest : public FaultReportTest,
                            public ::testing::WithParamInterface<FailCase> {};

TEST_P(FaultReportFailTest, EndsTheReport) {
    const FailCase& c = GetParam();
    m_Fake.kpi.Fail(c.szOperation);

    Report();

    std::vector<std::string> lines{kUrlLine};
    lines.insert(lines.end(), c.lines.begin(), c.lines.end());
    EXPECT_EQ(Lines(), lines);
    EXPECT_EQ(m_Fake.kpi.Calls(), c.calls);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FaultReportFailTest,
    ::testing::Values(
        FailCase{"Create", {"0 There is no KPI logger.", kEndLine}, {"Create"}},
        FailCase{"SetServiceConf",
                 {"0 Could not set service conf info!", kEndLine},
                 {"Create", kConfCall, "Destroy"}},
        FailCase{"AddEvent",
                 {"0 Could not add event!", kEndLine},
                 {"Create", kConfCall, kEventCall, "Destroy"}},
        FailCase{"SetEventHeader",
                 {"0 Could not set event header!", kEndLine},
                 {"Create", kConfCall, kEventCall, kHeaderCall, "Destroy"}},
        FailCase{"AddEventLog",
                 {kDescLine, "0 Could not add event log!", kEndLine},
                 {"Create", kConfCall, kEventCall, kHeaderCall, kLogCall, "Flush", "Destroy"}},
        FailCase{"Flush",
                 {kDescLine, "0 Failed to flush KPI log!", kEndLine},
                 {"Create", kConfCall, kEventCall, kHeaderCall, kLogCall, "Flush", "Destroy"}}),
    [](const auto& info) { return info.param.szOperation; });

// ---- Numbers of the policy ----

struct NumberCase {
    const char* szName;
    NodeAttributes attributes;
    const char* szCall;
};
void PrintTo(const NumberCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class FaultReportNumberTest : public FaultReportTest,
                              public ::testing::WithParamInterface<NumberCase> {};

TEST_P(FaultReportNumberTest, IsDecimal) {
    m_Fake.kpi.SetPolicy(kPolicyFile, "15_vok", GetParam().attributes);

    Report();

    EXPECT_THAT(m_Fake.kpi.Calls(), Contains(GetParam().szCall));
}

INSTANTIATE_TEST_SUITE_P(
    Table, FaultReportNumberTest,
    ::testing::Values(
        NumberCase{"NoAttributes", {}, "SetServiceConf 15_vok|0|0|0|0|"},
        NumberCase{"LeadingZeros",
                   {{"queue_max", "010"}, {"expiration", "0x10"}, {"loglevel", "08"}},
                   "SetServiceConf 15_vok|10|0|0|8|"},
        NumberCase{"NoNumbers",
                   {{"queue_max", "many"}, {"expiration", ""}, {"loglevel", "4 or so"}},
                   "SetServiceConf 15_vok|0|0|0|4|"},
        NumberCase{
            "OutOfBounds",
            {{"queue_max", "4294967297"}, {"expiration", "-99999999999"}, {"loglevel", "-1"}},
            "SetServiceConf 15_vok|2147483647|-2147483648|0|-1|"}),
    [](const auto& info) { return info.param.szName; });

// ---- The description ----

TEST_F(FaultReportTest, LinesOfTheFaultInformationAreJoined) {
    m_Fake.files.Add(kFaultFile, "\nfirst\nsecond\n\n third");

    Report();

    EXPECT_THAT(Lines(), Contains("3 Desc:[{errtype=E1;empnm=Weather;empver=1.0;vokver=5.100;"
                                  "thread=firstsecond third}] of KPI log."));
}

TEST_F(FaultReportTest, EmptyFaultInformationIsReported) {
    m_Fake.files.Add(kFaultFile, "");

    Report();

    EXPECT_THAT(Lines(), Contains("3 Desc:[{errtype=E1;empnm=Weather;empver=1.0;vokver=5.100;"
                                  "thread=}] of KPI log."));
}

TEST_F(FaultReportTest, TextsAreTakenAsTheyAre) {
    Report("%s", "%n", "a;b}");

    EXPECT_THAT(Lines(), Contains("3 Desc:[{errtype=%s;empnm=%n;empver=a;b};vokver=5.100;"
                                  "thread=fault}] of KPI log."));
    EXPECT_THAT(m_Fake.kpi.Calls(), Contains("SetEventHeader openfail|%s|%n|5.100"));
}

struct LengthCase {
    const char* szName;
    std::size_t nInfo;
    std::size_t nDescription;
    char cLast;
};
void PrintTo(const LengthCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class FaultReportLengthTest : public FaultReportTest,
                              public ::testing::WithParamInterface<LengthCase> {};

TEST_P(FaultReportLengthTest, IsCutAt127Characters) {
    const LengthCase& c = GetParam();
    m_Fake.files.Add(kFaultFile, std::string(c.nInfo, 'x'));

    Report();

    const std::string strStart =
        "{errtype=E1;empnm=Weather;empver=1.0;vokver=5.100;thread=" + std::string(c.nInfo, 'x');
    const std::string strDescription = (strStart + '}').substr(0, 127);
    EXPECT_EQ(strDescription.size(), c.nDescription);
    EXPECT_EQ(strDescription.back(), c.cLast);
    EXPECT_THAT(Lines(), Contains("3 Desc:[" + strDescription + "] of KPI log."));
    EXPECT_THAT(m_Fake.kpi.Calls(), Contains("AddEventLog EV001|" + strDescription + "|Fake TV"));
}

INSTANTIATE_TEST_SUITE_P(Table, FaultReportLengthTest,
                         ::testing::Values(LengthCase{"JustBelow", 68, 126, '}'},
                                           LengthCase{"AtTheBound", 69, 127, '}'},
                                           LengthCase{"JustAbove", 70, 127, 'x'},
                                           LengthCase{"Huge", 2'000'000, 127, 'x'}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(FaultReportTest, LongNamesAreCutInTheDescriptionOnly) {
    const std::string strLong(5000, 'W');

    Report("E1", strLong);

    EXPECT_THAT(
        m_Fake.kpi.Calls(),
        Contains("AddEventLog EV001|{errtype=E1;empnm=" + std::string(109, 'W') + "|Fake TV"));
    EXPECT_THAT(m_Fake.kpi.Calls(), Contains("SetEventHeader openfail|E1|" + strLong + "|5.100"));
}

// ---- The real platform ----

TEST_F(FaultReportTest, SetWithoutAPolicyReportsNothing) {
    if (LinuxPlatform().pFiles->Exists(kPolicyFile)) GTEST_SKIP() << "this is a set";

    (void)CBroker::OnReportLogToServer(
        new FaultReport{"E1", "Weather", "1.0", "5.100", LinuxPlatform(), nullptr});

    EXPECT_THAT(Lines(), ElementsAre("0 Get attribute of [15_vok] failed."));
}

// ---- The thread ----

/// A broker that comes and goes within the test.
class ReportLogToServerTest : public ::testing::Test {
protected:
    ReportLogToServerTest() {
        Prepare(m_Fake);
        m_Log.Clear();
    }
    ~ReportLogToServerTest() override { Ticket::m_nCurSerial = m_nFormerSerial; }

    std::vector<std::string> Lines() const { return LinesOf(m_Log, "ReportLogToServer"); }

    const unsigned int m_nFormerSerial = Ticket::m_nCurSerial;
    CHookedLog m_Log;
    FakePlatform m_Fake;
    std::unique_ptr<CBroker> m_pBroker = std::make_unique<CBroker>(m_Fake.Get());
};

TEST_F(ReportLogToServerTest, GivesItsThreadAHeadStart) {
    std::vector<std::string> linesAtTheSleep;
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 1) linesAtTheSleep = Lines();
    });

    m_pBroker->ReportLogToServer("E1", "Weather", "1.0");

    EXPECT_THAT(Lines(), ElementsAre("4 Error with:[E1], Prepare report dev info to log server.",
                                     "3 Take time for operating ReportToLogServer for [0.100000] "
                                     "sec"));
    EXPECT_EQ(linesAtTheSleep, Lines());
    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(std::chrono::milliseconds{100}));
}

TEST_F(ReportLogToServerTest, ReportsOnAThreadOfItsOwn) {
    std::thread::id reporter;
    std::size_t nStack = 0;
    int nDetached = -1;
    m_Log.Once("Prepare to destroy the logger task.", [&] {
        reporter = std::this_thread::get_id();
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
        (void)pthread_attr_getstacksize(&attributes, &nStack);
        (void)pthread_attr_getdetachstate(&attributes, &nDetached);
        (void)pthread_attr_destroy(&attributes);
    });

    m_pBroker->ReportLogToServer("E1", "Weather", "1.0");
    m_pBroker.reset();

    EXPECT_NE(reporter, std::thread::id());
    EXPECT_NE(reporter, std::this_thread::get_id());
    EXPECT_EQ(nDetached, PTHREAD_CREATE_DETACHED);
    EXPECT_GE(nStack, 0x100000u);
    EXPECT_LE(nStack, 0x110000u);
    EXPECT_THAT(LinesOf(m_Log, "OnReportLogToServer"), ElementsAre(kUrlLine, kDescLine, kEndLine));
    EXPECT_THAT(m_Fake.kpi.Calls(), ElementsAre("Create", kConfCall, kEventCall, kHeaderCall,
                                                kLogCall, "Flush", "Destroy"));
}

TEST_F(ReportLogToServerTest, ReportOutlivesTheTextsOfItsCaller) {
    std::promise<void> go;
    m_Log.Once("Log Server's url:[http://log].", [&] { go.get_future().wait(); });
    {
        auto pEmp = std::make_unique<std::string>("Weather");
        m_pBroker->ReportLogToServer("E1", *pEmp, "1.0");
        pEmp->assign("another");
    }
    go.set_value();
    m_pBroker.reset();

    EXPECT_THAT(m_Fake.kpi.Calls(), Contains(kLogCall));
}

TEST_F(ReportLogToServerTest, BrokerWaitsForReportsThatAreUnderWay) {
    std::promise<void> go;
    m_Log.Once("Log Server's url:[http://log].", [&] { go.get_future().wait(); });
    m_pBroker->ReportLogToServer("E1", "Weather", "1.0");
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 2) go.set_value();  // the broker's first pause
        std::this_thread::yield();
    });

    m_pBroker.reset();

    EXPECT_EQ(m_Fake.clock.Sleeps().at(1), kStopPoll);
    EXPECT_EQ(m_Fake.kpi.Calls().back(), "Destroy");
}

TEST_F(ReportLogToServerTest, ReportsRunInParallel) {
    constexpr int kReports = 8;
    std::vector<std::thread> openers;
    for (int i = 0; i < kReports; ++i)
        openers.emplace_back([&] { m_pBroker->ReportLogToServer("E1", "Weather", "1.0"); });
    for (std::thread& opener : openers) opener.join();
    m_pBroker.reset();

    const auto calls = m_Fake.kpi.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), kLogCall), kReports);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "Destroy"), kReports);
}

TEST_F(ReportLogToServerTest, WithoutAThreadThereIsNoReport) {
    if (!RunWithoutThreads([&] { m_pBroker->ReportLogToServer("E1", "Weather", "1.0"); }))
        GTEST_SKIP() << "threads cannot be forbidden here";

    EXPECT_THAT(Lines(), ElementsAre("4 Error with:[E1], Prepare report dev info to log server.",
                                     "0 Error occured during making BrokerServer"));
    m_pBroker.reset();  // has nothing to wait for
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    EXPECT_THAT(m_Fake.kpi.Calls(), IsEmpty());
}

}  // namespace
}  // namespace vok
