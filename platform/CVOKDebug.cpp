#include "platform/CVOKDebug.h"

#include <fcntl.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/CSyslogSink.h"
#include "platform/CUniqueFd.h"

namespace vok {

namespace {

constexpr std::size_t kMaxPrefix = 256;
/// Most messages fit in here; longer ones are formatted into memory of their own.
constexpr std::size_t kUsualMessage = 1024;

int LevelFromEnvironment() {
    constexpr int kDefault = LEVEL_NOTICE;
    const char* const szLevel = std::getenv("VOK_LOG_LEVEL");
    if (szLevel == nullptr) return kDefault;
    const char* const szEnd = szLevel + std::strlen(szLevel);
    unsigned short nLevel = 0;
    const auto result = std::from_chars(szLevel, szEnd, nLevel);
    return result.ec == std::errc() && result.ptr == szEnd ? nLevel : kDefault;
}

/// Regular files and devices. A FIFO could block or kill (SIGPIPE), so it counts as no file.
bool IsUsableLogFile(const char* szFile) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const CUniqueFd fd{::open(szFile, kFlags, 0644)};
    struct stat info {};
    return fd.IsOpen() && ::fstat(fd.Get(), &info) == 0 && !S_ISFIFO(info.st_mode);
}

std::unique_ptr<spdlog::sinks::sink> OpenLogFile(const char* szFile) {
    if (!IsUsableLogFile(szFile)) return nullptr;
    spdlog::file_event_handlers handlers;
    handlers.after_open = [](const spdlog::filename_t&, std::FILE* pFile) {
        // Every record is one write: at once in the file, never torn by another process's, and
        // nothing is left in a buffer when the disk is full.
        (void)std::setvbuf(pFile, nullptr, _IONBF, 0);
        // A stopped terminal must not stop us.
        (void)::fcntl(::fileno(pFile), F_SETFL, O_APPEND | O_NONBLOCK);
    };
    try {
        return std::make_unique<spdlog::sinks::basic_file_sink_mt>(szFile, false, handlers);
    } catch (const spdlog::spdlog_ex&) {
        return nullptr;
    }
}

spdlog::level::level_enum SpdlogLevel(int nLevel) {
    if (nLevel <= LEVEL_ERROR) return spdlog::level::err;
    if (nLevel == LEVEL_EVENT) return spdlog::level::warn;
    if (nLevel == LEVEL_NOTICE) return spdlog::level::info;
    return spdlog::level::debug;
}

/// The file or syslog.
class CSystemLog : public ILogSink {
public:
    CSystemLog() {
        const char* const szFile = std::getenv("VOK_LOG_FILE");
        if (szFile != nullptr && *szFile != '\0') m_pSink = OpenLogFile(szFile);
        if (!m_pSink) m_pSink = std::make_unique<CSyslogSink>();
        m_pSink->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%Y-%m-%dT%H:%M:%S.%f %P %t %v", spdlog::pattern_time_type::local, "\n"));
    }

    void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) override {
        std::string strText = std::to_string(nLevel);
        strText.reserve(strText.size() + 1 + strPrefix.size() + strMessage.size());
        strText.append(" ").append(strPrefix).append(strMessage);
        spdlog::details::log_msg record("", SpdlogLevel(nLevel), strText);
        // spdlog remembers a thread's id; in a forked process that is the parent's.
        record.thread_id = static_cast<std::size_t>(::syscall(SYS_gettid));
        m_pSink->log(record);
    }

private:
    std::unique_ptr<spdlog::sinks::sink> m_pSink;
};

/// Never destroyed: threads may log while the process ends. Made by the first record, which comes
/// after the daemon has forked.
ILogSink& SystemLog() {
    static ILogSink& log = *new CSystemLog;
    return log;
}

std::atomic<ILogSink*> s_pSink{nullptr};

/// The prefix that a thread has given and whose message is still to come. Without constructor and
/// destructor, so that it serves threads as long as they live.
struct PendingPrefix {
    bool bGiven;
    int nLevel;
    std::size_t nLength;
    char szText[kMaxPrefix];
};
thread_local PendingPrefix t_Prefix{};

bool IsPrefixFormat(const char* szFormat) {
    return std::strcmp(szFormat, "[VOK][%s(%d)] ") == 0 ||
           std::strcmp(szFormat, "[VOK][%s::%s(%d)] ") == 0;
}

void KeepPrefix(int nLevel, const char* szFormat, va_list args) {
    const int nLength = std::vsnprintf(t_Prefix.szText, kMaxPrefix, szFormat, args);
    t_Prefix.bGiven = nLength >= 0;
    t_Prefix.nLevel = nLevel;
    t_Prefix.nLength = std::min(static_cast<std::size_t>(std::max(nLength, 0)), kMaxPrefix - 1);
}

/// The thread's prefix, which is used up. One of another level belongs to a message that was
/// filtered meanwhile.
std::string_view TakePrefix(int nLevel) {
    const bool bUse = t_Prefix.bGiven && t_Prefix.nLevel == nLevel;
    t_Prefix.bGiven = false;
    return bUse ? std::string_view(t_Prefix.szText, t_Prefix.nLength) : std::string_view();
}

void WriteRecord(int nLevel, std::string_view strMessage) {
    ILogSink* const pSink = s_pSink.load(std::memory_order_acquire);
    (pSink != nullptr ? *pSink : SystemLog()).Write(nLevel, TakePrefix(nLevel), strMessage);
}

void WriteMessage(int nLevel, const char* szFormat, va_list args) {
    va_list again;
    va_copy(again, args);
    char szUsual[kUsualMessage];
    const int nLength = std::vsnprintf(szUsual, sizeof szUsual, szFormat, args);
    if (nLength < 0) {
        WriteRecord(nLevel, szFormat);  // cannot be formatted: better than nothing
    } else if (static_cast<std::size_t>(nLength) < sizeof szUsual) {
        WriteRecord(nLevel, {szUsual, static_cast<std::size_t>(nLength)});
    } else {
        std::string strLong(static_cast<std::size_t>(nLength) + 1, '\0');
        (void)std::vsnprintf(strLong.data(), strLong.size(), szFormat, again);
        strLong.pop_back();
        WriteRecord(nLevel, strLong);
    }
    va_end(again);
}

}  // namespace

std::atomic<int> CVOKDebug::s_nLevel{LevelFromEnvironment()};

void CVOKDebug::SetLogLevel(unsigned short nLevel) {
    s_nLevel.store(nLevel, std::memory_order_relaxed);
}

unsigned short CVOKDebug::GetLogLevel() {
    return static_cast<unsigned short>(s_nLevel.load(std::memory_order_relaxed));
}

void CVOKDebug::PrintLog(int /*nModule*/, int nLevel, const char* szFormat, ...) {
    if (!IsWritten(nLevel)) return;
    const int nErrno = errno;  // callers log first and look at errno afterwards
    va_list args;
    va_start(args, szFormat);
    try {
        if (IsPrefixFormat(szFormat)) {
            KeepPrefix(nLevel, szFormat, args);
        } else {
            WriteMessage(nLevel, szFormat, args);
        }
    } catch (...) {
        // A full disk, a lost log daemon, no memory: the record is lost, nothing else.
    }
    va_end(args);
    errno = nErrno;
}

void CVOKDebug::SetSink(ILogSink* pSink) {
    s_pSink.store(pSink, std::memory_order_release);
}

}  // namespace vok
