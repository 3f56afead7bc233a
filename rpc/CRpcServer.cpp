#include "rpc/CRpcServer.h"

#include <pthread.h>
#include <sys/socket.h>
#include <thrift/concurrency/Exception.h>
#include <thrift/concurrency/ThreadFactory.h>

#include <algorithm>
#include <climits>
#include <new>
#include <set>
#include <thread>

#include "platform/Descriptors.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"
#include "rpc/CallOnce.h"

namespace vok {

using apache::thrift::concurrency::Runnable;
using apache::thrift::concurrency::Synchronized;
using apache::thrift::concurrency::SystemResourceException;
using apache::thrift::concurrency::Thread;
using apache::thrift::protocol::TProtocol;
using apache::thrift::transport::TTransportException;

namespace {

/// A connection's thread. The library's own has the stack of the process, 8 MiB as a rule, and
/// cannot be disposed of when it could not be started. To the base class it is a detached thread
/// that was never begun, so that it leaves the real one alone.
class CConnectionThread : public Thread {
public:
    explicit CConnectionThread(std::shared_ptr<Runnable> pRunnable)
        : Thread(true, std::move(pRunnable)) {}

    ~CConnectionThread() override {
        if (m_bJoinable) (void)pthread_detach(m_Thread);
    }

    /// Throws SystemResourceException.
    void start() override {
        pthread_attr_t attributes;
        if (pthread_attr_init(&attributes) != 0)
            throw SystemResourceException("no thread attributes");
        const ScopeGuard destroyAttributes{[&] { (void)pthread_attr_destroy(&attributes); }};

        // The thread keeps its own object alive.
        auto pSelf = std::make_unique<std::shared_ptr<Thread>>(shared_from_this());
        if (pthread_attr_setstacksize(&attributes, kConnectionStack) != 0 ||
            pthread_create(&m_Thread, &attributes, &CConnectionThread::Main, pSelf.get()) != 0)
            throw SystemResourceException("no thread");
        (void)pSelf.release();
        m_bJoinable = true;
    }

    void join() override {
        if (!m_bJoinable) return;
        m_bJoinable = false;
        (void)pthread_join(m_Thread, nullptr);
    }

private:
    static void* Main(void* pArgument) {
        const std::unique_ptr<std::shared_ptr<Thread>> pSelf{
            static_cast<std::shared_ptr<Thread>*>(pArgument)};
        threadMain(*pSelf);
        return nullptr;
    }

    pthread_t m_Thread{};
    bool m_bJoinable = false;
};

class CConnectionThreadFactory : public apache::thrift::concurrency::ThreadFactory {
public:
    CConnectionThreadFactory() : ThreadFactory(false) {}
    std::shared_ptr<Thread> newThread(std::shared_ptr<Runnable> pRunnable) const override {
        const auto pThread = std::make_shared<CConnectionThread>(pRunnable);
        pRunnable->thread(pThread);
        return pThread;
    }
};

/// Ends a connection in whose call something fails that the library does not expect, memory as a
/// rule; in its thread nobody else would catch it.
class CContainedProcessor : public apache::thrift::TProcessor {
public:
    explicit CContainedProcessor(std::shared_ptr<TProcessor> pProcessor)
        : m_pProcessor(std::move(pProcessor)) {}

    bool process(std::shared_ptr<TProtocol> pIn, std::shared_ptr<TProtocol> pOut,
                 void* pContext) override {
        try {
            return m_pProcessor->process(std::move(pIn), std::move(pOut), pContext);
        } catch (const apache::thrift::TException&) {
            throw;  // the usual end of a connection
        } catch (const std::exception& e) {
            VOK_CLASS_LOG_AS("CRpcServer", "process", LEVEL_ERROR,
                             "A call is given up, and its client dropped: %s", e.what());
            return false;
        }
    }

private:
    const std::shared_ptr<TProcessor> m_pProcessor;
};

/// True while the socket still accepts connections: the failure was a passing one.
bool IsListening(int nFd) {
    int nListening = 0;
    socklen_t nSize = sizeof nListening;
    return ::getsockopt(nFd, SOL_SOCKET, SO_ACCEPTCONN, &nListening, &nSize) == 0 &&
           nListening != 0;
}

}  // namespace

CRpcServerSocket::CRpcServerSocket(const std::string& strAddress, int nPort)
    : TServerSocket(strAddress, nPort) {}

CRpcServerSocket::CRpcServerSocket(const std::string& strPath) : TServerSocket(strPath) {}

void CRpcServerSocket::listen() {
    if (IsListening(getSocketFD())) return;  // serving begins anew: see CRpcServer::serve
    const std::set<int> setBefore = InheritableDescriptors();
    TServerSocket::listen();
    // The library also opens sockets to interrupt itself with, and keeps them to itself.
    for (const int nFd : InheritableDescriptors()) {
        if (setBefore.count(nFd) == 0) SetCloseOnExec(nFd);
    }
}

std::shared_ptr<apache::thrift::transport::TTransport> CRpcServerSocket::acceptImpl() {
    try {
        return TServerSocket::acceptImpl();
    } catch (const TTransportException& e) {
        if (e.getType() != TTransportException::UNKNOWN || !IsListening(getSocketFD())) throw;
        VOK_CLASS_LOG_AS("CRpcServerSocket", "accept", LEVEL_ERROR,
                         "A client could not be accepted: %s", e.what());
        // Whatever was short needs time to come back; the client waits in the backlog.
        std::this_thread::sleep_for(kAcceptPause);
        throw TTransportException(TTransportException::TIMED_OUT, e.what());  // serving goes on
    }
}

std::shared_ptr<apache::thrift::transport::TSocket> CRpcServerSocket::createSocket(
    THRIFT_SOCKET client) {
    SetCloseOnExec(client);
    return TServerSocket::createSocket(client);
}

std::shared_ptr<apache::thrift::transport::TTransportFactory> ServerTransports() {
    return std::make_shared<CTextTransportFactory>();
}

std::shared_ptr<apache::thrift::protocol::TProtocolFactory> ServerProtocols() {
    // Containers have no limit; a message without the version word is accepted.
    return std::make_shared<apache::thrift::protocol::TBinaryProtocolFactoryT<CTextTransport>>(
        kLongestText, 0, false, true);
}

long ConnectionLimit(unsigned long nDescriptors) {
    const unsigned long nReserve = std::max<unsigned long>(nDescriptors / 4, 64);
    const unsigned long nLimit = nDescriptors > nReserve ? nDescriptors - nReserve : 1;
    return static_cast<long>(std::min<unsigned long>(nLimit, LONG_MAX));
}

CRpcServer::CRpcServer(
    const std::shared_ptr<apache::thrift::TProcessor>& pProcessor,
    const std::shared_ptr<CRpcServerSocket>& pSocket,
    const std::shared_ptr<apache::thrift::transport::TTransportFactory>& pTransports,
    const std::shared_ptr<apache::thrift::protocol::TProtocolFactory>& pProtocols)
    : TThreadedServer(std::make_shared<CContainedProcessor>(pProcessor), pSocket, pTransports,
                      pProtocols, std::make_shared<CConnectionThreadFactory>()) {
    setConcurrentClientLimit(
        ConnectionLimit(static_cast<unsigned long>(std::min<rlim_t>(DescriptorLimit(), LONG_MAX))));
}

void CRpcServer::serve() {
    for (;;) {
        try {
            return TThreadedServer::serve();
        } catch (const std::bad_alloc&) {
            if (!IsListening(getServerTransport()->getSocketFD())) throw;
            // One client's share of memory was missing: it is dropped, and the accepting goes on.
            VOK_CLASS_LOG_AS("CRpcServer", "serve", LEVEL_ERROR, "No memory for a client.");
            std::this_thread::sleep_for(kAcceptPause);
        }
    }
}

void CRpcServer::onClientConnected(
    const std::shared_ptr<apache::thrift::server::TConnectedClient>& pClient) {
    try {
        TThreadedServer::onClientConnected(pClient);
    } catch (const std::exception& e) {
        VOK_CLASS_LOG_AS("CRpcServer", "onClientConnected", LEVEL_ERROR,
                         "A client is dropped, it gets no thread: %s", e.what());
        const Synchronized sync{clientMonitor_};
        activeClientMap_.erase(pClient.get());
    }
}

}  // namespace vok
