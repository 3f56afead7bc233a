#include "tests/support/CLauncherProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "tests/support/CEmpInstaller.h"

extern char** environ;

namespace vok::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Starts the program with its standard output going to `nOutput`.
pid_t Spawn(const std::vector<std::string>& command, int nOutput) {
    std::vector<char*> arguments;
    for (const std::string& strArgument : command)
        arguments.push_back(const_cast<char*>(strArgument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, nOutput, STDOUT_FILENO);
    pid_t nPid = 0;
    const int nError =
        ::posix_spawn(&nPid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (nError != 0) throw std::runtime_error(command[0] + ": " + std::strerror(nError));
    return nPid;
}

}  // namespace

CLauncherProcess::CLauncherProcess(const std::string& strProgram,
                                   std::vector<std::string> arguments) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    m_Output.Reset(fds[0]);
    const CUniqueFd output{fds[1]};
    arguments.insert(arguments.begin(), CEmpInstaller::BuiltProgram(strProgram));
    m_nPid = Spawn(arguments, output.Get());

    const auto deadline = steady_clock::now() + kPatience;
    // Something may be printed before: what is registered is opened at once.
    while (ReadLine(deadline)) {
        if (m_Lines.back().rfind("serving ", 0) != 0) continue;
        m_strPort = m_Lines.back().substr(m_Lines.back().rfind('=') + 1);
        return;
    }
}

CLauncherProcess::~CLauncherProcess() {
    Kill();
}

bool CLauncherProcess::AwaitLine(const std::string& strLine, int nTimes) {
    const auto deadline = steady_clock::now() + kPatience;
    while (std::count(m_Lines.begin(), m_Lines.end(), strLine) < nTimes) {
        if (!ReadLine(deadline)) return false;
    }
    return true;
}

bool CLauncherProcess::ReadLine(steady_clock::time_point deadline) {
    for (;;) {
        if (const std::size_t nEnd = m_strUnfinished.find('\n'); nEnd != std::string::npos) {
            m_Lines.push_back(m_strUnfinished.substr(0, nEnd));
            m_strUnfinished.erase(0, nEnd + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        pollfd event{m_Output.Get(), POLLIN, 0};
        const int nReady =
            ::poll(&event, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
        if (nReady < 0 && errno == EINTR) continue;
        if (nReady <= 0) return false;
        char buffer[512];
        const ssize_t nRead = ::read(m_Output.Get(), buffer, sizeof buffer);
        if (nRead <= 0) return false;
        m_strUnfinished.append(buffer, static_cast<std::size_t>(nRead));
    }
}

int CLauncherProcess::End(int nSignal) {
    if (m_nPid == 0) return -1;
    (void)::kill(m_nPid, nSignal);
    int nStatus = 0;
    while (::waitpid(m_nPid, &nStatus, 0) < 0 && errno == EINTR) continue;
    m_nPid = 0;
    return WIFSIGNALED(nStatus) ? 128 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus);
}

}  // namespace vok::test
