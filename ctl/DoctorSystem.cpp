// The kernel: can it mount what is installed, and does it give the broker room?
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>

#include "ctl/Doctor.h"
#include "ctl/ImageFile.h"
#include "ctl/InstalledEmps.h"
#include "platform/CUniqueFd.h"
#include "platform/EmpPaths.h"

namespace vok::ctl {

namespace {

/// What images are usually made of.
constexpr const char* kUsual[] = {"squashfs", "ext4"};
/// Each client takes a descriptor, and the broker serves three quarters of them.
constexpr long kEnoughDescriptors = 4096;

std::set<std::string> NeededFileSystems(const Patient& patient) {
    std::set<std::string> needed;
    const auto look = [&](const std::string& strImage) {
        const std::string strFileSystem = LookAtImage(patient.strRoot + strImage).strFileSystem;
        if (!strFileSystem.empty()) needed.insert(strFileSystem);
    };
    for (const std::string& strEmp : InstalledEmps(patient.strRoot)) look(paths::ImageFile(strEmp));
    look(paths::ImageFile(paths::kPlugins));
    look(paths::PreinstalledImage(paths::kPlugins));
    return needed;
}

/// The last word of each line: "nodev tmpfs".
std::set<std::string> KnownFileSystems(const Patient& patient) {
    std::set<std::string> known;
    std::istringstream lines(ReadSmallFile(patient.strRoot + "/proc/filesystems"));
    std::string strLine;
    while (std::getline(lines, strLine)) {
        std::istringstream words(strLine);
        std::string strWord;
        std::string strLast;
        while (words >> strWord) strLast = strWord;
        if (!strLast.empty()) known.insert(strLast);
    }
    return known;
}

/// The kernel loads it when something is mounted.
bool IsModule(const Patient& patient, const std::string& strFileSystem) {
    const std::string strList = ReadSmallFile(patient.strRoot + "/lib/modules/" +
                                              patient.strKernelRelease + "/modules.dep");
    return strList.find('/' + strFileSystem + ".ko") != std::string::npos;
}

void CheckFileSystems(const Patient& patient, const std::set<std::string>& needed,
                      Findings& findings) {
    const std::set<std::string> known = KnownFileSystems(patient);
    std::set<std::string> asked = needed;
    asked.insert(std::begin(kUsual), std::end(kUsual));
    for (const std::string& strFileSystem : asked) {
        const bool bNeeded = needed.count(strFileSystem) != 0;
        if (known.count(strFileSystem) != 0)
            findings.push_back({eFinding::Ok, "file system", "the kernel mounts " + strFileSystem});
        else if (IsModule(patient, strFileSystem))
            findings.push_back(
                {eFinding::Ok, "file system", "the kernel has " + strFileSystem + " as a module"});
        else
            findings.push_back(
                {bNeeded ? eFinding::Problem : eFinding::Warning, "file system",
                 "the kernel does not know " + strFileSystem +
                     (bNeeded ? ", and an image is made of it" : "; no image is made of it"),
                 "modprobe " + strFileSystem +
                     ", or a kernel that has it; or images of another kind"});
    }
}

void CheckLoopDevices(const Patient& patient, bool bImages, Findings& findings) {
    const std::string strControl = "/dev/loop-control";
    const CUniqueFd fd{
        ::open((patient.strRoot + strControl).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK)};
    const int nErrno = fd.IsOpen() ? 0 : errno;
    if (nErrno == 0)
        findings.push_back({eFinding::Ok, "loop devices", strControl + " hands them out"});
    else if (nErrno == EACCES)
        findings.push_back(
            {eFinding::Ok, "loop devices", strControl + " is there; only root may try it"});
    else
        findings.push_back({bImages ? eFinding::Problem : eFinding::Warning, "loop devices",
                            strControl + ": " + std::strerror(nErrno) + ", so no image is mounted",
                            "modprobe loop; in a container, let it use the host's loop devices"});
}

/// The hard limit in a process's limits; -1 when it cannot be read, or is none.
long HardDescriptorLimit(const std::string& strLimits) {
    std::istringstream lines(strLimits);
    std::string strLine;
    const std::string strBegin = "Max open files";
    while (std::getline(lines, strLine)) {
        if (strLine.rfind(strBegin, 0) != 0) continue;
        std::istringstream words(strLine.substr(strBegin.size()));
        long nSoft = 0;
        long nHard = 0;
        return (words >> nSoft >> nHard) ? nHard : -1;
    }
    return -1;
}

void CheckDescriptors(const Patient& patient, const Looks& looks, Findings& findings) {
    const int nPid = looks.admin.nPid;
    const std::string strProcess = nPid != 0 ? std::to_string(nPid) : "self";
    const long nHard =
        HardDescriptorLimit(ReadSmallFile(patient.strRoot + "/proc/" + strProcess + "/limits"));
    if (nHard < 0) return;
    const std::string strWho =
        nPid != 0 ? "the broker may have " : "a broker started from here may have ";
    const std::string strText = strWho + std::to_string(nHard) + " descriptors";
    if (nHard >= kEnoughDescriptors)
        findings.push_back({eFinding::Ok, "descriptors", strText});
    else
        findings.push_back({eFinding::Warning, "descriptors", strText + ", and serves few clients",
                            "give it 4096 or more: LimitNOFILE= of its unit, or ulimit -Hn"});
}

}  // namespace

void CheckSystem(const Patient& patient, const Looks& looks, Findings& findings) {
    const std::set<std::string> needed = NeededFileSystems(patient);
    CheckLoopDevices(patient, !needed.empty(), findings);
    CheckFileSystems(patient, needed, findings);
    CheckDescriptors(patient, looks, findings);
}

}  // namespace vok::ctl
