#include "bench/activators/CChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "platform/ScopeGuard.h"

namespace vok::bench {
namespace {

using std::chrono::milliseconds;

void Check(int nError, const std::string& strWhat) {
    if (nError != 0) throw std::system_error(nError, std::generic_category(), strWhat);
}

/// Daemons lie where an ordinary user's $PATH does not lead.
std::string FindProgram(const std::string& strProgram) {
    for (const char* szFolder : {"/usr/sbin/", "/sbin/"}) {
        std::string strPath = szFolder + strProgram;
        if (strProgram.find('/') == std::string::npos && ::access(strPath.c_str(), X_OK) == 0)
            return strPath;
    }
    return strProgram;
}

/// No signal is blocked or ignored, whatever the caller does with its own.
void ResetSignals(posix_spawnattr_t* pAttributes) {
    sigset_t setNone;
    sigset_t setAll;
    ::sigemptyset(&setNone);
    ::sigfillset(&setAll);
    Check(::posix_spawnattr_setsigmask(pAttributes, &setNone), "signal mask");
    Check(::posix_spawnattr_setsigdefault(pAttributes, &setAll), "signal actions");
    Check(::posix_spawnattr_setflags(pAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
          "signals");
}

void LayOutDescriptors(posix_spawn_file_actions_t* pActions, const std::string& strOutputFile,
                       int nInherited) {
    Check(::posix_spawn_file_actions_addopen(pActions, 0, "/dev/null", O_RDONLY, 0), "descriptors");
    Check(::posix_spawn_file_actions_addopen(pActions, 1, strOutputFile.c_str(),
                                             O_WRONLY | O_CREAT | O_APPEND, 0644),
          "descriptors");
    Check(::posix_spawn_file_actions_adddup2(pActions, 1, 2), "descriptors");
    if (nInherited != -1)
        Check(::posix_spawn_file_actions_adddup2(pActions, nInherited, 3), "descriptors");
}

}  // namespace

bool AwaitEnd(const CUniqueFd& process, milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd event{process.Get(), POLLIN, 0};
        const int nReady = ::poll(&event, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (nReady >= 0 || errno != EINTR) return nReady > 0;
    }
}

CUniqueFd OpenProcess(pid_t nPid) {
    CUniqueFd process{static_cast<int>(::syscall(SYS_pidfd_open, nPid, 0))};
    if (!process.IsOpen()) Check(errno, "process " + std::to_string(nPid));
    return process;
}

CChildProcess::CChildProcess(const std::vector<std::string>& arguments,
                             const std::string& strOutputFile, int nInherited) {
    posix_spawnattr_t attributes;
    Check(::posix_spawnattr_init(&attributes), "posix_spawn");
    const ScopeGuard destroyAttributes{[&] { (void)::posix_spawnattr_destroy(&attributes); }};
    posix_spawn_file_actions_t actions;
    Check(::posix_spawn_file_actions_init(&actions), "posix_spawn");
    const ScopeGuard destroyActions{[&] { (void)::posix_spawn_file_actions_destroy(&actions); }};
    ResetSignals(&attributes);
    LayOutDescriptors(&actions, strOutputFile, nInherited);

    std::vector<char*> pointers;
    for (const std::string& strArgument : arguments)
        pointers.push_back(const_cast<char*>(strArgument.c_str()));
    pointers.push_back(nullptr);
    const std::string strProgram = FindProgram(arguments.at(0));
    Check(::posix_spawnp(&m_nPid, strProgram.c_str(), &actions, &attributes, pointers.data(),
                         ::environ),
          strProgram + " cannot be started; is it installed?");
    m_Process = OpenProcess(m_nPid);  // it exists: nobody else waits for it
}

CChildProcess::~CChildProcess() {
    (void)::syscall(SYS_pidfd_send_signal, m_Process.Get(), SIGTERM, nullptr, 0);
    if (!AwaitEnd(m_Process, std::chrono::seconds(5)))
        (void)::syscall(SYS_pidfd_send_signal, m_Process.Get(), SIGKILL, nullptr, 0);
    while (::waitpid(m_nPid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace vok::bench
