/// The framework logger: what the broker has to say, into a file or to syslog.
#pragma once

#include <atomic>
#include <string_view>

namespace vok {

enum eLogLevel : int {
    LEVEL_ERROR = 0,
    LEVEL_EVENT = 1,
    LEVEL_NOTICE = 2,
    LEVEL_TRACE = 3,
    LEVEL_DETAIL = 4,
};

/// Where records go. Implementations are thread-safe, never throw and never block.
struct ILogSink {
    virtual ~ILogSink() = default;
    /// One record: its prefix ("[VOK][OpenEmp(12)] ", empty when none was given) and its message.
    virtual void Write(int nLevel, std::string_view strPrefix, std::string_view strMessage) = 0;
};

/// A message of level n is written when n <= the level. The level starts at 2, or at what
/// VOK_LOG_LEVEL says. Records go to the file that VOK_LOG_FILE names (appended), else to syslog:
///
///     2026-01-31T16:04:24.123456 <pid> <tid> <level> [VOK][Function(line)] message
///
/// Thread-safe. A destination that fails loses records, never time: nothing here blocks or throws.
class CVOKDebug {
public:
    /// True when a message of this level is written; the macros of Log.h ask before anything is
    /// evaluated or formatted.
    static bool IsWritten(int nLevel) { return nLevel <= s_nLevel.load(std::memory_order_relaxed); }

    static void SetLogLevel(unsigned short nLevel);
    static unsigned short GetLogLevel();

    /// Two calls make a record: first the prefix (format "[VOK][%s(%d)] " or "[VOK][%s::%s(%d)] "),
    /// then the message, both at the same level and from the same thread; what other threads log
    /// meanwhile does not come between. A message without a prefix is a record too. Messages of any
    /// length come out whole. `nModule` is always 1.
    __attribute__((format(printf, 3, 4))) static void PrintLog(int nModule, int nLevel,
                                                               const char* szFormat, ...);

    /// Sends records to `pSink` from now on; null: back to file or syslog. The caller keeps the
    /// sink alive until it is replaced and no thread logs into it any more. For tests.
    static void SetSink(ILogSink* pSink);

private:
    static std::atomic<int> s_nLevel;
};

}  // namespace vok
