// What ends connections on the clients' behalf: the sweep for dead clients, and the end of an
// application.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CCallbackServers.h"
#include "tests/support/CFakeClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/HostedEmp.h"

namespace vok::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

constexpr char kFolder[] = "/tmp/clients";
constexpr int kFirstPort = 20000;

const ClientEvent kPing{99, "Broker", "Ping"};

std::string Address(int nClient, bool bPath) {
    return bPath ? kFolder + ("/" + std::to_string(nClient)) : std::to_string(kFirstPort + nClient);
}

void MakeClientFolder() {
    std::filesystem::remove_all(kFolder);
    std::filesystem::create_directories(kFolder);
}

/// Clients in a process of their own, which can be killed. To be made before any thread.
class CClientProcess {
public:
    explicit CClientProcess(const std::vector<std::string>& addresses) {
        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        m_nPid = ::fork();
        if (m_nPid == 0) Serve(addresses, pipe[1]);
        ::close(pipe[1]);
        char cReady = 0;
        const ssize_t nRead = ::read(pipe[0], &cReady, 1);
        ::close(pipe[0]);
        if (m_nPid < 0 || nRead != 1) throw std::runtime_error("no clients");
    }
    ~CClientProcess() { Kill(); }
    CClientProcess(const CClientProcess&) = delete;
    CClientProcess& operator=(const CClientProcess&) = delete;

    void Kill() {
        if (m_nPid <= 0) return;
        (void)::kill(m_nPid, SIGKILL);
        (void)::waitpid(m_nPid, nullptr, 0);
        m_nPid = 0;
    }

private:
    [[noreturn]] static void Serve(const std::vector<std::string>& addresses, int nReady) {
        CCallbackServers servers;
        for (const std::string& strAddress : addresses) servers.Serve(strAddress);
        (void)!::write(nReady, "r", 1);
        for (;;) ::pause();
    }

    pid_t m_nPid = -1;
};

/// Who is connected to what, as the broker tells it: (EMP, its port) to clients.
using Connections = std::map<std::pair<std::string, std::string>, std::set<std::string>>;

Connections AskConnections() {
    Connections connections;
    for (const admin::ConnectionState& state : CAdminClient().GetState().connections)
        connections[{state.empName, state.empPort}].insert(state.clientPorts.begin(),
                                                           state.clientPorts.end());
    return connections;
}

std::vector<std::string> Words(const std::string& strText) {
    std::istringstream text{strText};
    return {std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
}

class Sweep : public OpenCloseTest {
protected:
    void SetUp() override {
        MakeClientFolder();
        OpenCloseTest::SetUp();
    }

    static ConnectionInfo OpenAndGreet(const std::string& strEmp, const std::string& strClient) {
        const ConnectionInfo info = OpenEmp(strEmp, strClient);
        EXPECT_THAT(info, IsConnected());
        EXPECT_GT(Greet(info), 0);
        return info;
    }
};

// ---- Very many clients --------------------------------------------------------------------------

constexpr int kClients = 1000;
constexpr int kDead = 300;
constexpr int kKilled = 100;  // of the dead: their process is killed
constexpr int kEmps = 50;
constexpr int kClientsOfEmp = kClients / kEmps;

struct CrowdClient {
    std::string strAddress;
    std::string strEmp;
    bool bDead = false;
    bool bKilled = false;
};

/// Every second client is at a path. One EMP loses all of its clients, the others some.
std::vector<CrowdClient> MakeCrowd() {
    std::vector<CrowdClient> crowd(kClients);
    for (int i = 0; i < kClients; ++i) {
        CrowdClient& client = crowd[static_cast<std::size_t>(i)];
        client.strAddress = Address(i, i % 2 == 1);
        client.strEmp = "Crowd" + std::to_string(i / kClientsOfEmp);
    }
    std::vector<std::size_t> order(kClients);
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin() + kClientsOfEmp, order.end(), std::mt19937(7));
    for (std::size_t i = 0; i < kDead; ++i) {
        crowd[order[i]].bDead = true;
        crowd[order[i]].bKilled = i % (kDead / kKilled) == 0;
    }
    return crowd;
}

class Crowd : public ::testing::Test {
protected:
    void SetUp() override {
        MakeClientFolder();
        m_pKilled = std::make_unique<CClientProcess>(Addresses(true));
        m_pOthers = std::make_unique<CCallbackServers>();
        for (const std::string& strAddress : Addresses(false)) m_pOthers->Serve(strAddress);

        CDaemon::Options options;
        options.nLogLevel = 0;
        ASSERT_TRUE(m_Daemon.Start(options)) << m_Daemon.Log();
        CBrokerClient broker;
        for (int i = 0; i < kEmps; ++i) CEmpInstaller::Preinstall("Crowd" + std::to_string(i));
        for (const CrowdClient& client : m_Crowd) {
            const ConnectionInfo info =
                broker.Open(client.strAddress, client.strEmp, kVersion, kApp);
            ASSERT_THAT(info, IsConnected()) << client.strEmp << '\n' << m_Daemon.Log();
            ASSERT_GT(Greet(info), 0);
            m_All[{client.strEmp, info.empPort}].insert(client.strAddress);
            std::set<std::string>& living = m_Living[{client.strEmp, info.empPort}];
            if (!client.bDead) living.insert(client.strAddress);
        }
    }

    void KillTheDead() {
        m_pKilled->Kill();
        for (const CrowdClient& client : m_Crowd)
            if (client.bDead && !client.bKilled) m_pOthers->Close(client.strAddress);
    }

    std::vector<std::string> Addresses(bool bKilled) const {
        std::vector<std::string> addresses;
        for (const CrowdClient& client : m_Crowd)
            if (client.bKilled == bKilled) addresses.push_back(client.strAddress);
        return addresses;
    }

    const std::vector<CrowdClient> m_Crowd = MakeCrowd();
    Connections m_All;
    Connections m_Living;
    std::unique_ptr<CClientProcess> m_pKilled;
    std::unique_ptr<CCallbackServers> m_pOthers;
    CDaemon m_Daemon;
};

TEST_F(Crowd, SweepClosesTheDeadAndNobodyElse) {
    ASSERT_EQ(m_All.size(), static_cast<std::size_t>(kEmps));
    ASSERT_EQ(AskConnections(), m_All);
    KillTheDead();

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(CAdminClient().SweepZombies(), kDead);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));

    EXPECT_EQ(AskConnections(), m_Living);
    const admin::Counters counters = CAdminClient().GetState().counters;
    EXPECT_EQ(counters.closes, kDead);
    EXPECT_EQ(counters.sweeps, 1);
    // The EMPs were told of each who is dead, and of nobody else.
    for (const auto& [key, setClient] : m_Living)
        EXPECT_THAT(Words(Ask(key.second, "Clients")), UnorderedElementsAreArray(setClient))
            << key.first;
    for (const CrowdClient& client : m_Crowd) {
        if (client.bDead) continue;
        EXPECT_THAT(m_pOthers->Events(client.strAddress), ElementsAre(kPing)) << client.strAddress;
    }

    EXPECT_EQ(CAdminClient().SweepZombies(), 0);
    EXPECT_EQ(AskConnections(), m_Living);
}

// ---- The sweep's way past trouble ---------------------------------------------------------------

TEST_F(Sweep, LeavesWhoAnswersAlone) {
    CEmpInstaller::Preinstall("Radio");
    const CFakeClient port;
    const CFakeClient path{Address(1, true)};
    CFakeClient failing;
    failing.FailCalls("not now");
    const ConnectionInfo info = OpenAndGreet("Radio", port.Address());
    OpenAndGreet("Radio", path.Address());
    OpenAndGreet("Radio", failing.Address());

    // A client that answers with an error is as good as none.
    EXPECT_EQ(CAdminClient().SweepZombies(), 1);

    EXPECT_THAT(Words(Ask(info.empPort, "Clients")),
                UnorderedElementsAre(port.Address(), path.Address()));
    EXPECT_THAT(port.Events(), ElementsAre(kPing));
    EXPECT_THAT(path.Events(), ElementsAre(kPing));
    ExpectLine(4, "PingTest_For_Webkit", "PingTest_For_Webkit Begins");
    ExpectLine(4, "PingTest_For_Webkit", "End");
}

TEST_F(Sweep, DeadEmpDoesNotStopIt) {
    const std::string strDead = Address(0, false);
    std::map<std::string, ConnectionInfo> infos;
    for (const char* szEmp : {"Alpha", "Beta", "Gamma"}) {
        CEmpInstaller::Preinstall(szEmp);
        infos[szEmp] = OpenAndGreet(szEmp, strDead);
    }
    const std::vector<int> pids = ProcessesOf(CEmpInstaller::ProgramPath("Beta"));
    ASSERT_EQ(pids.size(), 1U);
    ASSERT_EQ(::kill(pids.front(), SIGKILL), 0);
    ASSERT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Beta")));

    EXPECT_EQ(CAdminClient().SweepZombies(), 2);

    ExpectLine(0, "PingTest_For_Webkit",
               "=> Close call to Emp failed. ID[Beta] EmpPort[" + infos["Beta"].empPort +
                   "] ClientPort[" + strDead + "]");
    for (const char* szEmp : {"Alpha", "Gamma"})
        EXPECT_EQ(Ask(infos[szEmp].empPort, "Clients"), "") << szEmp;
    for (const auto& [key, setClient] : AskConnections())
        EXPECT_THAT(setClient, IsEmpty()) << key.first;
    EXPECT_EQ(CAdminClient().GetState().counters.closes, 3);
}

TEST_F(Sweep, OpensAndClosesGoOnMeanwhile) {
    CEmpInstaller::Preinstall("Busy");
    CEmpInstaller::Preinstall("Other");
    CFakeClient slow;
    std::promise<void> reached;
    std::promise<void> release;
    slow.OnEvent([&, released = release.get_future().share()](const ClientEvent&) {
        reached.set_value();
        released.wait();
    });
    const std::string strDead = Address(1, false);
    const ConnectionInfo busy = OpenAndGreet("Busy", slow.Address());
    auto swept = std::async(std::launch::async, [] { return CAdminClient().SweepZombies(); });
    reached.get_future().wait();

    const ConnectionInfo other = OpenAndGreet("Other", strDead);
    const ConnectionInfo late = OpenAndGreet("Busy", strDead);
    EXPECT_TRUE(CloseEmp(other));
    EXPECT_EQ(Ask(other.empPort, "Clients"), "");
    release.set_value();

    // It looks at who was connected when it began.
    EXPECT_EQ(swept.get(), 0);
    EXPECT_THAT(Words(Ask(busy.empPort, "Clients")), UnorderedElementsAre(slow.Address(), strDead));
    slow.OnEvent({});
    EXPECT_EQ(CAdminClient().SweepZombies(), 1);
    EXPECT_EQ(Ask(late.empPort, "Clients"), slow.Address());
}

TEST_F(Sweep, StopsThePlayerOfADeadClientBeforeItCloses) {
    const std::string strDead = Address(0, false);
    const CFakeEmp upper;
    const CFakeEmp lower;
    PreinstallHosted("Player", upper);
    PreinstallHosted("player", lower);
    ASSERT_THAT(OpenEmp("Player", strDead), IsConnected());
    ASSERT_THAT(OpenEmp("player", strDead), IsConnected());

    EXPECT_EQ(CAdminClient().SweepZombies(), 2);

    EXPECT_THAT(upper.Calls(), ElementsAre(EmpCall{"Execute", {strDead, "Stop", "", "", "", ""}},
                                           EmpCall{"Close", {strDead, "0"}}));
    EXPECT_THAT(lower.Calls(), ElementsAre(EmpCall{"Close", {strDead, "0"}}));
}

// ---- The end of an application ------------------------------------------------------------------

/// One client of the application at two EMPs; a third EMP does not know it.
class CloseAll : public Sweep {
protected:
    void SetUp() override {
        Sweep::SetUp();
        m_One.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
        m_Two.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
        PreinstallHosted("One", m_One);
        PreinstallHosted("Two", m_Two);
        PreinstallHosted("Foreign", m_Foreign);
        for (const char* szEmp : {"One", "Two", "Foreign"})
            ASSERT_THAT(OpenEmp(szEmp), IsConnected());
    }

    void ExpectClosed() {
        const EmpCall asked{"Execute", {kClient, "CompareAppID", "tv.app", "widget", "", ""}};
        const EmpCall closed{"Close", {kClient, "0"}};
        EXPECT_THAT(m_One.Calls(), ElementsAre(asked, closed));
        EXPECT_THAT(m_Two.Calls(), ElementsAre(asked, closed));
        EXPECT_THAT(m_Foreign.Calls(), ElementsAre(asked));
        EXPECT_EQ(AskConnections(), (Connections{{{"One", m_One.PortText()}, {}},
                                                 {{"Two", m_Two.PortText()}, {}},
                                                 {{"Foreign", m_Foreign.PortText()}, {kClient}}}));
        ExpectLine(4, "CloseAllEmpWithAppID", "appId_[tv.app] widgetID_[widget]");
        ExpectLine(4, "CloseAllEmpWithAppID", "End with retCnt:[2]");
    }

    CFakeEmp m_One;
    CFakeEmp m_Two;
    CFakeEmp m_Foreign;
};

TEST_F(CloseAll, ByTheApplicationsCommand) {
    EXPECT_EQ(CBrokerClient().Execute(kClient, "CloseAllEmpWithAppID ", "tv.app", "widget"), "");
    ExpectClosed();
}

TEST_F(CloseAll, ByTheClientsCommand) {
    EXPECT_EQ(CBrokerClient().Execute(kClient, "__CLIENT_CMD_PREPARE_TO_CLOSE", "tv.app", "widget"),
              "");
    ExpectClosed();
}

TEST_F(CloseAll, ByTheAdminService) {
    EXPECT_EQ(CAdminClient().CloseAll("tv.app", "widget"), 2);
    ExpectClosed();
}

TEST_F(CloseAll, CommandWithoutItsBlankIsUnknown) {
    EXPECT_EQ(CBrokerClient().Execute(kClient, "CloseAllEmpWithAppID", "tv.app", "widget"), "");

    EXPECT_THAT(m_One.Calls(), IsEmpty());
    ExpectLine(0, "Execute", "there is no command for broker execution[CloseAllEmpWithAppID]");
}

TEST_F(CloseAll, NeedsAnApplication) {
    CBrokerClient().Execute(kClient, "CloseAllEmpWithAppID ", "", "widget");
    CBrokerClient().Execute(kClient, "__CLIENT_CMD_PREPARE_TO_CLOSE", "", "widget");
    EXPECT_THROW(CAdminClient().CloseAll("", "widget"), admin::BadRequest);

    EXPECT_THAT(m_One.Calls(), IsEmpty());
    EXPECT_EQ(
        m_Daemon.CountLines(0, "Execute", "Broker got wrong parametres from Port/Path:[40001]"), 2);
}

}  // namespace
}  // namespace vok::test
