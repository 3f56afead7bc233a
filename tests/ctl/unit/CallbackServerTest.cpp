// A client's events come, whoever else is connected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VokEmpEvent.h"
#include "ctl/CallbackServer.h"

namespace vok::ctl {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

/// Longer than anything takes here, and shorter than the server bears with silence.
constexpr int kPatienceMs = 20'000;

class CPeer {
public:
    explicit CPeer(const CCallbackServer& server)
        : m_pSocket(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1",
                                                                         std::stoi(server.Port()))),
          m_Client(std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
              std::make_shared<apache::thrift::transport::TBufferedTransport>(m_pSocket))) {
        m_pSocket->setRecvTimeout(kPatienceMs);
        m_pSocket->open();
    }

    /// Sends the first byte of a call, and no more: a connection without any, the kernel keeps to
    /// itself for a second (TCP_DEFER_ACCEPT).
    void Begin() {
        const std::uint8_t nFirst = 0x80;
        m_pSocket->write(&nFirst, 1);
    }
    /// Throws when it is not answered in time.
    void Call() { m_Client.Callback(99, "Broker", "Ping"); }
    bool AwaitHangUp() const {
        pollfd fd{m_pSocket->getSocketFD(), POLLIN, 0};
        char cNothing = 0;
        return ::poll(&fd, 1, kPatienceMs) == 1 &&
               ::recv(m_pSocket->getSocketFD(), &cNothing, 1, 0) <= 0;
    }

private:
    std::shared_ptr<apache::thrift::transport::TSocket> m_pSocket;
    VokEmpEventClient m_Client;
};

/// Peers that have begun to say something, and stay silent.
class CSilentPeers {
public:
    void Add(const CCallbackServer& server) {
        m_Peers.push_back(std::make_unique<CPeer>(server));
        m_Peers.back()->Begin();
    }
    void Add(const CCallbackServer& server, int nCount) {
        for (int i = 0; i < nCount; ++i) Add(server);
    }
    const CPeer& First() const { return *m_Peers.front(); }

private:
    std::vector<std::unique_ptr<CPeer>> m_Peers;
};

TEST(CallbackServer, SilentPeersDoNotHoldUpACall) {
    CCallbackServer server;
    CSilentPeers silent;
    silent.Add(server, CCallbackServer::kMostPeers);

    EXPECT_NO_THROW(CPeer(server).Call());
    EXPECT_THAT(server.Take(), SizeIs(1));
}

TEST(CallbackServer, SilentPeersGoWhenOthersCome) {
    CCallbackServer server;
    CSilentPeers silent;
    silent.Add(server, 2 * CCallbackServer::kMostPeers);

    EXPECT_TRUE(silent.First().AwaitHangUp());
    EXPECT_THAT(server.Take(), IsEmpty());
}

TEST(CallbackServer, PeerThatSpeaksNowAndThenStays) {
    CCallbackServer server;
    CPeer speaker{server};
    CSilentPeers silent;
    for (int i = 0; i < 3 * CCallbackServer::kMostPeers; ++i) {
        silent.Add(server);
        ASSERT_NO_THROW(speaker.Call()) << "after " << i;
    }
    EXPECT_THAT(server.Take(), SizeIs(3 * CCallbackServer::kMostPeers));
}

}  // namespace
}  // namespace vok::ctl
