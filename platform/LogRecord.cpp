#include "platform/LogRecord.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace vok {

namespace {

/// What does not change from one record of a thread to the next: most of what begins it. Without
/// constructor and destructor, so that it serves threads as long as they live.
struct ThreadHead {
    std::time_t nSecond;     // that szSecond spells
    std::size_t nSecondEnd;  // 0: nothing is known yet
    std::size_t nIdsEnd;     // the same
    char szSecond[48];       // "2026-01-31T16:04:24."
    char szIds[32];          // " <pid> <tid> "
};
thread_local ThreadHead t_Head{};

/// True when a forked process, whose one thread goes by another id, is going to forget the ids.
bool ForgetsIdsInChild() {
    static const bool bForgets = pthread_atfork(nullptr, nullptr, [] { t_Head.nIdsEnd = 0; }) == 0;
    return bForgets;
}

char* Put(char* szTarget, const char* szText, std::size_t nSize) {
    std::memcpy(szTarget, szText, nSize);
    return szTarget + nSize;
}

void SpellSecond(std::time_t nSecond) {
    std::tm time{};
    (void)::localtime_r(&nSecond, &time);
    const int nLength = std::snprintf(
        t_Head.szSecond, sizeof t_Head.szSecond, "%04d-%02d-%02dT%02d:%02d:%02d.",
        time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
    t_Head.nSecond = nSecond;
    t_Head.nSecondEnd = static_cast<std::size_t>(std::max(nLength, 0));
}

void SpellIds() {
    const int nLength =
        std::snprintf(t_Head.szIds, sizeof t_Head.szIds, " %d %d ", static_cast<int>(::getpid()),
                      static_cast<int>(::syscall(SYS_gettid)));
    t_Head.nIdsEnd = static_cast<std::size_t>(std::max(nLength, 0));
}

char* PutSixDigits(char* szTarget, long nNumber) {
    for (int n = 5; n >= 0; --n, nNumber /= 10) szTarget[n] = static_cast<char>('0' + nNumber % 10);
    return szTarget + 6;
}

/// Takes what fits, counts all, and keeps room for the end.
class CBoundedText {
public:
    CBoundedText(char* szTarget, std::size_t nSize)
        : m_szTarget(szTarget), m_nRoom(nSize > 0 ? nSize - 1 : 0), m_bEnds(nSize > 0) {}

    void Append(const char* szText, std::size_t nSize) {
        if (m_nLength < m_nRoom)
            std::memcpy(m_szTarget + m_nLength, szText, std::min(nSize, m_nRoom - m_nLength));
        m_nLength += nSize;
    }

    int End() {
        if (m_bEnds) m_szTarget[std::min(m_nLength, m_nRoom)] = '\0';
        return static_cast<int>(m_nLength);
    }

private:
    char* const m_szTarget;
    const std::size_t m_nRoom;
    const bool m_bEnds;
    std::size_t m_nLength = 0;
};

/// False, and what `text` has taken is worth nothing, when another conversion than %s and %d is
/// asked for.
bool FormatSimply(CBoundedText& text, const char* szFormat, va_list args) {
    while (const char* const szConversion = std::strchr(szFormat, '%')) {
        text.Append(szFormat, static_cast<std::size_t>(szConversion - szFormat));
        if (szConversion[1] == 's') {
            const char* const szText = va_arg(args, const char*);
            const char* const szShown = szText == nullptr ? "(null)" : szText;
            text.Append(szShown, std::strlen(szShown));
        } else if (szConversion[1] == 'd') {
            char szNumber[16];
            const char* const szEnd =
                std::to_chars(szNumber, szNumber + sizeof szNumber, va_arg(args, int)).ptr;
            text.Append(szNumber, static_cast<std::size_t>(szEnd - szNumber));
        } else {
            return false;
        }
        szFormat = szConversion + 2;
    }
    text.Append(szFormat, std::strlen(szFormat));
    return true;
}

}  // namespace

std::size_t PutRecordHead(char* szTarget, int nLevel) {
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now);  // this clock exists
    if (t_Head.nSecondEnd == 0 || now.tv_sec != t_Head.nSecond) SpellSecond(now.tv_sec);
    if (!ForgetsIdsInChild() || t_Head.nIdsEnd == 0) SpellIds();

    char* szEnd = Put(szTarget, t_Head.szSecond, t_Head.nSecondEnd);
    szEnd = PutSixDigits(szEnd, now.tv_nsec / 1000);
    szEnd = Put(szEnd, t_Head.szIds, t_Head.nIdsEnd);
    szEnd = std::to_chars(szEnd, szEnd + 16, nLevel).ptr;
    *szEnd++ = ' ';
    return static_cast<std::size_t>(szEnd - szTarget);
}

int FormatMessage(char* szTarget, std::size_t nSize, const char* szFormat, va_list args) {
    va_list again;
    va_copy(again, args);
    CBoundedText text{szTarget, nSize};
    const int nLength = FormatSimply(text, szFormat, args)
                            ? text.End()
                            : std::vsnprintf(szTarget, nSize, szFormat, again);
    va_end(again);
    return nLength;
}

}  // namespace vok
