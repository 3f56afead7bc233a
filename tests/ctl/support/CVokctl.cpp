#include "tests/ctl/support/CVokctl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "tests/support/CEmpInstaller.h"

namespace vok::test {

namespace {

struct Pipe {
    CUniqueFd reader;
    CUniqueFd writer;
};

Pipe MakePipe() {
    int fds[2] = {-1, -1};
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    return {CUniqueFd(fds[0]), CUniqueFd(fds[1])};
}

/// The master as reader, the terminal itself as writer.
Pipe MakeTerminal(unsigned short nColumns, unsigned short nRows) {
    CUniqueFd master{::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    if (!master.IsOpen() || ::grantpt(master.Get()) != 0 || ::unlockpt(master.Get()) != 0)
        throw std::runtime_error("no terminal");
    CUniqueFd terminal{::open(::ptsname(master.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC)};
    winsize size{};
    size.ws_col = nColumns;
    size.ws_row = nRows;
    if (!terminal.IsOpen() || ::ioctl(terminal.Get(), TIOCSWINSZ, &size) != 0)
        throw std::runtime_error("no terminal");
    return {std::move(master), std::move(terminal)};
}

std::vector<std::string> Environment(const VokctlOptions& options) {
    std::map<std::string, std::string> variables{
        {"LC_ALL", "C.UTF-8"}, {"TERM", "xterm"}, {"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}};
    for (const auto& [strName, strValue] : options.environment) variables[strName] = strValue;
    // What a sanitizer is told, and where coverage is counted.
    for (const char* const szName : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
        if (const char* const szValue = std::getenv(szName)) variables.insert({szName, szValue});
    std::vector<std::string> texts;
    for (const auto& [strName, strValue] : variables) texts.push_back(strName + '=' + strValue);
    return texts;
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& strText : texts) pointers.push_back(const_cast<char*>(strText.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

CVokctl::CVokctl(std::vector<std::string> arguments, const VokctlOptions& options) {
    arguments.insert(arguments.begin(), CEmpInstaller::BuiltProgram("vokctl"));
    Start(arguments, options);
}

void CVokctl::Start(const std::vector<std::string>& arguments, const VokctlOptions& options) {
    Pipe input = MakePipe();
    Pipe output = options.bTerminal ? MakeTerminal(options.nColumns, options.nRows) : MakePipe();
    Pipe error = MakePipe();
    const std::vector<std::string> environment = Environment(options);
    const std::vector<char*> argv = Pointers(arguments);
    const std::vector<char*> envp = Pointers(environment);
    m_nPid = ::fork();
    if (m_nPid < 0) throw std::runtime_error("fork");
    if (m_nPid == 0) {
        (void)::dup2(input.reader.Get(), STDIN_FILENO);
        (void)::dup2(output.writer.Get(), STDOUT_FILENO);
        (void)::dup2(error.writer.Get(), STDERR_FILENO);
        if (options.bNoOutput) (void)::close(STDOUT_FILENO);
        if (options.bTerminal) {
            (void)::setsid();  // SIGWINCH comes from a terminal of its own
            (void)::ioctl(STDOUT_FILENO, TIOCSCTTY, 0);
        }
        if (options.nUser != 0 && (::setgid(options.nUser) != 0 || ::setuid(options.nUser) != 0))
            ::_exit(126);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    m_Input = std::move(input.writer);
    m_Output = std::move(output.reader);
    m_Error = std::move(error.reader);
}

CVokctl::~CVokctl() {
    if (m_nPid == 0) return;
    (void)::kill(m_nPid, SIGKILL);
    (void)::waitpid(m_nPid, nullptr, 0);
}

bool CVokctl::ReadMore(std::chrono::steady_clock::time_point deadline) {
    std::array<pollfd, 2> fds{{{m_Output.Get(), POLLIN, 0}, {m_Error.Get(), POLLIN, 0}}};
    if (fds[0].fd < 0 && fds[1].fd < 0) return false;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || ::poll(fds.data(), fds.size(), static_cast<int>(left.count())) <= 0)
        return false;
    const auto take = [](const pollfd& fd, CUniqueFd& source, std::string& strText) {
        if (fd.revents == 0) return;
        std::array<char, 4096> piece;
        const ssize_t nRead = ::read(source.Get(), piece.data(), piece.size());
        if (nRead > 0)
            strText.append(piece.data(), static_cast<std::size_t>(nRead));
        else
            source.Reset();  // a terminal says EIO when its last user has gone
    };
    take(fds[0], m_Output, m_Result.strOut);
    take(fds[1], m_Error, m_Result.strErr);
    return true;
}

bool CVokctl::AwaitOutput(const std::string& strText, int nTimes) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    const auto count = [&] {
        int nFound = 0;
        for (std::size_t i = 0; (i = m_Result.strOut.find(strText, i)) != std::string::npos; ++i)
            ++nFound;
        return nFound;
    };
    while (count() < nTimes) {
        if (!ReadMore(deadline)) return false;
    }
    return true;
}

void CVokctl::Signal(int nSignal) const {
    EXPECT_EQ(::kill(m_nPid, nSignal), 0);
}

void CVokctl::Resize(unsigned short nColumns, unsigned short nRows) const {
    winsize size{};
    size.ws_col = nColumns;
    size.ws_row = nRows;
    EXPECT_EQ(::ioctl(m_Output.Get(), TIOCSWINSZ, &size), 0);
}

VokctlResult CVokctl::Finish() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (ReadMore(deadline)) {
    }
    // Without descriptors there is nothing to read from, but something to wait for.
    int nStatus = 0;
    pid_t nWaited = 0;
    while ((nWaited = ::waitpid(m_nPid, &nStatus, WNOHANG)) == 0 &&
           std::chrono::steady_clock::now() < deadline)
        (void)::usleep(1000);
    if (nWaited == 0) {
        ADD_FAILURE() << "vokctl does not end: " << m_Result.strOut << m_Result.strErr;
        (void)::kill(m_nPid, SIGKILL);
        (void)::waitpid(m_nPid, &nStatus, 0);
    }
    m_nPid = 0;
    m_Result.nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    return m_Result;
}

VokctlResult Vokctl(const std::vector<std::string>& arguments, const VokctlOptions& options) {
    CVokctl process(arguments, options);
    process.CloseInput();
    return process.Finish();
}

}  // namespace vok::test
