#include "tests/support/CDaemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "platform/EmpPaths.h"
#include "platform/MountInfo.h"

extern char** environ;

namespace vok::test {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::string ReadFile(const std::string& strPath) {
    std::ifstream file{strPath, std::ios::binary};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string& strPath, const std::string& strText) {
    std::ofstream file{strPath, std::ios::binary};
    file << strText;
    if (!file.flush()) throw std::runtime_error("cannot write " + strPath);
}

std::string Config(const char* szVersion) {
    return std::string("<Emp><Version>") + szVersion + "</Version></Emp>\n";
}

milliseconds Left(steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
    return std::max(left, milliseconds::zero());
}

/// Everything that the new process needs, made before the fork: the test may have threads.
class CLaunch {
public:
    CLaunch(std::string strProgram, const CDaemon::Options& options, const std::string& strLogFile,
            const std::string& strOutputFile)
        : m_strProgram(std::move(strProgram)),
          m_strOutputFile(strOutputFile),
          m_Limits(options.limits.begin(), options.limits.end()),
          m_Descriptors(options.descriptors),
          m_bCloseStandard(options.bCloseStandard),
          m_nUser(options.nUser),
          m_Program(::open(m_strProgram.c_str(), O_RDONLY | O_CLOEXEC)) {
        auto environment = options.environment;
        environment.insert({"VOK_LOG_FILE", strLogFile});
        environment.insert({"VOK_LOG_LEVEL", std::to_string(options.nLogLevel)});
        for (char** pEntry = environ; *pEntry != nullptr; ++pEntry) {
            const std::string strEntry = *pEntry;
            if (environment.count(strEntry.substr(0, strEntry.find('='))) == 0)
                m_Environment.push_back(strEntry);
        }
        for (const auto& [strName, value] : environment)
            if (value) m_Environment.push_back(strName + '=' + *value);
        for (std::string& strEntry : m_Environment)
            m_EnvironmentPointers.push_back(strEntry.data());
        m_EnvironmentPointers.push_back(nullptr);
    }

    /// The pid, which is also the process group of all that comes of it; -1 on failure.
    pid_t Fork() {
        const pid_t nPid = ::fork();
        if (nPid == 0) RunProgram();
        return nPid;
    }

private:
    [[noreturn]] void RunProgram() {
        (void)::setpgid(0, 0);
        const int nOutput =
            ::open(m_strOutputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (nOutput < 0 || ::dup2(nOutput, 1) < 0 || ::dup2(nOutput, 2) < 0) ::_exit(126);
        const int nInput = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (nInput < 0 || ::dup2(nInput, 0) < 0) ::_exit(126);
        // What the test's libraries have open is none of the daemon's business.
        (void)::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC);
        for (const int nFd : m_Descriptors)
            if (::dup2(0, nFd) < 0) ::_exit(126);
        for (const auto& [nLimit, limit] : m_Limits)
            if (::setrlimit(static_cast<__rlimit_resource_t>(nLimit), &limit) != 0) ::_exit(126);
        if (m_bCloseStandard) (void)::syscall(SYS_close_range, 0U, 2U, 0U);
        char* const arguments[] = {m_strProgram.data(), nullptr};
        if (m_nUser != 0) {
            if (::setgid(m_nUser) != 0 || ::setuid(m_nUser) != 0) ::_exit(126);
            // By descriptor: the user may be kept from the folders above the program.
            (void)::fexecve(m_Program.Get(), arguments, m_EnvironmentPointers.data());
        }
        (void)::execve(m_strProgram.c_str(), arguments, m_EnvironmentPointers.data());
        ::_exit(127);
    }

    std::string m_strProgram;
    const std::string m_strOutputFile;
    const std::vector<std::pair<int, rlimit>> m_Limits;
    const std::vector<int> m_Descriptors;
    const bool m_bCloseStandard;
    const uid_t m_nUser;
    const CUniqueFd m_Program;
    std::vector<std::string> m_Environment;
    std::vector<char*> m_EnvironmentPointers;
};

/// The child of this process that belongs to the process group; 0 when there is none. Finds it also
/// when it has ended and nobody has waited for it.
pid_t FindChildInGroup(pid_t nGroup) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string strName = entry.path().filename();
        if (strName.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string strStat = ReadFile(entry.path() / "stat");
        const std::size_t nEndOfName = strStat.rfind(')');
        if (nEndOfName == std::string::npos) continue;
        std::istringstream fields{strStat.substr(nEndOfName + 1)};
        char cState = 0;
        pid_t nParent = 0;
        pid_t nItsGroup = 0;
        fields >> cState >> nParent >> nItsGroup;
        if (nParent == ::getpid() && nItsGroup == nGroup) return std::stoi(strName);
    }
    return 0;
}

/// The rest of the line of /proc/PID/.../status that begins with `szKey`.
std::string StatusField(const std::string& strStatus, const char* szKey) {
    const std::size_t nBegin = ("\n" + strStatus).find(std::string("\n") + szKey + ":");
    if (nBegin == std::string::npos) return "";
    const std::size_t nValue = nBegin + std::strlen(szKey) + 1;
    return strStatus.substr(nValue, strStatus.find('\n', nValue) - nValue);
}

/// The numeric entries of a folder of /proc, none when it has gone.
std::vector<int> Numbers(const std::string& strFolder) {
    std::vector<int> numbers;
    std::error_code error;
    fs::directory_iterator it{strFolder, error};
    while (!error && it != fs::directory_iterator()) {
        numbers.push_back(std::stoi(it->path().filename()));
        it.increment(error);
    }
    return numbers;
}

/// "time pid thread level [VOK][function(line)] message", the function being left out now and then.
std::optional<DaemonLogLine> ParseRecord(const std::string& strLine) {
    static const std::string s_strPrefix = "[VOK][";
    std::istringstream fields{strLine.substr(0, 128)};
    std::string strTime;
    int nPid = 0;
    DaemonLogLine line;
    if (!(fields >> strTime >> nPid >> line.nThread >> line.nLevel) || strTime.size() < 5 ||
        strTime[4] != '-')
        return std::nullopt;
    std::size_t nMessage = static_cast<std::size_t>(fields.tellg()) + 1;
    if (strLine.compare(nMessage, s_strPrefix.size(), s_strPrefix) == 0) {
        const std::size_t nFunction = nMessage + s_strPrefix.size();
        line.strFunction = strLine.substr(nFunction, strLine.find('(', nFunction) - nFunction);
        nMessage = strLine.find("] ", nFunction) + 2;
    }
    line.strMessage = strLine.substr(std::min(nMessage, strLine.size()));
    return line;
}

std::string NextFileName(const char* szSuffix) {
    static int s_nLast = 0;
    return "/tmp/vok-daemon-" + std::to_string(++s_nLast) + szSuffix;
}

}  // namespace

void CDaemon::Pause() {
    std::this_thread::sleep_for(milliseconds(2));
}

void CDaemon::LayOutPlugins() {
    const std::string strPoint = paths::MountPoint(paths::kPlugins);
    const std::string strContent = "/opt/down/plugin-update";
    fs::create_directories(paths::kPluginProbe);
    fs::create_directories(strPoint);
    fs::create_directories(strContent);
    // The update is newer, so that the start has nothing to complain of.
    WriteFile(strContent + "/empPepperPlugins.xml", Config("2.0"));
    const std::string strBuiltIn = paths::PreinstalledConfig(paths::kPlugins);
    fs::create_directories(fs::path(strBuiltIn).parent_path());
    WriteFile(strBuiltIn, Config("1.0"));
    if (FindMount(strPoint)) return;
    if (::mount(strContent.c_str(), strPoint.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), strPoint);
}

bool CDaemon::Start(const Options& options) {
    return Launch(options) && AwaitReady();
}

bool CDaemon::Launch(const Options& options) {
    const char* const szProgram = std::getenv("VOK_BROKER_UNDER_TEST");
    if (szProgram == nullptr) {
        ADD_FAILURE() << "VOK_BROKER_UNDER_TEST names no daemon";
        return false;
    }
    if (m_nPid != 0) (void)Stop();
    if (options.bLayOutPlugins) LayOutPlugins();
    m_Ended.reset();
    m_strLogFile = options.strLogFile.empty() ? NextFileName(".log") : options.strLogFile;
    m_strOutputFile = NextFileName(".out");
    m_FlagFile.Reset(::inotify_init1(IN_CLOEXEC));
    if (::inotify_add_watch(m_FlagFile.Get(), "/tmp", IN_CLOSE_WRITE) < 0) return false;

    const pid_t nParent = CLaunch{szProgram, options, m_strLogFile, m_strOutputFile}.Fork();
    int nStatus = 0;
    if (nParent < 0 || ::waitpid(nParent, &nStatus, 0) != nParent) return false;
    m_nPid = FindChildInGroup(nParent);
    if (m_nPid == 0 || nStatus != 0) {
        ADD_FAILURE() << szProgram << " did not go into the background: " << nStatus << Output();
        return false;
    }
    m_Process.Reset(static_cast<int>(::syscall(SYS_pidfd_open, m_nPid, 0)));
    return m_Process.IsOpen();
}

bool CDaemon::AwaitReady(milliseconds patience) {
    const std::string strFlag = fs::path(paths::kReadyFlag).filename();
    const auto deadline = steady_clock::now() + patience;
    for (;;) {
        pollfd events[] = {{m_FlagFile.Get(), POLLIN, 0}, {m_Process.Get(), POLLIN, 0}};
        const int nReady = ::poll(events, 2, static_cast<int>(Left(deadline).count()));
        if (nReady < 0 && errno == EINTR) continue;
        if (nReady <= 0) return false;
        if ((events[0].revents & POLLIN) == 0) return false;  // the process has ended
        alignas(inotify_event) char buffer[4096];
        const ssize_t nRead = ::read(m_FlagFile.Get(), buffer, sizeof buffer);
        for (ssize_t n = 0; n < nRead;) {
            const auto* const pEvent = reinterpret_cast<const inotify_event*>(buffer + n);
            if (pEvent->len > 0 && strFlag == pEvent->name) return true;
            n += static_cast<ssize_t>(sizeof(inotify_event) + pEvent->len);
        }
    }
}

int CDaemon::AwaitEnd(milliseconds patience) {
    if (m_Ended) return *m_Ended;
    const auto deadline = steady_clock::now() + patience;
    pollfd event{m_Process.Get(), POLLIN, 0};
    int nReady = 0;
    do {
        nReady = ::poll(&event, 1, static_cast<int>(Left(deadline).count()));
    } while (nReady < 0 && errno == EINTR);
    if (nReady <= 0) return -1;
    int nStatus = 0;
    if (::waitpid(m_nPid, &nStatus, 0) != m_nPid) {
        ADD_FAILURE() << "the daemon's exit status is lost: " << std::strerror(errno);
        nStatus = -1;
    }
    Finish(WIFSIGNALED(nStatus) ? 128 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus));
    return *m_Ended;
}

void CDaemon::Finish(int nStatus) {
    m_Ended = nStatus;
    m_nPid = 0;
    EXPECT_EQ(Output(), "");
}

int CDaemon::Stop(milliseconds patience) {
    if (m_nPid == 0) return m_Ended.value_or(-1);
    (void)Signal(SIGTERM);
    const int nStatus = AwaitEnd(patience);
    if (nStatus == -1) Kill();
    return nStatus;
}

void CDaemon::Kill() {
    (void)Signal(SIGKILL);
    (void)AwaitEnd();
}

bool CDaemon::Signal(int nSignal) const {
    return ::syscall(SYS_pidfd_send_signal, m_Process.Get(), nSignal, nullptr, 0) == 0;
}

bool CDaemon::IsRunning() const {
    if (m_nPid == 0) return false;
    pollfd event{m_Process.Get(), POLLIN, 0};
    return ::poll(&event, 1, 0) == 0;
}

CDaemon::~CDaemon() {
    if (m_nPid == 0) return;
    EXPECT_TRUE(IsRunning()) << "the daemon has ended by itself\n" << Log();
    EXPECT_EQ(Stop(), kOrderly) << Log();
}

std::vector<DaemonThread> CDaemon::Threads() const {
    std::vector<DaemonThread> threads;
    const std::string strFolder = "/proc/" + std::to_string(m_nPid) + "/task";
    for (const int nId : Numbers(strFolder)) {
        const std::string strStatus = ReadFile(strFolder + '/' + std::to_string(nId) + "/status");
        if (strStatus.empty()) continue;  // it has ended meanwhile
        DaemonThread thread;
        thread.nId = nId;
        thread.strName = StatusField(strStatus, "Name").substr(1);
        thread.nBlockedSignals = std::stoull(StatusField(strStatus, "SigBlk"), nullptr, 16);
        threads.push_back(thread);
    }
    return threads;
}

bool CDaemon::HasThread(const std::string& strName) const {
    for (const DaemonThread& thread : Threads())
        if (thread.strName == strName) return true;
    return false;
}

std::vector<int> CDaemon::OpenDescriptors() const {
    return Numbers("/proc/" + std::to_string(m_nPid) + "/fd");
}

long CDaemon::ResidentKiB() const {
    const std::string strStatus = ReadFile("/proc/" + std::to_string(m_nPid) + "/status");
    return std::strtol(StatusField(strStatus, "VmRSS").c_str(), nullptr, 10);
}

std::string CDaemon::Log() const {
    return ReadFile(m_strLogFile);
}

std::vector<DaemonLogLine> CDaemon::LogLines() const {
    std::vector<DaemonLogLine> lines;
    std::istringstream log{Log()};
    for (std::string strLine; std::getline(log, strLine);) {
        if (const auto line = ParseRecord(strLine))
            lines.push_back(*line);
        else if (!lines.empty())
            lines.back().strMessage += '\n' + strLine;  // a message of several lines
    }
    return lines;
}

std::vector<std::string> CDaemon::Lines() const {
    std::vector<std::string> lines;
    for (const DaemonLogLine& line : LogLines())
        lines.push_back(std::to_string(line.nLevel) + ' ' + line.strFunction + ": " +
                        line.strMessage);
    return lines;
}

int CDaemon::CountLines(int nLevel, const std::string& strFunction,
                        const std::string& strMessage) const {
    int nCount = 0;
    for (const DaemonLogLine& line : LogLines()) {
        if (line.nLevel == nLevel && line.strFunction == strFunction &&
            line.strMessage == strMessage)
            ++nCount;
    }
    return nCount;
}

bool CDaemon::HasLine(int nLevel, const std::string& strFunction,
                      const std::string& strMessage) const {
    return CountLines(nLevel, strFunction, strMessage) > 0;
}

bool CDaemon::WaitForLine(int nLevel, const std::string& strFunction, const std::string& strMessage,
                          int nTimes, milliseconds patience) const {
    return Await([&] { return CountLines(nLevel, strFunction, strMessage) >= nTimes; }, patience);
}

std::string CDaemon::Output() const {
    return ReadFile(m_strOutputFile);
}

}  // namespace vok::test
