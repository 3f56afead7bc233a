#include "platform/EmpPaths.h"

#include <algorithm>

namespace vok::paths {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kEmp = "/emp";

/// empN + `strSuffix` inside the folder of N below `strRoot`.
CPath FileIn(std::string_view strRoot, std::string_view strEmp, std::string_view strSuffix) {
    return CPath{strRoot, kEmp, strEmp, kEmp, strEmp, strSuffix};
}

}  // namespace

CPath::CPath(std::initializer_list<std::string_view> parts) {
    std::size_t nSize = 0;
    for (const std::string_view part : parts) nSize += part.size();
    if (nSize >= kUsual) {
        m_szUsual[0] = '\0';
        m_strLong.reserve(nSize);
        for (const std::string_view part : parts) m_strLong.append(part);
        return;
    }
    char* pEnd = m_szUsual;
    for (const std::string_view part : parts) pEnd = std::copy(part.begin(), part.end(), pEnd);
    *pEnd = '\0';
}

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
