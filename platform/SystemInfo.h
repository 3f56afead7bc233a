/// What the platform says about itself.
#pragma once

#include <string>

namespace vok {

inline constexpr char kModelNameKey[] = "http://tizen.org/system/model_name";

/// One value of the platform, by key: 0 and the value, or the query's error code (never 0).
///
/// Asks the platform's system information library (`system_info_get_value_string`) when the process
/// is linked with it, which VOK_SYSTEM_INFO_LIBRARY tells CMake to do. Elsewhere the model name,
/// and nothing else, comes from os-release(5): its PRETTY_NAME.
int GetSystemInfo(const char* szKey, std::string& strValue);

/// The value of a variable in the text of an os-release file, without its quotes; empty when it is
/// not there. os-release(5): the last assignment counts, as in a shell.
std::string OsReleaseValue(const std::string& strText, const std::string& strVariable);

}  // namespace vok
