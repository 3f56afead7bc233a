// The admin service of the real daemon: who reaches it, what it tells, and what it changes.
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>

#include "platform/MountInfo.h"
#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CFakeClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CPrivateWorld.h"
#include "tests/support/HostedEmp.h"

namespace vok::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uid_t kNobody = 65534;

sockaddr_un AdminAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string{paths::kAdminSocket}.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// What another user's attempt to connect ends with: an errno, 0 for a connection; -1 when it
/// cannot be tried.
int ConnectAs(uid_t nUser) {
    const sockaddr_un address = AdminAddress();
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        if (::setgid(nUser) != 0 || ::setuid(nUser) != 0) ::_exit(255);
        const int nFd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address);
        ::_exit(::connect(nFd, pAddress, sizeof address) == 0 ? 0 : errno);
    }
    int nStatus = 0;
    if (nPid < 0 || ::waitpid(nPid, &nStatus, 0) != nPid || !WIFEXITED(nStatus)) return -1;
    return WEXITSTATUS(nStatus) == 255 ? -1 : WEXITSTATUS(nStatus);
}

/// Somebody else's server at the admin service's path.
class CSquatter {
public:
    CSquatter() : m_Socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        fs::create_directories(paths::kAdminFolder);
        const sockaddr_un address = AdminAddress();
        const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(::bind(m_Socket.Get(), pAddress, sizeof address), 0);
        EXPECT_EQ(::listen(m_Socket.Get(), 8), 0);
    }

private:
    const CUniqueFd m_Socket;
};

ino_t InodeOf(const std::string& strPath) {
    struct stat info {};
    return ::lstat(strPath.c_str(), &info) == 0 ? info.st_ino : 0;
}

class Admin : public OpenCloseTest {
protected:
    const CAdminClient m_Admin;
};

/// The daemon starts when the test says so.
class AdminSocket : public Admin {
protected:
    void SetUp() override {}
    /// The next test shall find what a set has after its boot.
    void TearDown() override {
        (void)::umount2(paths::kAdminFolder, MNT_DETACH);
        fs::remove_all(paths::kAdminFolder);
    }

    void Start() { ASSERT_TRUE(m_Daemon.Start()) << m_Daemon.Log(); }

    /// Everybody else is served, and the log tells why the admin is not.
    void ExpectServesWithoutAdmin(const std::string& strReason) {
        EXPECT_EQ(CBrokerClient().Version(), "5.100");
        EXPECT_TRUE(CDaemon::Await([&] { return !m_Daemon.HasThread("VOK-B-Admin"); }));
        const std::string strBegin = "No admin service on /run/vok-broker/admin.sock: ";
        bool bFound = false;
        for (const DaemonLogLine& line : m_Daemon.LogLines())
            bFound = bFound || (line.nLevel == 0 && line.strFunction == "CAdminServer::Serve" &&
                                line.strMessage.rfind(strBegin, 0) == 0 &&
                                line.strMessage.find(strReason) != std::string::npos);
        EXPECT_TRUE(bFound) << m_Daemon.Log();
    }
};

// ---- The socket ---------------------------------------------------------------------------------

TEST_F(AdminSocket, IsThereWhenTheBrokerIsReadyAndGoesWithIt) {
    Start();
    EXPECT_EQ(m_Admin.GetState().version, "5.100");

    EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);

    EXPECT_FALSE(fs::exists(paths::kAdminSocket));
}

TEST_F(AdminSocket, IsRootsOnly) {
    const mode_t nUmask = ::umask(0);  // whatever the daemon inherits
    Start();
    ::umask(nUmask);
    struct stat folder {};
    struct stat socket {};
    ASSERT_EQ(::lstat(paths::kAdminFolder, &folder), 0);
    ASSERT_EQ(::lstat(paths::kAdminSocket, &socket), 0);

    EXPECT_EQ(folder.st_mode, S_IFDIR | 0755U);
    EXPECT_EQ(socket.st_mode, S_IFSOCK | 0600U);
    EXPECT_EQ(folder.st_uid, 0U);
    EXPECT_EQ(socket.st_uid, 0U);
    EXPECT_EQ(ConnectAs(0), 0);
    const int nError = ConnectAs(kNobody);
    if (nError == -1) GTEST_SKIP() << "this world has no other user";
    EXPECT_EQ(nError, EACCES);
}

TEST_F(AdminSocket, OfAKilledBrokerIsReplaced) {
    Start();
    m_Daemon.Kill();
    ASSERT_TRUE(fs::exists(paths::kAdminSocket));

    Start();

    EXPECT_EQ(m_Admin.GetState().version, "5.100");
}

TEST_F(AdminSocket, OfAnotherServerIsNotReplaced) {
    const CSquatter squatter;
    const ino_t nInode = InodeOf(paths::kAdminSocket);
    Start();

    ExpectServesWithoutAdmin("another broker serves there");
    EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);
    EXPECT_EQ(InodeOf(paths::kAdminSocket), nInode);
}

TEST_F(AdminSocket, CannotStandWhereAFileIs) {
    fs::create_directories(paths::kAdminFolder);
    MakeFile(paths::kAdminSocket);
    Start();

    ExpectServesWithoutAdmin("what is there");
    EXPECT_TRUE(fs::is_regular_file(paths::kAdminSocket));
}

TEST_F(AdminSocket, CannotStandInAFile) {
    MakeFile(paths::kAdminFolder);
    Start();

    ExpectServesWithoutAdmin("");
}

TEST_F(AdminSocket, CannotStandInAReadOnlyFolder) {
    fs::create_directories(paths::kAdminFolder);
    ASSERT_EQ(::mount("tmpfs", paths::kAdminFolder, "tmpfs", MS_RDONLY, nullptr), 0);
    Start();

    ExpectServesWithoutAdmin("");
}

TEST_F(AdminSocket, IsNotInheritedByEmps) {
    CEmpInstaller::Preinstall("Heir", CEmpBehaviour().Records("/tmp/heir"));
    Start();
    apache::thrift::transport::TSocket client{std::string(paths::kAdminSocket)};
    client.open();
    ASSERT_EQ(m_Admin.GetState().version, "5.100");

    ASSERT_THAT(OpenEmp("Heir"), IsConnected());

    EXPECT_THAT(ReadStartRecord("/tmp/heir").descriptors, ElementsAre(0, 1, 2));
}

TEST_F(AdminSocket, IdleClientDoesNotHoldUpAStop) {
    Start();
    apache::thrift::transport::TSocket client{std::string(paths::kAdminSocket)};
    client.open();
    ASSERT_EQ(m_Admin.GetState().version, "5.100");  // it has been accepted before this one

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_Daemon.Stop(), CDaemon::kOrderly);

    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_FALSE(fs::exists(paths::kAdminSocket));
}

// ---- What it tells ------------------------------------------------------------------------------

MATCHER_P5(IsEmp, strName, nStatus, strOption, nPid, nLocation, "") {
    *result_listener << arg.name << ' ' << arg.status << ' ' << arg.option << ' ' << arg.pid << ' '
                     << arg.location;
    return arg.name == strName && arg.status == nStatus && arg.option == strOption &&
           arg.pid == nPid && arg.location == nLocation;
}

MATCHER_P3(IsConnection, strEmp, strPort, clients, "") {
    *result_listener << arg.empName << ' ' << arg.empPort << ' ' << arg.clientPorts.size();
    return arg.empName == strEmp && arg.empPort == strPort && arg.pendingCount == 0 &&
           arg.clientPorts == std::vector<std::string>(clients) &&
           arg.clientAgesMs.size() == arg.clientPorts.size();
}

MATCHER_P5(Counts, nOpens, nReuses, nRefusals, nFailures, nCloses, "") {
    *result_listener << arg.opens << ' ' << arg.reuses << ' ' << arg.refusals << ' ' << arg.failures
                     << ' ' << arg.closes;
    return arg.opens == nOpens && arg.reuses == nReuses && arg.refusals == nRefusals &&
           arg.failures == nFailures && arg.closes == nCloses;
}

MATCHER_P3(IsMount, strImage, nCount, bMounted, "") {
    *result_listener << arg.image << ' ' << arg.count << ' ' << arg.mounted;
    return arg.image == strImage && arg.count == nCount && arg.mounted == bMounted;
}

TEST_F(Admin, FreshBrokerKnowsNothing) {
    const admin::BrokerState state = m_Admin.GetState();

    EXPECT_EQ(state.version, "5.100");
    EXPECT_EQ(state.pid, m_Daemon.Pid());
    EXPECT_GE(state.uptimeMs, 0);
    EXPECT_EQ(state.debugLevel, 4);
    EXPECT_FALSE(state.pingEnabled);
    EXPECT_THAT(state.emps, IsEmpty());
    EXPECT_THAT(state.connections, IsEmpty());
    EXPECT_THAT(state.mounts, IsEmpty());
    EXPECT_THAT(state.launchers, IsEmpty());
    EXPECT_THAT(state.groups, IsEmpty());
    EXPECT_THAT(state.waitingTickets, IsEmpty());
    EXPECT_THAT(state.counters, Counts(0, 0, 0, 0, 0));
    EXPECT_EQ(state.counters.sweeps, 0);
    EXPECT_GE(m_Admin.GetState().uptimeMs, state.uptimeMs);
}

TEST_F(Admin, StateFollowsAnOpen) {
    fs::remove("/tmp/report");
    CEmpInstaller::Preinstall("Late", CEmpBehaviour().ReportsWhenExists("/tmp/report"));
    auto opened = std::async(std::launch::async, [] { return OpenEmp("Late"); });
    ASSERT_TRUE(CDaemon::Await([&] { return m_Admin.GetState().waitingTickets.size() == 1; }));
    const admin::BrokerState waiting = m_Admin.GetState();
    MakeFile("/tmp/report");
    const ConnectionInfo info = opened.get();
    const admin::BrokerState open = m_Admin.GetState();

    ASSERT_THAT(info, IsConnected());
    EXPECT_THAT(waiting.emps, ElementsAre(IsEmp("Late", 1, "0000", 0, 2)));
    EXPECT_THAT(waiting.connections, IsEmpty());
    EXPECT_THAT(waiting.waitingTickets, ElementsAre(info.serial));
    EXPECT_THAT(waiting.counters, Counts(1, 0, 0, 0, 0));
    const std::vector<int> pids = ProcessesOf(CEmpInstaller::ProgramPath("Late"));
    ASSERT_THAT(pids, SizeIs(1));
    EXPECT_THAT(open.emps, ElementsAre(IsEmp("Late", 2, "0001", pids.front(), 2)));
    EXPECT_THAT(open.connections,
                ElementsAre(IsConnection("Late", info.empPort, std::vector<std::string>{kClient})));
    EXPECT_THAT(open.waitingTickets, IsEmpty());
    EXPECT_THAT(open.counters, Counts(1, 0, 0, 0, 0));
}

TEST_F(Admin, StateFollowsReusesClosesAndTheEnd) {
    CEmpInstaller::Preinstall("Shared");
    const ConnectionInfo first = OpenEmp("Shared");
    const ConnectionInfo second = OpenEmp("Shared", kOtherClient);
    Greet(first);
    Greet(second);
    EXPECT_THAT(m_Admin.GetState().connections,
                ElementsAre(IsConnection("Shared", first.empPort,
                                         std::vector<std::string>{kClient, kOtherClient})));
    EXPECT_THAT(m_Admin.GetState().counters, Counts(2, 1, 0, 0, 0));

    EXPECT_TRUE(CloseEmp(first));
    EXPECT_TRUE(CloseEmp(second));
    // The server runs until it reports its end.
    EXPECT_THAT(m_Admin.GetState().connections,
                ElementsAre(IsConnection("Shared", first.empPort, std::vector<std::string>{})));
    EXPECT_THAT(m_Admin.GetState().counters, Counts(2, 1, 0, 0, 2));

    Ask(first.empPort, "ReportStop", "0");
    EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Shared")));
    EXPECT_THAT(m_Admin.GetState().emps, IsEmpty());
    EXPECT_THAT(m_Admin.GetState().connections, IsEmpty());
}

TEST_F(Admin, CountsRefusalsAndFailures) {
    CEmpInstaller::Preinstall("Exclusive", CEmpBehaviour().Option("0003"));
    CEmpInstaller::Preinstall("Faulty", CEmpBehaviour().Option(""));
    ASSERT_THAT(OpenEmp("Exclusive"), IsConnected());
    EXPECT_THAT(OpenEmp("Exclusive", kOtherClient), ::testing::Not(IsConnected()));
    EXPECT_THAT(m_Admin.GetState().counters, Counts(2, 0, 1, 0, 0));

    EXPECT_THAT(OpenEmp("Faulty"), ::testing::Not(IsConnected()));
    EXPECT_THAT(m_Admin.GetState().counters, Counts(3, 0, 1, 1, 0));
    EXPECT_THAT(m_Admin.GetState().waitingTickets, IsEmpty());
}

TEST_F(Admin, TellsMountsOfImages) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
    CEmpInstaller::InstallImage("Image");
    const ConnectionInfo info = OpenEmp("Image");
    ASSERT_THAT(info, IsConnected());
    EXPECT_THAT(m_Admin.GetState().mounts, ElementsAre(IsMount("Image", 1, true)));

    const ConnectionInfo second = OpenEmp("Image", kOtherClient);
    EXPECT_THAT(m_Admin.GetState().mounts, ElementsAre(IsMount("Image", 2, true)));

    CloseEmp(info);
    CloseEmp(second);
    EXPECT_THAT(m_Admin.GetState().mounts, ElementsAre(IsMount("Image", 0, true)));
    Ask(info.empPort, "ReportStop", "0");
    EXPECT_TRUE(CDaemon::Await([&] { return !IsMounted(CEmpInstaller::MountPoint("Image")); }));
    AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ");
    for (const admin::MountState& mount : m_Admin.GetState().mounts)
        EXPECT_THAT(mount, IsMount("Image", 0, false));
}

TEST_F(Admin, TellsLaunchersAndTheirEmps) {
    CBrokerClient broker;
    broker.Execute("1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", "Launcher", "40100");
    broker.Execute("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", "Weather", "40100");

    const std::vector<admin::LauncherState> launchers = m_Admin.GetState().launchers;

    ASSERT_THAT(launchers, SizeIs(1));
    EXPECT_EQ(launchers[0].name, "Launcher");
    EXPECT_EQ(launchers[0].port, "40100");
    EXPECT_THAT(launchers[0].emps, ElementsAre("Weather"));
}

TEST_F(Admin, TellsHowLongClientsAreConnected) {
    CEmpInstaller::Preinstall("Shared");
    ASSERT_THAT(OpenEmp("Shared", kOtherClient), IsConnected());
    const auto ages = [this] { return m_Admin.GetState().connections.at(0).clientAgesMs; };
    ASSERT_TRUE(CDaemon::Await([&] { return ages().at(0) > 0; }));
    const std::int64_t nBefore = ages().at(0);
    ASSERT_THAT(OpenEmp("Shared", kClient), IsConnected());

    const std::vector<std::int64_t> after = ages();
    ASSERT_THAT(after, SizeIs(2));
    EXPECT_GE(after[0], 0);
    EXPECT_GE(after[1], after[0] + nBefore);
}

// ---- Where an EMP lives -------------------------------------------------------------------------

/// "<role>" of what is there, in order.
std::vector<std::string> ThoseThere(const admin::Whereabouts& whereabouts) {
    std::vector<std::string> roles;
    for (const admin::FileState& file : whereabouts.files) {
        EXPECT_EQ(file.exists, fs::exists(file.path)) << file.path;
        if (file.exists) roles.push_back(file.role);
    }
    return roles;
}

TEST_F(Admin, WhereFollowsAProgramThroughItsLife) {
    CEmpInstaller::Preinstall("Shared");
    const admin::Whereabouts before = m_Admin.Where("Shared");
    const ConnectionInfo info = OpenEmp("Shared");
    ASSERT_THAT(info, IsConnected());
    const admin::Whereabouts open = m_Admin.Where("Shared");

    EXPECT_EQ(before.location, 2);
    EXPECT_THAT(ThoseThere(before), ElementsAre("preinstalled program"));
    EXPECT_EQ(before.status, 0);
    EXPECT_THAT(before.servers, IsEmpty());
    EXPECT_EQ(before.mountPoint, "");

    const std::string strProgram = CEmpInstaller::ProgramPath("Shared");
    EXPECT_EQ(open.files.at(1).path, strProgram);
    EXPECT_EQ(open.status, 2);
    EXPECT_EQ(open.option, "0001");
    ASSERT_THAT(open.servers, SizeIs(1));
    EXPECT_EQ(open.servers[0].port, info.empPort);
    EXPECT_THAT(ProcessesOf(strProgram), ElementsAre(open.servers[0].pid));
    EXPECT_EQ(open.servers[0].program, strProgram);
    EXPECT_THAT(open.servers[0].clientPorts, ElementsAre(kClient));
    EXPECT_THAT(open.servers[0].clientAgesMs, SizeIs(1));

    CloseEmp(info);
    Ask(info.empPort, "ReportStop", "0");
    ASSERT_TRUE(WaitUntilEnded(strProgram));
    EXPECT_THAT(m_Admin.Where("Shared").servers, IsEmpty());
}

TEST_F(Admin, WhereTellsServersApart) {
    CEmpInstaller::Preinstall("Many", CEmpBehaviour().Option("0002"));
    ASSERT_THAT(OpenEmp("Many", kClient), IsConnected());
    ASSERT_THAT(OpenEmp("Many", kOtherClient), IsConnected());

    const std::vector<admin::ServerState> servers = m_Admin.Where("Many").servers;

    const std::string strProgram = CEmpInstaller::ProgramPath("Many");
    ASSERT_THAT(servers, SizeIs(2));
    EXPECT_THAT(ProcessesOf(strProgram),
                ::testing::UnorderedElementsAre(servers[0].pid, servers[1].pid));
    for (const admin::ServerState& server : servers) EXPECT_EQ(server.program, strProgram);
}

TEST_F(Admin, WhereTellsAMountAsTheKernelDoes) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
    CEmpInstaller::InstallImage("Image");
    const admin::Whereabouts before = m_Admin.Where("Image");
    ASSERT_THAT(OpenEmp("Image"), IsConnected());
    const admin::Whereabouts open = m_Admin.Where("Image");

    EXPECT_THAT(ThoseThere(open), ElementsAre("image", "downloaded program"));
    EXPECT_EQ(before.mountPoint, CEmpInstaller::MountPoint("Image"));
    EXPECT_THAT(before.mount, IsMount("Image", 0, false));
    EXPECT_EQ(before.mountSource, "");
    const auto mounted = FindMount(CEmpInstaller::MountPoint("Image"));
    ASSERT_TRUE(mounted.has_value());
    EXPECT_THAT(open.mount, IsMount("Image", 1, true));
    EXPECT_EQ(open.mountPoint, CEmpInstaller::MountPoint("Image"));
    EXPECT_EQ(open.mountSource, mounted->strSource);
    EXPECT_EQ(open.fileSystem, mounted->strFileSystem);
}

TEST_F(Admin, WhereTellsWhoServesIt) {
    CBrokerClient broker;
    broker.Execute("1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", "Launcher", "40100");
    broker.Execute("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", "Weather", "40100");
    const admin::Whereabouts weather = m_Admin.Where("Weather");
    const admin::Whereabouts nowhere = m_Admin.Where("../\xff");

    EXPECT_EQ(weather.location, 5);
    ASSERT_THAT(weather.launchers, SizeIs(1));
    EXPECT_EQ(weather.launchers[0].name, "Launcher");
    EXPECT_THAT(ThoseThere(weather), IsEmpty());
    EXPECT_EQ(nowhere.empName, "../\xef\xbf\xbd");
    EXPECT_EQ(nowhere.location, 0);
    EXPECT_THAT(nowhere.files, IsEmpty());
    EXPECT_THROW(m_Admin.Where(""), admin::BadRequest);
}

// ---- The opens that ended last ------------------------------------------------------------------

MATCHER_P4(IsOpen, strEmp, strClient, nLocation, nOutcome, "") {
    *result_listener << arg.empName << ' ' << arg.clientPort << ' ' << arg.location << ' '
                     << arg.outcome;
    return arg.empName == strEmp && arg.clientPort == strClient && arg.location == nLocation &&
           arg.outcome == nOutcome;
}

TEST_F(Admin, TellsTheOpensThatEnded) {
    EXPECT_THAT(m_Admin.GetOpens(), IsEmpty());
    CEmpInstaller::Preinstall("Shared");
    CEmpInstaller::Preinstall("Faulty", CEmpBehaviour().Option(""));
    const ConnectionInfo first = OpenEmp("Shared");
    const ConnectionInfo second = OpenEmp("Shared", kOtherClient);
    OpenEmp("Nowhere");
    OpenEmp("Faulty");

    const std::vector<admin::OpenTimes> opens = m_Admin.GetOpens();

    ASSERT_THAT(opens,
                ElementsAre(IsOpen("Faulty", kClient, 2, 1), IsOpen("Nowhere", kClient, 0, 0),
                            IsOpen("Shared", kOtherClient, 2, 2), IsOpen("Shared", kClient, 2, 3)));
    const admin::OpenTimes& start = opens[3];
    EXPECT_EQ(start.serial, first.serial);
    EXPECT_GE(start.locatedUs, 0);
    EXPECT_EQ(start.mountedUs, -1);
    EXPECT_GE(start.startedUs, start.locatedUs);
    EXPECT_GT(start.reportedUs, start.startedUs);
    EXPECT_GE(start.answeredUs, start.reportedUs);
    EXPECT_GE(start.agoMs, start.answeredUs / 1000);
    EXPECT_EQ(opens[2].serial, second.serial);
    EXPECT_THAT((std::vector{opens[2].locatedUs, opens[2].startedUs, opens[2].reportedUs}),
                ElementsAre(-1, -1, -1));
    EXPECT_EQ(opens[1].serial, -1);
    EXPECT_GE(opens[0].reportedUs, 0);
}

TEST_F(Admin, TellsWhenAnOpenMountedItsImage) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
    CEmpInstaller::InstallImage("Image");
    ASSERT_THAT(OpenEmp("Image"), IsConnected());
    ASSERT_THAT(OpenEmp("Image", kOtherClient), IsConnected());

    const std::vector<admin::OpenTimes> opens = m_Admin.GetOpens();

    ASSERT_THAT(opens, SizeIs(2));
    EXPECT_GT(opens[1].mountedUs, opens[1].locatedUs);
    EXPECT_GT(opens[1].startedUs, opens[1].mountedUs);
    EXPECT_EQ(opens[0].mountedUs, -1);
}

TEST_F(Admin, TellsTheLastOpensOnly) {
    CBrokerClient broker;
    for (int n = 0; n < 300; ++n) broker.Open(std::to_string(n), "Nowhere", kVersion, kApp);

    const std::vector<admin::OpenTimes> opens = m_Admin.GetOpens();

    ASSERT_THAT(opens, SizeIs(256));
    EXPECT_EQ(opens.front().clientPort, "299");
    EXPECT_EQ(opens.back().clientPort, "44");
}

// ---- What it changes ----------------------------------------------------------------------------

TEST_F(Admin, DebugLevelReachesBrokerEmpsAndClients) {
    const CFakeEmp emp;
    const CFakeClient client;
    PreinstallHosted("Verbose", emp);
    ASSERT_THAT(OpenEmp("Verbose", client.Address()), IsConnected());

    m_Admin.SetDebugLevel(0);

    EXPECT_EQ(m_Admin.GetState().debugLevel, 0);
    EXPECT_THAT(emp.Calls(),
                ElementsAre(EmpCall{"Execute", {"100", "SetDebugLevel", "0", "", "", ""}}));
    EXPECT_THAT(client.Events(), ElementsAre(ClientEvent{-30001, "LEVEL_ON_PARAM2", "0"}));
    const std::size_t nLines = m_Daemon.Lines().size();
    CBrokerClient().Version();
    EXPECT_THAT(m_Daemon.Lines(), SizeIs(nLines)) << "it still logs details";

    m_Admin.SetDebugLevel(4);
    ExpectLine(4, "OnSetDebugLevel",
               "[Verbose] ip:[127.0.0.1] port[" + emp.PortText() + "] - SetDebugLevel[4]");
    ExpectLine(
        4, "OnSetDebugLevel",
        "SET DEBUGGING ClientPort[" + client.Address() + "], cmd:[LEVEL_ON_PARAM2] loglevel:[4]");
}

TEST_F(Admin, DebugLevelGetsPastWhoIsDead) {
    const std::string strDead = "20001";
    CEmpInstaller::Preinstall("Deaf");
    const CFakeEmp emp;
    const CFakeClient client;
    PreinstallHosted("Hearing", emp);
    ASSERT_THAT(OpenEmp("Deaf", strDead), IsConnected());
    ASSERT_THAT(OpenEmp("Hearing", strDead), IsConnected());
    ASSERT_THAT(OpenEmp("Hearing", client.Address()), IsConnected());
    for (const int nPid : ProcessesOf(CEmpInstaller::ProgramPath("Deaf")))
        ASSERT_EQ(::kill(nPid, SIGKILL), 0);
    ASSERT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Deaf")));

    m_Admin.SetDebugLevel(3);

    EXPECT_THAT(emp.Calls(),
                ElementsAre(EmpCall{"Execute", {"100", "SetDebugLevel", "3", "", "", ""}}));
    EXPECT_THAT(client.Events(), ElementsAre(ClientEvent{-30001, "LEVEL_ON_PARAM2", "3"}));
}

TEST_F(Admin, RefusesLevelsThatAreNone) {
    for (const int nLevel : {-1, 65536}) {
        EXPECT_THROW(m_Admin.SetDebugLevel(nLevel), admin::BadRequest) << nLevel;
        EXPECT_EQ(m_Admin.GetState().debugLevel, 4);
    }
}

TEST_F(Admin, SwitchesPingingOnAndOff) {
    m_Admin.EnablePing(true);
    EXPECT_TRUE(m_Admin.GetState().pingEnabled);

    m_Admin.EnablePing(false);
    EXPECT_FALSE(m_Admin.GetState().pingEnabled);
}

TEST_F(Admin, CountsSweeps) {
    EXPECT_EQ(m_Admin.SweepZombies(), 0);

    EXPECT_EQ(m_Admin.GetState().counters.sweeps, 1);
}

// ---- Pinging, five seconds apart ----------------------------------------------------------------

/// An EMP that a launcher has taken over: its files have gone since it was opened.
class SlowPing : public Admin {
protected:
    void SetUp() override {
        Admin::SetUp();
        PreinstallHosted("Hosted", m_Emp);
        // By bytes, "/" comes before digits.
        ASSERT_THAT(OpenEmp("Hosted", m_Later.Address()), IsConnected());
        ASSERT_THAT(OpenEmp("Hosted", m_First.Address()), IsConnected());
        fs::remove(CEmpInstaller::ProgramPath("Hosted"));
        CBrokerClient broker;
        ASSERT_EQ(
            broker.Execute("1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", "Launcher", "40100"),
            "Done");
        ASSERT_EQ(broker.Execute("", "__BROKER_CMD_NOTIFY_REGISTER_EMP", "Hosted", "40100"),
                  "Done");
    }

    CFakeEmp m_Emp;
    CFakeClient m_First{std::string{"/tmp/first"}};
    CFakeClient m_Later;
};

TEST_F(SlowPing, FifthSilenceInARowIsTold) {
    std::promise<void> told;
    m_First.OnEvent([&](const ClientEvent&) { told.set_value(); });
    m_Emp.AnswerExecute("Ping", "0");
    m_Admin.EnablePing(true);

    ASSERT_EQ(told.get_future().wait_for(CDaemon::kPatience), std::future_status::ready)
        << m_Daemon.Log();
    m_Admin.EnablePing(false);

    EXPECT_THAT(m_First.Events(), ElementsAre(ClientEvent{-50000, "E0003", "E0003"}));
    EXPECT_THAT(m_Later.Events(), IsEmpty());
    EXPECT_THAT(m_Emp.Calls(), SizeIs(5));
    EXPECT_EQ(m_Emp.Calls().front().strMethod, "Execute");
    AwaitLine(4, "PingTest", "End", 5);
    ExpectLine(0, "PingTest", "[Hosted] Exceed EMP_MAX_PENDING_COUNT!!!!! [4]");
    EXPECT_EQ(m_Admin.GetState().connections.at(0).pendingCount, 0);
}

}  // namespace
}  // namespace vok::test
