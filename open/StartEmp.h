/// What passes from the start of an EMP to the thread that forks it.
#pragma once

#include <string>

#include "broker/Types.h"

namespace vok {

/// The forking thread's own copy of a start's parameters: the opener may have given up, and its
/// broker may be gone, before the thread reads them. Made by StartEmp, freed by ForkEmp.
struct OwnedForkEmpParams {
    OwnedForkEmpParams(const ForkEmpParams& borrowed, const char* szLibraryPath,
                       const Platform& platform);

    ForkEmpParams params;  // its path is strPath
    std::string strPath;
    std::string strLibraryPath;
    bool bHasLibraryPath;
    Platform m_Platform;
};

}  // namespace vok
