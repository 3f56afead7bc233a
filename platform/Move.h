#pragma once

#include <string>

namespace vok {

/// Moves a file, replacing the target, whose folder is created when missing. Across file systems it
/// is copied, synced and renamed into place before the source goes. True on success; on failure the
/// source is untouched, the target is what it was, and the reason is in the log.
bool Move(const std::string& strFrom, const std::string& strTo);

}  // namespace vok
