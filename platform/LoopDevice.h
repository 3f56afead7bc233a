/// Loop devices, see loop(4).
#pragma once

#include <string>

#include "platform/CUniqueFd.h"

namespace vok {

/// A loop device that serves an image read-only, and frees itself once the last user (this
/// descriptor, a mount) is gone.
struct LoopDevice {
    CUniqueFd fd;
    std::string strPath;  // "/dev/loopN"
};

/// Sets up a free loop device for `strImageFile`. The devices are global to the machine, so one
/// that somebody else set up is never shared, whatever path it claims to serve. `fd` is closed and
/// errno tells the reason when there is none.
LoopDevice SetUpLoopDevice(const std::string& strImageFile);

/// True when the loop device `strDevice` serves the very file `strImageFile`, told by device and
/// inode: the path that a device remembers may mean another file in this mount namespace.
bool LoopDeviceServes(const std::string& strDevice, const std::string& strImageFile);

}  // namespace vok
