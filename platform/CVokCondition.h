/// One waiter, one notification.
#pragma once

#include <semaphore.h>

#include <atomic>

namespace vok {

/// A thread announces that it will wait, waits, and is notified by another thread or by a signal
/// handler. What is notified between the announcement and the wait is kept.
///
/// One waiter at a time; any number of notifiers. Times run on the monotonic clock.
class CVokCondition {
public:
    CVokCondition();
    ~CVokCondition();
    CVokCondition(const CVokCondition&) = delete;
    CVokCondition& operator=(const CVokCondition&) = delete;

    /// Announces (true) or withdraws (false) the waiter. The announcement stays until it is
    /// withdrawn, also after `Wait` has returned; announcing again changes nothing. A new
    /// announcement starts without a notification.
    void SetDoWaiting(bool bWaiting);

    /// True while a waiter is announced.
    bool GetWaitingStatus() const;

    /// Blocks until notified, at most `nMilliseconds` (0: without limit). Returns 0 when notified,
    /// else an errno value (ETIMEDOUT).
    int Wait(int nMilliseconds);

    /// Wakes the waiter. Notifications that nobody has waited for yet count as one. Returns 0, or
    /// an errno value (EAGAIN: no waiter is announced, and nothing is kept). Safe in a signal
    /// handler (signal-safety(7): sem_post).
    int NotifyOne();

private:
    sem_t m_Semaphore;
    std::atomic<bool> m_bAnnounced{false};
    std::atomic<bool> m_bNotified{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "NotifyOne runs in signal handlers");
};

}  // namespace vok
