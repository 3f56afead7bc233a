#include "ctl/InstalledEmps.h"

#include <filesystem>
#include <set>
#include <system_error>

#include "platform/EmpPaths.h"

namespace vok::ctl {

namespace {

namespace fs = std::filesystem;

constexpr char kStart[] = "emp";
constexpr char kImageEnd[] = "_img";

/// What stands between the two in a folder's name; "" when they do not.
std::string Between(const std::string& strFolder, const std::string& strStart,
                    const std::string& strEnd) {
    const std::size_t nAround = strStart.size() + strEnd.size();
    if (strFolder.size() <= nAround || strFolder.rfind(strStart, 0) != 0) return {};
    if (strFolder.compare(strFolder.size() - strEnd.size(), strEnd.size(), strEnd) != 0) return {};
    return strFolder.substr(strStart.size(), strFolder.size() - nAround);
}

bool Exists(const std::string& strPath) {
    std::error_code error;
    return fs::exists(strPath, error);
}

}  // namespace

std::vector<std::string> SubFolders(const std::string& strFolder) {
    std::set<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it{strFolder, error}, end; !error && it != end;
         it.increment(error)) {
        std::error_code gone;
        if (it->is_directory(gone)) names.insert(it->path().filename().string());
    }
    return {names.begin(), names.end()};
}

std::vector<std::string> InstalledEmps(const std::string& strRoot) {
    std::set<std::string> names;
    for (const std::string& strFolder : SubFolders(strRoot + std::string(paths::kDownloadedEmps))) {
        const std::string strEmp = Between(strFolder, kStart, kImageEnd);
        if (!strEmp.empty() && Exists(strRoot + std::string(paths::ImageFile(strEmp))))
            names.insert(strEmp);
    }
    for (const std::string& strFolder :
         SubFolders(strRoot + std::string(paths::kPreinstalledEmps))) {
        const std::string strEmp = Between(strFolder, kStart, "");
        if (!strEmp.empty() && Exists(strRoot + std::string(paths::PreinstalledProgram(strEmp))))
            names.insert(strEmp);
    }
    names.erase(paths::kPlugins);
    return {names.begin(), names.end()};
}

}  // namespace vok::ctl
