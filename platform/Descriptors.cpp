#include "platform/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/CMutex.h"
#include "platform/ScopeGuard.h"

// Headers older than the call and its flag; the number is the same on every architecture.
#ifndef SYS_close_range
#define SYS_close_range 436
#endif
#ifndef CLOSE_RANGE_CLOEXEC
#define CLOSE_RANGE_CLOEXEC (1U << 2)
#endif

namespace vok {

namespace {

/// As far as the sweep looks when there is no /proc to ask.
constexpr rlim_t kBlindSweep = 65536;

bool LacksCloseOnExec(int nFd) {
    const int nFlags = fcntl(nFd, F_GETFD);
    return nFlags >= 0 && (nFlags & FD_CLOEXEC) == 0;
}

/// Calls `act` with every open descriptor above 2.
void ForEachDescriptor(const std::function<void(int nFd)>& act) {
    DIR* const pFolder = opendir("/proc/self/fd");
    if (pFolder == nullptr) {
        const int nEnd = static_cast<int>(std::min(DescriptorLimit(), kBlindSweep));
        for (int nFd = 3; nFd < nEnd; ++nFd) act(nFd);
        return;
    }
    const ScopeGuard closeFolder{[&] { (void)closedir(pFolder); }};
    while (const dirent* pEntry = readdir(pFolder)) {
        const char* const szEnd = pEntry->d_name + std::strlen(pEntry->d_name);
        int nFd = -1;
        const auto result = std::from_chars(pEntry->d_name, szEnd, nFd);
        if (result.ec != std::errc() || result.ptr != szEnd) continue;  // "." and ".."
        if (nFd > 2) act(nFd);
    }
}

struct FormerLimit {
    CMutex mutex;
    std::optional<rlimit> limit VOK_GUARDED_BY(mutex);
};

/// Never destroyed: EMPs may be started while the process ends.
FormerLimit& TheFormerLimit() {
    static FormerLimit& former = *new FormerLimit;
    return former;
}

}  // namespace

void SetCloseOnExec(const std::function<void(int nFd)>& onOff) {
    // With nobody to tell, one call for all; Linux has it since 5.11.
    if (!onOff && ::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
    ForEachDescriptor([&](int nFd) {
        if (!LacksCloseOnExec(nFd)) return;
        if (onOff) onOff(nFd);
        SetCloseOnExec(nFd);
    });
}

std::set<int> InheritableDescriptors() {
    std::set<int> setFd;
    ForEachDescriptor([&](int nFd) {
        if (LacksCloseOnExec(nFd)) setFd.insert(nFd);
    });
    return setFd;
}

void SetCloseOnExec(int nFd) {
    (void)fcntl(nFd, F_SETFD, FD_CLOEXEC);  // the only flag there is; or it is closed already
}

void RaiseDescriptorLimit() {
    FormerLimit& former = TheFormerLimit();
    const CLock lock(former.mutex);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    rlimit raised = limit;
    raised.rlim_cur = raised.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0 && !former.limit) former.limit = limit;
}

std::optional<rlimit> OriginalDescriptorLimit() {
    FormerLimit& former = TheFormerLimit();
    const CLock lock(former.mutex);
    return former.limit;
}

rlim_t DescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1024;  // cannot happen; a usual value
    return limit.rlim_cur;
}

}  // namespace vok
