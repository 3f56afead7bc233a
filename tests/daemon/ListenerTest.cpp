// The listener survives whatever its clients do.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thrift/Thrift.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/CUniqueFd.h"
#include "platform/CVOKDebug.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"
#include "tests/support/CPrivateWorld.h"
#include "tests/support/OwnLimit.h"

namespace vok::test {
namespace {

/// A connection that is made, or is still to be made, and on which nothing is sent.
CUniqueFd ConnectIdly() {
    CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kBrokerPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int nResult = ::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    EXPECT_TRUE(fd.IsOpen() && (nResult == 0 || errno == EINPROGRESS)) << errno;
    // Gone at once when it is closed, also when the broker has not accepted it yet.
    linger reset{1, 0};
    EXPECT_EQ(::setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    return fd;
}

class ListenerTest : public ::testing::Test {
protected:
    void Start(const CDaemon::Options& options = {}) {
        ASSERT_TRUE(m_Daemon.Start(options)) << m_Daemon.Log();
        // A first call, so that what is opened or started only once is there.
        ASSERT_EQ(CBrokerClient().Version(), "5.100");
        ASSERT_TRUE(CDaemon::Await([&] { return CountServingThreads() == 1; }));
        m_nThreads = m_Daemon.Threads().size();
        m_nDescriptors = m_Daemon.OpenDescriptors().size();
    }

    /// The server's thread and those of connections, which have its name until a call gives them
    /// another one.
    int CountServingThreads() const {
        int nCount = 0;
        for (const DaemonThread& thread : m_Daemon.Threads())
            if (thread.strName == "VOK-B-Server" || thread.strName.rfind("B-", 0) == 0) ++nCount;
        return nCount;
    }

    /// What the clients cost is given back when they have gone. Fewer descriptors than once are no
    /// loss: one that a sanitizer had for a moment may have been among them.
    void ExpectAsBefore() {
        EXPECT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() <= m_nThreads; }))
            << m_Daemon.Threads().size() << " threads, once " << m_nThreads;
        EXPECT_TRUE(CDaemon::Await([&] {
            return m_Daemon.OpenDescriptors().size() <= m_nDescriptors;
        })) << m_Daemon.OpenDescriptors().size()
            << " descriptors, once " << m_nDescriptors;
        EXPECT_EQ(m_Daemon.Threads().size(), m_nThreads);
    }

    CDaemon m_Daemon;
    std::size_t m_nThreads = 0;
    std::size_t m_nDescriptors = 0;
};

TEST_F(ListenerTest, SurvivesMoreIdleClientsThanItMayHaveDescriptors) {
    ASSERT_TRUE(RaiseOwnLimit(4000));
    CDaemon::Options options;
    options.limits[RLIMIT_NOFILE] = {1024, 1024};
    ASSERT_NO_FATAL_FAILURE(Start(options));
    CBrokerClient early;
    ASSERT_EQ(early.Version(), "5.100");
    {
        std::vector<CUniqueFd> clients;
        for (int n = 0; n < 3000; ++n) clients.push_back(ConnectIdly());
        ASSERT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() > 700; }));
        EXPECT_LE(m_Daemon.OpenDescriptors().size(), 800U) << "some are kept for calls to peers";
        EXPECT_EQ(early.Version(), "5.100") << "who is connected is served";
        EXPECT_TRUE(m_Daemon.IsRunning());
    }
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    early.Disconnect();
    ExpectAsBefore();
    EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);
}

TEST_F(ListenerTest, StopsWhileClientsWaitInTheBacklog) {
    ASSERT_TRUE(RaiseOwnLimit(4000));
    CDaemon::Options options;
    options.limits[RLIMIT_NOFILE] = {256, 256};
    ASSERT_NO_FATAL_FAILURE(Start(options));
    std::vector<CUniqueFd> clients;
    for (int n = 0; n < 600; ++n) clients.push_back(ConnectIdly());
    ASSERT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() > 180; }));
    EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly) << m_Daemon.Log();
}

// Threads are limited per user, and root is excepted: the daemon runs as a user of its own here.
// The plug-ins lie where it looks for them.
TEST_F(ListenerTest, DropsAClientForWhichThereIsNoThread) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << "other users need root";
    CDaemon::Options options;
    options.nUser =
        100'000 + static_cast<unsigned int>(
                      std::chrono::steady_clock::now().time_since_epoch().count() % 900'000);
    options.limits[RLIMIT_NPROC] = {20, 20};
    ASSERT_NO_FATAL_FAILURE(Start(options));
    {
        CBrokerClient early;
        ASSERT_EQ(early.Version(), "5.100");
        std::vector<CUniqueFd> clients;
        for (int n = 0; n < 60; ++n) clients.push_back(ConnectIdly());
        ASSERT_TRUE(m_Daemon.WaitForLine(LEVEL_ERROR, "CRpcServer::onClientConnected",
                                         "A client is dropped, it gets no thread: no thread"))
            << m_Daemon.Log();
        EXPECT_LE(m_Daemon.Threads().size(), 20U);
        EXPECT_EQ(early.Version(), "5.100") << "who is connected is served";
    }
    // Those that are still queued take the threads for a moment.
    ASSERT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() <= m_nThreads; }));
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    ExpectAsBefore();
}

TEST_F(ListenerTest, EveryDescriptorIsClosedOnExec) {
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int n = 0; n < 10; ++n) {
        clients.push_back(std::make_unique<CBrokerClient>());
        ASSERT_EQ(clients.back()->Version(), "5.100");
    }
    const std::string strFolder = "/proc/" + std::to_string(m_Daemon.Pid()) + "/fdinfo/";
    int nLookedAt = 0;
    for (const int nFd : m_Daemon.OpenDescriptors()) {
        if (nFd <= 2) continue;
        std::ifstream info{strFolder + std::to_string(nFd)};
        std::string strKey;
        std::string strValue;
        while (info >> strKey >> strValue && strKey != "flags:") continue;
        ASSERT_EQ(strKey, "flags:") << nFd;
        EXPECT_NE(std::stoul(strValue, nullptr, 8) & 02000000UL, 0UL) << "descriptor " << nFd;
        ++nLookedAt;
    }
    EXPECT_GE(nLookedAt, 12) << "ten clients, the listener, the log";
}

TEST_F(ListenerTest, IsNeverAStandardDescriptor) {
    CDaemon::Options options;
    options.bCloseStandard = true;
    ASSERT_TRUE(m_Daemon.Start(options)) << m_Daemon.Log();
    for (const char* szFd : {"0", "1", "2"}) {
        const auto link = std::filesystem::read_symlink("/proc/" + std::to_string(m_Daemon.Pid()) +
                                                        "/fd/" + szFd);
        EXPECT_EQ(link, "/dev/null") << szFd;
    }
}

/// The pairs of local sockets by which the RPC library interrupts itself, as ours.
std::vector<CUniqueFd> BorrowInterrupts(pid_t nProcess, const std::vector<int>& descriptors) {
    const CUniqueFd process{static_cast<int>(::syscall(SYS_pidfd_open, nProcess, 0))};
    std::vector<CUniqueFd> borrowed;
    for (const int nFd : descriptors) {
        CUniqueFd copy{static_cast<int>(::syscall(SYS_pidfd_getfd, process.Get(), nFd, 0))};
        int nDomain = 0;
        socklen_t nSize = sizeof nDomain;
        if (::getsockopt(copy.Get(), SOL_SOCKET, SO_DOMAIN, &nDomain, &nSize) == 0 &&
            nDomain == AF_UNIX)
            borrowed.push_back(std::move(copy));
    }
    return borrowed;
}

TEST_F(ListenerTest, TakesTheBrokerAlongWhenItEndsUnasked) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const auto interrupts = BorrowInterrupts(m_Daemon.Pid(), m_Daemon.OpenDescriptors());
    ASSERT_FALSE(interrupts.empty());

    for (const CUniqueFd& fd : interrupts) (void)::send(fd.Get(), "x", 1, MSG_NOSIGNAL);

    EXPECT_EQ(m_Daemon.AwaitEnd(), 1) << m_Daemon.Log();
    EXPECT_TRUE(m_Daemon.HasLine(LEVEL_ERROR, "BrokerServer",
                                 "The server has ended unasked, and the broker with it."))
        << m_Daemon.Log();
    EXPECT_FALSE(std::filesystem::exists(paths::kReadyFlag)) << "it must not look ready";
}

TEST_F(ListenerTest, SurvivesClientsThatGoBeforeTheAnswer) {
    ASSERT_NO_FATAL_FAILURE(Start());
    for (int n = 0; n < 200; ++n) {
        CBrokerClient client;
        client.Rpc().send_Execute("", "GetVOKVersion", "", "", "", "");
        linger reset{1, 0};
        ASSERT_EQ(::setsockopt(client.Socket(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    }
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    ExpectAsBefore();
}

TEST_F(ListenerTest, SurvivesClientsThatGoAtOnce) {
    ASSERT_NO_FATAL_FAILURE(Start());
    for (int n = 0; n < 500; ++n) {
        CBrokerClient client;
        linger reset{1, 0};
        ASSERT_EQ(::setsockopt(client.Socket(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    }
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    ExpectAsBefore();
}

TEST_F(ListenerTest, WhatTheRpcLibrarySaysIsLogged) {
    ASSERT_NO_FATAL_FAILURE(Start());
    CBrokerClient client;
    client.SendRaw("GET / HTTP/1.0\r\n\r\n");
    EXPECT_TRUE(m_Daemon.WaitForLine(
        LEVEL_DETAIL, "RpcLibrary",
        "TConnectedClient processing exception: TProtocolException: Exceeded size limit"))
        << m_Daemon.Log();
}

struct GarbageCase {
    const char* szName;
    std::string strBytes;
};

std::ostream& operator<<(std::ostream& stream, const GarbageCase& garbage) {
    return stream << garbage.szName;
}

class ListenerGarbageTest : public ListenerTest,
                            public ::testing::WithParamInterface<GarbageCase> {};

TEST_P(ListenerGarbageTest, EndsThatConnectionOnly) {
    ASSERT_NO_FATAL_FAILURE(Start());
    CBrokerClient early;
    ASSERT_EQ(early.Version(), "5.100");
    for (int n = 0; n < 20; ++n) {
        CBrokerClient client;
        client.SendRaw(GetParam().strBytes);
        (void)::shutdown(client.Socket(), SHUT_WR);  // fails when the broker has closed already
        try {
            while (!client.ReceiveRaw().empty()) continue;  // until the broker has closed
        } catch (const apache::thrift::TException&) {
            // Closed with bytes unread: a reset.
        }
    }
    EXPECT_EQ(early.Version(), "5.100");
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    early.Disconnect();
    ExpectAsBefore();
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, ListenerGarbageTest,
    ::testing::Values(
        GarbageCase{"AnotherProtocol", "GET / HTTP/1.0\r\n\r\n"},
        GarbageCase{"WrongVersion", std::string("\x80\x77\x00\x01\x00\x00\x00\x01x", 9)},
        GarbageCase{"HalfAMessage", std::string("\x80\x01\x00\x01\x00\x00\x00\x07"
                                                "Exe",
                                                11)},
        GarbageCase{"EndlessName", std::string("\x80\x01\x00\x01\x7f\xff\xff\xff"
                                               "Execute",
                                               15)},
        GarbageCase{"NegativeLength", std::string("\x80\x01\x00\x01\xff\xff\xff\xff"
                                                  "Execute",
                                                  15)},
        GarbageCase{"EndlessArgument", std::string("\x80\x01\x00\x01\x00\x00\x00\x07"
                                                   "Execute"
                                                   "\x00\x00\x00\x01\x0b\x00\x01\x7f\xff\xff\xff",
                                                   26)},
        GarbageCase{"Zeros", std::string(4096, '\0')},
        GarbageCase{"Ones", std::string(4096, '\xff')}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok::test
