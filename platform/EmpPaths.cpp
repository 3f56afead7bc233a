#include "platform/EmpPaths.h"

namespace vok::paths {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kEmp = "/emp";

/// empN + `strSuffix` inside the folder of N below `strRoot`.
inline CPath FileIn(std::string_view strRoot, std::string_view strEmp, std::string_view strSuffix) {
    return CPath{strRoot, kEmp, strEmp, kEmp, strEmp, strSuffix};
}

}  // namespace

bool IsFileName(const std::string& strEmp) {
    for (const char c : strEmp)
        if (c == '/' || c == '\0') return false;
    return strEmp != "."sv && strEmp != ".."sv;
}

CPath ImageFile(const std::string& strEmp) {
    return CPath{kDownloadedEmps, kEmp, strEmp, "_img/emp"sv, strEmp, ".img"sv};
}

CPath DownloadedProgram(const std::string& strEmp) {
    return FileIn(kDownloadedEmps, strEmp, ""sv);
}

CPath PreinstalledProgram(const std::string& strEmp) {
    return FileIn(kPreinstalledEmps, strEmp, ""sv);
}

std::string MountPoint(const std::string& strEmp) {
    return CPath{kDownloadedEmps, kEmp, strEmp};
}

std::string DownloadedConfig(const std::string& strEmp) {
    return FileIn(kDownloadedEmps, strEmp, ".xml"sv);
}

std::string PreinstalledConfig(const std::string& strEmp) {
    return FileIn(kPreinstalledEmps, strEmp, ".xml"sv);
}

std::string PreinstalledImage(const std::string& strEmp) {
    return FileIn(kPreinstalledEmps, strEmp, ".img"sv);
}

}  // namespace vok::paths
