// A fault at every step of an open and of a close, for every kind of EMP: the client has its
// answer, the tables are right, nothing is left behind, everybody else is served, and the next open
// succeeds. What was observed is written as a row of a table.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/daemon/OpenCloseTest.h"
#include "tests/faults/CPeers.h"
#include "tests/faults/FaultCase.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CLauncherProcess.h"
#include "tests/support/CPrivateWorld.h"
#include "tests/support/Footprint.h"

namespace vok::test {

void PrintTo(const FaultCase& fault, std::ostream* pStream) {
    *pStream << fault.Name();
}

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kGroup[] = "Group";
constexpr char kHostedBefore[] = "Hosted";  // the EMP for which the group's process was started
constexpr char kLauncher[] = "Launcher";
constexpr char kBystander[] = "Bystander";
constexpr char kNewcomer[] = "Newcomer";
constexpr char kLogDisk[] = "/run/log-disk";

/// What "at once" and "after 10 s" may last on a busy machine: less than half of the other.
constexpr milliseconds kAtOnce{5'000};
constexpr milliseconds kReport{10'000};
constexpr milliseconds kReportAtMost{15'000};
/// A connection that was asked for is asked for again after 1, 3 and 7 s.
constexpr milliseconds kReconnect{9'000};

std::string ReadFile(const std::string& strPath) {
    std::ifstream file{strPath, std::ios::binary};
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string& strPath, const std::string& strText) {
    fs::create_directories(fs::path(strPath).parent_path());
    std::ofstream(strPath, std::ios::binary | std::ios::trunc) << strText << std::flush;
}

/// What stands in a program's file that cannot be executed.
std::string BadProgram(eFault fault) {
    if (fault == eFault::Script) return "#!/bin/sh\nexit 0\n";
    std::string strProgram = ReadFile(CEmpInstaller::BuiltProgram(CPeers::kProgram));
    // The machine's number in an ELF header: one that nobody has.
    if (fault == eFault::Foreign) strProgram.replace(18, 2, "\xfe\xfe");
    return strProgram;
}

/// Leaves a piece of the table, whose pieces are put together in the order of their numbers.
void WriteRows(int nNumber, const std::string& strRows) {
    const char* const szFolder = std::getenv("VOK_FAULT_ROWS");
    if (szFolder == nullptr) return;
    char szNumber[8];
    std::snprintf(szNumber, sizeof szNumber, "%03d", nNumber);
    WriteFile(std::string(szFolder) + '/' + szNumber + ".md", strRows);
}

/// The answer to an open or a close.
struct Answer {
    ConnectionInfo info;  // of an open
    bool bClosed = false;
    steady_clock::time_point time;
};

class FaultTest : public ::testing::TestWithParam<FaultCase> {
protected:
    void SetUp() override {
        std::string strReason;
        if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
        if (Fault().kind == eKind::Image) {
            // All worlds share the loop devices: a name that no other has.
            struct stat info {};
            ASSERT_EQ(::stat("/opt", &info), 0);
            m_strEmp += std::to_string(info.st_dev);
        }
        InstallOthers();
        Install();
        ASSERT_TRUE(m_Daemon.Start(Options())) << m_Daemon.Log();
        m_Bystander = OpenEmp(kBystander);
        ASSERT_THAT(m_Bystander, IsConnected());
        m_pEarly = std::make_unique<CBrokerClient>();
        m_pClient = std::make_unique<CBrokerClient>();
        ASSERT_EQ(m_pEarly->Version(), "5.100");
        ASSERT_EQ(m_pClient->Version(), "5.100");
        ASSERT_TRUE(AwaitQuiet()) << "threads of connections that have ended";
        m_Before = Measure(m_Daemon, Image());
    }

    // ---- What is on the disk ------------------------------------------------------------------

    void InstallOthers() {
        CEmpInstaller::Preinstall(kBystander);
        CEmpInstaller::Preinstall(kNewcomer);
        if (!IsGroup()) return;
        const fs::path folder = fs::path(CEmpInstaller::ProgramPath(kGroup)).parent_path();
        WriteFile(folder / "empGroup.xml",
                  "<Emp><Version>1.0</Version><GroupingEmps><Name>Hosted</Name><Name>" + m_strEmp +
                      "</Name></GroupingEmps></Emp>\n");
    }

    /// The EMP, with the fault if it is one of files.
    void Install() {
        if (Fault().kind == eKind::Register) return;
        if (Fault().kind == eKind::Image) return InstallImage();
        const std::string strProgram = IsGroup() ? kGroup : m_strEmp;
        if (Fault().step != eStep::Program)
            CEmpInstaller::PreinstallCopy(strProgram, CPeers::kProgram);
        else if (Fault().fault == eFault::Missing)
            fs::create_directories(fs::path(CEmpInstaller::ProgramPath(strProgram)).parent_path());
        else
            CEmpInstaller::PreinstallFile(strProgram, BadProgram(Fault().fault),
                                          Fault().fault == eFault::NotExecutable ? 0644 : 0755);
    }

    void InstallImage() {
        const fs::path content = "/run/images/" + m_strEmp;
        if (Fault().fault == eFault::Missing) {
            // The image of an EMP of another name.
            CEmpInstaller::InstallImageCopy("Other", CPeers::kProgram);
            fs::create_directories(fs::path(Image()).parent_path());
            fs::rename(CEmpInstaller::ImagePath("Other"), Image());
            return;
        }
        if (Fault().step == eStep::Program) {
            const fs::path program = content / ("emp" + m_strEmp);
            WriteFile(program, BadProgram(Fault().fault));
            fs::permissions(program, static_cast<fs::perms>(
                                         Fault().fault == eFault::NotExecutable ? 0644 : 0755));
        }
        CEmpInstaller::InstallImageCopy(m_strEmp, CPeers::kProgram);
        if (Fault().fault == eFault::Truncated)
            fs::resize_file(Image(), fs::file_size(Image()) / 2);
        if (Fault().fault == eFault::NoImage) WriteFile(Image(), std::string(8192, 'x'));
        if (Fault().fault == eFault::Empty) WriteFile(Image(), "");
        if (Fault().fault == eFault::MountFails)
            WriteFile(CEmpInstaller::MountPoint(m_strEmp), "in the way");
    }

    /// What an update or a repair would do.
    void Repair() {
        if (Fault().step != eStep::Program && Fault().step != eStep::Mount) return;
        if (Fault().kind == eKind::Image) {
            if (Fault().fault == eFault::MountFails)
                fs::remove(CEmpInstaller::MountPoint(m_strEmp));
            fs::remove_all("/run/images/" + m_strEmp);
            CEmpInstaller::InstallImageCopy(m_strEmp, CPeers::kProgram);
            return;
        }
        const std::string strProgram = IsGroup() ? kGroup : m_strEmp;
        fs::remove(CEmpInstaller::ProgramPath(strProgram));
        CEmpInstaller::PreinstallCopy(strProgram, CPeers::kProgram);
    }

    CDaemon::Options Options() {
        CDaemon::Options options;
        if (Fault().fault == eFault::NoThreads || Fault().fault == eFault::NoForks) {
            // Root is not bound by the limit; nobody else must count for it.
            struct stat info {};
            (void)::stat("/opt", &info);
            m_nUser = 100'000 + static_cast<unsigned int>(info.st_dev);
            options.nUser = m_nUser;
            fs::create_directories("/run/vok-broker");
            EXPECT_EQ(::chown("/run/vok-broker", m_nUser, m_nUser), 0);
        }
        if (Fault().fault == eFault::FullLogDisk) {
            fs::create_directories(kLogDisk);
            EXPECT_EQ(::mount("tmpfs", kLogDisk, "tmpfs", 0, "size=64k"), 0);
            options.strLogFile = std::string(kLogDisk) + "/vok.log";
        }
        return options;
    }

    // ---- Up to the fault ----------------------------------------------------------------------

    /// All that has to be there before the broker is asked.
    void Prepare() {
        const bool bFullQueue = Fault().step == eStep::Connect && Fault().fault == eFault::Silent;
        if (bFullQueue) m_Peers.Script("backlog", "short");
        if (Fault().kind == eKind::Register) StartLauncher();
        if (Fault().kind == eKind::Hosted) {
            ASSERT_THAT(OpenEmp(kHostedBefore, kOtherClient), IsConnected());
        }
        if (!Fault().IsOpen()) {
            m_Info = OpenEmp(m_strEmp);
            ASSERT_THAT(m_Info, IsConnected()) << m_Daemon.Log();
        }
        ASSERT_TRUE(AwaitQuiet());
        if (bFullQueue) {
            ASSERT_NO_FATAL_FAILURE(FillQueue());
        }
        if (Fault().step == eStep::Connect && Fault().fault == eFault::Killed) {
            ASSERT_TRUE(m_Peers.Kill());
        }
        if (Fault().step == eStep::Connect && Fault().fault == eFault::Stopped) {
            ASSERT_TRUE(m_Peers.Stop());
        }
        if (const std::string strStep = ScriptedStep(); !strStep.empty())
            m_Peers.Script(strStep, ScriptedFault());
        if (Fault().step == eStep::Resources) TakeResources();
    }

    void StartLauncher() {
        m_pLauncher = std::make_unique<CLauncherProcess>(
            CPeers::kProgram, std::vector<std::string>{"--launcher", kLauncher, m_strEmp});
        ASSERT_NE(m_pLauncher->Port(), "");
    }

    void FillQueue() {
        std::string strPort = m_Info.empPort;
        if (Fault().IsOpen() && Fault().kind == eKind::Register) strPort = m_pLauncher->Port();
        if (Fault().IsOpen() && Fault().kind == eKind::Hosted)
            strPort = CAdminClient().GetState().groups.at(0).port;
        ASSERT_TRUE(m_Peers.Stop());
        ASSERT_TRUE(m_Peers.FillQueue(strPort));
    }

    static std::string ScriptedStep() {
        switch (Fault().step) {
            case eStep::Start:
                return "start";
            case eStep::Launcher:
                return "launcher";
            case eStep::Report:
                return "report";
            case eStep::Close:
                return "close";
            default:
                return "";
        }
    }
    static std::string ScriptedFault() {
        switch (Fault().fault) {
            case eFault::Killed:
                return "killed";
            case eFault::Stopped:
                return "stopped";
            case eFault::Garbage:
                return "garbage";
            case eFault::Closes:
                return "closes";
            default:
                return "silent";
        }
    }

    void TakeResources() {
        if (Fault().fault == eFault::NoThreads) Limit(RLIMIT_NPROC, CountTasksOf(m_nUser));
        if (Fault().fault == eFault::NoForks) Limit(RLIMIT_NPROC, CountTasksOf(m_nUser) + 1);
        if (Fault().fault == eFault::NoDescriptors) {
            std::vector<int> open = m_Daemon.OpenDescriptors();
            std::sort(open.begin(), open.end());
            int nFree = 0;
            while (std::binary_search(open.begin(), open.end(), nFree)) ++nFree;
            Limit(RLIMIT_NOFILE, nFree);
        }
        if (Fault().fault == eFault::FullLogDisk) {
            std::ofstream fill(std::string(kLogDisk) + "/fill");
            while (fill << std::string(1024, 'x') << std::flush) continue;
        }
    }

    void Limit(int nResource, int nLimit) {
        const auto resource = static_cast<__rlimit_resource>(nResource);
        rlimit limit{};
        ASSERT_TRUE(LimitDaemon(resource, nullptr, &limit));
        m_nLimited = nResource;
        m_LimitBefore = limit;
        limit.rlim_cur = static_cast<rlim_t>(nLimit);
        ASSERT_TRUE(LimitDaemon(resource, &limit, nullptr));
    }
    void GiveResourcesBack() {
        if (m_nLimited < 0) return;
        EXPECT_TRUE(
            LimitDaemon(static_cast<__rlimit_resource>(m_nLimited), &m_LimitBefore, nullptr));
        m_nLimited = -1;
    }
    /// Who changes another process's limits needs its real ids, or a privilege that not every root
    /// has. By system calls, which change this thread's only.
    bool LimitDaemon(__rlimit_resource resource, const rlimit* pNew, rlimit* pOld) const {
        if (!TakeRealIds(m_nUser)) return false;
        const bool bDone = ::prlimit(m_Daemon.Pid(), resource, pNew, pOld) == 0;
        return TakeRealIds(0) && bDone;
    }
    static bool TakeRealIds(unsigned int nId) {
        return ::syscall(SYS_setresgid, nId, -1, -1) == 0 &&
               ::syscall(SYS_setresuid, nId, -1, -1) == 0;
    }

    // ---- The call -----------------------------------------------------------------------------

    std::future<Answer> Ask() {
        return std::async(std::launch::async, [this] {
            Answer answer;
            if (Fault().IsOpen())
                answer.info = m_pClient->Open(kClient, m_strEmp, kVersion, kApp);
            else
                answer.bClosed = m_pClient->Close(m_Info);
            answer.time = steady_clock::now();
            return answer;
        });
    }

    /// Asks, and sees to it that a peer for which the broker waits goes on or ends.
    Answer Run(milliseconds& took) {
        auto begin = steady_clock::now();
        auto call = Ask();
        const eWhen when = Plan().when;
        if (when != eWhen::AtOnce) {
            AwaitTheWait();
            ExpectOthersAreServed();
            EXPECT_EQ(call.wait_for(milliseconds(0)), std::future_status::timeout);
        }
        if (when == eWhen::GoesOn || when == eWhen::Ends) {
            m_Peers.Behave();
            begin = steady_clock::now();
            if (when == eWhen::GoesOn)
                m_Peers.Continue();
            else
                EXPECT_TRUE(m_Peers.Kill());
        }
        const Answer answer = call.get();
        took = std::chrono::duration_cast<milliseconds>(answer.time - begin);
        return answer;
    }

    /// Until the broker depends on the peer.
    void AwaitTheWait() {
        if (!ScriptedStep().empty()) {
            EXPECT_TRUE(m_Peers.AwaitFault());
            if (Fault().fault == eFault::Stopped) {
                EXPECT_TRUE(m_Peers.AwaitStopped());
            }
            return;
        }
        const std::string strPrefix =
            Fault().IsOpen() ? "forkEmpParams.ARGV_ticketSerial" : "RPC Request:";
        EXPECT_TRUE(CDaemon::Await([&] {
            const std::vector<DaemonLogLine> lines = m_Daemon.LogLines();
            return std::any_of(lines.begin(), lines.end(), [&](const DaemonLogLine& line) {
                return line.strMessage.rfind(strPrefix, 0) == 0;
            });
        }));
    }

    void ExpectOthersAreServed() {
        EXPECT_EQ(m_pEarly->Version(), "5.100") << "who is connected";
        if (m_nLimited >= 0) return;  // there is nothing for others
        const ConnectionInfo reused = OpenEmp(kBystander, kOtherClient);
        EXPECT_EQ(reused.empPort, m_Bystander.empPort);
        EXPECT_TRUE(CloseEmp(reused));
        const ConnectionInfo started = OpenEmp(kNewcomer);
        EXPECT_THAT(started, IsConnected());
        ReportStop(kNewcomer, started.empPort);
        EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath(kNewcomer)));
    }

    std::string ExpectInTime(milliseconds took) {
        milliseconds least{0};
        milliseconds most = kAtOnce;
        if (Plan().when == eWhen::TenSeconds) {
            least = kReport;
            most = kReportAtMost;
        }
        if (Plan().when == eWhen::Ends && Fault().step == eStep::Connect) most = kReconnect;
        EXPECT_GE(took.count(), least.count());
        EXPECT_LE(took.count(), most.count());
        return took >= least && took <= most ? Text(Plan().when)
                                             : "after " + std::to_string(took.count()) + " ms";
    }

    std::string ExpectAnswer(const Answer& answer) {
        if (!Fault().IsOpen()) {
            EXPECT_EQ(answer.bClosed, Plan().bSuccess);
            return answer.bClosed ? "true" : "false";
        }
        m_Info = answer.info;
        if (Plan().bSuccess) {
            EXPECT_THAT(answer.info, IsConnected());
        } else if (Plan().bUnknown) {
            EXPECT_THAT(answer.info, IsUntouched());
        } else {
            EXPECT_THAT(answer.info, IsInvalid("127.0.0.1"));
        }
        if (answer.info == ConnectionInfo()) return "untouched";
        return answer.info.empPort == "-1" ? "invalid" : "connected";
    }

    // ---- Afterwards ---------------------------------------------------------------------------

    /// The broker's log says that it was this fault, where the peer has no part in it.
    void ExpectReason() const {
        if (!Plan().bUnknown && (Fault().step == eStep::Mount || Fault().step == eStep::Program ||
                                 (Fault().step == eStep::Resources && Fault().IsOpen()))) {
            const std::string strReason = Reason();
            const std::string strLog = m_Daemon.Log();
            EXPECT_NE(strLog.find(strReason), std::string::npos) << strReason << '\n' << strLog;
        }
    }
    std::string Reason() const {
        const bool bForked = Fault().kind == eKind::Process || Fault().kind == eKind::Group;
        switch (Fault().fault) {
            case eFault::Missing:
                return "is fail,error[777],errno[2]-";
            case eFault::NotExecutable:
                return "is fail,error[777],errno[13]-";
            case eFault::Foreign:
                return "is fail,error[777],errno[8]-";
            case eFault::Script:
                return "[ERROR] Invalid EMP format:[#!/bin/sh]";
            case eFault::NoThreads:
                return bForked ? "UNEXPECTED ERROR:[Start Emp failed] OCCURED."
                               : "A client is dropped, it gets no thread: no thread";
            case eFault::NoForks:
                return "fork error.";
            case eFault::NoDescriptors:
                if (Fault().kind == eKind::Register) return "Transport Error : [";
                if (Fault().kind == eKind::Image) break;
                return "A client could not be accepted: ";
            case eFault::FullLogDisk:
                return "";  // nothing can be said
            default:
                break;
        }
        return "Failed to mount [" + Image() + "] to [" + CEmpInstaller::MountPoint(m_strEmp) +
               "].";
    }

    /// What the tables hold of the EMP.
    std::string Tables() const {
        const admin::BrokerState state = CAdminClient().GetState();
        std::string strText = "no record";
        for (const admin::EmpState& emp : state.emps) {
            if (emp.name != m_strEmp) continue;
            strText = emp.status == 2 ? "opened" : "status " + std::to_string(emp.status);
            if (emp.option != "0001") strText += " with option " + emp.option;
        }
        for (const admin::ConnectionState& connection : state.connections) {
            if (connection.empName != m_strEmp) continue;
            strText += connection.clientPorts.empty() ? ", entry without clients" : ", connected";
            if (connection.clientPorts.size() > 1) strText += " several times";
        }
        for (const admin::MountState& mount : state.mounts) {
            strText += ", image counted " + std::to_string(mount.count);
            if (!mount.mounted) strText += " and not mounted";
        }
        for (const admin::LauncherState& group : state.groups)
            strText += group.port == "N/A" ? ", group N/A" : ", group has a port";
        if (!state.waitingTickets.empty()) strText += ", a ticket waits";
        return strText;
    }

    std::string PlannedTables() const {
        const bool bRegister = Fault().kind == eKind::Register;
        std::string strText = "no record";
        if (Plan().bSuccess && Fault().IsOpen()) strText = "opened, connected";
        if (Plan().bSuccess && !Fault().IsOpen() && !bRegister)
            strText = "opened, entry without clients";
        if (Plan().nCount >= 0) strText += ", image counted " + std::to_string(Plan().nCount);
        if (IsGroup()) strText += Plan().bGroupRuns ? ", group has a port" : ", group N/A";
        return strText;
    }

    /// What the tables hold of everybody else is what it was.
    void ExpectOthersAreKept() const {
        const admin::BrokerState state = CAdminClient().GetState();
        std::vector<std::string> names;
        for (const admin::EmpState& emp : state.emps)
            if (emp.name != m_strEmp) names.push_back(emp.name);
        std::vector<std::string> connections;
        for (const admin::ConnectionState& connection : state.connections) {
            if (connection.empName == m_strEmp) continue;
            connections.push_back(connection.empName + ' ' +
                                  ::testing::PrintToString(connection.clientPorts));
        }
        std::vector<std::string> others{kBystander};
        std::vector<std::string> connected{"Bystander { \"40001\" }"};
        if (Fault().kind == eKind::Hosted) {
            others.emplace_back(kHostedBefore);
            connected.emplace_back("Hosted { \"40002\" }");
        }
        EXPECT_EQ(names, others);
        EXPECT_EQ(connections, connected);
        if (Fault().kind == eKind::Register) {
            ASSERT_EQ(state.launchers.size(), 1u);
            EXPECT_EQ(state.launchers[0].emps, std::vector<std::string>{m_strEmp});
        }
    }

    Footprint PlannedFootprint() const {
        Footprint footprint = m_Before;
        footprint.nProcesses += Plan().nPeers;
        footprint.nThreads += Plan().nForked + Plan().nHeld;
        footprint.nDescriptors += Plan().nHeld;
        footprint.nMounts += Plan().bMounted ? 1 : 0;
        footprint.nLoopDevices += Plan().bMounted ? 1 : 0;
        return footprint;
    }

    /// What is there more than before, once it is as planned; else what it has stayed at.
    std::string ExpectFootprint(const Footprint& planned) {
        const bool bReached =
            CDaemon::Await([&] { return Measure(m_Daemon, Image()) == planned; }, kReport);
        const Footprint now = Measure(m_Daemon, Image());
        EXPECT_TRUE(bReached) << "there is " << (now - m_Before).Text() << " more than before, not "
                              << (planned - m_Before).Text() << '\n'
                              << m_Daemon.Log();
        return (now - m_Before).Text();
    }

    std::string ExpectTables() {
        const std::string strPlanned = PlannedTables();
        (void)CDaemon::Await([&] { return Tables() == strPlanned; }, kReport);
        EXPECT_EQ(Tables(), strPlanned) << m_Daemon.Log();
        return Tables();
    }

    /// The peers end; an EMP that was opened is closed and stopped first, as its client would.
    std::string EndPeers() {
        m_Peers.Behave();
        if (Fault().IsOpen() && Plan().bSuccess) CloseAndStop(m_Info);
        if (!Fault().IsOpen() && Plan().bSuccess) Stop(m_Info);
        EXPECT_TRUE(m_Peers.Kill());
        m_pLauncher.reset();
        Footprint planned = m_Before;
        if (Plan().bStaysMounted && !Plan().bSuccess) {
            ++planned.nMounts;
            ++planned.nLoopDevices;
        }
        return ExpectFootprint(planned);
    }

    void CloseAndStop(const ConnectionInfo& info) {
        EXPECT_TRUE(CloseEmp(info)) << m_Daemon.Log();
        Stop(info);
    }
    void Stop(const ConnectionInfo& info) {
        if (Fault().kind == eKind::Register) return;  // forgotten with its last client
        const std::size_t nPeers = m_Peers.Pids().size();
        ReportStop(m_strEmp, info.empPort, IsGroup() ? "1" : "0");
        // The process of a preinstalled group stays.
        if (!IsGroup()) {
            EXPECT_TRUE(CDaemon::Await([&] { return m_Peers.Pids().size() < nPeers; }));
        }
    }

    /// The next open succeeds, and after it everything is as it was.
    void ExpectRecovery() {
        Repair();
        if (Fault().kind == eKind::Register) {
            ASSERT_NO_FATAL_FAILURE(StartLauncher());
        }
        // What a failed open could not unmount is given back by a close of the same name.
        if (Plan().nCount > 0 && !Plan().bSuccess) {
            ConnectionInfo info;
            info.empName = m_strEmp;
            EXPECT_TRUE(CloseEmp(info));
        }
        const ConnectionInfo info = OpenEmp(m_strEmp);
        ASSERT_THAT(info, IsConnected()) << m_Daemon.Log();
        CloseAndStop(info);
        EXPECT_TRUE(m_Peers.Kill());
        m_pLauncher.reset();
        (void)ExpectFootprint(m_Before);
    }

    static void WriteRow(const std::string& strCells) {
        WriteRows(Fault().nNumber, Fault().Row() + ' ' + strCells + " |\n");
    }

    // ---- Short words --------------------------------------------------------------------------

    static const FaultCase& Fault() { return GetParam(); }
    static FaultPlan Plan() { return PlanOf(GetParam()); }
    static bool IsGroup() { return Fault().kind == eKind::Group || Fault().kind == eKind::Hosted; }
    std::string Image() const { return CEmpInstaller::ImagePath(m_strEmp); }

    /// Until the connections of former calls have ended, descriptor first, thread last. Three
    /// threads stay: the one that accepts, and one for each of the two clients that are connected.
    bool AwaitQuiet() const {
        return CDaemon::Await([this] {
            int nServing = 0;
            for (const DaemonThread& thread : m_Daemon.Threads())
                if (thread.strName == "VOK-B-Server" || thread.strName.rfind("B-", 0) == 0)
                    ++nServing;
            return nServing == 3;
        });
    }

    std::string m_strEmp = "Target";
    unsigned int m_nUser = 0;
    CDaemon m_Daemon;
    CPeers m_Peers;
    std::unique_ptr<CLauncherProcess> m_pLauncher;
    ConnectionInfo m_Bystander;
    std::unique_ptr<CBrokerClient> m_pEarly;   // connected before the fault
    std::unique_ptr<CBrokerClient> m_pClient;  // the one that asks
    ConnectionInfo m_Info;                     // the connection to close
    Footprint m_Before;
    int m_nLimited = -1;
    rlimit m_LimitBefore{};
};

TEST_P(FaultTest, LeavesNothingBehindAndNobodyWaiting) {
    ASSERT_NO_FATAL_FAILURE(Prepare());
    milliseconds took{0};
    const Answer answer = Run(took);
    ExpectReason();
    GiveResourcesBack();
    std::string strRow = ExpectAnswer(answer) + " | " + ExpectInTime(took) + " | ";
    strRow += ExpectTables() + " | ";
    ExpectOthersAreKept();
    strRow += ExpectFootprint(PlannedFootprint()) + " | ";
    strRow += EndPeers();
    WriteRow(strRow);
    ExpectRecovery();
    EXPECT_TRUE(m_Daemon.IsRunning());
}

TEST(FaultCases, AreLeftOutForAReason) {
    std::string strTable =
        "\n| Left out of | Step | EMP | Faults | Because |\n|---|---|---|---|---|\n";
    for (const std::string& strRow : LeftOutRows()) strTable += strRow + '\n';
    WriteRows(999, strTable);
    for (const FaultCase& fault : AllFaultCases()) EXPECT_EQ(WhyLeftOut(fault), nullptr);
    EXPECT_FALSE(LeftOutRows().empty());
}

std::vector<FaultCase> Cases(bool bShort) {
    std::vector<FaultCase> cases;
    for (const FaultCase& fault : AllFaultCases())
        if (fault.bShort == bShort) cases.push_back(fault);
    return cases;
}

std::string NameOf(const ::testing::TestParamInfo<FaultCase>& info) {
    return info.param.Name();
}

INSTANTIATE_TEST_SUITE_P(Short, FaultTest, ::testing::ValuesIn(Cases(true)), NameOf);
INSTANTIATE_TEST_SUITE_P(Long, FaultTest, ::testing::ValuesIn(Cases(false)), NameOf);

}  // namespace
}  // namespace vok::test
