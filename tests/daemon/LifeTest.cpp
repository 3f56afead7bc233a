// The daemon's life: ready, stopped at any moment, and what becomes of the ready flag.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thrift/Thrift.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/CUniqueFd.h"
#include "platform/CVOKDebug.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::StartsWith;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlowdown = 10;
#else
constexpr int kSlowdown = 1;
#endif
/// How long a stop may take, whoever is connected.
constexpr milliseconds kStopTime{2000 * kSlowdown};

void WriteFile(const std::string& strPath, const std::string& strText) {
    std::ofstream file{strPath};
    file << strText;
    ASSERT_TRUE(file.flush()) << strPath;
}

std::string ReadFile(const std::string& strPath) {
    std::ifstream file{strPath};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool IsFlagThere() {
    return fs::exists(fs::symlink_status(paths::kReadyFlag));
}

/// Stops the daemon; how long it took is judged.
void ExpectQuickStop(CDaemon& daemon) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly) << daemon.Log();
    const auto time = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    EXPECT_LE(time.count(), kStopTime.count());
    EXPECT_FALSE(IsFlagThere());
}

/// A socket that holds the broker's port.
class CPortHolder {
public:
    explicit CPortHolder(bool bListen)
        : m_Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(kBrokerPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_bHolds =
            ::bind(m_Socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            (!bListen || ::listen(m_Socket.Get(), 16) == 0);
    }
    bool Holds() const { return m_bHolds; }

private:
    const CUniqueFd m_Socket;
    bool m_bHolds = false;
};

/// True when who connects to the broker's port, where nobody listens, meets himself. Leaves no
/// trace on the port.
bool ConnectsToItself() {
    const CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kBrokerPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    linger reset{1, 0};
    return ::setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0 &&
           ::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

/// What is made and removed in /tmp under the ready flag's name.
class CFlagWatch {
public:
    CFlagWatch() : m_Watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        EXPECT_GE(::inotify_add_watch(m_Watch.Get(), "/tmp", IN_CREATE | IN_DELETE), 0);
    }
    /// In order, those that have happened since the last call.
    std::vector<std::string> Events() {
        std::vector<std::string> events;
        alignas(inotify_event) char buffer[8192];
        for (ssize_t nRead; (nRead = ::read(m_Watch.Get(), buffer, sizeof buffer)) > 0;) {
            for (ssize_t n = 0; n < nRead;) {
                const auto* const pEvent = reinterpret_cast<const inotify_event*>(buffer + n);
                if (pEvent->len > 0 && fs::path(paths::kReadyFlag).filename() == pEvent->name)
                    events.emplace_back((pEvent->mask & IN_CREATE) != 0 ? "made" : "removed");
                n += static_cast<ssize_t>(sizeof(inotify_event) + pEvent->len);
            }
        }
        return events;
    }

private:
    const CUniqueFd m_Watch;
};

/// Clients that call without pause, each on a thread and a connection of its own, until the broker
/// goes.
class CBusyClients {
public:
    explicit CBusyClients(int nClients) {
        for (int n = 0; n < nClients; ++n) m_Threads.emplace_back([this] { CallUntilItFails(); });
    }
    ~CBusyClients() {
        for (std::thread& thread : m_Threads) thread.join();
    }
    int Answers() const { return m_nAnswers; }

private:
    void CallUntilItFails() {
        try {
            CBrokerClient client;
            for (;;) {
                if (client.Version() == "5.100") ++m_nAnswers;
            }
        } catch (const apache::thrift::TException&) {
            // The broker has gone, which ends every client.
        }
    }

    std::atomic<int> m_nAnswers{0};
    std::vector<std::thread> m_Threads;
};

// ---- An ordinary life --------------------------------------------------------------------------

TEST(Life, StartsAndAnswersAndStops) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    EXPECT_TRUE(fs::is_empty(paths::kReadyFlag));
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly) << daemon.Log();
    EXPECT_FALSE(IsFlagThere());
    EXPECT_EQ(daemon.Output(), "");
}

TEST(Life, SaysNothingAboveTraceWhenAllIsWell) {
    CDaemon daemon;
    CDaemon::Options options;
    options.nLogLevel = LEVEL_NOTICE;
    ASSERT_TRUE(daemon.Start(options));
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
    EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly);
    EXPECT_EQ(daemon.Log(), "");
}

TEST(Life, EndsWithoutTheFlagWhenSomebodyHasRemovedIt) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    ASSERT_TRUE(fs::remove(paths::kReadyFlag));
    EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly);
    EXPECT_TRUE(daemon.HasLine(LEVEL_ERROR, "RemoveFile", "Remove [/tmp/vok_ready] failed."));
    EXPECT_TRUE(daemon.HasLine(LEVEL_ERROR, "StartServer", "RemoveFile [/tmp/vok_ready] failed."))
        << daemon.Log();
}

class LifeLogTest : public ::testing::TestWithParam<const char*> {};

TEST_P(LifeLogTest, LogThatCannotBeWrittenHindersNothing) {
    const std::string strFile = GetParam();
    ASSERT_EQ(::mkfifo("/tmp/fifo", 0666), 0);
    CDaemon daemon;
    CDaemon::Options options;
    options.strLogFile = "/tmp/unused.log";
    options.environment["VOK_LOG_FILE"] = strFile;
    ASSERT_TRUE(daemon.Start(options));
    for (int n = 0; n < 100; ++n) ASSERT_EQ(CBrokerClient().Version(), "5.100");
    ExpectQuickStop(daemon);
    EXPECT_EQ(daemon.Output(), "");
}

INSTANTIATE_TEST_SUITE_P(Files, LifeLogTest,
                         ::testing::Values("/dev/full", "/no/such/folder/vok.log", "/tmp",
                                           "/tmp/fifo", ""));

// ---- The port is another's ---------------------------------------------------------------------

TEST(Life, LeavesARunningBrokerAndItsFlagAlone) {
    CDaemon first;
    ASSERT_TRUE(first.Start()) << first.Log();
    CFlagWatch watch;

    CDaemon second;
    ASSERT_TRUE(second.Launch());
    EXPECT_EQ(second.AwaitEnd(), 1) << second.Log();

    EXPECT_TRUE(IsFlagThere());
    EXPECT_THAT(watch.Events(), ElementsAre()) << "the flag is the first one's";
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
}

struct TakenPortCase {
    const char* szName;
    bool bListen;
};

std::ostream& operator<<(std::ostream& stream, const TakenPortCase& taken) {
    return stream << taken.szName;
}

class LifeTakenPortTest : public ::testing::TestWithParam<TakenPortCase> {};

TEST_P(LifeTakenPortTest, EndsAndTellsWhy) {
    const CPortHolder holder{GetParam().bListen};
    ASSERT_TRUE(holder.Holds());
    WriteFile(paths::kReadyFlag, "");

    CDaemon daemon;
    ASSERT_TRUE(daemon.Launch());
    EXPECT_EQ(daemon.AwaitEnd(), 1) << daemon.Log();

    std::vector<std::string> errors;
    for (const DaemonLogLine& line : daemon.LogLines())
        if (line.nLevel == LEVEL_ERROR) errors.push_back(line.strFunction + ": " + line.strMessage);
    EXPECT_THAT(
        errors,
        ElementsAre(StartsWith("BrokerServer: The broker cannot serve on 127.0.0.1:50000: "),
                    "StartServer: Fail to start [Broker-Server]."));
    EXPECT_FALSE(IsFlagThere()) << "no broker serves, whose flag it could be";
}

INSTANTIATE_TEST_SUITE_P(Holders, LifeTakenPortTest,
                         ::testing::Values(TakenPortCase{"OneThatAcceptsAndSaysNothing", true},
                                           TakenPortCase{"OneThatDoesNotListen", false}),
                         [](const auto& info) { return info.param.szName; });

// ---- A flag that was left behind ---------------------------------------------------------------

TEST(Life, RemovesTheFlagOfACrashBeforeItRaisesItsOwn) {
    CDaemon crashed;
    ASSERT_TRUE(crashed.Start()) << crashed.Log();
    CBrokerClient client;  // leaves a connection on the port behind
    EXPECT_EQ(client.Version(), "5.100");
    crashed.Kill();
    ASSERT_TRUE(IsFlagThere());

    CFlagWatch watch;
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    EXPECT_THAT(watch.Events(), ElementsAre("removed", "made"));
    ExpectQuickStop(daemon);
}

TEST(Life, FlagOfACrashDoesNotOutliveAFailedStart) {
    WriteFile(paths::kReadyFlag, "");
    fs::create_directories(fs::path(paths::kPluginDownload));  // a folder: cannot be moved
    CDaemon daemon;
    ASSERT_TRUE(daemon.Launch());
    EXPECT_EQ(daemon.AwaitEnd(), 1) << daemon.Log();
    EXPECT_FALSE(IsFlagThere());
}

TEST(Life, NeverFollowsALinkInTheFlagsPlace) {
    WriteFile("/tmp/precious", "content");
    fs::create_symlink("/tmp/precious", paths::kReadyFlag);
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(paths::kReadyFlag)));
    ExpectQuickStop(daemon);
    EXPECT_EQ(ReadFile("/tmp/precious"), "content");
}

TEST(Life, NeverMakesWhatALinkInTheFlagsPlacePointsTo) {
    fs::create_symlink("/tmp/not-there", paths::kReadyFlag);
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(paths::kReadyFlag)));
    EXPECT_FALSE(fs::exists("/tmp/not-there"));
}

TEST(Life, EndsWhenTheFlagCannotBeMade) {
    fs::create_directory(paths::kReadyFlag);
    CDaemon daemon;
    ASSERT_TRUE(daemon.Launch());
    EXPECT_EQ(daemon.AwaitEnd(), 1) << daemon.Log();
    EXPECT_TRUE(daemon.HasLine(LEVEL_ERROR, "CreateFile", "Create [/tmp/vok_ready] failed."));
    EXPECT_TRUE(daemon.HasLine(LEVEL_ERROR, "StartServer",
                               "Failed to generate ready flag for [Broker-Server]."));
    EXPECT_FALSE(daemon.HasLine(LEVEL_TRACE, "StartServer", "Succeed to start [Broker-Server]."));
    EXPECT_FALSE(daemon.HasLine(LEVEL_ERROR, "BrokerServer",
                                "The server has ended unasked, and the broker with it."));
    EXPECT_TRUE(fs::is_directory(paths::kReadyFlag));
}

// ---- SIGTERM, at any moment --------------------------------------------------------------------

TEST(Life, EndsOrderlyWhenStoppedAtOnce) {
    for (int n = 0; n < 30; ++n) {
        CDaemon daemon;
        ASSERT_TRUE(daemon.Launch());
        ASSERT_EQ(daemon.Stop(), CDaemon::kOrderly) << n << '\n' << daemon.Log();
        ASSERT_FALSE(IsFlagThere());
    }
}

// The moments between the fork and the ready flag, and a little after it, in small steps.
TEST(Life, EndsOrderlyWheneverItIsStopped) {
    constexpr int kMoments = kSlowdown == 1 ? 60 : 15;
    auto begin = steady_clock::now();
    {
        CDaemon daemon;
        ASSERT_TRUE(daemon.Start()) << daemon.Log();
    }
    const auto nStep = (steady_clock::now() - begin) * 3 / 2 / kMoments;
    for (int n = 0; n < kMoments; ++n) {
        CDaemon daemon;
        ASSERT_TRUE(daemon.Launch());
        std::this_thread::sleep_for(nStep * n);  // the moment is what is tested
        ASSERT_EQ(daemon.Stop(), CDaemon::kOrderly) << n << '\n' << daemon.Log();
        ASSERT_FALSE(IsFlagThere()) << n << '\n' << daemon.Log();
    }
}

TEST(Life, EndsOrderlyWhenSignalsPourIn) {
    for (int n = 0; n < 10; ++n) {
        CDaemon daemon;
        ASSERT_TRUE(daemon.Launch());
        std::atomic<bool> bEnded{false};
        std::thread sender{[&] {
            while (!bEnded && daemon.Signal(SIGTERM)) std::this_thread::yield();
        }};
        const int nStatus = daemon.AwaitEnd();
        bEnded = true;
        sender.join();
        ASSERT_EQ(nStatus, CDaemon::kOrderly) << daemon.Log();
        ASSERT_FALSE(IsFlagThere());
    }
}

TEST(Life, EndsOrderlyWhenSignalsPourInAfterItIsReady) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int n = 0; n < 10; ++n) clients.push_back(std::make_unique<CBrokerClient>());
    while (daemon.IsRunning() && daemon.Signal(SIGTERM)) std::this_thread::yield();
    EXPECT_EQ(daemon.AwaitEnd(), CDaemon::kOrderly) << daemon.Log();
    EXPECT_FALSE(IsFlagThere());
}

TEST(Life, StopsWhileTheUpdateIsBeingMounted) {
    CDaemon daemon;
    CDaemon::Options options;
    options.bLayOutPlugins = false;  // there is nothing that could be mounted
    ASSERT_TRUE(daemon.Launch(options));
    const std::string strFailed =
        "Failed to mount:[/opt/down/emps/empPepperPlugins_img/empPepperPlugins.img], "
        "Failing Times:[";
    ASSERT_TRUE(daemon.WaitForLine(LEVEL_ERROR, "Img_Mount", strFailed + "1]."));
    ExpectQuickStop(daemon);
    EXPECT_FALSE(daemon.HasLine(LEVEL_ERROR, "Img_Mount", strFailed + "5]."));
}

TEST(Life, StopsWhileThePluginsAreBeingMounted) {
    CDaemon daemon;
    CDaemon::LayOutPlugins();
    fs::remove(paths::kPluginProbe);  // looked at, and then not mounted
    CDaemon::Options options;
    options.bLayOutPlugins = false;
    ASSERT_TRUE(daemon.Launch(options));
    const std::string strImage = "/opt/down/emps/empPepperPlugins_img/empPepperPlugins.img";
    ASSERT_TRUE(daemon.WaitForLine(LEVEL_DETAIL, "Pepper_Img_Mount",
                                   "Pepper_Img_Mount:[" + strImage + "]"));
    ExpectQuickStop(daemon);
    EXPECT_FALSE(daemon.HasLine(LEVEL_ERROR, "Pepper_Img_Mount",
                                "Failed to mount:[" + strImage + "], Failing Times:[5]."));
}

TEST(Life, StopsWithFiftyIdleClients) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int n = 0; n < 50; ++n) {
        clients.push_back(std::make_unique<CBrokerClient>());
        ASSERT_EQ(clients.back()->Version(), "5.100");
    }
    ExpectQuickStop(daemon);
    for (const auto& pClient : clients) EXPECT_EQ(pClient->ReceiveRaw(), "");
}

TEST(Life, StopsWithBusyClientsAndAHalfSentMessage) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    CBrokerClient halfWay;
    halfWay.SendRaw(
        std::string("\x80\x01\x00\x01\x00\x00\x00\x07"
                    "Exe",
                    11));
    CBusyClients clients{8};
    ASSERT_TRUE(CDaemon::Await([&] { return clients.Answers() > 200; }));
    ExpectQuickStop(daemon);
}

TEST(SlowLife, EndsOrderlyAHundredTimesUnderLoad) {
    for (int n = 0; n < 100; ++n) {
        CDaemon daemon;
        ASSERT_TRUE(daemon.Start()) << n << '\n' << daemon.Log();
        CBusyClients clients{4};
        ASSERT_TRUE(CDaemon::Await([&] { return clients.Answers() > 20; })) << n;
        ASSERT_EQ(daemon.Stop(), CDaemon::kOrderly) << n << '\n' << daemon.Log();
        ASSERT_FALSE(IsFlagThere()) << n;
    }
}

TEST(Life, OnlyTheMainThreadTakesTheStopSignal) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int n = 0; n < 5; ++n) {
        clients.push_back(std::make_unique<CBrokerClient>());
        ASSERT_EQ(clients.back()->Version(), "5.100");
    }
    const auto threads = daemon.Threads();
    EXPECT_GE(threads.size(), 7U) << "main, server, five clients";
    for (const DaemonThread& thread : threads) {
        const bool bBlocked = (thread.nBlockedSignals >> (SIGTERM - 1) & 1) != 0;
        EXPECT_EQ(bBlocked, thread.nId != daemon.Pid()) << thread.strName;
    }
}

// ---- The broker's own port ---------------------------------------------------------------------

// The kernel gives a connection the first of these ports that is free: whoever tries to connect to
// the broker's before somebody listens there is connected to himself.
TEST(Life, StartsWhenConnectionsAreGivenItsPort) {
    // A connection that the daemon's end has cut would otherwise hold the port for a minute, and
    // the trap would be given the other one.
    ASSERT_NO_FATAL_FAILURE(WriteFile("/proc/sys/net/ipv4/tcp_max_tw_buckets", "0"));
    ASSERT_NO_FATAL_FAILURE(
        WriteFile("/proc/sys/net/ipv4/ip_local_port_range",
                  std::to_string(kBrokerPort) + ' ' + std::to_string(kBrokerPort + 1)));
    for (int n = 0; n < 5; ++n) {
        ASSERT_TRUE(ConnectsToItself()) << "the trap does not work";
        CDaemon daemon;
        ASSERT_TRUE(daemon.Launch());
        EXPECT_TRUE(daemon.AwaitReady()) << daemon.Log();
        EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly) << daemon.Log();
    }
}

// ---- The loopback interface --------------------------------------------------------------------

void SetLoopback(bool bUp) {
    const CUniqueFd fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    ASSERT_EQ(::ioctl(fd.Get(), SIOCGIFFLAGS, &request), 0);
    request.ifr_flags =
        static_cast<short>(bUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    ASSERT_EQ(::ioctl(fd.Get(), SIOCSIFFLAGS, &request), 0);
}

/// Where in the kernel a process waits.
std::string WaitsIn(pid_t nPid) {
    std::string strWhere;
    std::ifstream("/proc/" + std::to_string(nPid) + "/wchan") >> strWhere;
    return strWhere;
}

TEST(Life, WaitsForTheLoopbackInterface) {
    ASSERT_NO_FATAL_FAILURE(SetLoopback(false));
    CDaemon daemon;
    ASSERT_TRUE(daemon.Launch());
    EXPECT_TRUE(CDaemon::Await([&] {
        return WaitsIn(daemon.Pid()).find("nanosleep") != std::string::npos;
    })) << "it waits in "
        << WaitsIn(daemon.Pid());
    EXPECT_FALSE(IsFlagThere());
    ASSERT_NO_FATAL_FAILURE(SetLoopback(true));
    EXPECT_TRUE(daemon.AwaitReady()) << daemon.Log();
    EXPECT_EQ(daemon.Stop(), CDaemon::kOrderly) << daemon.Log();
}

}  // namespace
}  // namespace vok::test
