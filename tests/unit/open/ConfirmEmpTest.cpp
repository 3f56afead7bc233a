#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/Limits.h"
#include "tests/support/BrokerTest.h"

namespace vok {
namespace {

using namespace test;
using namespace std::chrono_literals;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kUp[] = "__SERVER_SUCCESS_TO_RUN";

class ConfirmEmpTest : public BrokerTest {
protected:
    /// A ticket whose opener waits.
    boost::shared_ptr<Ticket> AddWaiting(unsigned int nSerial, pid_t nForkedPid = 0) {
        Ticket::m_nCurSerial = nSerial - 1;
        auto spTicket = boost::make_shared<Ticket>("-1");
        spTicket->m_Condition.SetDoWaiting(true);
        spTicket->m_bAwaitsReport = true;
        spTicket->m_nForkedPid = nForkedPid;
        BrokerProbe::SetTicket(m_Broker, nSerial, spTicket);
        m_Log.Clear();
        return spTicket;
    }

    static bool IsNotified(Ticket& ticket) { return ticket.m_Condition.Wait(1) == 0; }

    void Confirm(const std::string& strSerial, const std::string& strPortAndPid,
                 const std::string& strStatus = kUp, const std::string& strOption = "0001") {
        m_Broker.ConfirmEMPServer(strSerial, strPortAndPid, strStatus, strOption);
    }
};

TEST_F(ConfirmEmpTest, AReportFillsItsTicketAndWakesTheOpener) {
    const auto spTicket = AddWaiting(7);

    Confirm("7", "4000|1234");

    EXPECT_EQ(spTicket->m_strPort, "4000");
    EXPECT_EQ(spTicket->m_nPid, 1234);
    EXPECT_EQ(spTicket->m_strOption, "0001");
    EXPECT_EQ(spTicket->m_Process.nPid, 1234);
    EXPECT_EQ(spTicket->m_Process.nStartTime, 4711u);
    EXPECT_TRUE(spTicket->m_bAnswered);
    EXPECT_TRUE(IsNotified(*spTicket));
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    EXPECT_THAT(LinesOf(m_Log, "ConfirmEMPServer"),
                ElementsAre("4 ticketSerial:[7], EmpServer Path:[4000|1234], "
                            "EmpServerStatus:[__SERVER_SUCCESS_TO_RUN], EmpOption:[0001].",
                            "4 Notify the TicketSerial:[7] to break waiting.",
                            "4 The Emp server has been started with Path [4000], pid[1234]"));
}

TEST_F(ConfirmEmpTest, AReportOfAFailedServerWakesTheOpenerAsWell) {
    const auto spTicket = AddWaiting(7);

    Confirm("7", "4000|1234", "__SERVER_FAIL", "0002");

    EXPECT_EQ(spTicket->m_strPort, "4000");
    EXPECT_EQ(spTicket->m_nPid, 1234);
    EXPECT_EQ(spTicket->m_strOption, "0002");
    EXPECT_TRUE(IsNotified(*spTicket));
    EXPECT_EQ(LinesOf(m_Log, "ConfirmEMPServer").back(), "0 The server has been run fail [4000]");
}

struct SplitCase {
    const char* szReport;
    const char* szPort;
    int nPid;
};

TEST_F(ConfirmEmpTest, AReportIsSplitAtItsFirstBar) {
    const SplitCase cases[] = {
        {"4000|1234", "4000", 1234}, {"4000", "4000", 4000},  // without a bar, both are the whole
        {"|1234", "", 1234},         {"/tmp/socket|1", "/tmp/socket", 1},
        {"4000|0", "4000", 0},       {"4000|-5", "4000", -5},
    };
    for (const SplitCase& c : cases) {
        SCOPED_TRACE(c.szReport);
        const auto spTicket = AddWaiting(7);
        Confirm("7", c.szReport);
        EXPECT_EQ(spTicket->m_strPort, c.szPort);
        EXPECT_EQ(spTicket->m_nPid, c.nPid);
        EXPECT_TRUE(IsNotified(*spTicket));
    }
}

TEST_F(ConfirmEmpTest, AnUnknownSerialLeavesAnEmptyEntry) {
    Confirm("7", "4000|1234");

    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), ElementsAre(Pair(7, nullptr)));
    EXPECT_THAT(LinesOf(m_Log, "ConfirmEMPServer"),
                ElementsAre("4 ticketSerial:[7], EmpServer Path:[4000|1234], "
                            "EmpServerStatus:[__SERVER_SUCCESS_TO_RUN], EmpOption:[0001].",
                            "4 Notify the TicketSerial:[7] to break waiting.",
                            "0 ticket isn't valid. port:[4000]. Broker do not wake condition up"));

    Confirm("7", "4001|5");  // the entry is no ticket either
    EXPECT_EQ(LinesOf(m_Log, "ConfirmEMPServer").back(),
              "0 ticket isn't valid. port:[4001]. Broker do not wake condition up");
}

TEST_F(ConfirmEmpTest, AnUnknownSerialWithAnUnreadablePidIsNoError) {
    EXPECT_NO_THROW(Confirm("7", "4000|abc"));
    EXPECT_EQ(LinesOf(m_Log, "ConfirmEMPServer").back(),
              "0 ticket isn't valid. port:[4000]. Broker do not wake condition up");
}

class GarbageSerialTest : public ConfirmEmpTest,
                          public ::testing::WithParamInterface<std::string> {};

TEST_P(GarbageSerialTest, ThrowsAndLeavesEverythingUsable) {
    EXPECT_THROW(Confirm(GetParam(), "4000|1234"), boost::bad_lexical_cast);

    EXPECT_THAT(LinesOf(m_Log, "ConfirmEMPServer"), SizeIs(1));
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), IsEmpty());  // and its lock is free
}

INSTANTIATE_TEST_SUITE_P(Table, GarbageSerialTest,
                         ::testing::Values("", "abc", "7 ", " 7", "7x", "0x7", "4294967296",
                                           "7.0"));

class GarbagePidTest : public ConfirmEmpTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(GarbagePidTest, ThrowsAndLeavesTheTicketWaiting) {
    const auto spTicket = AddWaiting(7);

    EXPECT_THROW(Confirm("7", GetParam()), boost::bad_lexical_cast);

    EXPECT_FALSE(IsNotified(*spTicket));
    EXPECT_EQ(spTicket->m_strPort, "");
    EXPECT_EQ(spTicket->m_strOption, "");
    Confirm("7", "4000|1234");  // the lock is free, a sound report is still welcome
    EXPECT_TRUE(IsNotified(*spTicket));
}

INSTANTIATE_TEST_SUITE_P(Table, GarbagePidTest,
                         ::testing::Values("", "4000|", "4000|abc", "4000|12|3", "4000| 12",
                                           "/tmp/socket", "4000|99999999999"));

TEST_F(ConfirmEmpTest, ASecondReportReplacesTheFirstAndNeverBlocks) {
    const auto spTicket = AddWaiting(7);

    Confirm("7", "4000|1234", kUp, "0001");
    Confirm("7", "4001|1235", kUp, "0002");

    EXPECT_EQ(spTicket->m_strPort, "4001");
    EXPECT_EQ(spTicket->m_nPid, 1235);
    EXPECT_EQ(spTicket->m_strOption, "0002");
    EXPECT_TRUE(IsNotified(*spTicket));
    EXPECT_FALSE(IsNotified(*spTicket));
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
}

TEST_F(ConfirmEmpTest, AReportWaitsForAnOpenerThatHasNotAnnouncedItself) {
    Ticket::m_nCurSerial = 6;
    const auto spTicket = boost::make_shared<Ticket>("-1");
    BrokerProbe::SetTicket(m_Broker, 7, spTicket);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 3) spTicket->m_Condition.SetDoWaiting(true);
    });

    Confirm("7", "4000|1234");

    EXPECT_THAT(m_Fake.clock.Sleeps(), ElementsAre(10ms, 10ms, 10ms));
    EXPECT_TRUE(IsNotified(*spTicket));
}

// ---- Serials that EMPs receive cut to five characters ----

TEST_F(ConfirmEmpTest, ACutSerialFindsTheTicketThatItBegins) {
    const auto spTicket = AddWaiting(123456);

    Confirm("12345", "4000|1234");

    EXPECT_EQ(spTicket->m_strPort, "4000");
    EXPECT_TRUE(IsNotified(*spTicket));
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), ElementsAre(Key(123456)));
}

TEST_F(ConfirmEmpTest, OfSeveralTicketsACutSerialFindsTheOneThatTheProcessWasForkedFor) {
    const auto spFirst = AddWaiting(123450, 1001);
    const auto spSecond = AddWaiting(123456, 1002);
    const auto spThird = AddWaiting(1234567, 1003);

    Confirm("12345", "4000|1002");

    EXPECT_TRUE(IsNotified(*spSecond));
    EXPECT_FALSE(IsNotified(*spFirst));
    EXPECT_FALSE(IsNotified(*spThird));
}

TEST_F(ConfirmEmpTest, OfSeveralTicketsWithoutAMatchingProcessNoneIsTaken) {
    const auto spFirst = AddWaiting(123450, 1001);
    const auto spSecond = AddWaiting(123456, 1002);

    Confirm("12345", "4000|999");

    EXPECT_FALSE(IsNotified(*spFirst));
    EXPECT_FALSE(IsNotified(*spSecond));
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), Contains(Pair(12345, nullptr)));
    EXPECT_EQ(LinesOf(m_Log, "ConfirmEMPServer").back(),
              "0 ticket isn't valid. port:[4000]. Broker do not wake condition up");
}

TEST_F(ConfirmEmpTest, ACutSerialOfAProcessThatWasForkedForAnotherTicketFindsNone) {
    const auto spTicket = AddWaiting(123456, 1001);
    m_Fake.processes.SetParentPid(::getpid());

    Confirm("12345", "4000|1002");
    EXPECT_FALSE(IsNotified(*spTicket));

    Confirm("12345", "4000|1001");
    EXPECT_TRUE(IsNotified(*spTicket));
}

TEST_F(ConfirmEmpTest, AWaitingTicketWithTheExactSerialComesFirst) {
    const auto spLong = AddWaiting(123456);
    const auto spExact = AddWaiting(12345);

    Confirm("12345", "4000|1234");

    EXPECT_TRUE(IsNotified(*spExact));
    EXPECT_FALSE(IsNotified(*spLong));
}

TEST_F(ConfirmEmpTest, AFinishedTicketWithTheExactSerialDoesNotStandInTheWay) {
    const auto spExact = AddWaiting(12345);
    spExact->m_bAwaitsReport = false;
    const auto spLong = AddWaiting(123456);

    Confirm("12345", "4000|1234");

    EXPECT_TRUE(IsNotified(*spLong));
    EXPECT_EQ(spExact->m_strPort, "");
}

TEST_F(ConfirmEmpTest, ALongerSerialIsTakenAsItStands) {
    const auto spTicket = AddWaiting(1234567);

    Confirm("123456", "4000|1234");

    EXPECT_FALSE(IsNotified(*spTicket));
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), Contains(Pair(123456, nullptr)));
}

TEST_F(ConfirmEmpTest, TheTableOfTicketsStaysBounded) {
    const auto spWaiting = AddWaiting(1);
    CVOKDebug::SetLogLevel(LEVEL_ERROR);

    for (unsigned int nSerial = 2; nSerial <= kMaxTickets + 100; ++nSerial)
        Confirm(std::to_string(nSerial), "4000|1234");

    const TicketMap mapTicket = BrokerProbe::Tickets(m_Broker);
    EXPECT_THAT(mapTicket, SizeIs(kMaxTickets));
    EXPECT_THAT(mapTicket, Contains(Pair(1, spWaiting)));  // whose open is in progress
}

// ---- CheckStatus ----

class CheckStatusTest : public BrokerTest {
protected:
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "CheckStatus"); }
};

TEST_F(CheckStatusTest, ASettledStatusIsTrueAtOnce) {
    for (const int nStatus : {2, 3, 5, 6}) {
        SCOPED_TRACE(nStatus);
        AddKnown("Weather", "0001", static_cast<EMP_STATUS>(nStatus));

        EXPECT_TRUE(m_Broker.CheckStatus("Weather"));

        EXPECT_THAT(Lines(), ElementsAre("4 [Weather] Wait for status[" + std::to_string(nStatus) +
                                         "] change"));
        EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    }
}

TEST_F(CheckStatusTest, AMissingEmpIsFalse) {
    EXPECT_FALSE(m_Broker.CheckStatus("Weather"));
    EXPECT_THAT(Lines(), ElementsAre("0 [Weather]'s status is EMP_NOT_FOUND - return error"));
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
}

TEST_F(CheckStatusTest, AnImpossibleStatusIsFalse) {
    for (const int nStatus : {0, 7, 1000, -1}) {
        SCOPED_TRACE(nStatus);
        AddKnown("Weather", "0001", static_cast<EMP_STATUS>(nStatus));
        EXPECT_FALSE(m_Broker.CheckStatus("Weather"));
        EXPECT_THAT(Lines(), ElementsAre("0 [Weather]'s status is EMP_NOT_FOUND - return error"));
    }
}

TEST_F(CheckStatusTest, AStuckStatusIsWaitedForAThousandPasses) {
    for (const EMP_STATUS eStatus : {EMP_ADDED, EMP_PENDING}) {
        AddKnown("Weather", "0001", eStatus);
        const std::size_t nBefore = m_Fake.clock.Sleeps().size();

        EXPECT_FALSE(m_Broker.CheckStatus("Weather"));

        const std::string strStatus = std::to_string(eStatus);
        const std::string strWait = "4 [Weather] Wait for status[" + strStatus + "] change";
        EXPECT_THAT(Lines(),
                    ElementsAre(strWait, strWait, strWait, strWait, strWait, strWait,
                                "0 [Weather]'s status[" + strStatus + "] is not changing change"));
        EXPECT_THAT(m_Fake.clock.Sleeps(), AllOf(SizeIs(nBefore + 1001), Each(10ms)));
    }
}

TEST_F(CheckStatusTest, AStatusThatSettlesIsTrueInTheNextPass) {
    AddKnown("Weather", "0001", EMP_ADDED);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 250) EmpInfo().SetTypeStatus("Weather", EMP_OPENED);
    });

    EXPECT_TRUE(m_Broker.CheckStatus("Weather"));

    EXPECT_THAT(Lines(), ElementsAre("4 [Weather] Wait for status[1] change",
                                     "4 [Weather] Wait for status[1] change"));
    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(250));
}

TEST_F(CheckStatusTest, AStatusThatSettlesBeforePass999IsTrue) {
    AddKnown("Weather", "0001", EMP_ADDED);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 999) EmpInfo().SetTypeStatus("Weather", EMP_OPENED);
    });

    EXPECT_TRUE(m_Broker.CheckStatus("Weather"));
    EXPECT_THAT(Lines(), SizeIs(5));
}

TEST_F(CheckStatusTest, AStatusThatSettlesInPass1000ComesTooLate) {
    AddKnown("Weather", "0001", EMP_ADDED);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 1000) EmpInfo().SetTypeStatus("Weather", EMP_OPENED);
    });

    EXPECT_FALSE(m_Broker.CheckStatus("Weather"));

    ASSERT_THAT(Lines(), SizeIs(7));
    EXPECT_EQ(Lines()[5], "4 [Weather] Wait for status[2] change");
    EXPECT_EQ(Lines()[6], "0 [Weather]'s status[2] is not changing change");
}

TEST_F(CheckStatusTest, AnEmpThatGoesWhileItIsWaitedForIsFalse) {
    AddKnown("Weather", "0001", EMP_ADDED);
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 3) EmpInfo().Remove("Weather");
    });

    EXPECT_FALSE(m_Broker.CheckStatus("Weather"));
    EXPECT_EQ(Lines().back(), "0 [Weather]'s status is EMP_NOT_FOUND - return error");
}

}  // namespace
}  // namespace vok
