#include "tests/support/CEmpKinds.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/CEmpInstaller.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::test {

namespace fs = std::filesystem;

CEmpKinds::CEmpKinds() : m_strImage(UniqueImage("Image")) {
    CEmpInstaller::Preinstall(kProcess);
    CEmpInstaller::PreinstallCopy(kGroup, "example-grouping-emp");
    const fs::path folder = fs::path(CEmpInstaller::ProgramPath(kGroup)).parent_path();
    std::ofstream(folder / "empGroup.xml") << "<Emp><Version>1.0</Version><GroupingEmps><Name>"
                                           << kHosted << "</Name></GroupingEmps></Emp>\n"
                                           << std::flush;
    std::string strReason;
    m_bImages = CPrivateWorld::MayLoopMount(&strReason);
    if (!m_bImages) std::printf("   no images: %s\n", strReason.c_str());
    InstallImage(m_strImage);
}

std::string CEmpKinds::UniqueImage(const std::string& strPrefix) {
    struct stat info {};
    if (::stat("/opt", &info) != 0) throw std::runtime_error("no /opt");
    return strPrefix + std::to_string(info.st_dev);
}

std::unique_ptr<CLauncherProcess> CEmpKinds::StartLauncher() {
    return std::make_unique<CLauncherProcess>(
        "fake-launcher",
        std::vector<std::string>{"RadioLauncher", std::string(kRegistered) + "=serve"});
}

void CEmpKinds::InstallImage(const std::string& strEmp) const {
    if (m_bImages)
        CEmpInstaller::InstallImage(strEmp);
    else
        CEmpInstaller::Preinstall(strEmp);
}

std::string CEmpKinds::ProgramOf(const std::string& strImageEmp) const {
    return m_bImages ? CEmpInstaller::MountPoint(strImageEmp) + "/emp" + strImageEmp
                     : CEmpInstaller::ProgramPath(strImageEmp);
}

}  // namespace vok::test
