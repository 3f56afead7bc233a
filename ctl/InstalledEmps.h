/// The EMPs that have files on this machine.
#pragma once

#include <string>
#include <vector>

namespace vok::ctl {

/// The names of the sub-folders of a folder, in order. A folder that cannot be read has none.
std::vector<std::string> SubFolders(const std::string& strFolder);

/// The names of the EMPs that have an image or a preinstalled program, in order: what an open would
/// find, without asking a broker. `strRoot` stands before every path; "" is the machine's own. The
/// plug-in set, which no client opens, is not one of them.
std::vector<std::string> InstalledEmps(const std::string& strRoot);

}  // namespace vok::ctl
