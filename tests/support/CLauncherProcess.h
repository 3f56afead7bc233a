/// A register launcher as a process beside the daemon under test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::test {

/// Runs a program of the build that prints "serving LAUNCHER port=PORT" once it is registered:
/// example-register-launcher or fake-launcher. Killed with the object. One thread at a time.
///
///     CLauncherProcess launcher("fake-launcher", {"Launcher", "Weather=serve"});
///     ASSERT_NE(launcher.Port(), "");
class CLauncherProcess {
public:
    static constexpr std::chrono::seconds kPatience{60};

    /// Starts it, and waits until it is registered. Throws std::runtime_error when the program
    /// cannot be run.
    CLauncherProcess(const std::string& strProgram, std::vector<std::string> arguments);
    ~CLauncherProcess();
    CLauncherProcess(const CLauncherProcess&) = delete;
    CLauncherProcess& operator=(const CLauncherProcess&) = delete;

    /// Where it serves; "" when it has ended instead, or not come so far in time.
    const std::string& Port() const { return m_strPort; }

    /// Waits until it has printed so many lines that are this one.
    bool AwaitLine(const std::string& strLine, int nTimes = 1);

    /// SIGTERM, and waits for the end: the exit status, 128 + n when signal n ended it.
    int Terminate() { return End(SIGTERM); }
    /// SIGKILL, and waits for the end.
    void Kill() { (void)End(SIGKILL); }

private:
    int End(int nSignal);
    /// Reads one more line; false when there is none in time.
    bool ReadLine(std::chrono::steady_clock::time_point deadline);

    pid_t m_nPid = 0;  // 0: it has been waited for
    CUniqueFd m_Output;
    std::string m_strUnfinished;  // what has been read of the next line
    std::vector<std::string> m_Lines;
    std::string m_strPort;
};

}  // namespace vok::test
