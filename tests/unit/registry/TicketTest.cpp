#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "registry/Ticket.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using test::CLogCapture;
using test::LogLines;
using ::testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<Ticket> && !std::is_copy_assignable_v<Ticket>);

/// Puts the process-wide serial and its lock back as they were.
class TicketTest : public ::testing::Test {
protected:
    ~TicketTest() override {
        Ticket::m_nCurSerial = m_nFormerSerial;
        Ticket::m_pTicketScopedMutex = m_pFormerMutex;
    }

    CMutex m_Mutex;

private:
    const unsigned int m_nFormerSerial = Ticket::m_nCurSerial;
    CMutex* const m_pFormerMutex = Ticket::m_pTicketScopedMutex;
};

TEST_F(TicketTest, StartsUnansweredAndInProgress) {
    const Ticket ticket{"-1"};

    EXPECT_EQ(ticket.m_nPid, -1);
    EXPECT_EQ(ticket.m_strPort, "");
    EXPECT_EQ(ticket.m_strSpare, "");
    EXPECT_EQ(ticket.m_strOption, "");
    EXPECT_EQ(ticket.m_strName, "-1");
    EXPECT_FALSE(ticket.m_bAnswered);
    EXPECT_FALSE(ticket.m_Condition.GetWaitingStatus());
    EXPECT_EQ(ticket.m_Process.nPid, 0);
    EXPECT_EQ(ticket.m_nForkedPid, 0);
    EXPECT_FALSE(ticket.m_bAwaitsReport);
    EXPECT_TRUE(ticket.m_bInProgress);
}

TEST_F(TicketTest, FirstSerialIsTwoAndSerialsGrow) {
    Ticket::m_nCurSerial = 1;

    EXPECT_EQ(Ticket{"-1"}.GetSerial(), 2u);
    EXPECT_EQ(Ticket{"-1"}.GetSerial(), 3u);
    EXPECT_EQ(Ticket::m_nCurSerial, 3u);
}

TEST_F(TicketTest, SerialsWrapAround) {
    Ticket::m_nCurSerial = std::numeric_limits<unsigned int>::max() - 1;

    EXPECT_EQ(Ticket{"-1"}.GetSerial(), std::numeric_limits<unsigned int>::max());
    EXPECT_EQ(Ticket{"-1"}.GetSerial(), 0u);
    EXPECT_EQ(Ticket{"-1"}.GetSerial(), 1u);
}

TEST_F(TicketTest, IssuingIsLogged) {
    Ticket::m_nCurSerial = 41;
    const CLogCapture log;

    const Ticket ticket{"-1"};

    EXPECT_THAT(LogLines(log), ElementsAre("4 Ticket::Ticket: Ticket issued m_nSerial:[42]"));
}

TEST_F(TicketTest, SerialsAreIssuedWithoutALockBeforeThereIsABroker) {
    Ticket::m_pTicketScopedMutex = nullptr;
    Ticket::m_nCurSerial = 10;

    EXPECT_EQ(Ticket{"-1"}.GetSerial(), 11u);
}

TEST_F(TicketTest, ThreadsNeverGetTheSameSerial) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 1000;
    Ticket::m_pTicketScopedMutex = &m_Mutex;
    Ticket::m_nCurSerial = 1;
    std::mutex mutex;
    std::set<unsigned int> serials;

    std::vector<std::thread> threads;
    for (int n = 0; n < kThreads; ++n) {
        threads.emplace_back([&mutex, &serials] {
            for (int nRound = 0; nRound < kRounds; ++nRound) {
                const Ticket ticket{"-1"};
                const std::lock_guard<std::mutex> lock{mutex};
                serials.insert(ticket.GetSerial());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    ASSERT_EQ(serials.size(), static_cast<std::size_t>(kThreads * kRounds));
    EXPECT_EQ(*serials.begin(), 2u);
    EXPECT_EQ(*serials.rbegin(), static_cast<unsigned int>(kThreads * kRounds) + 1);
}

/// One entry of a ticket table.
struct Entry {
    unsigned int nSerial;
    char cKind;  // '0': null, 'p': in progress, 'd': done, 'w': in progress and awaits its report
    pid_t nForkedPid = 0;
};

/// Issues the serials anew: for tests on `TicketTest`.
TicketMap MakeTable(const std::vector<Entry>& entries) {
    TicketMap map;
    for (const Entry& entry : entries) {
        boost::shared_ptr<Ticket>& pTicket = map[entry.nSerial];
        if (entry.cKind == '0') continue;
        Ticket::m_nCurSerial = entry.nSerial - 1;
        pTicket = boost::make_shared<Ticket>("-1");
        pTicket->m_bInProgress = entry.cKind != 'd';
        pTicket->m_bAwaitsReport = entry.cKind == 'w';
        pTicket->m_nForkedPid = entry.nForkedPid;
    }
    return map;
}

struct PruneCase {
    const char* szName;
    std::vector<Entry> entries;
    std::size_t nMost;
    std::vector<unsigned int> left;
};

class PruneTicketsTest : public TicketTest, public ::testing::WithParamInterface<PruneCase> {};

TEST_P(PruneTicketsTest, ErasesTheOldestThatAreOver) {
    TicketMap map = MakeTable(GetParam().entries);

    PruneTickets(map, GetParam().nMost);

    std::vector<unsigned int> left;
    for (const auto& entry : map) left.push_back(entry.first);
    EXPECT_EQ(left, GetParam().left);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PruneTicketsTest,
    ::testing::Values(
        PruneCase{"Empty", {}, 0, {}},
        PruneCase{"FullIsNotTooFull", {{2, 'd'}, {3, 'd'}}, 2, {2, 3}},
        PruneCase{"LowestGoFirst", {{2, 'd'}, {3, 'd'}, {4, 'd'}}, 1, {4}},
        PruneCase{"NullEntriesGo", {{2, '0'}, {3, '0'}, {4, 'd'}}, 1, {4}},
        PruneCase{
            "SerialsNeverIssuedGoFirst", {{2, 'd'}, {3, 'd'}, {900, '0'}, {901, '0'}}, 2, {2, 3}},
        PruneCase{"NullEntriesWaitTheirTurn", {{2, 'd'}, {3, '0'}, {4, 'd'}}, 2, {3, 4}},
        PruneCase{"InProgressStays", {{2, 'p'}, {3, 'd'}, {4, 'w'}, {5, 'd'}}, 2, {2, 4}},
        PruneCase{"AllInProgressStay", {{2, 'p'}, {3, 'w'}, {4, 'p'}}, 1, {2, 3, 4}},
        PruneCase{"NothingAllowed", {{2, 'd'}, {3, 'p'}, {4, '0'}}, 0, {3}}),
    [](const auto& info) { return info.param.szName; });

TEST_F(TicketTest, ReportOfAnEmpWhoseOpenGaveUpGoesToNobodyElse) {
    const TicketMap map = MakeTable({{123450, 'w'}});
    const boost::shared_ptr<Ticket> pTicket = map.at(123450);
    pTicket->m_nForkedPid = 70;

    // Our own child, but not the one that was forked for this ticket.
    EXPECT_EQ(FindWaitingTicket(map, "12345", {71, 1, ::getpid()}), nullptr);
    EXPECT_EQ(FindWaitingTicket(map, "12345", {70, 1, ::getpid()}), pTicket);
    // An EMP that forks itself into the background reports from a process that we did not fork.
    EXPECT_EQ(FindWaitingTicket(map, "12345", {71, 1, 70}), pTicket);
}

struct FindCase {
    const char* szName;
    std::vector<Entry> entries;
    const char* szSerial;
    pid_t nReportedPid;
    unsigned int nFound;  // 0: none
};

class FindWaitingTicketTest : public TicketTest, public ::testing::WithParamInterface<FindCase> {};

TEST_P(FindWaitingTicketTest, FindsTheTicketOfACutSerial) {
    const TicketMap map = MakeTable(GetParam().entries);

    const boost::shared_ptr<Ticket> pTicket =
        FindWaitingTicket(map, GetParam().szSerial, {GetParam().nReportedPid, 0, 0});

    EXPECT_EQ(pTicket ? pTicket->GetSerial() : 0, GetParam().nFound);
    EXPECT_EQ(map.size(), GetParam().entries.size());
}

INSTANTIATE_TEST_SUITE_P(
    Serial, FindWaitingTicketTest,
    ::testing::Values(
        FindCase{"EmptyTable", {}, "12345", 7, 0},
        FindCase{"OneDigitMore", {{123450, 'w'}}, "12345", 7, 123450},
        FindCase{"LastWithOneDigitMore", {{123459, 'w'}}, "12345", 7, 123459},
        FindCase{"NextAfterThem", {{123460, 'w'}}, "12345", 7, 0},
        FindCase{"LastBeforeThem", {{123449, 'w'}}, "12345", 7, 0},
        FindCase{"TwoDigitsMore", {{1234599, 'w'}}, "12345", 7, 1234599},
        FindCase{"ThreeDigitsMore", {{12345000, 'w'}}, "12345", 7, 12345000},
        FindCase{"FourDigitsMore", {{123459999, 'w'}}, "12345", 7, 123459999},
        FindCase{"FiveDigitsMore", {{1234512345, 'w'}}, "12345", 7, 1234512345},
        FindCase{"LargestSerial", {{4294967295u, 'w'}}, "42949", 7, 4294967295u},
        FindCase{"TenDigitsWouldNotFit", {{429500000, 'w'}}, "42950", 7, 429500000},
        FindCase{"HighestDigits", {{999999999, 'w'}}, "99999", 7, 999999999},
        FindCase{"FourCharacters", {{12345, 'w'}}, "1234", 7, 0},
        FindCase{"SixCharacters", {{1234567, 'w'}}, "123456", 7, 0},
        FindCase{"Empty", {{12345, 'w'}}, "", 7, 0},
        FindCase{"NotANumber", {{123456, 'w'}}, "1234x", 7, 0},
        FindCase{"Signed", {{123456, 'w'}}, "+1234", 7, 0},
        FindCase{"LeadingZeroBeginsNoSerial", {{12345, 'w'}, {123450, 'w'}}, "01234", 7, 0},
        FindCase{"ExactOneWaits", {{12345, 'w'}, {123456, 'w', 7}}, "12345", 7, 0},
        FindCase{"ExactOneIsDone", {{12345, 'd'}, {123456, 'w'}}, "12345", 7, 123456},
        FindCase{"ExactOneIsNull", {{12345, '0'}, {123456, 'w'}}, "12345", 7, 123456},
        FindCase{"OnlyThoseThatWait",
                 {{123450, 'd', 7}, {123451, '0'}, {123452, 'p', 7}, {123453, 'w'}},
                 "12345",
                 7,
                 123453},
        FindCase{"NoneWaits", {{123450, 'd', 7}, {123451, '0'}, {123452, 'p', 7}}, "12345", 7, 0},
        FindCase{"OnlyOneNeedsNoPid", {{123456, 'w', 8}}, "12345", 7, 123456},
        FindCase{"PidDecidesBetweenTwo", {{123451, 'w', 7}, {123452, 'w', 8}}, "12345", 7, 123451},
        FindCase{"PidDecidesAcrossLengths",
                 {{123451, 'w', 6}, {1234512, 'w', 7}, {12345123, 'w', 8}},
                 "12345",
                 7,
                 1234512},
        FindCase{"PidOfNeither", {{123451, 'w', 7}, {123452, 'w', 8}}, "12345", 9, 0},
        FindCase{"PidZeroIsNobodys", {{123451, 'w', 0}, {123452, 'w', 8}}, "12345", 0, 0}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
