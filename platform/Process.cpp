#include "platform/Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string_view>
#include <thread>
#include <type_traits>

#include "platform/CUniqueFd.h"
#include "platform/Descriptors.h"
#include "platform/Number.h"
#include "platform/ScopeGuard.h"

// Headers older than these calls; the numbers are the same on every architecture.
#ifndef SYS_pidfd_send_signal
#define SYS_pidfd_send_signal 424
#endif
#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif
#ifndef SYS_close_range
#define SYS_close_range 436
#endif

namespace vok {

namespace {

using Clock = std::chrono::steady_clock;

/// How often a process is looked at where the kernel cannot tell that it has ended.
constexpr std::chrono::milliseconds kEndPoll{10};

/// What /proc/PID/stat tells of a process.
struct ProcessStat {
    char cState = 'X';
    pid_t nParentPid = 0;
    int nThreads = 0;
    unsigned long long nStartTime = 0;
};

/// A process whose main thread has ended is a zombie while its other threads live.
bool HasEnded(const ProcessStat& stat) {
    const bool bDead = stat.cState == 'Z' || stat.cState == 'X' || stat.cState == 'x';
    return stat.nStartTime == 0 || (bDead && stat.nThreads <= 1);
}

/// One that has ended, for garbage.
ProcessStat ParseStat(std::string_view strStat) {
    // The second field is the program's name in parentheses; blanks and parentheses in it are not
    // escaped. The third is the state, the 4th the parent, the 20th how many threads there are, the
    // 22nd the start time.
    const std::size_t nName = strStat.rfind(')');
    if (nName == std::string_view::npos || nName + 2 >= strStat.size()) return {};
    strStat.remove_prefix(nName + 2);
    ProcessStat stat;
    stat.cState = strStat.front();
    for (int nField = 4; nField <= 22; ++nField) {
        const std::size_t nBlank = strStat.find(' ');
        if (nBlank == std::string_view::npos) return {};
        strStat.remove_prefix(nBlank + 1);
        const char* const szEnd = strStat.data() + strStat.size();
        if (nField == 4) (void)std::from_chars(strStat.data(), szEnd, stat.nParentPid);
        if (nField == 20) (void)std::from_chars(strStat.data(), szEnd, stat.nThreads);
        if (nField == 22) (void)std::from_chars(strStat.data(), szEnd, stat.nStartTime);
    }
    return stat;
}

/// The start of a file of /proc, whose texts come in one piece; empty when it cannot be read.
template <std::size_t nSize>
std::string_view ReadProcFile(pid_t nPid, const char* szFile, char (&buffer)[nSize]) {
    char szPath[32];
    std::snprintf(szPath, sizeof szPath, "/proc/%d/%s", static_cast<int>(nPid), szFile);
    const CUniqueFd fd{::open(szPath, O_RDONLY | O_CLOEXEC)};
    if (!fd.IsOpen()) return {};
    ssize_t nRead = 0;
    do {
        nRead = ::read(fd.Get(), buffer, nSize);
    } while (nRead < 0 && errno == EINTR);
    if (nRead <= 0) return {};
    return {buffer, static_cast<std::size_t>(nRead)};
}

/// True when errno says that something was short or missing in the kernel, not in the process.
bool CouldNotLook(int nErrno) {
    return nErrno == EMFILE || nErrno == ENFILE || nErrno == ENOMEM || nErrno == ENOSYS ||
           nErrno == EPERM || nErrno == EACCES;
}

enum class eLife { Running, Ended, Unknown };

eLife LifeOf(const ProcessId& process) {
    if (process.nStartTime == 0) return eLife::Ended;
    char buffer[1024];  // 52 numbers and a name of 16 bytes (64 for a kernel thread)
    errno = 0;
    const std::string_view strStat = ReadProcFile(process.nPid, "stat", buffer);
    if (strStat.empty() && CouldNotLook(errno)) return eLife::Unknown;
    const ProcessStat stat = ParseStat(strStat);
    return stat.nStartTime == process.nStartTime && !HasEnded(stat) ? eLife::Running : eLife::Ended;
}

/// False for the id of a thread that is not its process's first: a signal to it reaches the
/// process.
bool IsProcessId(pid_t nPid) {
    char buffer[1024];
    const std::string_view strStatus = ReadProcFile(nPid, "status", buffer);
    constexpr std::string_view kField = "\nTgid:\t";
    const std::size_t nField = strStatus.find(kField);
    if (nField == std::string_view::npos) return false;
    pid_t nProcess = 0;
    (void)std::from_chars(strStatus.data() + nField + kField.size(),
                          strStatus.data() + strStatus.size(), nProcess);
    return nProcess == nPid;
}

CUniqueFd OpenPidFd(pid_t nPid) {
    return CUniqueFd{static_cast<int>(::syscall(SYS_pidfd_open, nPid, 0))};
}

int MillisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 60'000));
}

// ---- The child between vfork and exec ----

/// A signal set and a signal action as the kernel takes them, both empty: no signal, SIG_DFL.
constexpr std::size_t kKernelSignalSet = (_NSIG - 1) / 8;
constexpr char kNothing[64] = {};

/// Which signals the child sets back to their default: all, unless somebody knows better.
struct SignalsToReset {
    bool bReset[_NSIG];
};

constexpr SignalsToReset AllSignals() {
    SignalsToReset signals{};
    for (bool& bReset : signals.bReset) bReset = true;
    return signals;
}

SignalsToReset g_SignalsToReset = AllSignals();

/// The kernel's struct rlimit64, whatever the C library's rlim_t is.
struct KernelLimit {
    std::uint64_t nSoft;
    std::uint64_t nHard;
};

/// Everything that the child needs.
struct ChildPlan {
    const ExecRequest* pRequest;
    bool bSetLimit;
    KernelLimit limit;
    int nHighestFd;
    const SignalsToReset* pSignals;
    std::atomic<bool>* pSharesMemory;  // set by a child that does
    std::atomic<int>* pExecErrno;      // in memory that both share in any case
};
static_assert(std::is_trivially_destructible_v<ChildPlan>);
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<pid_t>::is_always_lock_free &&
              std::atomic<bool>::is_always_lock_free);

/// Far more than a few system calls need, also when the linker binds the first of them in the
/// child.
constexpr std::size_t kChildStack = std::size_t{16} * 1024;

#if defined(__SANITIZE_THREAD__)
#define VOK_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VOK_THREAD_SANITIZER 1
#endif
#endif

/// What vfork(2) is: the memory is shared, and the parent goes on once the child has executed or
/// ended. ThreadSanitizer's run-time would take the child's traces in its memory for its own.
#ifdef VOK_THREAD_SANITIZER
constexpr int kVforkFlags = CLONE_VFORK | SIGCHLD;
#else
constexpr int kVforkFlags = CLONE_VM | CLONE_VFORK | SIGCHLD;
#endif

/// What the child tells of a failed execve. It runs in our memory, so that a place on our stack
/// would do; but ThreadSanitizer's children have a copy, and so has every one where an emulator
/// makes a fork of a vfork: from there only a shared mapping brings it back. Which it is here, the
/// first child tells: a mapping for each would cost more than all else that a start takes from us.
class CExecReport {
public:
    CExecReport() {
        if (s_bSharesMemory.load()) return;
        void* const pMemory = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_pErrno = pMemory == MAP_FAILED ? nullptr : new (pMemory) std::atomic<int>{0};
    }
    ~CExecReport() {
        if (m_pErrno != nullptr && m_pErrno != &m_OwnErrno)
            (void)::munmap(m_pErrno, sizeof *m_pErrno);
    }
    CExecReport(const CExecReport&) = delete;
    CExecReport& operator=(const CExecReport&) = delete;

    /// Where the child puts its errno; null, with our errno, when there is no memory for it.
    std::atomic<int>* Errno() { return m_pErrno; }
    static std::atomic<bool>& SharesMemory() { return s_bSharesMemory; }

private:
    static std::atomic<bool> s_bSharesMemory;
    std::atomic<int> m_OwnErrno{0};
    std::atomic<int>* m_pErrno = &m_OwnErrno;
};
std::atomic<bool> CExecReport::s_bSharesMemory{false};

/// Asked once: an empty range closes nothing.
bool CanCloseRange() {
    static const bool bCan = ::syscall(SYS_close_range, ~0U, ~0U, 0U) == 0;
    return bCan;
}

/// The highest open descriptor, for kernels that cannot close a range.
int HighestFd() {
    const int nBlind = static_cast<int>(std::min<rlim_t>(DescriptorLimit(), 65536));
    DIR* const pFolder = ::opendir("/proc/self/fd");
    if (pFolder == nullptr) return nBlind;
    const ScopeGuard closeFolder{[&] { (void)::closedir(pFolder); }};
    int nHighest = 2;
    while (const dirent* pEntry = ::readdir(pFolder)) {
        nHighest = std::max(nHighest, LeadingNumber(pEntry->d_name));  // 0 for "." and ".."
    }
    return nHighest;
}

/// Makes nothing but system calls, and those directly: the C library's wrappers keep books in the
/// memory that still is the parent's. Sanitizers would, too.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) int RunChild(void* pArg) {
    ChildPlan& plan = *static_cast<ChildPlan*>(pArg);
    const ExecRequest& request = *plan.pRequest;
    plan.pSharesMemory->store(true);
    if (request.pPid != nullptr) {
        request.pPid->store(static_cast<pid_t>(::syscall(SYS_getpid)));
    }
    if (request.bExecute) {
        for (int nSignal = 1; nSignal < _NSIG; ++nSignal) {
            if (!plan.pSignals->bReset[nSignal]) continue;
            (void)::syscall(SYS_rt_sigaction, nSignal, kNothing, nullptr, kKernelSignalSet);
        }
        if (plan.bSetLimit) {
            (void)::syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, &plan.limit, nullptr);
        }
        if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0) {
            for (int nFd = 3; nFd <= plan.nHighestFd; ++nFd) (void)::syscall(SYS_close, nFd);
        }
        (void)::syscall(SYS_rt_sigprocmask, SIG_SETMASK, kNothing, nullptr, kKernelSignalSet);
        (void)::syscall(SYS_execve, request.szPath, request.argv, request.envp);
        plan.pExecErrno->store(errno);
    }
    (void)::syscall(SYS_exit_group, 0);
    __builtin_unreachable();
}

}  // namespace

ProcessId IdentifyProcess(pid_t nPid) {
    ProcessId process{nPid, 0, 0};
    if (nPid <= 0) return process;
    char buffer[1024];
    const ProcessStat stat = ParseStat(ReadProcFile(nPid, "stat", buffer));
    if (HasEnded(stat)) return process;
    process.nStartTime = stat.nStartTime;
    process.nParentPid = stat.nParentPid;
    return process;
}

bool SignalProcess(const ProcessId& process, int nSignal) {
    if (process.nPid <= 1 || process.nPid == ::getpid()) return false;
    const CUniqueFd pidFd = OpenPidFd(process.nPid);
    if (!pidFd.IsOpen() && !CouldNotLook(errno)) return false;
    // The descriptor stays with the process that it was opened for, so a start time that is right
    // now says that it was opened for the right one.
    if (LifeOf(process) != eLife::Running) return false;
    if (pidFd.IsOpen()) {
        return ::syscall(SYS_pidfd_send_signal, pidFd.Get(), nSignal, nullptr, 0) == 0;
    }
    return IsProcessId(process.nPid) && ::kill(process.nPid, nSignal) == 0;
}

bool AwaitProcessEnd(const ProcessId& process, std::chrono::milliseconds wait) {
    const Clock::time_point deadline = Clock::now() + wait;
    const CUniqueFd pidFd = OpenPidFd(process.nPid);
    for (;;) {
        const eLife life = LifeOf(process);
        if (life == eLife::Ended) return true;
        const int nLeft = MillisecondsUntil(deadline);
        if (nLeft == 0) return false;
        if (pidFd.IsOpen() && life == eLife::Running) {
            pollfd poll{pidFd.Get(), POLLIN, 0};
            (void)::poll(&poll, 1, nLeft);  // however it ends, the loop looks again
        } else {
            std::this_thread::sleep_for(std::min(kEndPoll, std::chrono::milliseconds(nLeft)));
        }
    }
}

std::string ProgramOf(const ProcessId& process) {
    char szLink[32];
    std::snprintf(szLink, sizeof szLink, "/proc/%d/exe", static_cast<int>(process.nPid));
    char buffer[PATH_MAX];
    const ssize_t nSize = ::readlink(szLink, buffer, sizeof buffer);
    // The link first: what it says of a pid holds for this process if that runs even now.
    if (nSize <= 0 || LifeOf(process) != eLife::Running) return {};
    return {buffer, static_cast<std::size_t>(nSize)};
}

void RememberSignalActions() {
    for (int nSignal = 1; nSignal < _NSIG; ++nSignal) {
        struct sigaction action {};
        // The C library keeps some to itself and tells nothing of them.
        const bool bKnown = ::sigaction(nSignal, nullptr, &action) == 0;
        g_SignalsToReset.bReset[nSignal] = !bKnown || action.sa_handler != SIG_DFL;
    }
}

ForkResult ForkAndExec(const ExecRequest& request) {
    ForkResult result;
    // A stack of its own, within ours: what the child leaves behind on it meets nothing of ours.
    // vfork itself would share our frame.
    alignas(16) char stack[kChildStack];
    CExecReport report;
    if (report.Errno() == nullptr) {
        result.nForkErrno = errno;
        return result;
    }
    const int nHighestFd = CanCloseRange() ? 2 : HighestFd();
    ChildPlan plan{
        &request,      false, {}, nHighestFd, &g_SignalsToReset, &CExecReport::SharesMemory(),
        report.Errno()};
    if (const auto limit = OriginalDescriptorLimit()) {
        plan.bSetLimit = true;
        plan.limit = {limit->rlim_cur, limit->rlim_max};
    }

    // No handler of ours may run in the child: it would run on our memory.
    sigset_t all;
    sigset_t former;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &former);
    result.nPid = ::clone(&RunChild, stack + kChildStack, kVforkFlags, &plan);
    if (result.nPid < 0) result.nForkErrno = errno;
    (void)pthread_sigmask(SIG_SETMASK, &former, nullptr);
    // Once more, for children that got a memory of their own: ThreadSanitizer's, and every one
    // where an emulator makes a fork of a vfork.
    if (result.nPid > 0 && request.pPid != nullptr) request.pPid->store(result.nPid);

    result.nExecErrno = report.Errno()->load();
    return result;
}

pid_t AwaitChild(pid_t nPid, int* pStatus) {
    pid_t nResult = -1;
    do {
        nResult = ::waitpid(nPid, pStatus, 0);
    } while (nResult < 0 && errno == EINTR);
    return nResult;
}

}  // namespace vok
