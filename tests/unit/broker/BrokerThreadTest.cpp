#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "platform/Limits.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/NoThreads.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A broker that comes and goes within the test.
class LaunchThreadTest : public ::testing::Test {
protected:
    CLogCapture m_Log;
    FakePlatform m_Fake;
    std::unique_ptr<CBroker> m_pBroker = std::make_unique<CBroker>(m_Fake.Get());
};

/// What a thread's body, which is a plain function, shares with its test.
struct Meeting {
    std::promise<void> go;
    std::atomic<CBroker*> pSeen{nullptr};
    std::atomic<bool> bDone{false};
};
Meeting* s_pMeeting = nullptr;

TEST_F(LaunchThreadTest, BrokerWaitsForItsEnd) {
    Meeting meeting;
    s_pMeeting = &meeting;
    CBroker* const pBroker = m_pBroker.get();
    m_Fake.clock.OnSleep([&](int nSleep) {
        if (nSleep == 1) meeting.go.set_value();  // the broker's first pause
        std::this_thread::yield();
    });

    ASSERT_TRUE(BrokerProbe::LaunchThread(*m_pBroker, [](CBroker& broker) {
        s_pMeeting->pSeen = &broker;
        s_pMeeting->go.get_future().wait();
        s_pMeeting->bDone = true;
    }));
    m_pBroker.reset();

    EXPECT_EQ(meeting.pSeen, pBroker);
    EXPECT_TRUE(meeting.bDone);
    EXPECT_EQ(m_Fake.clock.Sleeps().front(), kStopPoll);
}

TEST_F(LaunchThreadTest, WhatIsThrownThereEndsTheThreadOnly) {
    ASSERT_TRUE(BrokerProbe::LaunchThread(*m_pBroker,
                                          [](CBroker&) { throw std::runtime_error("no memory"); }));
    ASSERT_TRUE(BrokerProbe::LaunchThread(*m_pBroker, [](CBroker&) { throw 42; }));
    m_pBroker.reset();

    EXPECT_THAT(LinesOf(m_Log, "RunThread"),
                ElementsAre("0 A thread of the broker has ended early.",
                            "0 A thread of the broker has ended early."));
}

TEST_F(LaunchThreadTest, BrokerDoesNotWaitForAThreadThatWasNotMade) {
    bool bLaunched = true;
    if (!RunWithoutThreads(
            [&] { bLaunched = BrokerProbe::LaunchThread(*m_pBroker, [](CBroker&) {}); }))
        GTEST_SKIP() << "threads cannot be forbidden here";

    EXPECT_FALSE(bLaunched);
    m_pBroker.reset();
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
}

}  // namespace
}  // namespace vok
