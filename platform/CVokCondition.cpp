#include "platform/CVokCondition.h"

#include <cerrno>
#include <ctime>

namespace vok {

namespace {

timespec DeadlineIn(int nMilliseconds) {
    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);  // this clock cannot fail
    deadline.tv_sec += nMilliseconds / 1000;
    deadline.tv_nsec += (nMilliseconds % 1000) * 1'000'000L;
    if (deadline.tv_nsec >= 1'000'000'000L) {
        deadline.tv_nsec -= 1'000'000'000L;
        ++deadline.tv_sec;
    }
    return deadline;
}

}  // namespace

// The semaphore wakes, the flag tells whether there is a notification. A post without the flag is
// one that came too late for its own announcement; `Wait` passes it over. Whoever sets the flag
// posts afterwards, so a set flag always has a post, made or on its way.

CVokCondition::CVokCondition() {
    (void)sem_init(&m_Semaphore, 0, 0);  // 0 is in range, private semaphores always exist
}

CVokCondition::~CVokCondition() {
    (void)sem_destroy(&m_Semaphore);
}

void CVokCondition::SetDoWaiting(bool bWaiting) {
    if (!bWaiting) {
        m_bAnnounced = false;
        return;
    }
    if (m_bAnnounced) return;
    // First the posts, then the flag: the other way round, a late notifier could leave the flag
    // without its post, and those after it would think that the waiter is being woken already.
    while (sem_trywait(&m_Semaphore) == 0) continue;
    m_bNotified = false;
    m_bAnnounced = true;
}

bool CVokCondition::GetWaitingStatus() const {
    return m_bAnnounced;
}

int CVokCondition::Wait(int nMilliseconds) {
    if (nMilliseconds < 0) return EINVAL;
    const timespec deadline = DeadlineIn(nMilliseconds);
    for (;;) {
        const int nResult = nMilliseconds == 0
                                ? sem_wait(&m_Semaphore)
                                : sem_clockwait(&m_Semaphore, CLOCK_MONOTONIC, &deadline);
        if (nResult != 0 && errno != EINTR) return errno;
        if (nResult == 0 && m_bNotified.exchange(false)) return 0;
    }
}

int CVokCondition::NotifyOne() {
    if (!m_bAnnounced) return EAGAIN;
    if (m_bNotified.exchange(true)) return 0;
    const int nErrno = errno;  // an interrupted thread keeps its errno
    const int nResult = sem_post(&m_Semaphore) == 0 ? 0 : errno;
    errno = nErrno;
    return nResult;
}

}  // namespace vok
