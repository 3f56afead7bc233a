// vokctl where no broker serves, or what serves is none.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "VokBroker.h"
#include "VokEmp.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "tests/ctl/support/CFakeAdmin.h"
#include "tests/ctl/support/CVokctl.h"
#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"
#include "tests/support/CEmpInstaller.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CPrivateWorld.h"
#include "tests/support/FakeServer.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr unsigned int kNobody = 65534;

int CountLines(const std::string& strText) {
    return static_cast<int>(std::count(strText.begin(), strText.end(), '\n'));
}

/// Every command that asks a broker.
const std::vector<std::vector<std::string>> kAsking{{"open", "X"},
                                                    {"open", "--hold", "X"},
                                                    {"close", "X", "1", "2"},
                                                    {"call", "X", "Y"},
                                                    {"version"},
                                                    {"execute", "GetVOKVersion"},
                                                    {"launcher", "register", "L", "1"},
                                                    {"launcher", "unregister", "L", "1"},
                                                    {"launcher", "add-emp", "X", "1"},
                                                    {"launcher", "remove-emp", "X", "1"},
                                                    {"status"},
                                                    {"list"},
                                                    {"show", "X"},
                                                    {"where", "X"},
                                                    {"blame"},
                                                    {"watch"},
                                                    {"debug-level", "1"},
                                                    {"ping", "on"},
                                                    {"sweep"},
                                                    {"close-all", "A"}};

TEST(NoBroker, IsOneClearLineAndStatusThree) {
    for (const auto& arguments : kAsking) {
        const VokctlResult result = Vokctl(arguments);
        EXPECT_EQ(result.nExit, 3) << arguments[0];
        EXPECT_EQ(result.strOut, "") << arguments[0];
        EXPECT_EQ(CountLines(result.strErr), 1) << result.strErr;
        EXPECT_THAT(result.strErr, AllOf(StartsWith("vokctl: no broker serves on 127.0.0.1:50000"),
                                         HasSubstr("start vok-broker")))
            << arguments[0];
    }
}

void ExpectLoopbackIsMissed() {
    for (const auto& arguments : kAsking) {
        // Shorter than a connect that nobody answers takes, so that this one would be status 5.
        std::vector<std::string> patient = arguments;
        patient.insert(patient.begin(), {"--timeout", "0.5"});
        const VokctlResult result = Vokctl(patient);
        EXPECT_EQ(result.nExit, 3) << arguments[0];
        EXPECT_EQ(result.strOut, "") << arguments[0];
        EXPECT_EQ(result.strErr,
                  "vokctl: the broker on 127.0.0.1:50000 cannot be reached: the loopback interface "
                  "is down; \"ip link set lo up\" brings it up\n")
            << arguments[0];
    }
}

/// In a network whose loopback interface has never been up, there is no way to where a broker would
/// serve.
class NoBrokerNorLoopback : public ::testing::Test {
protected:
    /// What a connection to the broker's port fails with.
    static int ConnectErrno() {
        const CUniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(kBrokerPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
                   ? 0
                   : errno;
    }
    void SetUp() override {
        ASSERT_TRUE(m_Network.IsOpen());
        ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << std::strerror(errno);
        ASSERT_EQ(ConnectErrno(), ENETUNREACH);
    }
    void TearDown() override { EXPECT_EQ(::setns(m_Network.Get(), CLONE_NEWNET), 0); }

private:
    const CUniqueFd m_Network{::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)};
};

TEST_F(NoBrokerNorLoopback, IsOneClearLineAndStatusThree) {
    ExpectLoopbackIsMissed();
}

TEST_F(NoBrokerNorLoopback, IsAProblemThatTheDoctorFinds) {
    const VokctlResult result = Vokctl({"doctor"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_EQ(result.strErr, "");
    EXPECT_THAT(result.strOut, ContainsRegex("problem +loopback +lo is down"));
    EXPECT_THAT(result.strOut, HasSubstr("; cure: ip link set lo up\n"));
}

TEST(NoBroker, IsFoundAlsoWhenJsonIsAskedFor) {
    const VokctlResult result = Vokctl({"--json", "status"});
    EXPECT_EQ(result.nExit, 3);
    EXPECT_EQ(result.strOut, "");
}

/// The kernel may give a connection to the broker's port that very port; and to a callback server,
/// which is to have any free one.
class NoBrokerButItsPort : public ::testing::TestWithParam<const char*> {
protected:
    static bool SetRange(const char* szRange) {
        std::ofstream range("/proc/sys/net/ipv4/ip_local_port_range");
        return static_cast<bool>(range << szRange << std::flush);
    }
    void SetUp() override { ASSERT_TRUE(SetRange("50000 50000")); }
    void TearDown() override { EXPECT_TRUE(SetRange(kUsualRange)); }

    static constexpr char kUsualRange[] = "32768 60999";
};

TEST_P(NoBrokerButItsPort, IsNotTakenForABrokerNorKept) {
    const VokctlResult result = Vokctl({GetParam(), "X"});
    EXPECT_EQ(result.nExit, 3) << result.strErr;

    ASSERT_TRUE(SetRange(kUsualRange));  // a broker connects to itself, too
    CDaemon daemon;
    EXPECT_TRUE(daemon.Start()) << "the port was kept from it: " << daemon.Log();
}

INSTANTIATE_TEST_SUITE_P(Asking, NoBrokerButItsPort, ::testing::Values("open", "execute", "show"),
                         [](const auto& info) { return info.param; });

TEST(NoBroker, NamesOfInstalledEmpsAreThereForCompletion) {
    CEmpInstaller::Preinstall("Weather");
    CEmpInstaller::Preinstall("Clock");
    const VokctlResult result = Vokctl({"list", "--names"});
    EXPECT_EQ(result.nExit, 0);
    EXPECT_EQ(result.strOut, "Clock\nWeather\n");
    EXPECT_EQ(nlohmann::json::parse(Vokctl({"list", "--names", "--json"}).strOut),
              nlohmann::json({"Clock", "Weather"}));
}

TEST(NoBroker, UsageIsToldWithoutAsking) {
    const VokctlResult result = Vokctl({"opne", "X"});
    EXPECT_EQ(result.nExit, 2);
    EXPECT_THAT(result.strErr, AllOf(StartsWith("vokctl: "), HasSubstr("--help"), EndsWith("\n")));
    EXPECT_EQ(CountLines(result.strErr), 1);
    const VokctlResult help = Vokctl({"--help"});
    EXPECT_EQ(help.nExit, 0);
    EXPECT_THAT(help.strOut, HasSubstr("Exit status"));
    EXPECT_EQ(help.strErr, "");
}

// ---- What serves is no broker -------------------------------------------------------------------

/// Something at the broker's port.
class CSquatter {
public:
    explicit CSquatter(bool bListens) : m_Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int nOn = bListens ? 1 : 0;
        EXPECT_EQ(::setsockopt(m_Socket.Get(), SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn), 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(kBrokerPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(
            ::bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        if (!bListens) return;
        EXPECT_EQ(::listen(m_Socket.Get(), 8), 0);
    }
    int Get() const { return m_Socket.Get(); }

private:
    const CUniqueFd m_Socket;
};

/// A broker that answers every command with the same.
class CAnsweringBroker : public VokBrokerNull {
public:
    explicit CAnsweringBroker(std::string strAnswer) : m_strAnswer(std::move(strAnswer)) {}
    void Execute(std::string& _return, const std::string& /*arg1*/, const std::string& /*cmd*/,
                 const std::string& /*arg3*/, const std::string& /*arg4*/,
                 const std::string& /*arg5*/, const std::string& /*arg6*/) override {
        _return = m_strAnswer;
    }

private:
    const std::string m_strAnswer;
};

TEST(OddBroker, AnswerIsMadeSafeForATerminalOnly) {
    const std::string strOdd = "a\x1B[2J\xFF\n\tb";
    const CFakeServer broker{
        std::make_shared<VokBrokerProcessor>(std::make_shared<CAnsweringBroker>(strOdd)),
        kBrokerPort};
    EXPECT_EQ(Vokctl({"execute", "X"}).strOut, strOdd + "\n") << "into a pipe it goes as it is";
    VokctlOptions terminal;
    terminal.bTerminal = true;
    EXPECT_EQ(Vokctl({"execute", "X"}, terminal).strOut, "a\\x1B[2J\\xFF\r\n\\x09b\r\n");
}

TEST(SilentBroker, IsStatusFive) {
    const CSquatter squatter{true};
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"version"}, {"open", "X"}, {"call", "X", "Y"}}) {
        auto patient = arguments;
        patient.insert(patient.begin(), {"--timeout", "0.1"});
        const VokctlResult result = Vokctl(patient);
        EXPECT_EQ(result.nExit, 5) << arguments[0];
        EXPECT_THAT(result.strErr, HasSubstr("has not answered within 100 ms"));
        EXPECT_EQ(CountLines(result.strErr), 1);
    }
}

/// The commands that ask the admin service see that it is missing; then they look who has the port.
TEST(OtherProgram, IsNotTakenForABrokerWithoutItsAdminService) {
    const CFakeServer server(std::make_shared<VokEmpProcessor>(std::make_shared<VokEmpNull>()),
                             kBrokerPort);
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"status"}, {"list"}, {"open", "X"}}) {
        const VokctlResult result = Vokctl(arguments);
        EXPECT_EQ(result.nExit, 1) << arguments[0];
        EXPECT_EQ(result.strErr,
                  "vokctl: something else has port 50000, which does not speak like a broker: \"ss "
                  "-ltnp 'sport = :50000'\" tells what it is\n");
    }
}

/// A web server: what it answers is no answer.
TEST(OtherProgram, ThatSpeaksAnotherProtocolIsToldFromABroker) {
    const CSquatter squatter{true};
    std::thread server([&squatter] {
        const CUniqueFd peer{::accept4(squatter.Get(), nullptr, nullptr, SOCK_CLOEXEC)};
        std::array<char, 512> request;
        (void)!::recv(peer.Get(), request.data(), request.size(), 0);
        constexpr char kReply[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
        (void)::send(peer.Get(), kReply, sizeof kReply - 1, MSG_NOSIGNAL);
        // The peer closes first: then nothing lingers at the port.
        (void)!::recv(peer.Get(), request.data(), request.size(), 0);
    });
    const VokctlResult result = Vokctl({"status"});
    server.join();
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, StartsWith("vokctl: something else has port 50000"));
}

TEST(OtherProgram, ThatSaysNothingMayBeABrokerThatHangs) {
    const CSquatter squatter{true};
    const VokctlResult result = Vokctl({"status", "--timeout", "0.1"});
    EXPECT_EQ(result.nExit, 5);
    EXPECT_THAT(result.strErr, HasSubstr("a broker that hangs, or another program; \"ss -ltnp"));
}

/// Tells its version, and opens nothing until it may.
class CSlowBroker : public VokBrokerNull {
public:
    explicit CSlowBroker(std::shared_future<void> end) : m_End(std::move(end)) {}
    void OpenEmp(ConnectionInfo&, const std::string&, const std::string&, const std::string&,
                 const std::string&) override {
        m_End.wait();
    }
    void Execute(std::string& _return, const std::string&, const std::string&, const std::string&,
                 const std::string&, const std::string&, const std::string&) override {
        _return = "5.100";
    }

private:
    const std::shared_future<void> m_End;
};

TEST(SlowBroker, OpenThatTimesOutTellsWhatMayComeOfIt) {
    std::promise<void> end;
    const CFakeServer server(std::make_shared<VokBrokerProcessor>(
                                 std::make_shared<CSlowBroker>(end.get_future().share())),
                             kBrokerPort);
    const VokctlResult result = Vokctl({"open", "X", "--timeout", "2"});
    end.set_value();
    EXPECT_EQ(result.nExit, 5);
    EXPECT_EQ(CountLines(result.strErr), 1);
    EXPECT_THAT(result.strErr,
                AllOf(HasSubstr("\"vokctl list\" tells"), HasSubstr("\"vokctl sweep\" closes it")));
}

// ---- The loopback interface ---------------------------------------------------------------------

/// Down as long as it lives. What was sent there before vanishes without an error.
class CLoopbackDown {
public:
    CLoopbackDown() { Set(false); }
    ~CLoopbackDown() { Set(true); }
    CLoopbackDown(const CLoopbackDown&) = delete;
    CLoopbackDown& operator=(const CLoopbackDown&) = delete;

private:
    static void Set(bool bUp) {
        const CUniqueFd fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
        ifreq request{};
        std::strcpy(request.ifr_name, "lo");
        ASSERT_EQ(::ioctl(fd.Get(), SIOCGIFFLAGS, &request), 0);
        request.ifr_flags =
            static_cast<short>(bUp ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
        ASSERT_EQ(::ioctl(fd.Get(), SIOCSIFFLAGS, &request), 0);
    }
};

TEST(LoopbackDown, IsToldAtOnceWithStatusThree) {
    const CLoopbackDown down;
    ExpectLoopbackIsMissed();
}

TEST(SilentBroker, DoesNotHoldUpACtrlC) {
    const CSquatter squatter{true};
    CVokctl process{{"open", "X", "--hold"}};
    // It has connected once it may be interrupted.
    ASSERT_TRUE(CDaemon::Await([&] { return CountAllProcesses() >= 2; }));
    process.Signal(SIGINT);
    const VokctlResult result = process.Finish();
    // Before it has set itself up, the signal ends it as any program.
    if (result.nExit == 128 + SIGINT) return;
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, StartsWith("vokctl: interrupted"));
}

TEST(SilentAdmin, IsStatusFive) {
    const auto pAnswers = std::make_shared<CAdminAnswers>();
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    pAnswers->hang = [ended] { ended.wait(); };
    const CFakeAdmin fake{pAnswers};
    for (const char* const szCommand : {"status", "list", "blame", "sweep", "watch"}) {
        const VokctlResult result = Vokctl({"--timeout", "0.1", szCommand});
        EXPECT_EQ(result.nExit, 5) << szCommand;
        EXPECT_THAT(result.strErr, HasSubstr("has not answered within 100 ms"));
    }
    end.set_value();
}

// ---- The doctor ---------------------------------------------------------------------------------

nlohmann::json Findings(const VokctlResult& result) {
    return nlohmann::json::parse(result.strOut);
}

std::string TextOf(const nlohmann::json& report, const std::string& strCheck) {
    for (const auto& finding : report["findings"])
        if (finding["check"] == strCheck)
            return finding["level"].get<std::string>() + ": " + finding["text"].get<std::string>();
    return "none";
}

TEST(DoctorCommand, WorksWithoutABroker) {
    CDaemon::LayOutPlugins();
    const VokctlResult result = Vokctl({"doctor", "--json"});
    const nlohmann::json report = Findings(result);
    EXPECT_EQ(TextOf(report, "loopback"), "ok: lo is up");
    EXPECT_EQ(TextOf(report, "port 50000"), "ok: free: no broker serves");
    EXPECT_EQ(result.nExit, report["problems"] == 0 ? 0 : 1) << result.strOut;
    EXPECT_EQ(result.strErr, "");
}

TEST(DoctorCommand, FindsASquatter) {
    CDaemon::LayOutPlugins();
    {
        const CSquatter squatter{false};
        const VokctlResult result = Vokctl({"doctor", "--json"});
        EXPECT_EQ(result.nExit, 1);
        EXPECT_THAT(TextOf(Findings(result), "port 50000"), HasSubstr("given it to a connection"));
    }
    const CSquatter squatter{true};
    const VokctlResult result = Vokctl({"doctor", "--json", "--timeout", "0.1"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(TextOf(Findings(result), "port 50000"), HasSubstr("does not answer"));
}

/// Who serves at the port has nothing to do with a socket file that a broker has left.
TEST(DoctorCommand, JudgesTheAdminSocketByItself) {
    CDaemon::LayOutPlugins();
    const CSquatter squatter{true};
    fs::create_directories(paths::kAdminFolder);
    const CUniqueFd left{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, paths::kAdminSocket);
    ASSERT_EQ(::bind(left.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const bool bLoopback : {true, false}) {
        const auto pDown = bLoopback ? nullptr : std::make_unique<CLoopbackDown>();
        const nlohmann::json report = Findings(Vokctl({"doctor", "--json", "--timeout", "0.5"}));
        EXPECT_THAT(TextOf(report, "loopback"), HasSubstr(bLoopback ? "lo is up" : "lo is down"));
        EXPECT_THAT(TextOf(report, "port 50000"), HasSubstr("does not answer"));
        EXPECT_THAT(TextOf(report, "admin socket"), HasSubstr("was left by a broker"));
    }
    fs::remove_all(paths::kAdminFolder);
}

TEST(DoctorCommand, TellsPeople) {
    CDaemon::LayOutPlugins();
    const VokctlResult result = Vokctl({"doctor"});
    EXPECT_THAT(result.strOut, ContainsRegex("ok +loopback +lo is up\n"));
    EXPECT_THAT(result.strOut, ContainsRegex("\n[0-9]+ problems?, [0-9]+ warnings?\n$"));
}

TEST(DoctorCommand, DoesNotKeepABrokerFromItsPort) {
    CDaemon daemon;
    ASSERT_TRUE(daemon.Launch());
    int nLooks = 0;
    while (!daemon.AwaitReady(std::chrono::milliseconds(1)) && daemon.IsRunning() && nLooks < 500) {
        Vokctl({"doctor", "--timeout", "0.5"});
        ++nLooks;
    }
    EXPECT_TRUE(daemon.IsRunning()) << daemon.Log();
    EXPECT_TRUE(fs::exists(paths::kReadyFlag));
    const VokctlResult result = Vokctl({"doctor", "--json"});
    EXPECT_EQ(TextOf(Findings(result), "port 50000"), "ok: served by vok-broker 5.100");
    EXPECT_EQ(TextOf(Findings(result), "admin socket"), "ok: /run/vok-broker/admin.sock is served");
}

// ---- Who may ask --------------------------------------------------------------------------------

TEST(OtherUser, IsToldThatItTakesRoot) {
    const CFakeAdmin fake{std::make_shared<CAdminAnswers>()};
    VokctlOptions options;
    options.nUser = kNobody;
    const VokctlResult result = Vokctl({"status"}, options);
    if (result.nExit >= 126) GTEST_SKIP() << "this world has no other user";
    EXPECT_EQ(result.nExit, 4);
    EXPECT_EQ(CountLines(result.strErr), 1);
    EXPECT_THAT(result.strErr, HasSubstr("root"));

    const VokctlResult close = Vokctl({"close", "X", "1", "2"}, options);
    EXPECT_EQ(close.nExit, 4);
    EXPECT_THAT(close.strErr, AllOf(HasSubstr("cannot be looked up"), HasSubstr("--force")));
    EXPECT_EQ(Vokctl({"close", "X", "1", "2", "--force"}, options).nExit, 3) << "it asks a broker";
}

}  // namespace
}  // namespace vok::test
