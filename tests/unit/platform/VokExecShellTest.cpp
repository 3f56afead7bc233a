#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <string>

#include "platform/CUniqueFd.h"
#include "platform/Log.h"
#include "platform/VokExecShell.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/CTemporaryFolder.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using namespace std::chrono_literals;
using test::CLogCapture;
using test::LogLines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Clock = std::chrono::steady_clock;

struct StatusCase {
    const char* szName;
    const char* szCommand;
    int nStatus;
};

class ShellStatus : public ::testing::TestWithParam<StatusCase> {};

TEST_P(ShellStatus, IsTheResult) {
    EXPECT_EQ(VokExecShell(GetParam().szCommand), GetParam().nStatus);
}

INSTANTIATE_TEST_SUITE_P(Commands, ShellStatus,
                         ::testing::Values(StatusCase{"Success", "true", 0},
                                           StatusCase{"Failure", "exit 3", 3},
                                           StatusCase{"Highest", "exit 255", 255},
                                           StatusCase{"Killed", "kill -9 $$", 137},
                                           StatusCase{"Unknown", "/nowhere/at/all", 127},
                                           StatusCase{"Null", nullptr, -1}),
                         [](const auto& info) { return info.param.szName; });

TEST(VokExecShell, LogsBothOutputsLineByLine) {
    CLogCapture log;
    EXPECT_EQ(VokExecShell("echo one; echo two >&2; echo; printf '%%s last'"), 0);
    EXPECT_THAT(log.Messages(LEVEL_DETAIL), ElementsAre("one", "two", "", "%s last"));
    EXPECT_TRUE(log.HasLine(LEVEL_DETAIL, "VokExecShell", "one")) << log.Text();
}

TEST(VokExecShell, LongLineMakesSeveralRecords) {
    CLogCapture log;
    EXPECT_EQ(VokExecShell("printf '%05000d\\nend\\n' 0"), 0);
    std::string strAll;
    for (const std::string& strMessage : log.Messages()) {
        EXPECT_LE(strMessage.size(), 1024u);
        strAll += strMessage;
    }
    EXPECT_EQ(strAll, std::string(5000, '0') + "end");
}

TEST(VokExecShell, ReadsMoreThanAPipeHolds) {
    CLogCapture log;
    EXPECT_EQ(VokExecShell("i=0; while [ $i -lt 20000 ]; do echo 0123456789; i=$((i+1)); done"), 0);
    EXPECT_EQ(log.Messages().size(), 20000u);
}

TEST(VokExecShell, DoesNotWaitForWhatStaysBehind) {
    // Both hold the pipe until the FIFO is opened, which is after the shell has been waited for.
    const test::CTemporaryFolder folder;
    const std::string strFifo = folder.Path("fifo");
    ASSERT_EQ(::mkfifo(strFifo.c_str(), 0600), 0);
    CLogCapture log;
    const std::string strCommand = "echo before; : <" + strFifo + " & exit 5";
    EXPECT_EQ(VokExecShell(strCommand.c_str()), 5);
    EXPECT_THAT(log.Messages(), ElementsAre("before"));
    // Fails (ENXIO) only when nobody waits at the other end any more.
    CUniqueFd fifo;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!fifo.IsOpen() && Clock::now() < deadline) {
        fifo.Reset(::open(strFifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    }
    EXPECT_TRUE(fifo.IsOpen());
}

TEST(VokExecShell, DoesNotReadForEverWhatStaysBehindPrints) {
    CLogCapture log;
    const std::string strCommand = "(while echo endless; do :; done) & echo $! >&2; exit 6";
    EXPECT_EQ(VokExecShell(strCommand.c_str()), 6);  // the endless one dies of SIGPIPE
    EXPECT_GE(log.Messages().size(), 1u);
}

TEST(VokExecShell, WaitsForAShellThatHasClosedItsOutputs) {
    CLogCapture log;
    EXPECT_EQ(
        VokExecShell("exec >&- 2>&-; i=0; while [ $i -lt 1000 ]; do i=$((i+1)); done; exit 7"), 7);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

TEST(VokExecShell, InheritsNoDescriptorsAndNoSignals) {
    const CUniqueFd inherited{::open("/dev/null", O_RDONLY)};
    ASSERT_TRUE(inherited.IsOpen());
    sigset_t some;
    sigset_t mask;
    sigemptyset(&some);
    sigaddset(&some, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &some, &mask), 0);
    const auto pFormer = std::signal(SIGPIPE, SIG_IGN);
    CLogCapture log;
    EXPECT_EQ(VokExecShell("ls /proc/$$/fd; true"), 0);
    EXPECT_EQ(VokExecShell("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(VokExecShell("kill -PIPE $$"), 128 + SIGPIPE);
    (void)std::signal(SIGPIPE, pFormer);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &mask, nullptr), 0);
    EXPECT_THAT(log.Messages(), ElementsAre("0", "1", "2"));
}

TEST(VokExecShell, WithoutAPipeNothingIsRun) {
    CLogCapture log;
    // What has been called before, UBSan knows, and opens no pipe of its own to look at.
    VOK_LOG(LEVEL_ERROR, "%s", "still a descriptor");
    log.Clear();
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none{0, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int nResult = VokExecShell("echo run");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);

    EXPECT_EQ(nResult, -1);
    EXPECT_THAT(LogLines(log),
                ElementsAre("0 VokExecShell: No pipe for [echo run]: [Too many open files]."));
}

TEST(VokExecShell, CommandThatNoShellCanBeGivenIsNotRun) {
    const std::string strCommand(4 << 20, 'x');  // longer than any argument of a process may be
    CLogCapture log;
    EXPECT_EQ(VokExecShell(strCommand.c_str()), -1);
    EXPECT_TRUE(log.HasLine(LEVEL_ERROR, "VokExecShell",
                            "Starting [" + strCommand + "] failed: [Argument list too long]."));
}

}  // namespace
}  // namespace vok
