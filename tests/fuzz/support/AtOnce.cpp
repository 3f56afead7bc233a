#include "tests/fuzz/support/AtOnce.h"

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>
#include <csignal>

namespace {

/// Of the thread that feeds the target; the fuzzer's own threads are none of ours.
thread_local bool t_bAtOnce = false;

}  // namespace

extern "C" {

using Routine = void* (*)(void*);

int __real_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, Routine pRoutine,
                          void* pArg);
int __real_sem_clockwait(sem_t* pSemaphore, clockid_t clock, const timespec* pDeadline);

int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, Routine pRoutine,
                          void* pArg) {
    if (!t_bAtOnce) return __real_pthread_create(pThread, pAttr, pRoutine, pArg);

    // The maker has blocked all signals; the fuzzer looks for hangs by one.
    sigset_t none;
    sigset_t former;
    (void)sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, &former);
    (void)pRoutine(pArg);
    (void)pthread_sigmask(SIG_SETMASK, &former, nullptr);
    *pThread = pthread_self();
    return 0;
}

int __wrap_sem_clockwait(sem_t* pSemaphore, clockid_t clock, const timespec* pDeadline) {
    if (!t_bAtOnce) return __real_sem_clockwait(pSemaphore, clock, pDeadline);
    if (sem_trywait(pSemaphore) == 0) return 0;
    errno = ETIMEDOUT;
    return -1;
}
}

namespace vok::test {

CAtOnce::CAtOnce() {
    t_bAtOnce = true;
}

CAtOnce::~CAtOnce() {
    t_bAtOnce = false;
}

}  // namespace vok::test
