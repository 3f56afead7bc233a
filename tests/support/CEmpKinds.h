/// One EMP of every kind.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/CLauncherProcess.h"

namespace vok::test {

/// Singletons: a preinstalled program, an image, the EMP of a register launcher, and one in a
/// grouping process. Where images cannot be mounted, a preinstalled program takes the image's
/// place. For use in a private world, once; before the daemon starts, which reads the configuration
/// of the grouping process then.
class CEmpKinds {
public:
    static constexpr char kProcess[] = "Weather";
    static constexpr char kRegistered[] = "Radio";
    static constexpr char kHosted[] = "First";  // in the grouping process kGroup
    static constexpr char kGroup[] = "Group";

    /// Installs them; says on stdout why there are no images.
    CEmpKinds();

    /// The name of an image that no other world has: loop devices are the machine's.
    static std::string UniqueImage(const std::string& strPrefix);

    /// Starts the register launcher beside the daemon, which has to run. Killed with the object.
    static std::unique_ptr<CLauncherProcess> StartLauncher();

    bool HasImages() const { return m_bImages; }
    const std::string& Image() const { return m_strImage; }
    /// The program of the image, or what takes its place.
    std::string ImageProgram() const { return ProgramOf(m_strImage); }
    std::vector<std::string> Names() const { return {kProcess, m_strImage, kRegistered, kHosted}; }

    /// Installs one more fake EMP, as image where that is possible.
    void InstallImage(const std::string& strEmp) const;
    /// Where the program of such an EMP is once it runs.
    std::string ProgramOf(const std::string& strImageEmp) const;

private:
    const std::string m_strImage;
    bool m_bImages = false;
};

}  // namespace vok::test
