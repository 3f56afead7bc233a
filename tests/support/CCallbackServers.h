/// Very many clients' callback servers in one process.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/CUniqueFd.h"
#include "tests/support/CFakeClient.h"

namespace vok::test {

/// One thread serves them all, one event after the other. An address is a loopback port as decimal
/// text, or a Unix domain socket path whose folder exists. Thread-safe. All throw std::system_error
/// when the machine does not play along.
///
/// In a private world, ports below 32768 are given to nobody by themselves: what has been closed
/// there stays closed.
class CCallbackServers {
public:
    CCallbackServers();
    ~CCallbackServers();
    CCallbackServers(const CCallbackServers&) = delete;
    CCallbackServers& operator=(const CCallbackServers&) = delete;

    void Serve(const std::string& strAddress);
    /// As when the client's process is killed: a socket file stays, connections are refused.
    void Close(const std::string& strAddress);

    /// In the order in which they came.
    std::vector<ClientEvent> Events(const std::string& strAddress) const;

private:
    void Run();
    void Answer(int nListener);

    const CUniqueFd m_Poll;
    const CUniqueFd m_Stop;  // an eventfd
    mutable std::mutex m_Mutex;
    std::map<std::string, CUniqueFd> m_mapListener;               // guarded by m_Mutex
    std::map<std::string, std::vector<ClientEvent>> m_mapEvents;  // guarded by m_Mutex
    std::thread m_Thread;
};

}  // namespace vok::test
