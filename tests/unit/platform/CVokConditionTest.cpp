#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "platform/CVokCondition.h"

namespace vok {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(Condition, StartsWithoutAWaiter) {
    CVokCondition condition;
    EXPECT_FALSE(condition.GetWaitingStatus());
}

TEST(NotifyOne, WithoutAWaiterIsRefusedAndNotKept) {
    CVokCondition condition;
    EXPECT_EQ(condition.NotifyOne(), EAGAIN);
    condition.SetDoWaiting(true);
    EXPECT_EQ(condition.Wait(1), ETIMEDOUT);
}

TEST(NotifyOne, BetweenAnnouncementAndWaitIsKept) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    EXPECT_EQ(condition.NotifyOne(), 0);
    EXPECT_EQ(condition.Wait(1), 0);
}

TEST(NotifyOne, SeveralCountAsOne) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(condition.NotifyOne(), 0);
    EXPECT_EQ(condition.Wait(1), 0);
    EXPECT_EQ(condition.Wait(1), ETIMEDOUT);
}

TEST(SetDoWaiting, AgainKeepsTheNotification) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    condition.NotifyOne();
    condition.SetDoWaiting(true);
    EXPECT_EQ(condition.Wait(1), 0);
}

TEST(SetDoWaiting, FreshAnnouncementDropsTheStaleNotification) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    condition.NotifyOne();
    condition.SetDoWaiting(false);
    EXPECT_FALSE(condition.GetWaitingStatus());
    condition.SetDoWaiting(true);
    EXPECT_EQ(condition.Wait(1), ETIMEDOUT);
    EXPECT_EQ(condition.NotifyOne(), 0);
    EXPECT_EQ(condition.Wait(1), 0);
}

TEST(Wait, LeavesTheAnnouncement) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    condition.NotifyOne();
    EXPECT_EQ(condition.Wait(0), 0);
    EXPECT_TRUE(condition.GetWaitingStatus());
    EXPECT_EQ(condition.NotifyOne(), 0);
    EXPECT_EQ(condition.Wait(0), 0);
}

TEST(Wait, LastsAsLongAsItWasTold) {
    CVokCondition condition;
    condition.SetDoWaiting(true);
    const auto start = Clock::now();
    EXPECT_EQ(condition.Wait(50), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, 50ms);
}

TEST(Wait, NegativeTimeIsAnError) {
    CVokCondition condition;
    EXPECT_EQ(condition.Wait(-1), EINVAL);
}

TEST(Wait, IsWokenByAnotherThreadAndSeesWhatItWrote) {
    CVokCondition condition;
    int nWritten = 0;
    for (int i = 1; i <= 1000; ++i) {
        condition.SetDoWaiting(true);
        std::thread notifier([&] {
            nWritten = i;
            condition.NotifyOne();
        });
        ASSERT_EQ(condition.Wait(10'000), 0);
        EXPECT_EQ(nWritten, i);
        condition.SetDoWaiting(false);
        notifier.join();
    }
}

TEST(Wait, NoNotificationIsLostWhileTheWaiterComesAndGoes) {
    CVokCondition condition;
    std::atomic<bool> bStop{false};
    std::vector<std::thread> notifiers;
    for (int i = 0; i < 2; ++i) {
        notifiers.emplace_back([&] {
            while (!bStop) condition.NotifyOne();
        });
    }
    for (int i = 0; i < 2000; ++i) {
        condition.SetDoWaiting(true);
        EXPECT_EQ(condition.Wait(10'000), 0) << i;
        condition.SetDoWaiting(false);
    }
    bStop = true;
    for (std::thread& notifier : notifiers) notifier.join();
}

CVokCondition* s_pCondition = nullptr;
std::atomic<int> s_nHandled{0};

void Notify(int) {
    (void)s_pCondition->NotifyOne();
    ++s_nHandled;
}

void DoNothing(int) {
    ++s_nHandled;
}

/// A handler for SIGUSR1, without SA_RESTART, as long as it lives.
class CHandler {
public:
    explicit CHandler(void (*pHandler)(int)) {
        struct sigaction action {};
        action.sa_handler = pHandler;
        sigaction(SIGUSR1, &action, &m_Former);
        s_nHandled = 0;
    }
    ~CHandler() { sigaction(SIGUSR1, &m_Former, nullptr); }

private:
    struct sigaction m_Former {};
};

TEST(Wait, IsWokenByASignalHandlerOfTheWaitingThread) {
    CVokCondition condition;
    s_pCondition = &condition;
    const CHandler handler(&Notify);
    condition.SetDoWaiting(true);
    const pthread_t waiter = pthread_self();
    std::thread sender([&] { pthread_kill(waiter, SIGUSR1); });
    EXPECT_EQ(condition.Wait(0), 0);
    sender.join();
    EXPECT_EQ(s_nHandled, 1);
}

class WaitWithSignals : public ::testing::TestWithParam<int> {};

TEST_P(WaitWithSignals, GoesOnAfterThem) {
#ifdef __SANITIZE_THREAD__
    // Its run-time holds signals back during sem_clockwait, which it does not know.
    if (GetParam() != 0) GTEST_SKIP() << "not with ThreadSanitizer";
#endif
    CVokCondition condition;
    const CHandler handler(&DoNothing);
    condition.SetDoWaiting(true);
    const pthread_t waiter = pthread_self();
    std::thread sender([&] {
        for (int i = 1; i <= 5; ++i) {
            pthread_kill(waiter, SIGUSR1);
            while (s_nHandled < i) std::this_thread::yield();
        }
        condition.NotifyOne();
    });
    EXPECT_EQ(condition.Wait(GetParam()), 0);
    sender.join();
    EXPECT_EQ(s_nHandled, 5);
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, WaitWithSignals, ::testing::Values(0, 10'000));

}  // namespace
}  // namespace vok
