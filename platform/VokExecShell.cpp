#include "platform/VokExecShell.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platform/CUniqueFd.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"

namespace vok {

namespace {

/// A longer line makes several records.
constexpr std::size_t kMaxLine = 1024;
/// How often the shell is looked at while its output does not end.
constexpr int kPollMs = 50;
/// What is still read when the shell has ended but somebody else goes on printing: a full pipe.
constexpr std::size_t kMaxRest = 65536;

/// Logs a stream of bytes line by line.
class CLineLogger {
public:
    ~CLineLogger() {
        if (!m_strLine.empty()) LogLine();
    }

    void Add(std::string_view strText) {
        for (const char c : strText) {
            if (c == '\n') {
                LogLine();
                continue;
            }
            m_strLine += c;
            if (m_strLine.size() == kMaxLine) LogLine();
        }
    }

private:
    void LogLine() {
        VOK_LOG_AS("VokExecShell", LEVEL_DETAIL, "%s", m_strLine.c_str());
        m_strLine.clear();
    }

    std::string m_strLine;
};

/// Starts the shell with both outputs into `nOutput`. 0, or an errno value.
int Spawn(const char* szCommand, int nOutput, pid_t* pPid) {
    posix_spawn_file_actions_t actions;
    if (const int nError = posix_spawn_file_actions_init(&actions)) return nError;
    const ScopeGuard destroyActions{[&] { (void)posix_spawn_file_actions_destroy(&actions); }};
    posix_spawnattr_t attr;
    if (const int nError = posix_spawnattr_init(&attr)) return nError;
    const ScopeGuard destroyAttr{[&] { (void)posix_spawnattr_destroy(&attr); }};

    if (const int nError = posix_spawn_file_actions_adddup2(&actions, nOutput, 1)) return nError;
    if (const int nError = posix_spawn_file_actions_adddup2(&actions, nOutput, 2)) return nError;
    if (const int nError = posix_spawn_file_actions_addclosefrom_np(&actions, 3)) return nError;

    sigset_t signals;  // these two and the flags cannot fail
    (void)sigfillset(&signals);
    (void)posix_spawnattr_setsigdefault(&attr, &signals);
    (void)sigemptyset(&signals);
    (void)posix_spawnattr_setsigmask(&attr, &signals);
    (void)posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    char szShell[] = "sh";
    char szOption[] = "-c";
    char* const argv[] = {szShell, szOption, const_cast<char*>(szCommand), nullptr};
    return posix_spawn(pPid, "/bin/sh", &actions, &attr, argv, environ);
}

/// What waitpid tells, or none while the shell runs.
std::optional<int> Status(pid_t nPid, int nOptions) {
    int nStatus = 0;
    pid_t nResult = -1;
    do {
        nResult = ::waitpid(nPid, &nStatus, nOptions);
    } while (nResult < 0 && errno == EINTR);
    if (nResult == 0) return std::nullopt;
    return nResult == nPid ? nStatus : -1;  // -1: a host that ignores SIGCHLD
}

/// Logs the output and waits for the shell. Its end counts, not that of its output: what it started
/// in the background may hold the pipe for ever.
int Follow(pid_t nPid, int nPipe) {
    CLineLogger lines;
    std::optional<int> status;
    std::size_t nRest = 0;
    char buffer[4096];
    for (;;) {
        pollfd poll{nPipe, POLLIN, 0};
        const int nReady = ::poll(&poll, 1, status ? 0 : kPollMs);
        if (nReady > 0) {
            const ssize_t nRead = ::read(nPipe, buffer, sizeof buffer);
            if (nRead == 0) break;
            if (nRead > 0) {
                lines.Add({buffer, static_cast<std::size_t>(nRead)});
                if (status) nRest += static_cast<std::size_t>(nRead);
            }
        }
        if (status && (nReady == 0 || nRest >= kMaxRest)) break;
        if (!status) status = Status(nPid, WNOHANG);
    }
    return status ? *status : *Status(nPid, 0);
}

}  // namespace

int VokExecShell(const char* szCommand) {
    if (szCommand == nullptr) return -1;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        VOK_LOG(LEVEL_ERROR, "No pipe for [%s]: [%s].", szCommand, std::strerror(errno));
        return -1;
    }
    const CUniqueFd reading{fds[0]};
    CUniqueFd writing{fds[1]};
    pid_t nPid = -1;
    const int nError = Spawn(szCommand, writing.Get(), &nPid);
    writing.Reset();
    if (nError != 0) {
        VOK_LOG(LEVEL_ERROR, "Starting [%s] failed: [%s].", szCommand, std::strerror(nError));
        return -1;
    }
    const int nStatus = Follow(nPid, reading.Get());
    if (nStatus == -1) return -1;
    return WIFSIGNALED(nStatus) ? 128 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

}  // namespace vok
