#include "ctl/CallbackServer.h"

#include <sys/eventfd.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <unistd.h>

#include <exception>
#include <future>
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

/// Events that nobody takes are forgotten beyond this.
constexpr std::size_t kMostEvents = 4096;
/// What a peer may hold a connection for without a word, in milliseconds.
constexpr int kSilenceMs = 30'000;
constexpr int kMostPeers = 64;

struct CListening : TServerEventHandler {
    void preServe() override { listening.set_value(); }
    std::promise<void> listening;
};

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
        const auto pListening = std::make_shared<CListening>();
        m_Server.setServerEventHandler(pListening);
        m_Thread = std::thread([this, pListening] { Serve(*pListening); });
        try {
            pListening->listening.get_future().get();
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
    void Serve(CListening& listening) {
        try {
            m_Server.serve();
        } catch (...) {
            try {
                listening.listening.set_exception(std::current_exception());
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
