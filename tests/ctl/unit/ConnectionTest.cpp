// Calls end in time, whatever the peer does.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "VokBroker.h"
#include "ctl/Connection.h"
#include "platform/CUniqueFd.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok::ctl {
namespace {

using namespace std::chrono_literals;
using test::CRawPeer;
using test::CRefusedPort;

eTrouble TroubleOf(const std::function<void()>& act) {
    try {
        act();
    } catch (const CCallError& error) {
        return error.Trouble();
    }
    ADD_FAILURE() << "it went well";
    return eTrouble::Declined;
}

void AskVersion(const Socket& pSocket) {
    CRpc<VokBrokerClient> rpc{pSocket};
    rpc.Call([](VokBrokerClient& broker) {
        std::string strAnswer;
        broker.Execute(strAnswer, "", "GetVOKVersion", "", "", "", "");
    });
}

eTrouble AskPort(int nPort, const CPatience& patience = CPatience(30s)) {
    return TroubleOf([&] { AskVersion(ConnectTcp("127.0.0.1", nPort, patience)); });
}

TEST(Connection, NobodyServes) {
    const CRefusedPort port;
    EXPECT_EQ(AskPort(port.Port()), eTrouble::Refused);
    const test::CTemporaryFolder folder;
    EXPECT_EQ(TroubleOf([&] { ConnectUnix(folder.Path("none"), CPatience(30s)); }),
              eTrouble::Missing);
}

TEST(Connection, WhatIsNoAddressIsNotTried) {
    for (const int nPort : {-1, 0, 65536}) EXPECT_EQ(AskPort(nPort), eTrouble::Broken) << nPort;
    EXPECT_EQ(TroubleOf([] { ConnectTcp("localhost", 50000, CPatience(30s)); }), eTrouble::Broken);
    EXPECT_EQ(TroubleOf([] { ConnectUnix(std::string(200, '/'), CPatience(30s)); }),
              eTrouble::Broken);
}

TEST(Connection, PeerThatHangsUpIsTold) {
    EXPECT_EQ(AskPort(CRawPeer("").Port()), eTrouble::Broken);
    EXPECT_EQ(AskPort(CRawPeer(test::HalfAnAnswer()).Port()), eTrouble::Broken);
}

TEST(Connection, WhatIsNoAnswerIsTold) {
    EXPECT_EQ(AskPort(CRawPeer("SSH-2.0-OpenSSH_9.2p1 Debian-2+deb12u3\r\n").Port()),
              eTrouble::Garbled);
}

/// Two ends of a connection. The other one is the test's.
class Patience : public ::testing::Test {
protected:
    Patience() {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_Ends), 0);
        m_Peer.Reset(m_Ends[1]);
    }

    Socket Own(const CPatience& patience) {
        return std::make_shared<CPatientSocket>(m_Ends[0], patience);
    }

    int m_Ends[2] = {-1, -1};
    CUniqueFd m_Peer;
};

TEST_F(Patience, EndsAPeerThatIsSilent) {
    EXPECT_EQ(TroubleOf([&] { AskVersion(Own(CPatience(50ms))); }), eTrouble::TimedOut);
}

TEST_F(Patience, EndsAPeerThatNeverEnds) {
    std::atomic<bool> bEnd{false};
    // The begin of an answer with an endless name, a byte every moment.
    std::thread dripper([&] {
        const std::string strBegin("\x80\x01\x00\x02\x00\x0F\x00\x00", 8);
        (void)!::write(m_Peer.Get(), strBegin.data(), strBegin.size());
        while (!bEnd) {
            (void)!::write(m_Peer.Get(), "x", 1);
            std::this_thread::sleep_for(5ms);
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(TroubleOf([&] { AskVersion(Own(CPatience(200ms))); }), eTrouble::TimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
    bEnd = true;
    dripper.join();
}

TEST_F(Patience, EndsAPeerThatTakesNothing) {
    const Socket pOwn = Own(CPatience(50ms));
    const std::string strMuch(1 << 20, 'x');
    const auto write = [&] {
        while (true)
            pOwn->write(reinterpret_cast<const uint8_t*>(strMuch.data()),
                        static_cast<uint32_t>(strMuch.size()));
    };
    try {
        write();
    } catch (const CCallError& error) {
        EXPECT_EQ(error.Trouble(), eTrouble::TimedOut);
    }
}

TEST_F(Patience, EndsWhenItIsInterrupted) {
    const CUniqueFd interrupt{::eventfd(1, EFD_CLOEXEC)};
    EXPECT_EQ(TroubleOf([&] { AskVersion(Own(CPatience(10min, interrupt.Get()))); }),
              eTrouble::Interrupted);
}

}  // namespace
}  // namespace vok::ctl
