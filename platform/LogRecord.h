/// The text of the logger's records.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace vok {

/// Room for what PutRecordHead writes.
inline constexpr std::size_t kMostOfRecordHead = 128;

/// Puts "2026-01-31T16:04:24.123456 <pid> <tid> <level> " at `szTarget`: the time is local, the ids
/// are the caller's, also in a forked process. Returns its length. Thread-safe; takes no memory and
/// no lock but localtime's, once a second.
std::size_t PutRecordHead(char* szTarget, int nLevel);

/// As vsnprintf with its result, but several times quicker for formats that contain no conversion
/// but %s and %d.
int FormatMessage(char* szTarget, std::size_t nSize, const char* szFormat, va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace vok
