/// What an EMP's files are, by what they begin with.
#pragma once

#include <string>

namespace vok::ctl {

/// An image, without mounting it.
struct ImageLook {
    std::string strFileSystem;  // as the kernel calls it: "squashfs"; empty: not recognised
    std::string strTrouble;     // why it cannot be mounted; empty: nothing seen
};
ImageLook LookAtImage(const std::string& strPath);

/// Why a file cannot be started as an EMP's program on this machine; empty: nothing seen.
std::string TroubleOfProgram(const std::string& strPath);

}  // namespace vok::ctl
