#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/CSyslogSink.h"
#include "platform/CUniqueFd.h"
#include "platform/CVOKDebug.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

using test::CLogCapture;
using test::CTemporaryFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(PrintLog, PrefixAndMessageAreOneRecord) {
    CLogCapture log;
    CVOKDebug::PrintLog(1, LEVEL_ERROR, "[VOK][%s(%d)] ", "OpenEmp", 12);
    CVOKDebug::PrintLog(1, LEVEL_ERROR, "EMP:[%s]", "Weather");
    ASSERT_EQ(log.Records().size(), 1u);
    EXPECT_EQ(log.Records()[0].strPrefix, "[VOK][OpenEmp(12)] ");
    EXPECT_EQ(log.Records()[0].Function(), "OpenEmp");
    EXPECT_TRUE(log.HasLine(LEVEL_ERROR, "OpenEmp", "EMP:[Weather]")) << log.Text();
}

TEST(PrintLog, ClassPrefixIsAPrefix) {
    CLogCapture log;
    VOK_CLASS_LOG_AS("CEmpInfo", "Add", LEVEL_DETAIL, "%d", 7);
    EXPECT_TRUE(log.HasLine(LEVEL_DETAIL, "CEmpInfo::Add", "7")) << log.Text();
}

TEST(PrintLog, MessageWithoutPrefixIsARecord) {
    CLogCapture log;
    CVOKDebug::PrintLog(1, LEVEL_EVENT, "alone");
    EXPECT_TRUE(log.HasLine(LEVEL_EVENT, "", "alone")) << log.Text();
}

TEST(PrintLog, StalePrefixIsReplaced) {
    CLogCapture log;
    CVOKDebug::PrintLog(1, LEVEL_EVENT, "[VOK][%s(%d)] ", "Forgotten", 1);
    VOK_LOG_AS("Remembered", LEVEL_EVENT, "text");
    EXPECT_THAT(log.Messages(), ElementsAre("text"));
    EXPECT_TRUE(log.HasLine(LEVEL_EVENT, "Remembered", "text")) << log.Text();
}

TEST(PrintLog, PrefixOfAnotherLevelIsNotTaken) {
    CLogCapture log;
    CVOKDebug::PrintLog(1, LEVEL_EVENT, "[VOK][%s(%d)] ", "Forgotten", 1);
    CVOKDebug::PrintLog(1, LEVEL_ERROR, "text");
    EXPECT_TRUE(log.HasLine(LEVEL_ERROR, "", "text")) << log.Text();
}

TEST(PrintLog, MessageIsTakenAsItIs) {
    CLogCapture log;
    VOK_LOG_AS("F", LEVEL_DETAIL, "100%% {} %s \n", "%s{0}");
    EXPECT_THAT(log.Messages(), ElementsAre("100% {} %s{0} \n"));
}

TEST(PrintLog, KeepsErrno) {
    CLogCapture log;
    errno = ENOTDIR;
    VOK_LOG_AS("F", LEVEL_ERROR, "%s", std::string(100'000, 'x').c_str());
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(PrintLog, ManyThreadsNeverMixTheirRecords) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 500;
    CLogCapture log;
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < kThreads; ++nThread) {
        threads.emplace_back([nThread] {
            const std::string strFunction = "Function" + std::to_string(nThread);
            for (int i = 0; i < kRecords; ++i) {
                VOK_LOG_AS(strFunction.c_str(), LEVEL_DETAIL, "%d of %d", i, nThread);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(log.Records().size(), static_cast<std::size_t>(kThreads * kRecords));
    std::vector<int> next(kThreads, 0);
    for (const test::LogRecord& record : log.Records()) {
        int nThread = -1;
        int nRecord = -1;
        ASSERT_EQ(std::sscanf(record.strMessage.c_str(), "%d of %d", &nRecord, &nThread), 2);
        EXPECT_EQ(record.Function(), "Function" + std::to_string(nThread));
        EXPECT_EQ(record.strMessage,
                  std::to_string(next[nThread]++) + " of " + std::to_string(nThread));
    }
}

TEST(PrintLog, FilteredMessageEvaluatesNothing) {
    CLogCapture log(LEVEL_NOTICE);
    int nEvaluated = 0;
    VOK_LOG(LEVEL_TRACE, "%d", ++nEvaluated);
    VOK_CLASS_LOG("C", LEVEL_DETAIL, "%d", ++nEvaluated);
    EXPECT_EQ(nEvaluated, 0);
    VOK_LOG(LEVEL_NOTICE, "%d", ++nEvaluated);
    EXPECT_EQ(nEvaluated, 1);
    EXPECT_THAT(log.Messages(), ElementsAre("1"));
}

TEST(PrintLog, FilteredCallFormatsNothing) {
    CLogCapture log(LEVEL_NOTICE);
    int nFormatted = 0;
    CVOKDebug::PrintLog(1, LEVEL_TRACE, "text%n", &nFormatted);
    EXPECT_EQ(nFormatted, 0);
    EXPECT_THAT(log.Messages(), IsEmpty());
}

class LongMessage : public ::testing::TestWithParam<std::size_t> {};

TEST_P(LongMessage, ComesOutWhole) {
    CLogCapture log;
    std::string strText(GetParam(), 'x');
    if (!strText.empty()) strText.back() = 'y';
    VOK_LOG(LEVEL_ERROR, "%s", strText.c_str());
    EXPECT_EQ(log.Messages().at(0), strText);
}

INSTANTIATE_TEST_SUITE_P(Lengths, LongMessage,
                         ::testing::Values(0, 1, 1022, 1023, 1024, 1025, 1 << 20));

TEST(SetLogLevel, IsWhatGetLogLevelTells) {
    const CLogCapture restoresTheLevel;
    for (const unsigned short nLevel : {0, 3, 65535}) {
        CVOKDebug::SetLogLevel(nLevel);
        EXPECT_EQ(CVOKDebug::GetLogLevel(), nLevel);
    }
}

// ---- The real destinations, in a process that starts with the environment under test ----

void LogsTwoRecords() {
    VOK_LOG_AS("OpenEmp", LEVEL_ERROR, "first");
    std::thread([] { VOK_CLASS_LOG_AS("CEmpInfo", "Add", LEVEL_NOTICE, "second "); }).join();
    VOK_LOG_AS("OpenEmp", LEVEL_TRACE, "filtered");
}

void LogsLevel() {
    VOK_LOG_AS("Level", LEVEL_ERROR, "%d", CVOKDebug::GetLogLevel());
}

void LogsItsThread() {
    VOK_LOG_AS("Ids", LEVEL_ERROR, "before");
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        VOK_LOG_AS("Ids", LEVEL_ERROR, "after %d", static_cast<int>(::getpid()));
        ::_exit(0);
    }
    int nStatus = -1;
    AwaitChild(nPid, &nStatus);
}

void LogsAMebibyte() {
    VOK_LOG_AS("Long", LEVEL_ERROR, "%s", std::string(1 << 20, 'x').c_str());
}

void ShowsTheFlagsOfTheLogFile() {
    VOK_LOG_AS("Flags", LEVEL_ERROR, "opens it");
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry, error) != std::getenv("VOK_LOG_FILE")) continue;
        std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
        std::string strWord;
        while (info >> strWord && strWord != "flags:") continue;
        info >> strWord;
        VOK_LOG_AS("Flags", LEVEL_ERROR, "%d", (std::stoi(strWord, nullptr, 8) & O_CLOEXEC) != 0);
    }
}

void LogsWhileMainReturns() {
    for (int i = 0; i < 4; ++i) {
        std::thread([] {
            for (;;) VOK_LOG_AS("Endless", LEVEL_ERROR, "record");
        }).detach();
    }
    VOK_LOG_AS("Main", LEVEL_ERROR, "returns");
}

constexpr std::pair<const char*, void (*)()> kChildren[] = {
    {"LogsTwoRecords", &LogsTwoRecords},
    {"LogsLevel", &LogsLevel},
    {"LogsItsThread", &LogsItsThread},
    {"LogsAMebibyte", &LogsAMebibyte},
    {"ShowsTheFlagsOfTheLogFile", &ShowsTheFlagsOfTheLogFile},
    {"LogsWhileMainReturns", &LogsWhileMainReturns},
};

/// In a child process, runs what the child is there for, instead of any test.
class CChildEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        const char* const szChild = std::getenv("VOK_TEST_CHILD");
        if (szChild == nullptr) return;
        for (const auto& [szName, pRun] : kChildren) {
            if (std::string_view(szName) != szChild) continue;
            pRun();
            std::exit(0);
        }
        std::exit(126);
    }
};

[[maybe_unused]] const auto* const s_pChildEnvironment =
    ::testing::AddGlobalTestEnvironment(new CChildEnvironment);

/// This binary as a child process that runs `szChild`, with `environment` beside its own. Its wait
/// status.
int RunChild(const std::string& strChild, const std::vector<std::string>& environment) {
    std::vector<std::string> texts = environment;
    texts.push_back("VOK_TEST_CHILD=" + strChild);
    for (char** p = environ; *p != nullptr; ++p) {
        if (std::string_view(*p).substr(0, 8) != "VOK_LOG_") texts.push_back(*p);
    }
    std::vector<char*> envp;
    for (std::string& strText : texts) envp.push_back(strText.data());
    envp.push_back(nullptr);
    const std::string strSelf = std::filesystem::read_symlink("/proc/self/exe").string();
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        const int nNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        (void)::dup2(nNull, 1);  // what gtest says before it comes to the child's part
        ::execle(strSelf.c_str(), strSelf.c_str(), nullptr, envp.data());
        ::_exit(126);
    }
    int nStatus = -1;
    AwaitChild(nPid, &nStatus);
    return nStatus;
}

std::string ReadFile(const std::string& strPath) {
    std::ifstream file(strPath);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class LogFile : public ::testing::Test {
protected:
    std::string Run(const std::string& strChild, std::vector<std::string> environment = {}) {
        environment.push_back("VOK_LOG_FILE=" + m_strFile);
        EXPECT_EQ(RunChild(strChild, environment), 0);
        return ReadFile(m_strFile);
    }

    const CTemporaryFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("log");
};

/// The ids of the record that contains `strWhat`.
struct Ids {
    int nPid = -1;
    int nThread = -1;
};

Ids IdsOf(const std::string& strLog, const std::string& strWhat) {
    std::istringstream lines(strLog);
    Ids ids;
    for (std::string strLine; std::getline(lines, strLine);) {
        if (strLine.find(strWhat) == std::string::npos) continue;
        (void)std::sscanf(strLine.c_str(), "%*s %d %d", &ids.nPid, &ids.nThread);
    }
    return ids;
}

TEST_F(LogFile, HasOneLinePerRecord) {
    const std::string strText = Run("LogsTwoRecords");
    const std::string strStart =
        "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{6} [0-9]+ [0-9]+ ";
    EXPECT_THAT(strText, ::testing::MatchesRegex(
                             strStart + "0 \\[VOK\\]\\[OpenEmp\\([0-9]+\\)\\] first\n" + strStart +
                             "2 \\[VOK\\]\\[CEmpInfo::Add\\([0-9]+\\)\\] second \n"));
    const Ids main = IdsOf(strText, "first");
    const Ids other = IdsOf(strText, "second");
    EXPECT_EQ(main.nThread, main.nPid);
    EXPECT_EQ(other.nPid, main.nPid);
    EXPECT_NE(other.nThread, main.nThread);
}

TEST_F(LogFile, IsAppendedTo) {
    std::ofstream(m_strFile) << "what was there\n";
    EXPECT_THAT(Run("LogsTwoRecords"), ::testing::StartsWith("what was there\n"));
}

TEST_F(LogFile, IsCloseOnExec) {
    EXPECT_THAT(Run("ShowsTheFlagsOfTheLogFile"), HasSubstr("] 1\n"));
}

TEST_F(LogFile, TakesLongRecordsWhole) {
    EXPECT_THAT(Run("LogsAMebibyte"), HasSubstr("] " + std::string(1 << 20, 'x') + "\n"));
}

TEST_F(LogFile, ShowsTheIdsOfAForkedProcess) {
    const std::string strText = Run("LogsItsThread");
    const Ids parent = IdsOf(strText, "before");
    const Ids child = IdsOf(strText, "after " + std::to_string(IdsOf(strText, "after").nPid));
    EXPECT_GT(child.nPid, 0) << strText;
    EXPECT_NE(child.nPid, parent.nPid);
    EXPECT_EQ(child.nThread, child.nPid);
}

TEST_F(LogFile, ThreadsMayLogWhileMainReturns) {
    const std::string strText = Run("LogsWhileMainReturns");
    EXPECT_THAT(strText, HasSubstr("] returns\n"));
}

struct LevelCase {
    const char* szName;
    const char* szEnvironment;
    const char* szLevel;
};

class LogLevel : public LogFile, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(LogLevel, ComesFromTheEnvironment) {
    std::vector<std::string> environment;
    if (GetParam().szEnvironment != nullptr) {
        environment.push_back(std::string("VOK_LOG_LEVEL=") + GetParam().szEnvironment);
    }
    EXPECT_THAT(Run("LogsLevel", environment),
                HasSubstr(std::string("] ") + GetParam().szLevel + "\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Environment, LogLevel,
    ::testing::Values(LevelCase{"Unset", nullptr, "2"}, LevelCase{"Empty", "", "2"},
                      LevelCase{"Zero", "0", "0"}, LevelCase{"Four", "4", "4"},
                      LevelCase{"Highest", "65535", "65535"}, LevelCase{"TooHigh", "65536", "2"},
                      LevelCase{"Negative", "-1", "2"}, LevelCase{"Letters", "debug", "2"},
                      LevelCase{"Tail", "3x", "2"}, LevelCase{"Blank", " 3", "2"}),
    [](const auto& info) { return info.param.szName; });

TEST(LogDestination, FullDiskStopsNothing) {
    for (const char* szChild : {"LogsTwoRecords", "LogsAMebibyte", "LogsWhileMainReturns"}) {
        EXPECT_EQ(RunChild(szChild, {"VOK_LOG_FILE=/dev/full"}), 0) << szChild;
    }
}

TEST(LogDestination, FileThatCannotBeOpenedStopsNothing) {
    for (const char* szFile : {"/nowhere/log", "/tmp", "/proc/version"}) {
        EXPECT_EQ(RunChild("LogsTwoRecords", {std::string("VOK_LOG_FILE=") + szFile}), 0) << szFile;
    }
}

TEST(LogDestination, FifoIsNoLogFile) {
    const CTemporaryFolder folder;
    const std::string strFifo = folder.Path("fifo");
    ASSERT_EQ(::mkfifo(strFifo.c_str(), 0600), 0);
    EXPECT_EQ(RunChild("LogsTwoRecords", {"VOK_LOG_FILE=" + strFifo}), 0);
}

TEST(LogDestination, FailuresPrintNothing) {
    const CTemporaryFolder folder;
    const std::string strOutput = folder.Path("output");
    const CUniqueFd output{::open(strOutput.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
    const CUniqueFd former{::fcntl(2, F_DUPFD_CLOEXEC, 3)};
    ASSERT_EQ(::dup2(output.Get(), 2), 2);
    const int nStatus = RunChild("LogsTwoRecords", {"VOK_LOG_FILE=/dev/full"});
    ::dup2(former.Get(), 2);
    EXPECT_EQ(nStatus, 0);
    EXPECT_EQ(ReadFile(strOutput), "");
}

// ---- Syslog ----

/// A log daemon's socket.
class CLogDaemon {
public:
    explicit CLogDaemon(const std::string& strPath)
        : m_Socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strPath.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(
            ::bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    /// The next datagram; empty when there is none.
    std::string Receive() {
        std::string strDatagram(65536, '\0');
        const ssize_t nSize = ::recv(m_Socket.Get(), strDatagram.data(), strDatagram.size(), 0);
        strDatagram.resize(nSize < 0 ? 0 : static_cast<std::size_t>(nSize));
        return strDatagram;
    }

private:
    CUniqueFd m_Socket;
};

class SyslogSink : public ::testing::Test {
protected:
    void Log(int nSeverity, const std::string& strText) { m_Sink.Write(nSeverity, strText); }

    const CTemporaryFolder m_Folder;
    const std::string m_strPath = m_Folder.Path("log");
    CSyslogSink m_Sink{m_strPath};
};

TEST_F(SyslogSink, SendsPriorityTagAndRecord) {
    CLogDaemon daemon(m_strPath);
    const std::vector<std::pair<int, std::string>> cases = {
        {LOG_ERR, "27"}, {LOG_WARNING, "28"}, {LOG_NOTICE, "29"}, {LOG_DEBUG, "31"}};
    for (const auto& [nSeverity, strPriority] : cases) {
        Log(nSeverity, "text");
        const std::string strDatagram = daemon.Receive();
        EXPECT_THAT(strDatagram,
                    ::testing::MatchesRegex(
                        "<" + strPriority +
                        ">[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} vok-broker\\[" +
                        std::to_string(::getpid()) + "\\]: text"));
    }
}

TEST_F(SyslogSink, DaemonThatReadsNothingBlocksNothing) {
    CLogDaemon daemon(m_strPath);
    for (int i = 0; i < 5000; ++i) Log(LOG_ERR, std::to_string(i));
    EXPECT_THAT(daemon.Receive(), ::testing::EndsWith(": 0"));
    int nMore = 0;
    while (!daemon.Receive().empty()) ++nMore;
    EXPECT_LT(nMore, 4999) << "its queue was never full";
    Log(LOG_ERR, "read again");
    EXPECT_THAT(daemon.Receive(), HasSubstr("read again"));
}

TEST_F(SyslogSink, DaemonThatComesLaterIsFound) {
    Log(LOG_ERR, "lost");
    CLogDaemon daemon(m_strPath);
    Log(LOG_ERR, "found");
    EXPECT_THAT(daemon.Receive(), HasSubstr("found"));
    EXPECT_EQ(daemon.Receive(), "");
}

TEST_F(SyslogSink, DaemonThatComesBackIsFound) {
    {
        CLogDaemon daemon(m_strPath);
        Log(LOG_ERR, "first");
        EXPECT_THAT(daemon.Receive(), HasSubstr("first"));
    }
    Log(LOG_ERR, "lost");
    std::filesystem::remove(m_strPath);
    CLogDaemon daemon(m_strPath);
    Log(LOG_ERR, "second");
    EXPECT_THAT(daemon.Receive(), HasSubstr("second"));
}

TEST_F(SyslogSink, LongRecordComesInPieces) {
    CLogDaemon daemon(m_strPath);
    const std::string strText(20'000, 'x');
    Log(LOG_ERR, strText);
    std::string strReceived;
    for (std::string strPiece; !(strPiece = daemon.Receive()).empty();) {
        EXPECT_LE(strPiece.size(), 8192u);
        strReceived += strPiece.substr(strPiece.find("]: ") + 3);
    }
    EXPECT_EQ(strReceived, strText);
}

TEST(SyslogSinkPath, TooLongIsNoDestination) {
    CSyslogSink sink(std::string(200, 'x'));
    EXPECT_NO_THROW(sink.Write(LOG_ERR, "lost"));
}

}  // namespace
}  // namespace vok
