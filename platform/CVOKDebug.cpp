#include "platform/CVOKDebug.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
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
#include <utility>

#include "platform/CMutex.h"
#include "platform/CSyslogSink.h"
#include "platform/CUniqueFd.h"
#include "platform/LogRecord.h"

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

/// A log file. Every record is one write: at once in the file, never torn by another process's.
class CLogFile {
public:
    /// Takes regular files and devices. A FIFO could block or kill (SIGPIPE), so it counts as no
    /// file.
    explicit CLogFile(const char* szFile) {
        // A stopped terminal must not stop us.
        constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        CUniqueFd fd{::open(szFile, kFlags, 0644)};
        struct stat info {};
        if (fd.IsOpen() && ::fstat(fd.Get(), &info) == 0 && !S_ISFIFO(info.st_mode))
            m_Fd = std::move(fd);
    }

    bool IsOpen() const { return m_Fd.IsOpen(); }

    void Write(const char* pText, std::size_t nSize) {
        // O_APPEND keeps one write whole; no lock is held over what nearly always is one.
        const std::size_t nWritten = WriteSome(pText, nSize);
        if (nWritten == 0 || nWritten == nSize) return;  // 0: a full disk
        const CLock lock{m_Mutex};
        for (std::size_t nDone = nWritten; nDone < nSize;) {
            const std::size_t nMore = WriteSome(pText + nDone, nSize - nDone);
            if (nMore == 0) return;  // the rest is lost
            nDone += nMore;
        }
    }

private:
    /// 0: nothing can be written.
    std::size_t WriteSome(const char* pText, std::size_t nSize) {
        ssize_t nWritten = 0;
        do {
            nWritten = ::write(m_Fd.Get(), pText, nSize);
        } while (nWritten < 0 && errno == EINTR);
        return static_cast<std::size_t>(std::max<ssize_t>(nWritten, 0));
    }

    CUniqueFd m_Fd;
    CMutex m_Mutex;  // those who have to write on
};

int Severity(int nLevel) {
    if (nLevel <= LEVEL_ERROR) return LOG_ERR;
    if (nLevel == LEVEL_EVENT) return LOG_WARNING;
    if (nLevel == LEVEL_NOTICE) return LOG_NOTICE;
    return LOG_DEBUG;
}

/// The file or syslog.
class CSystemLog : public ILogSink {
public:
    void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) override {
        const std::size_t nMost = kMostOfRecordHead + strPrefix.size() + strMessage.size() + 1;
        char szUsual[kMostOfRecordHead + kMaxPrefix + kUsualMessage];
        std::unique_ptr<char[]> pLong;
        if (nMost > sizeof szUsual) pLong.reset(new char[nMost]);
        char* const szRecord = pLong ? pLong.get() : szUsual;

        char* pEnd = szRecord + PutRecordHead(szRecord, nLevel);
        pEnd = std::copy(strPrefix.begin(), strPrefix.end(), pEnd);
        pEnd = std::copy(strMessage.begin(), strMessage.end(), pEnd);
        *pEnd++ = '\n';
        const auto nSize = static_cast<std::size_t>(pEnd - szRecord);
        if (m_File.IsOpen())
            m_File.Write(szRecord, nSize);
        else
            m_Syslog.Write(Severity(nLevel), {szRecord, nSize});
    }

private:
    static const char* FileFromEnvironment() {
        const char* const szFile = std::getenv("VOK_LOG_FILE");
        return szFile == nullptr ? "" : szFile;  // nothing is called so
    }

    CLogFile m_File{FileFromEnvironment()};
    CSyslogSink m_Syslog;
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
    const int nLength = FormatMessage(t_Prefix.szText, kMaxPrefix, szFormat, args);
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
    const int nLength = FormatMessage(szUsual, sizeof szUsual, szFormat, args);
    if (nLength < 0) {
        WriteRecord(nLevel, szFormat);  // cannot be formatted: better than nothing
    } else if (static_cast<std::size_t>(nLength) < sizeof szUsual) {
        WriteRecord(nLevel, {szUsual, static_cast<std::size_t>(nLength)});
    } else {
        std::string strLong(static_cast<std::size_t>(nLength) + 1, '\0');
        (void)FormatMessage(strLong.data(), strLong.size(), szFormat, again);
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
