// Floods: whatever some clients send, the others are served, memory stays bounded, and nothing is
// left of it.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thrift/TApplicationException.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>

#include "platform/CUniqueFd.h"
#include "platform/Limits.h"
#include "rpc/CallOnce.h"
#include "tests/daemon/OpenCloseTest.h"
#include "tests/flood/CSideClients.h"
#include "tests/flood/Form.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/OwnLimit.h"

namespace vok::test {
namespace {

using namespace std::string_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::IsEmpty;

constexpr char kEmp[] = "Weather";
constexpr int kSideClients = 3;
/// How many rounds each of them makes in a flood, however short it is.
constexpr int kRounds = 10;

/// What the daemon may cost above what it costs without a flood: so much for each connection (its
/// thread's stack as far as it is used, its buffers), and so much for whatever is in work at once.
constexpr long kKiBEachConnection = 40;
constexpr long kKiBInWork = 64 * 1024;

/// A connection that ends with a reset, so that no port waits for its last packets.
CUniqueFd Connect() {
    CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kBrokerPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const linger reset{1, 0};
    (void)::setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    if (::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fd.Reset();
    return fd;
}

/// False when the broker has closed the connection already.
bool Send(const CUniqueFd& fd, const std::string& strBytes) {
    return ::send(fd.Get(), strBytes.data(), strBytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(strBytes.size());
}

std::string Number(unsigned int nValue) {
    const std::uint32_t nNetwork = htonl(nValue);
    return {reinterpret_cast<const char*>(&nNetwork), sizeof nNetwork};
}

std::string CallOf(const std::string& strMethod) {
    return "\x80\x01\x00\x01"s + Number(static_cast<unsigned int>(strMethod.size())) + strMethod +
           Number(0);
}

class Flood : public OpenCloseTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(RaiseOwnLimit(9000));
        CEmpInstaller::Preinstall(kEmp);
        CDaemon::Options options;
        options.limits[RLIMIT_NOFILE] = {8192, 8192};
        options.nLogLevel = 0;
        ASSERT_TRUE(m_Daemon.Start(options)) << m_Daemon.Log();
        // Once without a flood, so that what is made only once is there.
        {
            CSideClients clients{kSideClients, kEmp};
            ASSERT_TRUE(clients.AwaitMoreRounds(kRounds));
        }
        AwaitQuiet();
        m_nThreads = m_Daemon.Threads().size();
        m_nDescriptors = m_Daemon.OpenDescriptors().size();
        m_nResident = m_Daemon.ResidentKiB();
    }

    void TearDown() override {
        for (const int nPid : ProcessesOf(CEmpInstaller::ProgramPath(kEmp)))
            (void)::kill(nPid, SIGKILL);  // the next test begins without
    }

    /// Waits until no client is connected any more: as many threads serve as EMPs run.
    void AwaitQuiet() {
        ASSERT_TRUE(CDaemon::Await([&] {
            int nServing = 0;
            for (const DaemonThread& thread : m_Daemon.Threads())
                if (thread.strName == "VOK-B-Server" ||
                    (thread.strName.rfind("B-", 0) == 0 && thread.strName[3] == '-'))
                    ++nServing;
            return nServing == 1;
        }));
    }

    /// Runs a flood beside legitimate clients: for as long as it takes at least, and until each of
    /// them has been served often enough.
    void RunBeside(const std::function<void()>& flood, milliseconds atLeast) {
        CSideClients clients{kSideClients, kEmp};
        const auto end = steady_clock::now() + atLeast;
        const int nRounds = clients.FewestRounds() + kRounds;
        const auto patience = steady_clock::now() + atLeast + CDaemon::kPatience;
        long nFloods = 0;
        while (steady_clock::now() < end || clients.FewestRounds() < nRounds) {
            flood();
            ++nFloods;
            m_nPeak = std::max(m_nPeak, m_Daemon.ResidentKiB());
            ASSERT_THAT(clients.Mistakes(), IsEmpty());
            ASSERT_LT(steady_clock::now(), patience) << "nobody is served";
        }
        clients.Stop();
        EXPECT_THAT(clients.Mistakes(), IsEmpty());
        std::printf(
            "   %ld floods; each legitimate client served %d times, a round in %ld ms at "
            "most\n",
            nFloods, clients.FewestRounds(), clients.SlowestRoundMs());
    }

    void ExpectNothingLeftOf(long nConnections) {
        ExpectBounded(nConnections);
        ExpectNothingLeft();
    }
    void ExpectBounded(long nConnections) {
        const long nBound = m_nResident + nConnections * kKiBEachConnection + kKiBInWork;
        const long nAfter = m_Daemon.ResidentKiB();
        std::printf("   resident memory: %ld KiB before, %ld KiB at most (bound: %ld), %ld after\n",
                    m_nResident, m_nPeak, nBound, nAfter);
        EXPECT_LE(m_nPeak, nBound);
    }

    void ExpectNothingLeft() {
        EXPECT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() == m_nThreads; }))
            << m_Daemon.Threads().size() << " threads, once " << m_nThreads;
        EXPECT_TRUE(CDaemon::Await([&] {
            return m_Daemon.OpenDescriptors().size() == m_nDescriptors;
        })) << m_Daemon.OpenDescriptors().size()
            << " descriptors, once " << m_nDescriptors;
        const admin::BrokerState state = CAdminClient().GetState();
        ASSERT_EQ(state.connections.size(), 1U);
        EXPECT_THAT(state.connections[0].clientPorts, IsEmpty());
        EXPECT_EQ(CountProcesses(kEmp), 1U);
        EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);
    }

    std::size_t m_nThreads = 0;
    std::size_t m_nDescriptors = 0;
    long m_nResident = 0;
    long m_nPeak = 0;
};

TEST_F(Flood, FiveThousandConnectionsAtOnce) {
    constexpr std::size_t kConnections = 5000;
    std::vector<CUniqueFd> connections;
    while (connections.size() < kConnections) {
        connections.push_back(Connect());
        ASSERT_TRUE(connections.back().IsOpen()) << errno;
    }
    ASSERT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() > kConnections; }));
    const int nIdle = 20;  // milliseconds between two looks at the memory
    RunBeside([&] { std::this_thread::sleep_for(milliseconds(nIdle)); }, FloodTime());
    EXPECT_GT(m_Daemon.Threads().size(), kConnections) << "they are all still served";
    connections.clear();
    ExpectNothingLeftOf(kConnections);
}

TEST_F(Flood, FiveThousandConnectionsAgainAndAgain) {
    constexpr long kConnections = 5000;
    RunBeside(
        [&] {
            std::vector<CUniqueFd> connections;
            for (long n = 0; n < kConnections; ++n) connections.push_back(Connect());
            m_nPeak = std::max(m_nPeak, m_Daemon.ResidentKiB());
        },
        FloodTime());
    ExpectNothingLeftOf(kConnections);
}

TEST_F(Flood, ThousandHalfSentMessages) {
    constexpr long kConnections = 1000;
    const std::string strCall = CallOf("Execute") + "\x0b\x00\x01"s + Number(100) + "half";
    std::vector<CUniqueFd> connections;
    for (long n = 0; n < kConnections; ++n) {
        connections.push_back(Connect());
        // Cut at every place, one after the other.
        const std::size_t nCut = 1 + static_cast<std::size_t>(n) % strCall.size();
        ASSERT_TRUE(Send(connections.back(), strCall.substr(0, nCut)));
    }
    ASSERT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() > kConnections; }));
    RunBeside([] { std::this_thread::sleep_for(milliseconds(20)); }, FloodTime());
    connections.clear();
    ExpectNothingLeftOf(kConnections);
}

TEST_F(Flood, MessagesThatAnnounceMoreThanTheySend) {
    const std::string strHuge = Number(0x7fffffff);
    // Not refused: whoever makes room for it at once exceeds the bound with a single one.
    const std::string strLong = Number(99 * 1024 * 1024);
    const std::string messages[] = {
        // A name, texts, a list, a map and a set of 2 GiB each, and a frame of another protocol.
        "\x80\x01\x00\x01"s + strHuge + "Execute",
        CallOf("Execute") + "\x0b\x00\x01"s + strHuge + "text",
        CallOf("OpenEmp") + "\x0f\x00\x01\x0b"s + strHuge + Number(0),
        CallOf("OpenEmp") + "\x0d\x00\x01\x0b\x0b"s + strHuge + Number(0),
        CallOf("CloseEmp") + "\x0e\x00\x01\x08"s + strHuge + Number(0),
        CallOf("CloseEmp") + "\x0c\x00\x01\x0b\x00\x01"s + strHuge + "text",
        strHuge + "Execute",
        // A name and texts that may be so long.
        "\x80\x01\x00\x01"s + strLong + "Execute",
        CallOf("Execute") + "\x0b\x00\x01"s + strLong + "text",
        CallOf("CloseEmp") + "\x0c\x00\x01\x0b\x00\x01"s + strLong + "text",
    };
    static_assert(99 * 1024 * 1024 < kLongestText);
    constexpr long kConnections = 100;
    RunBeside(
        [&] {
            std::vector<CUniqueFd> connections;
            for (long n = 0; n < kConnections; ++n) {
                connections.push_back(Connect());
                (void)Send(connections.back(),
                           messages[static_cast<std::size_t>(n) % std::size(messages)]);
            }
            m_nPeak = std::max(m_nPeak, m_Daemon.ResidentKiB());
        },
        FloodTime());
    ExpectNothingLeftOf(kConnections);
}

TEST_F(Flood, UnknownMethods) {
    std::mt19937 random{2024};  // the same names in every run
    const auto callUnknown = [&] {
        CBrokerClient client;
        for (int n = 0; n < 100; ++n) {
            std::string strMethod(1 + random() % 300, '\0');
            for (char& c : strMethod) c = static_cast<char>(random());
            client.SendRaw(CallOf(strMethod) + '\0');
            std::string strMethodBack;
            apache::thrift::protocol::TMessageType type{};
            std::int32_t nSequence = 0;
            auto* const pProtocol = client.Rpc().getInputProtocol().get();
            pProtocol->readMessageBegin(strMethodBack, type, nSequence);
            ASSERT_EQ(type, apache::thrift::protocol::T_EXCEPTION);
            ASSERT_EQ(strMethodBack, strMethod);
            apache::thrift::TApplicationException answer;
            answer.read(pProtocol);
            pProtocol->readMessageEnd();
            ASSERT_EQ(answer.getType(), apache::thrift::TApplicationException::UNKNOWN_METHOD);
        }
        ASSERT_EQ(client.Version(), "5.100") << "on the same connection";
    };
    RunBeside(callUnknown, FloodTime());
    ExpectNothingLeftOf(1);
}

/// Bytes that are a message, begin like one, or are nothing at all.
std::string RandomBytes(std::mt19937& random) {
    std::string strBytes(random() % 2000, '\0');
    for (char& c : strBytes) c = static_cast<char>(random());
    switch (random() % 4) {
        case 0:
            return strBytes;
        case 1:
            return "\x80\x01\x00\x01"s + strBytes;
        case 2:
            return CallOf(random() % 2 == 0 ? "Execute" : "OpenEmp") + strBytes;
        default: {
            std::string strCall =
                CallOf("Execute") + "\x0b\x00\x02"s + Number(13) + "GetVOKVersion" + '\0';
            for (int n = 0; n < 3; ++n)
                strCall[random() % strCall.size()] = static_cast<char>(random());
            return strCall;
        }
    }
}

TEST_F(Flood, RandomBytes) {
    const unsigned int nSeed = std::random_device{}();
    std::printf("   random numbers from %u\n", nSeed);
    std::mt19937 random{nSeed};
    constexpr long kConnections = 50;
    RunBeside(
        [&] {
            std::vector<CUniqueFd> connections;
            for (long n = 0; n < kConnections; ++n) {
                connections.push_back(Connect());
                for (auto nMore = random() % 3 + 1; nMore > 0; --nMore)
                    (void)Send(connections.back(), RandomBytes(random));
            }
            m_nPeak = std::max(m_nPeak, m_Daemon.ResidentKiB());
        },
        FloodTime());
    ExpectNothingLeftOf(kConnections);
}

}  // namespace
}  // namespace vok::test
