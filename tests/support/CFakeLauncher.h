/// EMP launchers inside the test's process.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace vok::test {

class CFakeServer;

/// One request as the launcher received it.
struct LauncherOpen {
    std::string strEmp;
    int nTicketSerial;
    std::string strCallbackPort;

    bool operator==(const LauncherOpen& other) const {
        return strEmp == other.strEmp && nTicketSerial == other.nTicketSerial &&
               strCallbackPort == other.strCallbackPort;
    }
};

void PrintTo(const LauncherOpen& open, std::ostream* pStream);

/// A launcher, or grouping process, that serves on a free loopback port when the constructor
/// returns and starts nothing; the destructor ends all connections and waits for its threads.
/// Thread-safe.
class CFakeLauncher {
public:
    CFakeLauncher();
    ~CFakeLauncher();
    CFakeLauncher(const CFakeLauncher&) = delete;
    CFakeLauncher& operator=(const CFakeLauncher&) = delete;

    std::string PortText() const;

    /// At first 1: every request is taken.
    void Answer(int nAnswer);
    /// From now on every request is recorded and then fails: its sender gets a
    /// TApplicationException with this text.
    void FailCalls(const std::string& strText);
    /// Runs with every request before it is answered, on the thread that serves it.
    void OnOpen(std::function<void(const LauncherOpen&)> hook);

    /// In the order in which they came.
    std::vector<LauncherOpen> Opens() const;

private:
    class CHandler;

    std::shared_ptr<CHandler> m_pHandler;
    std::unique_ptr<CFakeServer> m_pServer;
};

}  // namespace vok::test
