/// Mounting of images, under the framework's names.
#pragma once

#include <optional>
#include <string>

#include "platform/MountInfo.h"

namespace vok {

/// Mounts `strImageFile` read-only (loop, nosuid, nodev; the file system is found out) on
/// `strMountPoint`, which is created when missing. True when the image is mounted there now; what
/// is already mounted there is not mounted again. False, with the reason in the log, when it cannot
/// be mounted or something else is mounted there. The loop device goes with the mount.
///
/// Thread-safe, but for two calls on one mount point at the same time: callers serialise those.
bool Mount(const std::string& strImageFile, const std::string& strMountPoint);

/// Unmounts what is mounted on `strMountPoint`. False, with the reason in the log, when nothing is
/// mounted there or it is in use.
bool Umount(const std::string& strMountPoint);

/// True when something is mounted on the mount point of the EMP `strEmp`.
bool IsImgMounted(const std::string& strEmp);

/// What the kernel has mounted on `strMountPoint`, which may lead there by links.
std::optional<MountEntry> MountedOn(const std::string& strMountPoint);

}  // namespace vok
