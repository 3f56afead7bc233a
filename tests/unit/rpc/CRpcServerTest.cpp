#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "VokBroker.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"
#include "rpc/CRpcServer.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TBufferedTransportFactory;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using test::CLogCapture;

/// Has no memory for the end of a call, as often as it is told.
class CForgetfulTransport : public TBufferedTransport {
public:
    CForgetfulTransport(const std::shared_ptr<TTransport>& pTransport, std::atomic<int>& nFailures)
        : TBufferedTransport(pTransport), m_nFailures(nFailures) {}
    std::uint32_t readEnd() override {
        if (m_nFailures-- > 0) throw std::bad_alloc{};
        return TBufferedTransport::readEnd();
    }

private:
    std::atomic<int>& m_nFailures;
};

/// Has no memory for a client, or for a call, as often as it is told.
class CForgetfulFactory : public TBufferedTransportFactory {
public:
    std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> pTransport) override {
        if (m_nFailures-- > 0) throw std::bad_alloc{};
        return std::make_shared<CForgetfulTransport>(pTransport, m_nCallFailures);
    }
    std::atomic<int> m_nFailures{0};
    std::atomic<int> m_nCallFailures{0};
};

/// A server that answers `false` to every CloseEmp.
class CRpcServerTest : public ::testing::Test {
protected:
    CRpcServerTest() : m_Thread([this] { m_Server.serve(); }) {}
    ~CRpcServerTest() override {
        m_Server.stop();
        m_Thread.join();
    }

    /// True when a connection that is made over the socket is served.
    static bool IsServed(const std::shared_ptr<TSocket>& pSocket) {
        VokBrokerClient client{
            std::make_shared<TBinaryProtocol>(std::make_shared<TBufferedTransport>(pSocket))};
        try {
            (void)client.CloseEmp({});
            return true;
        } catch (const apache::thrift::TException&) {
            return false;
        }
    }
    /// Waits until the server has done with everybody.
    bool EveryClientHasLeft() {
        for (int i = 0; i < 30'000 && m_Server.getConcurrentClientCount() > 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
        return m_Server.getConcurrentClientCount() == 0;
    }
    std::shared_ptr<TSocket> Connected() const {
        auto pSocket = std::make_shared<TSocket>(m_Folder.Path("socket"));
        pSocket->open();
        return pSocket;
    }

    CLogCapture m_Log;
    const test::CTemporaryFolder m_Folder;
    const std::shared_ptr<CForgetfulFactory> m_pTransports = std::make_shared<CForgetfulFactory>();
    const std::shared_ptr<CRpcServerSocket> m_pSocket = [this] {
        auto pSocket = std::make_shared<CRpcServerSocket>(m_Folder.Path("socket"));
        pSocket->listen();  // before anybody connects
        return pSocket;
    }();
    CRpcServer m_Server{std::make_shared<VokBrokerProcessor>(std::make_shared<VokBrokerNull>()),
                        m_pSocket, m_pTransports, std::make_shared<TBinaryProtocolFactory>()};
    std::thread m_Thread;
};

TEST_F(CRpcServerTest, ClientWaitsUntilThereIsADescriptor) {
    const int nClient = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto pClient = std::make_shared<TSocket>(nClient);
    // What has been called before, UBSan knows, and opens no pipe of its own to look at.
    VOK_LOG(LEVEL_ERROR, "%s", TTransportException(TTransportException::UNKNOWN).what());
    ASSERT_TRUE(IsServed(Connected()));
    ASSERT_TRUE(EveryClientHasLeft());  // what its thread calls last belongs to that, too
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)m_Folder.Path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    {
        const rlimit none{3, former.rlim_max};  // those below are taken
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        const ScopeGuard restore{[&] { (void)::setrlimit(RLIMIT_NOFILE, &former); }};
        ASSERT_EQ(::connect(nClient, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_TRUE(m_Log.WaitForLine(LEVEL_ERROR, "CRpcServerSocket::accept",
                                      "A client could not be accepted: accept(): Too many open "
                                      "files"))
            << m_Log.Text();
    }
    EXPECT_TRUE(IsServed(pClient));
}

TEST_F(CRpcServerTest, ClientForWhichThereIsNoMemoryIsDropped) {
    m_pTransports->m_nFailures = 1;
    EXPECT_FALSE(IsServed(Connected()));
    EXPECT_TRUE(m_Log.WaitForLine(LEVEL_ERROR, "CRpcServer::serve", "No memory for a client."))
        << m_Log.Text();
    EXPECT_TRUE(IsServed(Connected())) << "and the next is served";
}

TEST_F(CRpcServerTest, ClientInWhoseCallMemoryRunsOutIsDropped) {
    const auto pClient = Connected();
    ASSERT_TRUE(IsServed(pClient));
    m_pTransports->m_nCallFailures = 1;
    EXPECT_FALSE(IsServed(pClient));
    EXPECT_TRUE(m_Log.WaitForLine(LEVEL_ERROR, "CRpcServer::process",
                                  "A call is given up, and its client dropped: std::bad_alloc"))
        << m_Log.Text();
    EXPECT_TRUE(IsServed(Connected())) << "and the next is served";
}

}  // namespace
}  // namespace vok
