#include "ctl/CallbackServer.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <future>
#include <list>
#include <mutex>
#include <utility>

#include "VokEmpEvent.h"
#include "ctl/Failure.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;

/// Events that nobody takes are forgotten beyond this.
constexpr std::size_t kMostEvents = 4096;
/// What a peer may hold a connection for without a word, in milliseconds, while there is room.
constexpr int kSilenceMs = 30'000;

/// Who is connected. The server accepts nobody while it has kMostPeers, so the last one that fits
/// takes the place of the one that has been silent longest.
class CPeers : public TServerEventHandler {
public:
    std::future<void> Listening() { return m_Listening.get_future(); }
    void Fail(const std::exception_ptr& pReason) { m_Listening.set_exception(pReason); }

private:
    using Protocol = std::shared_ptr<apache::thrift::protocol::TProtocol>;
    struct Peer {
        CUniqueFd socket;  // of its own: the transport closes its descriptor when it likes
        bool bShownOut = false;
    };

    void preServe() override { m_Listening.set_value(); }
    void* createContext(Protocol pInput, Protocol pOutput) override;
    void processContext(void* pPeer, std::shared_ptr<TTransport> pTransport) override;
    void deleteContext(void* pPeer, Protocol pInput, Protocol pOutput) override;
    void ShowOutTheSilent();

    std::promise<void> m_Listening;
    std::mutex m_Mutex;
    std::list<Peer> m_Peers;  // who has spoken last is the last; guarded by m_Mutex
};

void* CPeers::createContext(Protocol /*pInput*/, Protocol /*pOutput*/) {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    return &m_Peers.emplace_back();
}

/// Before each call that the peer may make.
void CPeers::processContext(void* pPeer, std::shared_ptr<TTransport> pTransport) {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    const auto it = std::find_if(m_Peers.begin(), m_Peers.end(),
                                 [pPeer](const Peer& peer) { return &peer == pPeer; });
    auto* const pSocket = dynamic_cast<TSocket*>(pTransport.get());
    if (pSocket != nullptr && !it->socket.IsOpen())
        it->socket.Reset(::fcntl(pSocket->getSocketFD(), F_DUPFD_CLOEXEC, 0));
    m_Peers.splice(m_Peers.end(), m_Peers, it);
    ShowOutTheSilent();
}

void CPeers::deleteContext(void* pPeer, Protocol /*pInput*/, Protocol /*pOutput*/) {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    m_Peers.remove_if([pPeer](const Peer& peer) { return &peer == pPeer; });
}

void CPeers::ShowOutTheSilent() {
    const auto stays = [](const Peer& peer) { return !peer.bShownOut; };
    if (std::count_if(m_Peers.begin(), m_Peers.end(), stays) < CCallbackServer::kMostPeers) return;
    const auto it = std::find_if(m_Peers.begin(), m_Peers.end(), [](const Peer& peer) {
        return !peer.bShownOut && peer.socket.IsOpen();
    });
    if (it == m_Peers.end()) return;  // there are no descriptors left to remember sockets by
    // For reading only: what it has sent by now is read, and answered.
    (void)::shutdown(it->socket.Get(), SHUT_RD);  // fails when the peer has gone by itself
    it->bShownOut = true;
}

}  // namespace

class CCallbackServer::CHandler : public VokEmpEventIf {
public:
    explicit CHandler(CCallbackServer& server) : m_Server(server) {}

    void Callback(const std::int32_t evtType, const std::string& arg1,
                  const std::string& arg2) override {
        m_Server.Put({evtType, arg1, arg2});
    }

private:
    CCallbackServer& m_Server;
};

class CCallbackServer::CServer {
public:
    explicit CServer(const std::shared_ptr<VokEmpEventIf>& pHandler)
        : m_pSocket(std::make_shared<TServerSocket>(kBrokerAddress, 0)),
          m_Server(std::make_shared<VokEmpEventProcessor>(pHandler), m_pSocket,
                   std::make_shared<TBufferedTransportFactory>(),
                   std::make_shared<TBinaryProtocolFactory>()) {
        m_pSocket->setRecvTimeout(kSilenceMs);
        m_pSocket->setSendTimeout(kSilenceMs);
        m_Server.setConcurrentClientLimit(kMostPeers);
        const auto pPeers = std::make_shared<CPeers>();
        m_Server.setServerEventHandler(pPeers);
        m_Thread = std::thread([this, pPeers] { Serve(*pPeers); });
        try {
            pPeers->Listening().get();
        } catch (...) {
            m_Thread.join();
            throw;
        }
    }
    ~CServer() {
        m_Server.stop();
        m_Thread.join();
    }
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

    int Port() const { return m_pSocket->getPort(); }

private:
    void Serve(CPeers& peers) {
        try {
            m_Server.serve();
        } catch (...) {
            try {
                peers.Fail(std::current_exception());
            } catch (const std::future_error&) {
                // It listened before it failed: the constructor has returned already.
            }
        }
    }

    std::shared_ptr<TServerSocket> m_pSocket;
    TThreadedServer m_Server;
    std::thread m_Thread;
};

CCallbackServer::CCallbackServer() : m_Event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    try {
        m_pServer = std::make_unique<CServer>(std::make_shared<CHandler>(*this));
    } catch (const std::exception& error) {
        throw CFailure(EXIT_FAILED, std::string("cannot serve events on ") + kBrokerAddress +
                                        ", which holding an EMP takes: " + error.what() +
                                        "; is the loopback interface up? \"vokctl doctor\" tells");
    }
    m_strPort = std::to_string(m_pServer->Port());
}

CCallbackServer::~CCallbackServer() = default;

void CCallbackServer::Put(ClientEvent event) {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    if (m_Events.size() < kMostEvents) m_Events.push_back(std::move(event));
    const std::uint64_t nOne = 1;
    // Fails only when the count is at its end: then it can be read all the same.
    (void)!::write(m_Event.Get(), &nOne, sizeof nOne);
}

std::vector<ClientEvent> CCallbackServer::Take() {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    std::uint64_t nCount = 0;
    (void)!::read(m_Event.Get(), &nCount, sizeof nCount);  // nothing there: so be it
    return std::exchange(m_Events, {});
}

}  // namespace vok::ctl
