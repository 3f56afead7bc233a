/// The reference message bus, as a user would have it start services and find them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "bench/activators/CChildProcess.h"
#include "tests/support/CTemporaryFolder.h"

struct DBusConnection;

namespace vok::bench {

/// One client of a bus. For one thread at a time; threads that are to call at once have one each.
class CBusConnection {
public:
    /// Connects and says hello. Throws std::runtime_error, as everything here, with the bus's
    /// words.
    explicit CBusConnection(const std::string& strAddress);
    ~CBusConnection();
    CBusConnection(const CBusConnection&) = delete;
    CBusConnection& operator=(const CBusConnection&) = delete;

    /// How long it took to ask for the owner of the service's name, which has one.
    std::chrono::nanoseconds ResolveName();
    /// How long it took until the service, which did not run, owned its name.
    std::chrono::nanoseconds Activate();
    /// How long one call to the service, which runs, took until its answer.
    std::chrono::nanoseconds Call();

    /// The process id of the service, which runs.
    pid_t ServicePid();
    /// Asks the service to end, and waits until its name has no owner any more.
    void EndService();

private:
    struct Closer {
        void operator()(DBusConnection* pConnection) const;
    };
    std::unique_ptr<DBusConnection, Closer> m_pConnection;
};

/// A private session bus with one service, which is started on demand. Runs from the constructor to
/// the destructor; its socket, configuration and service folder are temporary.
class CMessageBus {
public:
    /// `strServiceProgram`: the full path of vok-bench-bus-service. Throws std::runtime_error.
    explicit CMessageBus(const std::string& strServiceProgram);

    /// For connections of other threads.
    const std::string& Address() const { return m_strAddress; }
    /// Of the bus's daemon: who measures its memory or pins it to a processor needs it.
    pid_t Pid() const { return m_pDaemon->Pid(); }

    /// See CBusConnection; on a connection that is open all the time.
    std::chrono::nanoseconds ResolveName() { return m_pConnection->ResolveName(); }
    std::chrono::nanoseconds Activate() { return m_pConnection->Activate(); }
    std::chrono::nanoseconds Call() { return m_pConnection->Call(); }
    /// Ends the service. When this returns its process has ended, and it can be activated anew.
    void Release();

private:
    std::string WriteConfiguration(const std::string& strServiceProgram) const;
    void Start(const std::string& strConfiguration);

    const vok::test::CTemporaryFolder m_Folder;
    std::string m_strAddress;
    std::unique_ptr<CChildProcess> m_pDaemon;
    std::unique_ptr<CBusConnection> m_pConnection;  // goes before the daemon
};

}  // namespace vok::bench
