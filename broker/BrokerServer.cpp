// The broker's RPC server: a thread that accepts, and a thread for each client.
#include <functional>
#include <memory>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "broker/ListenEvent.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ThreadMaker.h"
#include "rpc/BrokerProcessor.h"
#include "rpc/CRpcServer.h"

namespace vok {

namespace {

#define SERVER_LOG(level, ...) VOK_LOG_AS("BrokerServer", level, __VA_ARGS__)

/// Tells when the accepting has ended: the server itself waits for every client first.
class CBrokerSocket : public CRpcServerSocket {
public:
    explicit CBrokerSocket(std::function<void()> onClosed)
        : CRpcServerSocket(kBrokerAddress, kBrokerPort), m_OnClosed(std::move(onClosed)) {}
    void close() override {
        CRpcServerSocket::close();
        m_OnClosed();
    }

private:
    const std::function<void()> m_OnClosed;
};

}  // namespace

void* CBroker::BrokerServer(void* pSelf) {
    CBroker& broker = *static_cast<CBroker*>(pSelf);
    ThreadMaker::NameThisThread("VOK-B-Server");
    broker.Serve();
    SERVER_LOG(LEVEL_DETAIL, "BrokerServer:: returned from serve()");
    gbVokBrokerServerFail = true;
    broker.OnServerEnds();  // the last touch: the broker may be gone after it
    return nullptr;
}

void CBroker::Serve() {
    using namespace apache::thrift;
    try {
        // Not owned: the broker outlives its server, which it holds.
        const std::shared_ptr<VokBrokerIf> pHandler{std::shared_ptr<void>{}, this};
        const auto pProcessor = MakeBrokerProcessor(pHandler);
        SERVER_LOG(LEVEL_DETAIL, "Broker Server Type:[TCP].");

        const auto pServer = std::make_shared<CRpcServer>(
            pProcessor, std::make_shared<CBrokerSocket>([this] { OnServerCloses(); }),
            ServerTransports(), ServerProtocols());
        pServer->setServerEventHandler(
            std::make_shared<CListenEvent>([this] { OnServerListens(); }));
        SERVER_LOG(LEVEL_DETAIL, "BrokerServer just before starts");

        std::atomic_store(&m_pBrokerServer, std::shared_ptr<server::TThreadedServer>(pServer));
        pServer->serve();
    } catch (const std::exception& e) {
        SERVER_LOG(LEVEL_ERROR, "The broker cannot serve on %s:%d: %s", kBrokerAddress, kBrokerPort,
                   e.what());
    }
}

void CBroker::OnServerListens() {
    m_eServerState = SERVER_LISTENING;
    (void)m_ServerStarted.NotifyOne();
    // A stop that came before there was a socket to interrupt has gone unheard.
    if (m_bStopRequested) StopServer();
}

/// A broker that nobody reaches must not look ready.
void CBroker::OnServerCloses() {
    if (m_eServerState != SERVER_LISTENING || m_bStopRequested) return;
    SERVER_LOG(LEVEL_ERROR, "The server has ended unasked, and the broker with it.");
    RequestStop();
}

void CBroker::OnServerEnds() {
    if (m_eServerState == SERVER_STARTING) {
        m_eServerState = SERVER_FAILED;
        (void)m_ServerStarted.NotifyOne();
    }
    OnServerCloses();
    (void)m_ServerEnded.NotifyOne();
}

void CBroker::StopServer() {
    if (const auto pServer = std::atomic_load(&m_pBrokerServer)) pServer->stop();
}

}  // namespace vok
