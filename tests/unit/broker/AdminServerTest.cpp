#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "broker/AdminServer.h"
#include "platform/CUniqueFd.h"
#include "platform/Descriptors.h"
#include "platform/Limits.h"
#include "platform/ScopeGuard.h"
#include "platform/TextFile.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

namespace fs = std::filesystem;
using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// The calling thread's file mode mask, as the kernel tells it: "0022".
std::string Umask() {
    const std::string strStatus = ReadTextFile("/proc/thread-self/status", 0x10000).value_or("");
    const std::size_t nAt = strStatus.find("\nUmask:\t");
    return nAt == std::string::npos ? "" : strStatus.substr(nAt + 8, 4);
}

sockaddr_un Address(const std::string& strPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// Somebody else's socket at a path.
class COtherSocket {
public:
    /// With a negative backlog it does not listen: nobody serves there.
    COtherSocket(const std::string& strPath, int nBacklog, int nType = SOCK_STREAM)
        : m_Fd(::socket(AF_UNIX, nType | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = Address(strPath);
        EXPECT_EQ(::bind(m_Fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        if (nBacklog < 0) return;
        EXPECT_EQ(::listen(m_Fd.Get(), nBacklog), 0);
    }

private:
    const CUniqueFd m_Fd;
};

/// A client that stays connected.
class CLastingClient {
public:
    explicit CLastingClient(const std::string& strPath)
        : m_pSocket(std::make_shared<apache::thrift::transport::TSocket>(strPath)) {
        m_pSocket->setRecvTimeout(30'000);
        m_pSocket->open();
    }

    admin::VokBrokerAdminClient& Rpc() { return m_Client; }
    void SendRaw(const std::string& strBytes) {
        m_pSocket->write(reinterpret_cast<const uint8_t*>(strBytes.data()),
                         static_cast<uint32_t>(strBytes.size()));
    }
    /// True once the server has closed the connection.
    bool IsClosedByServer() {
        uint8_t nByte = 0;
        return m_pSocket->read(&nByte, 1) == 0;
    }

private:
    const std::shared_ptr<apache::thrift::transport::TSocket> m_pSocket;
    admin::VokBrokerAdminClient m_Client{
        std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
            std::make_shared<apache::thrift::transport::TBufferedTransport>(m_pSocket))};
};

class AdminServerTest : public BrokerTest {
protected:
    ~AdminServerTest() override { Stop(); }

    void Start() {
        m_Thread = std::thread{[this] { m_Server.Serve(); }};
        m_Server.AwaitStart();
    }
    void Stop() {
        m_Server.Stop();
        AwaitEnd();
    }
    void AwaitEnd() {
        if (m_Thread.joinable()) m_Thread.join();
    }

    /// As the server would.
    void MakeFolder() {
        fs::create_directory(m_strFolder);
        fs::permissions(m_strFolder, fs::perms(0755));
    }

    std::vector<std::string> Lines() const { return LinesOf(m_Log, "CAdminServer::Serve"); }
    std::string Refusal(const std::string& strReason) const {
        return "0 No admin service on " + m_strPath + ": " + strReason;
    }

    const CTemporaryFolder m_Folder;
    const std::string m_strFolder = m_Folder.Path("run");
    const std::string m_strPath = m_Folder.Path("run/admin.sock");
    const CAdminClient m_Client{m_strPath};
    CAdminServer m_Server{m_Broker, m_strPath};
    std::thread m_Thread;
};

// ---- The place ----

struct UmaskCase {
    const char* szName;
    mode_t nUmask;
    const char* szUmask;
};
void PrintTo(const UmaskCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class AdminServerUmaskTest : public AdminServerTest,
                             public ::testing::WithParamInterface<UmaskCase> {};

TEST_P(AdminServerUmaskTest, DoesNotMatterAndStays) {
    const mode_t nFormer = ::umask(GetParam().nUmask);
    const ScopeGuard restore{[&] { (void)::umask(nFormer); }};

    Start();

    EXPECT_EQ(fs::status(m_strFolder).permissions(), fs::perms(0755));
    EXPECT_EQ(fs::status(m_strPath).permissions(), fs::perms(0600));
    EXPECT_EQ(Umask(), GetParam().szUmask);
    EXPECT_THAT(Lines(), IsEmpty());
    Stop();
    EXPECT_EQ(Umask(), GetParam().szUmask);
}

TEST_P(AdminServerUmaskTest, IsThatOfTheThreadsOfClients) {
    const mode_t nFormer = ::umask(GetParam().nUmask);
    const ScopeGuard restore{[&] { (void)::umask(nFormer); }};
    Start();
    std::string strUmask;
    m_Log.Once("PingTest_For_Webkit Begins", [&] { strUmask = Umask(); });

    m_Client.SweepZombies();

    EXPECT_EQ(strUmask, GetParam().szUmask);
}

INSTANTIATE_TEST_SUITE_P(Table, AdminServerUmaskTest,
                         ::testing::Values(UmaskCase{"NothingMasked", 0, "0000"},
                                           UmaskCase{"Usual", 022, "0022"},
                                           UmaskCase{"Private", 077, "0077"},
                                           UmaskCase{"EverythingMasked", 0777, "0777"}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(AdminServerTest, FolderThatIsThereStaysAsItIs) {
    ASSERT_EQ(::mkdir(m_strFolder.c_str(), 0700), 0);

    Start();

    EXPECT_EQ(fs::status(m_strFolder).permissions(), fs::perms(0700));
    EXPECT_EQ(m_Client.GetState().version, "5.100");
}

TEST_F(AdminServerTest, StopRemovesTheFileAndKeepsTheFolder) {
    Start();
    ASSERT_TRUE(fs::exists(m_strPath));

    Stop();

    EXPECT_FALSE(fs::exists(m_strPath));
    EXPECT_TRUE(fs::is_directory(m_strFolder));
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_THROW(m_Client.GetState(), apache::thrift::transport::TTransportException);
}

TEST_F(AdminServerTest, SocketThatNobodyServesIsReplaced) {
    MakeFolder();
    { const COtherSocket other{m_strPath, 5}; }
    ASSERT_TRUE(fs::is_socket(m_strPath));

    Start();

    EXPECT_EQ(m_Client.GetState().version, "5.100");
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(AdminServerTest, SocketThatIsBoundButNotServedIsReplaced) {
    MakeFolder();
    const COtherSocket other{m_strPath, -1};

    Start();

    EXPECT_EQ(m_Client.GetState().version, "5.100");
}

TEST_F(AdminServerTest, SocketThatIsServedStays) {
    MakeFolder();
    const COtherSocket other{m_strPath, 5};

    Start();
    AwaitEnd();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("another broker serves there: Address already in "
                                             "use")));
    Stop();
    EXPECT_TRUE(fs::is_socket(m_strPath));
}

TEST_F(AdminServerTest, SocketWhoseServerIsBusyStays) {
    MakeFolder();
    const COtherSocket other{m_strPath, 0};
    const sockaddr_un address = Address(m_strPath);
    std::vector<CUniqueFd> waiting;  // as many as the backlog takes
    do {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    } while (::connect(waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address),
                       sizeof address) == 0);
    ASSERT_EQ(errno, EAGAIN);

    Start();
    AwaitEnd();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("another broker serves there: Address already in "
                                             "use")));
    EXPECT_TRUE(fs::is_socket(m_strPath));
}

TEST_F(AdminServerTest, SecondServerLeavesTheFirstAlone) {
    Start();
    CAdminServer second{m_Broker, m_strPath};

    std::thread{[&] { second.Serve(); }}.join();
    second.Stop();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("another broker serves there: Address already in "
                                             "use")));
    EXPECT_EQ(m_Client.GetState().version, "5.100");
}

TEST_F(AdminServerTest, FileThatIsNoSocketStays) {
    MakeFolder();
    std::ofstream(m_strPath) << "text";

    Start();
    AwaitEnd();
    Stop();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("what is there: Socket operation on non-socket")));
    EXPECT_EQ(ReadTextFile(m_strPath.c_str(), 10), "text");
}

TEST_F(AdminServerTest, FolderInItsPlaceStays) {
    MakeFolder();
    fs::create_directory(m_strPath);

    Start();
    AwaitEnd();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("what is there: Socket operation on non-socket")));
    EXPECT_TRUE(fs::is_directory(m_strPath));
}

TEST_F(AdminServerTest, LinkInItsPlaceIsNotFollowed) {
    MakeFolder();
    const std::string strTarget = m_Folder.Path("target");
    { const COtherSocket other{strTarget, 5}; }
    fs::create_symlink(strTarget, m_strPath);

    Start();
    AwaitEnd();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("what is there: Socket operation on non-socket")));
    EXPECT_TRUE(fs::is_symlink(m_strPath));
    EXPECT_TRUE(fs::is_socket(strTarget));
}

TEST_F(AdminServerTest, SocketOfAnotherKindStays) {
    MakeFolder();
    const COtherSocket other{m_strPath, -1, SOCK_DGRAM};

    Start();
    AwaitEnd();

    EXPECT_THAT(Lines(), ElementsAre(Refusal("what is there: Protocol wrong type for socket")));
    EXPECT_TRUE(fs::is_socket(m_strPath));
}

TEST_F(AdminServerTest, FolderThatOthersMayWriteToIsRefused) {
    MakeFolder();
    for (const int nMode : {0775, 0757, 01777}) {
        fs::permissions(m_strFolder, fs::perms(nMode));
        CAdminServer server{m_Broker, m_strPath};
        std::thread{[&] { server.Serve(); }}.join();
    }

    const std::string strLine =
        Refusal(m_strFolder + " is not ours alone: Operation not permitted");
    EXPECT_THAT(Lines(), ElementsAre(strLine, strLine, strLine));
    EXPECT_TRUE(fs::is_empty(m_strFolder));
}

TEST_F(AdminServerTest, LinkInPlaceOfTheFolderIsRefused) {
    fs::create_directory(m_Folder.Path("target"));
    fs::create_symlink(m_Folder.Path("target"), m_strFolder);

    Start();
    AwaitEnd();

    EXPECT_THAT(Lines(),
                ElementsAre(Refusal(m_strFolder + " is not ours alone: Operation not permitted")));
    EXPECT_TRUE(fs::is_empty(m_Folder.Path("target")));
}

TEST_F(AdminServerTest, FolderThatCannotBeMadeIsLogged) {
    const std::string strFolder = m_Folder.Path("none/run");
    CAdminServer server{m_Broker, strFolder + "/admin.sock"};

    std::thread{[&] { server.Serve(); }}.join();

    EXPECT_THAT(Lines(), ElementsAre("0 No admin service on " + strFolder +
                                     "/admin.sock: " + strFolder + ": No such file or directory"));
}

TEST_F(AdminServerTest, PathThatIsTooLongIsLogged) {
    const std::string strPath = m_Folder.Path(std::string(sizeof sockaddr_un::sun_path, 'x'));
    CAdminServer server{m_Broker, strPath};

    std::thread{[&] { server.Serve(); }}.join();
    server.AwaitStart();
    server.Stop();

    EXPECT_THAT(Lines(), ElementsAre(StartsWith("0 No admin service on " + strPath + ": ")));
    EXPECT_TRUE(fs::is_empty(m_Folder.Path()));
}

// ---- The end ----

TEST_F(AdminServerTest, StopBeforeTheStartIsKept) {
    m_Server.Stop();

    Start();
    AwaitEnd();

    EXPECT_FALSE(fs::exists(m_strPath));
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(AdminServerTest, StopMayComeAnyNumberOfTimes) {
    m_Server.Stop();
    Start();
    m_Server.Stop();
    Stop();
    m_Server.Stop();

    EXPECT_FALSE(fs::exists(m_strPath));
}

TEST_F(AdminServerTest, StopMayComeAtAnyMomentOfTheStart) {
    for (int i = 0; i < 100; ++i) {
        CAdminServer server{m_Broker, m_strPath};
        std::thread serving{[&] { server.Serve(); }};
        // Looked at, not slept through: the moments lie closer together than any sleep is exact.
        const auto moment = std::chrono::steady_clock::now() + i * std::chrono::microseconds(20);
        while (std::chrono::steady_clock::now() < moment) {
        }
        server.Stop();
        serving.join();
        ASSERT_FALSE(fs::exists(m_strPath));
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(AdminServerTest, StopDoesNotRemoveTheFileOfTheNextOne) {
    Start();
    Stop();
    CAdminServer next{m_Broker, m_strPath};
    std::thread serving{[&] { next.Serve(); }};
    const ScopeGuard end{[&] {
        next.Stop();
        serving.join();
    }};
    next.AwaitStart();

    m_Server.Stop();

    EXPECT_EQ(m_Client.GetState().version, "5.100");
}

TEST_F(AdminServerTest, IdleClientDoesNotKeepItFromEnding) {
    Start();
    CLastingClient silent{m_strPath};
    CLastingClient idle{m_strPath};
    admin::BrokerState state;
    idle.Rpc().GetState(state);
    CLastingClient half{m_strPath};
    half.SendRaw(std::string("\x80\x01", 2));

    Stop();

    EXPECT_TRUE(idle.IsClosedByServer());
}

// ---- The service ----

TEST_F(AdminServerTest, SetDebugLevelSetsTheLogs) {
    Start();
    for (const int nLevel : {3, 0, 65535}) {
        m_Client.SetDebugLevel(nLevel);
        EXPECT_EQ(CVOKDebug::GetLogLevel(), nLevel);
    }
}

TEST_F(AdminServerTest, SetDebugLevelRefusesWhatIsNoLevel) {
    Start();
    for (const int nLevel :
         {-1, 65536, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        try {
            m_Client.SetDebugLevel(nLevel);
            ADD_FAILURE() << nLevel;
        } catch (const admin::BadRequest& e) {
            EXPECT_EQ(e.message, "The debug level is a number from 0 to 65535.");
        }
    }
    EXPECT_EQ(CVOKDebug::GetLogLevel(), LEVEL_DETAIL);
}

TEST_F(AdminServerTest, EnablePingSwitches) {
    Start();
    m_Client.EnablePing(true);
    EXPECT_TRUE(BrokerProbe::IsPingTestEnabled(m_Broker));
    m_Client.EnablePing(false);
    EXPECT_FALSE(BrokerProbe::IsPingTestEnabled(m_Broker));
}

TEST_F(AdminServerTest, SweepZombiesTellsHowManyItClosed) {
    CFakeEmp emp;
    const CRefusedPort nobody;
    const CRefusedPort nobodyElse;
    AddKnown("Weather", "0001", EMP_OPENED);
    m_Fake.AddPreinstalled("Weather");
    ConnectionDB().AddConnectionData({"Weather", emp.PortText()}, nobody.PortText());
    ConnectionDB().AddConnectionData({"Weather", emp.PortText()}, nobodyElse.PortText());
    Start();

    EXPECT_EQ(m_Client.SweepZombies(), 2);
    EXPECT_EQ(m_Client.SweepZombies(), 0);
}

TEST_F(AdminServerTest, CloseAllTellsHowManyItClosed) {
    CFakeEmp emp;
    emp.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
    AddKnown("Weather", "0001", EMP_OPENED);
    m_Fake.AddPreinstalled("Weather");
    ConnectionDB().AddConnectionData({"Weather", emp.PortText()}, "40001");
    Start();

    EXPECT_EQ(m_Client.CloseAll("app", "widget"), 1);

    ASSERT_EQ(emp.Calls().size(), 2u);
    EXPECT_THAT(emp.Calls()[0].arguments,
                ElementsAre("40001", "CompareAppID", "app", "widget", "", ""));
    EXPECT_EQ(emp.Calls()[1].strMethod, "Close");
    EXPECT_EQ(m_Client.CloseAll("app"), 0);
}

TEST_F(AdminServerTest, CloseAllRefusesNobodysConnections) {
    Start();
    try {
        m_Client.CloseAll("", "widget");
        ADD_FAILURE();
    } catch (const admin::BadRequest& e) {
        EXPECT_EQ(e.message, "Whose connections? The application id is empty.");
    }
    EXPECT_THAT(LinesOf(m_Log, "CloseAllEmpWithAppID"), IsEmpty());
}

TEST_F(AdminServerTest, GetStateTellsEverything) {
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpPid("Weather", 777);
    m_Fake.AddMounted("Weather");
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");
    ConnectionDB().IncreasePendingCount({"Weather", "40123"});
    BrokerProbe::SetMountCount(m_Broker, "Weather", 1);
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Radio"});
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Clock"});
    const auto spTicket = boost::shared_ptr<Ticket>(new Ticket("-1"));
    spTicket->m_bAwaitsReport = true;
    BrokerProbe::SetTicket(m_Broker, spTicket->GetSerial(), spTicket);
    ConnectionInfo refused;
    m_Broker.OpenEmp(refused, "40001", "Nowhere", "1.0", "app");
    m_Broker.EnablePingTest(true);
    Start();

    const admin::BrokerState state = m_Client.GetState();

    admin::BrokerState expected;
    m_Broker.GetState(expected);
    EXPECT_LE(state.uptimeMs, expected.uptimeMs);
    expected.uptimeMs = state.uptimeMs;
    ASSERT_EQ(state.connections.size(), 1u);
    EXPECT_LE(state.connections[0].clientAgesMs, expected.connections[0].clientAgesMs);
    expected.connections[0].clientAgesMs = state.connections[0].clientAgesMs;
    EXPECT_EQ(state, expected);
    EXPECT_EQ(state.emps.size(), 1u);
    EXPECT_EQ(state.counters.opens, 1);
}

TEST_F(AdminServerTest, WhereTellsEverything) {
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, 4711});
    m_Fake.processes.SetProgram(777, "/opt/down/emps/empWeather/empWeather");
    m_Fake.AddMounted("Weather");
    m_Fake.mounter.SetMountedOn("/opt/down/emps/empWeather", {"/dev/loop3", "squashfs"});
    ConnectionDB().AddConnectionData({"Weather", "40123"}, "40001");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 1);
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Weather"});
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Weather"});
    Start();

    const admin::Whereabouts whereabouts = m_Client.Where("Weather");

    admin::Whereabouts expected;
    m_Broker.GetWhereabouts("Weather", expected);
    ASSERT_EQ(whereabouts.servers.size(), 1u);
    EXPECT_LE(whereabouts.servers[0].clientAgesMs, expected.servers[0].clientAgesMs);
    expected.servers[0].clientAgesMs = whereabouts.servers[0].clientAgesMs;
    EXPECT_EQ(whereabouts, expected);
    EXPECT_EQ(whereabouts.servers[0].pid, 777);
    EXPECT_EQ(whereabouts.fileSystem, "squashfs");
}

TEST_F(AdminServerTest, WhereRefusesNoName) {
    Start();

    try {
        (void)m_Client.Where("");
        FAIL() << "it was accepted";
    } catch (const admin::BadRequest& e) {
        EXPECT_EQ(e.message, "Where is what? The EMP's name is empty.");
    }
}

TEST_F(AdminServerTest, GetOpensTellsTheNewestFirst) {
    Start();
    EXPECT_THAT(m_Client.GetOpens(), IsEmpty());
    for (const char* szEmp : {"Nowhere", "Broker"}) {
        ConnectionInfo refused;
        m_Broker.OpenEmp(refused, "40001", szEmp, "1.0", "app");
    }

    const std::vector<admin::OpenTimes> opens = m_Client.GetOpens();

    std::vector<admin::OpenTimes> expected;
    m_Broker.GetOpens(expected);
    ASSERT_EQ(opens.size(), 2u);
    for (std::size_t i = 0; i < opens.size(); ++i) {
        EXPECT_LE(opens[i].agoMs, expected[i].agoMs);
        expected[i].agoMs = opens[i].agoMs;
    }
    EXPECT_EQ(opens, expected);
    EXPECT_EQ(opens[0].empName, "Broker");
}

TEST_F(AdminServerTest, ConnectionServesManyCallsAlsoAfterABadOne) {
    Start();
    CLastingClient client{m_strPath};

    EXPECT_THROW(client.Rpc().SetDebugLevel(-1), admin::BadRequest);
    client.Rpc().EnablePing(true);
    admin::BrokerState state;
    client.Rpc().GetState(state);

    EXPECT_TRUE(state.pingEnabled);
}

TEST_F(AdminServerTest, GarbageEndsItsConnectionOnly) {
    Start();
    CLastingClient garbage{m_strPath};

    garbage.SendRaw(std::string(64, '\xff'));

    EXPECT_TRUE(garbage.IsClosedByServer());
    EXPECT_EQ(m_Client.GetState().version, "5.100");
}

TEST_F(AdminServerTest, ClientBeyondTheLimitIsServedWhenOneLeaves) {
    Start();
    std::vector<std::unique_ptr<CLastingClient>> clients;
    for (int i = 0; i < kMaxAdminClients; ++i) {
        clients.push_back(std::make_unique<CLastingClient>(m_strPath));
        clients.back()->Rpc().EnablePing(true);
    }
    auto version = std::async(std::launch::async, [&] { return m_Client.GetState().version; });

    clients.pop_back();

    EXPECT_EQ(version.get(), "5.100");
}

TEST_F(AdminServerTest, NoDescriptorIsInherited) {
    const auto before = InheritableDescriptors();
    Start();
    CLastingClient client{m_strPath};
    client.Rpc().EnablePing(false);
    std::set<int> setNew;
    for (const int nFd : InheritableDescriptors()) {
        if (before.count(nFd) == 0) setNew.insert(nFd);
    }

    EXPECT_LE(setNew.size(), 1u);  // the test's own client
}

}  // namespace
}  // namespace vok
