/// EMPs that the broker starts.
#pragma once

#include <string>

namespace vok::bench {

enum class eLinkage { Dynamic, Static };

/// The example EMP, which needs nothing of its folder, as a preinstalled one under this name.
void InstallEmp(const std::string& strEmp, eLinkage eKind);

/// Kills what runs of it. Throws std::runtime_error when that does not end.
void KillEmp(const std::string& strEmp);

}  // namespace vok::bench
