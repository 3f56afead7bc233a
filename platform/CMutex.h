/// The broker's mutex and its guard.
#pragma once

#include <pthread.h>

#include "platform/ThreadSafety.h"

namespace vok {

/// A pthread_mutex_t with default attributes: not recursive, and known to clang's analysis.
class VOK_TSA(capability("mutex")) CMutex {
public:
    CMutex() = default;
    ~CMutex() { (void)pthread_mutex_destroy(&m_Mutex); }  // fails only while locked: a bug of ours
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void Lock() VOK_TSA(acquire_capability()) { (void)pthread_mutex_lock(&m_Mutex); }
    void Unlock() VOK_TSA(release_capability()) { (void)pthread_mutex_unlock(&m_Mutex); }

private:
    pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a mutex from construction to the end of its block.
class VOK_TSA(scoped_lockable) CLock {
public:
    explicit CLock(CMutex& mutex) VOK_TSA(acquire_capability(mutex)) : m_Mutex(mutex) {
        m_Mutex.Lock();
    }
    ~CLock() VOK_TSA(release_capability()) { m_Mutex.Unlock(); }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

private:
    CMutex& m_Mutex;
};

}  // namespace vok
