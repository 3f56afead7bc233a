// An EMP reports its stop: its process is ended, nobody else's, and its image goes.
#include <linux/sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>

#include "platform/Process.h"
#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::test {
namespace {

/// Signals that have been sent to a process which blocks them, as /proc shows them.
std::string PendingSignals(pid_t nPid) {
    std::ifstream status("/proc/" + std::to_string(nPid) + "/status");
    for (std::string strLine; std::getline(status, strLine);) {
        if (strLine.rfind("ShdPnd:", 0) == 0) return strLine.substr(8);
    }
    return "no such process";
}
constexpr char kNone[] = "0000000000000000";

/// A process of this world with a pid of the test's choice, which blocks all signals and waits.
/// Ended with the object.
class CBystander {
public:
    explicit CBystander(pid_t nPid) {
        sigset_t all;
        sigset_t former;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &former);
        clone_args args{};
        args.exit_signal = SIGCHLD;
        args.set_tid = reinterpret_cast<__u64>(&nPid);
        args.set_tid_size = 1;
        m_nPid = static_cast<pid_t>(::syscall(SYS_clone3, &args, sizeof args));
        if (m_nPid == 0) {
            for (;;) (void)::syscall(SYS_pause);
        }
        sigprocmask(SIG_SETMASK, &former, nullptr);
    }
    ~CBystander() {
        if (m_nPid <= 0) return;
        (void)::kill(m_nPid, SIGKILL);
        (void)::waitpid(m_nPid, nullptr, 0);
    }
    CBystander(const CBystander&) = delete;
    CBystander& operator=(const CBystander&) = delete;

    pid_t Pid() const { return m_nPid; }

private:
    pid_t m_nPid = -1;
};

class Stop : public OpenCloseTest {
protected:
    /// Reports the stop and waits until it has been carried out.
    void CarryOut(const std::string& strEmp, const std::string& strPort, int nTimes = 1) {
        ReportStop(strEmp, strPort);
        AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ", nTimes);
    }
    void ExpectNoSignal(const std::string& strEmp, const std::string& strPid) {
        ExpectLine(0, "ExitEmpProc",
                   "### Emit SIGTERM to EMP:[" + strEmp + "] pid:[" + strPid + "] ###");
        ExpectLine(0, "ExitEmpProc",
                   "No signal was sent: [" + strPid +
                       "] is not known to be the process that reported as EMP:[" + strEmp + "].");
    }
};

TEST_F(Stop, EndsTheProcessAndForgetsTheEmp) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    const std::string strPid = Ask(info.empPort, "Pid");

    CarryOut("Weather", info.empPort);
    EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Weather")));
    ExpectLine(4, "Execute",
               "[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[Weather], C|S:[40001|" + info.empPort +
                   "], Type:[0].");
    ExpectLine(4, "Execute", "EMP proc name:[Weather], pid:[" + strPid + "].");
    ExpectLine(4, "Execute", "Create thread to Stop and unmount emp.");
    ExpectLine(4, "ExitEmpProc", "==Enter ExitEmpProc==. ");
    ExpectLine(0, "ExitEmpProc", "### Emit SIGTERM to EMP:[Weather] pid:[" + strPid + "] ###");
    for (const DaemonLogLine& line : m_Daemon.LogLines())
        EXPECT_EQ(line.strMessage.rfind("No signal was sent", 0), std::string::npos);

    EXPECT_THAT(OpenEmp("Weather"), IsConnected());
    EXPECT_EQ(CountNew("Weather"), 2);
}

TEST_F(Stop, ReportedByTheEmpItselfEndsIt) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    EXPECT_EQ(Ask(info.empPort, "ReportStop", "0"), "");
    EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Weather")));
}

TEST_F(Stop, NeedsNamePortAndType) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    ReportStop("", info.empPort);
    ReportStop("Weather", "");
    ReportStop("Weather", info.empPort, "");
    EXPECT_EQ(
        m_Daemon.CountLines(0, "Execute",
                            "[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Any necessary param is empty."),
        3);
    EXPECT_EQ(OpenEmp("Weather").empPort, info.empPort) << "nothing has changed";
}

TEST_F(Stop, OfAnUnknownEmpChangesNothing) {
    ReportStop("Weather", "4000");
    ExpectLine(0, "Execute", "EMP:[Weather]->pid:[0], maybe it's not existed.");
}

TEST_F(Stop, OfAThreadForgetsTheEmpAndEndsNoProcess) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    ReportStop("Weather", info.empPort, "2");
    ExpectLine(4, "Execute", "[Register] Weather is in form of thread.");

    const ConnectionInfo next = OpenEmp("Weather");
    EXPECT_NE(next.empPort, info.empPort);
    EXPECT_EQ(CountNew("Weather"), 2);
    EXPECT_EQ(CountProcesses("Weather"), 2u);
    EXPECT_FALSE(m_Daemon.HasLine(4, "ExitEmpProc", "==Enter ExitEmpProc==. "));
}

TEST_F(Stop, OfAnotherPortForgetsTheEmpAndKeepsTheConnection) {
    CEmpInstaller::Preinstall("Weather");
    OpenEmp("Weather");
    CarryOut("Weather", "1");
    ExpectLine(0, "RemoveEmpInfoFromConnDB",
               "Not found, Connection key <Weather,1> is not in the DB.");
    EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Weather")));
}

TEST_F(Stop, LeavesNeitherThreadNorDescriptorBehind) {
    CEmpInstaller::Preinstall("Weather");
    // The first life also makes what stays, the log file for instance.
    CarryOut("Weather", OpenEmp("Weather").empPort);
    const auto alone = [&] { return !m_Daemon.HasThread("VOK-B-ForkEmp"); };
    ASSERT_TRUE(CDaemon::Await(alone));
    const std::size_t nThreads = m_Daemon.Threads().size();
    const std::size_t nDescriptors = m_Daemon.OpenDescriptors().size();
    constexpr int kLives = 20;
    for (int i = 0; i < kLives; ++i) CarryOut("Weather", OpenEmp("Weather").empPort, i + 2);
    EXPECT_EQ(CountNew("Weather"), kLives + 1);
    EXPECT_TRUE(CDaemon::Await([&] { return m_Daemon.Threads().size() <= nThreads; }));
    EXPECT_TRUE(CDaemon::Await([&] { return m_Daemon.OpenDescriptors().size() <= nDescriptors; }));
}

// ---- Whom a stop must not signal
// ------------------------------------------------------------------

TEST_F(Stop, NeverSignalsPidOne) {
    // The test itself: a signal would end it.
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().With("pid", "1"));
    const ConnectionInfo info = OpenEmp("Weather");
    ASSERT_THAT(info, IsConnected());
    CarryOut("Weather", info.empPort);
    ExpectNoSignal("Weather", "1");
}

TEST_F(Stop, NeverSignalsTheBroker) {
    const std::string strPid = std::to_string(m_Daemon.Pid());
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().With("pid", strPid));
    const ConnectionInfo info = OpenEmp("Weather");
    ASSERT_THAT(info, IsConnected());
    CarryOut("Weather", info.empPort);
    ExpectNoSignal("Weather", strPid);
    EXPECT_EQ(CBrokerClient().Version(), "5.100");
}

TEST_F(Stop, OfAProcessThatHasEndedSignalsNobody) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    const std::string strPid = Ask(info.empPort, "Pid");
    ASSERT_EQ(::kill(std::stoi(strPid), SIGKILL), 0);
    AwaitLine(4, "ForkEmp", "WAITPID returns : [" + strPid + "].status : [9], execve return :[0] ");
    CarryOut("Weather", info.empPort);
    ExpectNoSignal("Weather", strPid);
}

/// Waits until a new process would start at another time than this one, as /proc/PID/stat tells it:
/// in clock ticks since the machine has started.
void AwaitLaterStartThan(const ProcessId& process) {
    const auto nTicksPerSecond = static_cast<unsigned long long>(::sysconf(_SC_CLK_TCK));
    EXPECT_TRUE(CDaemon::Await([&] {
        timespec now{};
        (void)::clock_gettime(CLOCK_BOOTTIME, &now);
        const auto nSeconds = static_cast<unsigned long long>(now.tv_sec);
        const auto nNanoseconds = static_cast<unsigned long long>(now.tv_nsec);
        return nSeconds * nTicksPerSecond + nNanoseconds * nTicksPerSecond / 1'000'000'000 >
               process.nStartTime;
    }));
}

TEST_F(Stop, DoesNotSignalWhoHasGotTheSamePid) {
    CEmpInstaller::Preinstall("Weather");
    const ConnectionInfo info = OpenEmp("Weather");
    const std::string strPid = Ask(info.empPort, "Pid");
    const ProcessId emp = IdentifyProcess(std::stoi(strPid));
    ASSERT_EQ(::kill(std::stoi(strPid), SIGKILL), 0);
    AwaitLine(4, "ForkEmp", "WAITPID returns : [" + strPid + "].status : [9], execve return :[0] ");
    AwaitLaterStartThan(emp);
    const CBystander bystander(std::stoi(strPid));
    ASSERT_EQ(bystander.Pid(), std::stoi(strPid)) << strerror(errno);

    CarryOut("Weather", info.empPort);
    ExpectNoSignal("Weather", strPid);
    EXPECT_EQ(PendingSignals(bystander.Pid()), kNone);
}

// The other way round: what a bystander would get if it were meant.
TEST_F(Stop, SignalsAProcessThatAnEmpReported) {
    const CBystander bystander(20'000);
    ASSERT_EQ(bystander.Pid(), 20'000) << strerror(errno);
    CEmpInstaller::Preinstall("Weather", CEmpBehaviour().With("pid", "20000"));
    const ConnectionInfo info = OpenEmp("Weather");
    CarryOut("Weather", info.empPort);
    EXPECT_EQ(PendingSignals(bystander.Pid()), "0000000000004000") << "SIGTERM";
}

// ---- With an image
// --------------------------------------------------------------------------------

TEST_F(Stop, OfAnEmpThatIgnoresItHoldsTheImageBackForTwoSeconds) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
    CEmpInstaller::InstallImage("Stubborn", CEmpBehaviour().IgnoresSigterm());
    CEmpInstaller::Preinstall("Weather");
    const std::string strPoint = CEmpInstaller::MountPoint("Stubborn");
    const ConnectionInfo info = OpenEmp("Stubborn");
    ASSERT_TRUE(CloseEmp(info));

    const auto begin = std::chrono::steady_clock::now();
    ReportStop("Stubborn", info.empPort);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900))
        << "the report itself waits for nobody";
    EXPECT_THAT(OpenEmp("Weather"), IsConnected()) << "nor do other opens";
    AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ");
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(1900));
    EXPECT_LT(took, std::chrono::seconds(8));
    ExpectLine(0, "UnmoutEMP", "Umount for [Stubborn] EMP Failed!");
    ExpectLine(0, "ExitEmpProc", "Umount EMP:[Stubborn] failed.");
    EXPECT_TRUE(IsMounted(strPoint)) << "the process still runs from it";
}

TEST_F(Stop, UnmountsAfterTheProcessHasEnded) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
    CEmpInstaller::InstallImage("Orderly");
    const ConnectionInfo info = OpenEmp("Orderly");
    ASSERT_TRUE(CloseEmp(info));
    // By the EMP itself, whose process is busy with its report when the signal comes.
    EXPECT_EQ(Ask(info.empPort, "ReportStop", "0"), "");
    AwaitLine(4, "ExitEmpProc", "==Leave ExitEmpProc==. ");
    EXPECT_FALSE(IsMounted(CEmpInstaller::MountPoint("Orderly"))) << m_Daemon.Log();
    ExpectLine(3, "UnmoutEMP", "Umount for [Orderly] EMP Succeeded!");
}

}  // namespace
}  // namespace vok::test
