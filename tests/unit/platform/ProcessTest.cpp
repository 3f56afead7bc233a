#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "platform/CUniqueFd.h"
#include "platform/Descriptors.h"
#include "platform/Process.h"
#include "platform/ScopeGuard.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

constexpr auto kLong = 20s;
constexpr int kCannotForbid = 77;

/// A child that runs until it is killed.
class CSleeper {
public:
    CSleeper() {
        int fds[2];
        EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        const CUniqueFd reading{fds[0]};
        CUniqueFd writing{fds[1]};
        m_nPid = ::fork();
        if (m_nPid == 0) {
            (void)prctl(PR_SET_NAME, "a) R 1 (b) S");
            (void)!::write(writing.Get(), "x", 1);
            for (;;) ::pause();
        }
        writing.Reset();
        char c = 0;
        EXPECT_EQ(::read(reading.Get(), &c, 1), 1);
    }
    ~CSleeper() {
        Kill();
        Reap();
    }

    pid_t Pid() const { return m_nPid; }
    void Kill() {
        if (!m_bReaped) ::kill(m_nPid, SIGKILL);
    }
    int Reap() {
        if (!m_bReaped) AwaitChild(m_nPid, &m_nStatus);
        m_bReaped = true;
        return m_nStatus;
    }

private:
    pid_t m_nPid = -1;
    bool m_bReaped = false;
    int m_nStatus = -1;
};

TEST(IdentifyProcess, FindsTheStartTimeBehindAnyName) {
    const CSleeper sleeper;
    const ProcessId process = IdentifyProcess(sleeper.Pid());
    EXPECT_EQ(process.nPid, sleeper.Pid());
    // A child is not older than its parent, and younger than a minute.
    const auto nOwn = IdentifyProcess(::getpid()).nStartTime;
    EXPECT_GE(process.nStartTime, nOwn);
    EXPECT_LT(process.nStartTime, nOwn + 600u * static_cast<unsigned long>(sysconf(_SC_CLK_TCK)));
}

TEST(IdentifyProcess, KnowsNoStartTimeOfWhatDoesNotRun) {
    CSleeper sleeper;
    const pid_t nPid = sleeper.Pid();
    sleeper.Kill();
    sleeper.Reap();
    for (const pid_t nNone : {nPid, 0, -1, -nPid}) {
        EXPECT_EQ(IdentifyProcess(nNone).nStartTime, 0u) << nNone;
    }
}

TEST(ProgramOf, IsWhatTheKernelSaysItRuns) {
    const CSleeper sleeper;
    const std::string strOwn = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(ProgramOf(IdentifyProcess(sleeper.Pid())), strOwn);
    EXPECT_EQ(ProgramOf(IdentifyProcess(::getpid())), strOwn);
}

TEST(ProgramOf, OfAnotherProcessWithTheSamePidIsNotTold) {
    const CSleeper sleeper;
    ProcessId process = IdentifyProcess(sleeper.Pid());
    ++process.nStartTime;
    EXPECT_EQ(ProgramOf(process), "");
    process.nStartTime = 0;
    EXPECT_EQ(ProgramOf(process), "");
}

TEST(ProgramOf, IsNoneForOneThatHasEnded) {
    CSleeper sleeper;
    const ProcessId process = IdentifyProcess(sleeper.Pid());
    sleeper.Kill();
    sleeper.Reap();
    EXPECT_EQ(ProgramOf(process), "");
    EXPECT_EQ(ProgramOf({}), "");
    EXPECT_EQ(ProgramOf({-1, 1, 0}), "");
}

TEST(SignalProcess, ReachesTheProcess) {
    CSleeper sleeper;
    EXPECT_TRUE(SignalProcess(IdentifyProcess(sleeper.Pid()), SIGTERM));
    const int nStatus = sleeper.Reap();
    EXPECT_TRUE(WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGTERM) << nStatus;
}

TEST(SignalProcess, SparesAnotherProcessWithTheSamePid) {
    CSleeper sleeper;
    ProcessId process = IdentifyProcess(sleeper.Pid());
    --process.nStartTime;
    EXPECT_FALSE(SignalProcess(process, SIGKILL));
    EXPECT_FALSE(SignalProcess({sleeper.Pid(), 0}, SIGKILL));
    EXPECT_FALSE(AwaitProcessEnd(IdentifyProcess(sleeper.Pid()), 20ms));
}

TEST(SignalProcess, RefusesWhatIsNobodyElsesProcess) {
    const auto nStart = IdentifyProcess(::getpid()).nStartTime;
    for (const pid_t nPid : {::getpid(), pid_t{1}, pid_t{0}, pid_t{-1}}) {
        EXPECT_FALSE(SignalProcess({nPid, nStart}, 0)) << nPid;
        EXPECT_FALSE(SignalProcess(IdentifyProcess(nPid), 0)) << nPid;
    }
}

TEST(SignalProcess, RefusesAThreadOfTheCaller) {
    // A signal to a thread's id reaches the whole process: this one.
    std::thread thread{[] {
        const auto nThread = static_cast<pid_t>(::syscall(SYS_gettid));
        ASSERT_NE(nThread, ::getpid());
        EXPECT_FALSE(SignalProcess(IdentifyProcess(nThread), SIGTERM));
    }};
    thread.join();
}

TEST(SignalProcess, KnowsThatAZombieHasEnded) {
    CSleeper sleeper;
    const ProcessId process = IdentifyProcess(sleeper.Pid());
    sleeper.Kill();
    EXPECT_TRUE(AwaitProcessEnd(process, kLong));
    EXPECT_FALSE(SignalProcess(process, SIGTERM));
}

TEST(AwaitProcessEnd, WaitsNoLongerThanTold) {
    const CSleeper sleeper;
    const auto start = Clock::now();
    EXPECT_FALSE(AwaitProcessEnd(IdentifyProcess(sleeper.Pid()), 50ms));
    EXPECT_GE(Clock::now() - start, 50ms);
    EXPECT_LT(Clock::now() - start, kLong);
}

TEST(AwaitProcessEnd, SeesTheEnd) {
    CSleeper sleeper;
    const ProcessId process = IdentifyProcess(sleeper.Pid());
    std::thread killer([&] { sleeper.Kill(); });
    EXPECT_TRUE(AwaitProcessEnd(process, kLong));
    killer.join();
}

TEST(AwaitProcessEnd, HoldsForOneThatHasLongEnded) {
    CSleeper sleeper;
    ProcessId process = IdentifyProcess(sleeper.Pid());
    --process.nStartTime;
    EXPECT_TRUE(AwaitProcessEnd(process, 0ms));
    EXPECT_TRUE(AwaitProcessEnd({sleeper.Pid(), 0}, 0ms));
}

// ---- ForkAndExec ----

/// The arguments and the environment of an ExecRequest.
class CVector {
public:
    CVector(std::initializer_list<const char*> texts) : m_Texts(texts.begin(), texts.end()) {
        for (std::string& strText : m_Texts) m_Pointers.push_back(strText.data());
        m_Pointers.push_back(nullptr);
    }
    char* const* Get() const { return m_Pointers.data(); }

private:
    std::vector<std::string> m_Texts;
    std::vector<char*> m_Pointers;
};

class ForkAndExecTest : public ::testing::Test {
protected:
    /// Runs a shell script with $OUT naming a file; the text of that file.
    std::string RunScript(const char* szScript) {
        const std::string strVariable = "OUT=" + m_strOutput;
        const CVector argv{"sh", "-c", szScript};
        const CVector envp{strVariable.c_str()};
        ExecRequest request;
        request.szPath = "/bin/sh";
        request.argv = argv.Get();
        request.envp = envp.Get();
        const ForkResult result = ForkAndExec(request);
        EXPECT_GT(result.nPid, 0);
        EXPECT_EQ(result.nExecErrno, 0);
        EXPECT_EQ(AwaitChild(result.nPid, &m_nStatus), result.nPid);
        std::ifstream file(m_strOutput);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const test::CTemporaryFolder m_Folder;
    const std::string m_strOutput = m_Folder.Path("output");
    int m_nStatus = -1;
};

TEST_F(ForkAndExecTest, HandsOverExactlyTheVectors) {
    const CVector argv{"name of its own", "-c",
                       "cat /proc/$$/cmdline /proc/$$/environ >/proc/$$/fd/1", "", "a  b"};
    const CVector envp{"A=1", "B= 2 ", "EMPTY="};
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    const CUniqueFd reading{fds[0]};
    CUniqueFd writing{fds[1]};
    const CUniqueFd former{::fcntl(1, F_DUPFD_CLOEXEC, 3)};
    ExecRequest request;
    request.szPath = "/bin/sh";
    request.argv = argv.Get();
    request.envp = envp.Get();
    ASSERT_EQ(::dup2(writing.Get(), 1), 1);
    const ForkResult result = ForkAndExec(request);
    ASSERT_EQ(::dup2(former.Get(), 1), 1);
    writing.Reset();
    std::string strSeen;
    char buffer[4096];
    for (ssize_t n; (n = ::read(reading.Get(), buffer, sizeof buffer)) > 0;) {
        strSeen.append(buffer, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(AwaitChild(result.nPid, &m_nStatus), result.nPid);
    std::string strExpected;
    for (char* const* p : {argv.Get(), envp.Get()}) {
        for (; *p != nullptr; ++p) strExpected += std::string(*p) + '\0';
    }
    EXPECT_EQ(strSeen, strExpected);
}

TEST_F(ForkAndExecTest, ProgramHasDescriptorsZeroToTwoOnly) {
    const CUniqueFd inherited{::open("/dev/null", O_RDONLY)};
    const CUniqueFd far{::fcntl(inherited.Get(), F_DUPFD, 500)};
    ASSERT_TRUE(far.IsOpen());
    EXPECT_EQ(RunScript("exec >$OUT; ls /proc/$$/fd; true"), "0\n1\n2\n");
}

TEST_F(ForkAndExecTest, ProgramHasNoBlockedAndNoIgnoredSignals) {
    std::vector<std::pair<int, void (*)(int)>> former;
    for (const int nSignal : {SIGPIPE, SIGUSR1, SIGRTMAX}) {
        former.emplace_back(nSignal, std::signal(nSignal, SIG_IGN));
    }
    sigset_t some;
    sigset_t mask;
    sigemptyset(&some);
    sigaddset(&some, SIGTERM);
    sigaddset(&some, SIGRTMIN);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &some, &mask), 0);
    const std::string strStatus = RunScript("grep -E '^Sig(Blk|Ign):' /proc/self/status >$OUT");
    sigset_t after;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &mask, &after), 0);
    for (const auto& [nSignal, pHandler] : former) (void)std::signal(nSignal, pHandler);
    EXPECT_EQ(strStatus, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(sigismember(&after, SIGTERM), 1) << "the caller's mask has to stay";
    EXPECT_EQ(sigismember(&after, SIGUSR2), 0);
}

using RememberSignalActionsTest = ForkAndExecTest;

TEST_F(RememberSignalActionsTest, ProgramHasNoneOfTheRememberedSignalsIgnored) {
    // In a process of its own: there is no way back.
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        (void)std::signal(SIGUSR1, SIG_IGN);
        (void)std::signal(SIGRTMAX, SIG_IGN);
        (void)std::signal(SIGTERM, [](int) {});
        RememberSignalActions();
        const char* const szScript = "grep -E '^Sig(Blk|Ign):' /proc/self/status >$OUT";
        EXPECT_EQ(RunScript(szScript), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
        (void)std::signal(SIGUSR2, SIG_IGN);  // after all, and so it stays
        EXPECT_THAT(RunScript(szScript), HasSubstr("SigIgn:\t0000000000000800\n"));
        ::_exit(HasFailure() ? 1 : 0);
    }
    ASSERT_EQ(AwaitChild(nPid, &m_nStatus), nPid);
    EXPECT_EQ(m_nStatus, 0);
}

TEST_F(ForkAndExecTest, ProgramHasTheLimitFromBeforeItWasRaised) {
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    const ScopeGuard restore{[&] { (void)setrlimit(RLIMIT_NOFILE, &former); }};
    rlimit low = former;
    low.rlim_cur = 200;  // as the other test of this process, if it has come first
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    RaiseDescriptorLimit();
    EXPECT_EQ(RunScript("ulimit -Sn >$OUT; ulimit -Hn >>$OUT"),
              "200\n" + std::to_string(former.rlim_max) + "\n");
}

TEST_F(ForkAndExecTest, PidIsKnownBeforeTheProgramRuns) {
    std::atomic<pid_t> nPid{0};
    const CVector argv{"true"};
    const CVector envp{};
    ExecRequest request;
    request.szPath = "/bin/true";
    request.argv = argv.Get();
    request.envp = envp.Get();
    request.pPid = &nPid;
    const ForkResult result = ForkAndExec(request);
    EXPECT_EQ(nPid, result.nPid);
    EXPECT_EQ(AwaitChild(result.nPid, &m_nStatus), result.nPid);
    EXPECT_EQ(m_nStatus, 0);
}

TEST_F(ForkAndExecTest, WithoutExecuteTheChildEndsWithZero) {
    std::atomic<pid_t> nPid{0};
    ExecRequest request;
    request.szPath = "/bin/false";
    request.bExecute = false;
    request.pPid = &nPid;
    const ForkResult result = ForkAndExec(request);
    EXPECT_EQ(result.nExecErrno, 0);
    EXPECT_EQ(AwaitChild(result.nPid, &m_nStatus), result.nPid);
    EXPECT_EQ(m_nStatus, 0);
    EXPECT_EQ(nPid, result.nPid);
}

TEST_F(ForkAndExecTest, ExecErrorIsToldAndTheChildEndsWithZero) {
    const std::string strNotExecutable = m_Folder.Path("data");
    const std::string strGarbage = m_Folder.Path("garbage");
    std::ofstream(strNotExecutable) << "text";
    std::ofstream(strGarbage) << "garbage";
    std::filesystem::permissions(strNotExecutable, std::filesystem::perms(0600));
    std::filesystem::permissions(strGarbage, std::filesystem::perms(0700));
    const std::vector<std::pair<std::string, int>> cases = {
        {"/nowhere/program", ENOENT}, {strNotExecutable, EACCES}, {strGarbage, ENOEXEC}};
    const CVector argv{"program"};
    const CVector envp{};
    for (const auto& [strPath, nErrno] : cases) {
        ExecRequest request;
        request.szPath = strPath.c_str();
        request.argv = argv.Get();
        request.envp = envp.Get();
        const ForkResult result = ForkAndExec(request);
        ASSERT_GT(result.nPid, 0);
        EXPECT_EQ(result.nExecErrno, nErrno) << strPath;
        EXPECT_EQ(AwaitChild(result.nPid, &m_nStatus), result.nPid);
        EXPECT_EQ(m_nStatus, 0);
    }
}

TEST_F(ForkAndExecTest, ManyThreadsMayStartProgramsAtOnce) {
    const CVector argv{"program"};
    const CVector envp{};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int j = 0; j < 25; ++j) {
                ExecRequest request;
                request.szPath = i % 2 == 0 ? "/bin/false" : "/nowhere";
                request.argv = argv.Get();
                request.envp = envp.Get();
                const ForkResult result = ForkAndExec(request);
                int nStatus = -1;
                EXPECT_EQ(AwaitChild(result.nPid, &nStatus), result.nPid);
                EXPECT_EQ(result.nExecErrno, i % 2 == 0 ? 0 : ENOENT);
                EXPECT_EQ(WEXITSTATUS(nStatus), i % 2 == 0 ? 1 : 0);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

/// Makes the kernel of this process and its children older: no pidfds, no close_range.
bool ForbidNewCalls() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof filter / sizeof *filter, filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

using OlderKernel = ForkAndExecTest;

TEST_F(OlderKernel, ServesAsWell) {
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        if (!ForbidNewCalls()) ::_exit(kCannotForbid);
        const CUniqueFd inherited{::open("/dev/null", O_RDONLY)};
        EXPECT_EQ(RunScript("exec >$OUT; ls /proc/$$/fd; true"), "0\n1\n2\n");
        SetCloseOnExec(nullptr);
        EXPECT_EQ(::fcntl(inherited.Get(), F_GETFD), FD_CLOEXEC);
        CSleeper sleeper;
        ProcessId process = IdentifyProcess(sleeper.Pid());
        EXPECT_FALSE(AwaitProcessEnd(process, 20ms));
        EXPECT_FALSE(SignalProcess({process.nPid, process.nStartTime - 1}, SIGKILL));
        EXPECT_TRUE(SignalProcess(process, SIGTERM));
        EXPECT_TRUE(AwaitProcessEnd(process, kLong));
        EXPECT_FALSE(SignalProcess(process, SIGTERM));
        ::_exit(HasFailure() ? 1 : 0);
    }
    ASSERT_EQ(AwaitChild(nPid, &m_nStatus), nPid);
    if (WEXITSTATUS(m_nStatus) == kCannotForbid) GTEST_SKIP() << "no seccomp";
    EXPECT_EQ(m_nStatus, 0);
}

TEST(AwaitChild, FailsForWhatIsNoChild) {
    int nStatus = 0;
    EXPECT_EQ(AwaitChild(1, &nStatus), -1);
    EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace vok
