/// Other processes: starting, recognising, signalling and awaiting them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>

namespace vok {

/// A process, recognised also after its pid has been given to another one.
struct ProcessId {
    pid_t nPid = 0;
    /// Clock ticks from boot to its start (field 22 of /proc/PID/stat, proc(5)); 0: not known.
    unsigned long long nStartTime = 0;
    pid_t nParentPid = 0;  // when it was identified
};

/// Recognises the running process `nPid`. The start time is 0 when there is none.
ProcessId IdentifyProcess(pid_t nPid);

/// Sends `nSignal` to exactly this process. False, and nothing is sent, when it has ended or cannot
/// be looked at, its start time is not known, or the pid is 1 or less or the caller's own, a
/// thread's of it included.
bool SignalProcess(const ProcessId& process, int nSignal);

/// Waits until this process has ended, at most `wait`. A zombie has ended. True when it has.
bool AwaitProcessEnd(const ProcessId& process, std::chrono::milliseconds wait);

/// The path of the program that this process runs, as the kernel tells it: one that has been
/// deleted since has " (deleted)" behind it. Empty when it has ended or cannot be looked at, or its
/// start time is not known.
std::string ProgramOf(const ProcessId& process);

/// What execve(2) needs, all of it ready before the fork: the child borrows the parent's memory and
/// does nothing but make system calls.
struct ExecRequest {
    const char* szPath = nullptr;
    char* const* argv = nullptr;
    char* const* envp = nullptr;
    /// False: the child ends at once, with status 0.
    bool bExecute = true;
    /// Set to the child's pid before it executes, when not null.
    std::atomic<pid_t>* pPid = nullptr;
};

struct ForkResult {
    pid_t nPid = -1;     // -1: vfork failed
    int nForkErrno = 0;  // why
    int nExecErrno = 0;  // why execve failed; the child has then ended with status 0
};

/// For a process that changes no signal action from now on: ForkAndExec sets back to their default
/// the signals that are not at it now, instead of all. To be called before there are threads.
void RememberSignalActions();

/// vfork(2) and execve(2). The program starts with no blocked and no ignored signals, descriptors 0
/// to 2 only, and the descriptor limit that the broker itself was started with. The caller reaps
/// it.
ForkResult ForkAndExec(const ExecRequest& request);

/// waitpid(2), repeated after EINTR.
pid_t AwaitChild(pid_t nPid, int* pStatus);

}  // namespace vok
