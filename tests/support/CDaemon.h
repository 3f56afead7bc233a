/// The daemon under test, as a process of the test's private world.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::test {

/// One record of the daemon's log file.
struct DaemonLogLine {
    int nThread = 0;
    int nLevel = 0;
    std::string strFunction;  // "OpenEmp", "CEmpInfo::Add"
    std::string strMessage;
};

/// One thread of the daemon.
struct DaemonThread {
    int nId = 0;
    std::string strName;
    unsigned long long nBlockedSignals = 0;  // bit n - 1: signal n
};

/// Starts the program that VOK_BROKER_UNDER_TEST names, and stops it in the end. The test has to be
/// pid 1, or a subreaper: the daemon, which leaves its parent by forking, then becomes a child of
/// the test, whose exit status can be read.
///
///     CDaemon daemon;
///     ASSERT_TRUE(daemon.Start()) << daemon.Log();
///
/// The test fails when a daemon that was not stopped by Stop or seen ending by AwaitEnd has gone,
/// does not end with kOrderly, or has written to its standard output or error (sanitizers do).
/// One thread at a time; the queries, Kill and Signal may be used by any.
class CDaemon {
public:
    static constexpr int kOrderly = 1;  // the exit status after SIGTERM, and after a failed start
    /// Far more than anything takes, on a busy machine with sanitizers too.
    static constexpr std::chrono::seconds kPatience{60};

    struct Options {
        /// Set on top of the test's own environment, or taken away (nullopt).
        std::map<std::string, std::optional<std::string>> environment;
        /// RLIMIT_... to what it shall be.
        std::map<int, rlimit> limits;
        /// Started without standard input, output and error.
        bool bCloseStandard = false;
        /// Open from the start, without close-on-exec: to /dev/null.
        std::vector<int> descriptors;
        int nLogLevel = 4;
        /// See LayOutPlugins.
        bool bLayOutPlugins = true;
        /// A file in /tmp for every daemon when empty.
        std::string strLogFile;
        /// The daemon runs as this user, 0: as the test's own. Needs real root.
        unsigned int nUser = 0;
    };

    CDaemon() = default;
    ~CDaemon();
    CDaemon(const CDaemon&) = delete;
    CDaemon& operator=(const CDaemon&) = delete;

    /// Makes a start of the broker quick: there is a plug-in set, so that nothing is to be mounted.
    static void LayOutPlugins();

    /// Launch, then waits for the ready flag. False when the daemon ends before that, or does not
    /// become ready in time.
    bool Start(const Options& options);
    bool Start() { return Start(Options()); }

    /// Runs the program until it has gone into the background. False when it cannot be run.
    bool Launch(const Options& options);
    bool Launch() { return Launch(Options()); }
    /// Waits for the ready flag, which has to be written after the launch.
    bool AwaitReady(std::chrono::milliseconds patience = kPatience);

    /// SIGTERM, then AwaitEnd. A daemon that does not end in time is killed: -1.
    int Stop(std::chrono::milliseconds patience = kPatience);
    /// Waits for the end: the exit status, 128 + n when signal n ended it; -1 when it still runs.
    int AwaitEnd(std::chrono::milliseconds patience = kPatience);
    /// SIGKILL, and waits for the end.
    void Kill();
    /// False when the daemon has ended.
    bool Signal(int nSignal) const;
    bool IsRunning() const;

    /// The daemon's own pid; 0 before the launch and when it has been waited for.
    pid_t Pid() const { return m_nPid; }
    std::vector<DaemonThread> Threads() const;
    /// True when a thread has this name.
    bool HasThread(const std::string& strName) const;
    std::vector<int> OpenDescriptors() const;
    long ResidentKiB() const;
    /// Waits until this answers true; false when it has not in time.
    template <typename Condition>
    static bool Await(Condition condition, std::chrono::milliseconds patience = kPatience) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            Pause();
        }
        return true;
    }

    /// All that has been logged, as it stands in the file.
    std::string Log() const;
    std::vector<DaemonLogLine> LogLines() const;
    /// "<level> <function>: <message>" for every record, in order.
    std::vector<std::string> Lines() const;
    bool HasLine(int nLevel, const std::string& strFunction, const std::string& strMessage) const;
    int CountLines(int nLevel, const std::string& strFunction, const std::string& strMessage) const;
    /// Waits until there are `nTimes` such lines; false when they have not come in time.
    bool WaitForLine(int nLevel, const std::string& strFunction, const std::string& strMessage,
                     int nTimes = 1, std::chrono::milliseconds patience = kPatience) const;
    /// What came on standard output and error.
    std::string Output() const;

private:
    static void Pause();
    void Finish(int nStatus);

    pid_t m_nPid = 0;
    CUniqueFd m_Process;   // a pidfd
    CUniqueFd m_FlagFile;  // inotify
    std::optional<int> m_Ended;
    std::string m_strLogFile;
    std::string m_strOutputFile;
};

}  // namespace vok::test
