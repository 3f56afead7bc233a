#include "platform/EmpPaths.h"

namespace vok::paths {

namespace {

std::string Folder(const char* szRoot, const std::string& strEmp) {
    return std::string(szRoot) + "/emp" + strEmp;
}

/// empN + `szSuffix` inside the folder of N below `szRoot`.
std::string FileIn(const char* szRoot, const std::string& strEmp, const char* szSuffix) {
    return Folder(szRoot, strEmp) + "/emp" + strEmp + szSuffix;
}

}  // namespace

bool IsFileName(const std::string& strEmp) {
    return strEmp != "." && strEmp != ".." && strEmp.find('/') == std::string::npos &&
           strEmp.find('\0') == std::string::npos;
}

std::string MountPoint(const std::string& strEmp) {
    return Folder(kDownloadedEmps, strEmp);
}

std::string ImageFile(const std::string& strEmp) {
    return MountPoint(strEmp) + "_img/emp" + strEmp + ".img";
}

std::string DownloadedProgram(const std::string& strEmp) {
    return FileIn(kDownloadedEmps, strEmp, "");
}

std::string DownloadedConfig(const std::string& strEmp) {
    return FileIn(kDownloadedEmps, strEmp, ".xml");
}

std::string PreinstalledProgram(const std::string& strEmp) {
    return FileIn(kPreinstalledEmps, strEmp, "");
}

std::string PreinstalledConfig(const std::string& strEmp) {
    return FileIn(kPreinstalledEmps, strEmp, ".xml");
}

std::string PreinstalledImage(const std::string& strEmp) {
    return FileIn(kPreinstalledEmps, strEmp, ".img");
}

}  // namespace vok::paths
