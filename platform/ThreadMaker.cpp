#include "platform/ThreadMaker.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <csignal>
#include <cstddef>
#include <cstring>

#include "platform/ScopeGuard.h"

namespace vok {

namespace {

/// The kernel's TASK_COMM_LEN: a name and its end.
constexpr std::size_t kThreadName = 16;

}  // namespace

bool ThreadMaker::CreateThread(const std::string& /*strName*/, void* (*pRoutine)(void*), void* pArg,
                               unsigned int nStackSize, bool bDetached) {
    if (pRoutine == nullptr) return false;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    const ScopeGuard destroyAttr{[&] { (void)pthread_attr_destroy(&attr); }};
    const int nState = bDetached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE;
    if (pthread_attr_setdetachstate(&attr, nState) != 0) return false;
    if (pthread_attr_setstacksize(&attr, nStackSize) != 0) return false;

    // A new thread inherits the mask of its maker.
    sigset_t all;
    sigset_t former;
    (void)sigfillset(&all);
    if (pthread_sigmask(SIG_SETMASK, &all, &former) != 0) return false;
    const ScopeGuard restoreMask{[&] { (void)pthread_sigmask(SIG_SETMASK, &former, nullptr); }};

    pthread_t thread;
    return pthread_create(&thread, &attr, pRoutine, pArg) == 0;
}

void ThreadMaker::NameThisThread(const char* szName) {
    // A connection repeats its calls; a call into the kernel is not repeated with them.
    thread_local char t_szName[kThreadName] = "";
    thread_local bool t_bNamed = false;
    if (t_bNamed && std::strncmp(t_szName, szName, kThreadName - 1) == 0) return;
    t_bNamed = true;
    std::strncpy(t_szName, szName, kThreadName - 1);
    (void)prctl(PR_SET_NAME, t_szName, 0, 0, 0);  // fails only for a bad pointer
}

}  // namespace vok
