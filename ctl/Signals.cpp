#include "ctl/Signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <system_error>

namespace vok::ctl {

namespace {

CUniqueFd MakeSignalFd(std::initializer_list<int> signals) {
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int nSignal : signals) (void)sigaddset(&set, nSignal);
    (void)::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    CUniqueFd fd{::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)};
    if (!fd.IsOpen()) throw std::system_error(errno, std::generic_category(), "signalfd");
    return fd;
}

/// nohup(1) has it ignored, and a signal that is blocked would come all the same.
bool IsHangUpIgnored() {
    struct sigaction action {};
    return ::sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

CSignals::CSignals()
    : m_End(IsHangUpIgnored() ? MakeSignalFd({SIGINT, SIGTERM})
                              : MakeSignalFd({SIGINT, SIGTERM, SIGHUP})),
      m_Resize(MakeSignalFd({SIGWINCH})) {}

void CSignals::TakeResize() const {
    signalfd_siginfo info{};
    while (::read(m_Resize.Get(), &info, sizeof info) > 0) {
    }
}

}  // namespace vok::ctl
