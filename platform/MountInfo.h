/// What is mounted where: /proc/self/mountinfo, see proc(5).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vok {

/// The topmost mount of a mount point.
struct MountEntry {
    std::string strSource;  // e.g. "/dev/loop3"
    std::string strFileSystem;
    unsigned int nMajor = 0;  // of the mounted device
    unsigned int nMinor = 0;
    unsigned int nStacked = 1;  // mounts on that point, this one included
};

/// Finds `strMountPoint` (absolute, without a trailing '/') in the text of a mountinfo file. Of
/// several mounts stacked there, the last. Malformed lines are passed over.
std::optional<MountEntry> FindMount(std::string_view strMountInfo, std::string_view strMountPoint);

/// The same, in this process's mount namespace.
std::optional<MountEntry> FindMount(const std::string& strMountPoint);

}  // namespace vok
