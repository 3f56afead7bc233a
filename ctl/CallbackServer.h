/// Where the broker and EMPs send a client their events.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::ctl {

struct ClientEvent {
    std::int32_t nType = 0;
    std::string strArg1;
    std::string strArg2;
};

/// Serves VokEmpEvent on a free port of the loopback interface, from the constructor, which throws
/// CFailure when that is not possible, to the destructor. Its port is the client's identity, and
/// the broker takes a client whose port is not served for dead. Peers that are connected and say
/// nothing keep nobody else from it: where there are too many, the one that has been silent longest
/// is shown out.
class CCallbackServer {
public:
    /// Peers that are connected at the same time. More than a broker and its EMPs ever are: they
    /// connect for a call, and leave.
    static constexpr int kMostPeers = 64;

    CCallbackServer();
    ~CCallbackServer();
    CCallbackServer(const CCallbackServer&) = delete;
    CCallbackServer& operator=(const CCallbackServer&) = delete;

    const std::string& Port() const { return m_strPort; }

    /// Can be read when there are events to take.
    int EventFd() const { return m_Event.Get(); }
    /// In the order in which they came, since the last time.
    std::vector<ClientEvent> Take();

private:
    class CServer;
    class CHandler;

    void Put(ClientEvent event);

    std::mutex m_Mutex;
    std::vector<ClientEvent> m_Events;  // guarded by m_Mutex
    CUniqueFd m_Event;                  // an eventfd
    std::string m_strPort;
    std::unique_ptr<CServer> m_pServer;
};

}  // namespace vok::ctl
