// The files: folders, EMPs, their configuration, the plug-in set, the log policy.
#include <pugixml.hpp>
#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <system_error>

#include "ctl/Doctor.h"
#include "ctl/ImageFile.h"
#include "ctl/InstalledEmps.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"

namespace vok::ctl {

namespace {

namespace fs = std::filesystem;

constexpr char kStart[] = "emp";
constexpr char kImageEnd[] = "_img";
/// The broker's node in the log policy, and what it has to say.
constexpr char kPolicyNode[] = "15_vok";
constexpr const char* kPolicyAttributes[] = {"url", "queue_max", "expiration", "loglevel"};

/// True, and told, when only root may know what is there: that is no fault of the file's.
bool IsForRootOnly(const Patient& patient, const std::string& strCheck, const std::string& strPath,
                   Findings& findings) {
    if (LookFor(patient.strRoot + strPath) != ePresence::OnlyRootMayLook) return false;
    findings.push_back({eFinding::Ok, strCheck, strPath + ": only root may look"});
    return true;
}

bool Exists(const Patient& patient, const std::string& strPath) {
    std::error_code error;
    return fs::exists(patient.strRoot + strPath, error);
}

/// Somebody who can put an EMP there has it run by the broker.
void CheckWhoWrites(const Patient& patient, const std::string& strFolder, const struct stat& info,
                    Findings& findings) {
    if (info.st_uid != patient.nOwner)
        findings.push_back({eFinding::Warning, "folder",
                            strFolder + " belongs to user " + std::to_string(info.st_uid) +
                                ": a program that this user puts there runs as root",
                            "chown root:root " + strFolder});
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        findings.push_back({eFinding::Warning, "folder",
                            strFolder + " can be written by others than its owner: whoever puts a "
                                        "program there runs it as root",
                            "chmod go-w " + strFolder});
}

void CheckFolder(const Patient& patient, const std::string& strFolder, Findings& findings) {
    struct stat info {};
    // Of what a link leads to, as the broker, and as the cures.
    if (::stat((patient.strRoot + strFolder).c_str(), &info) != 0) {
        if (IsForRootOnly(patient, "folder", strFolder, findings)) return;
        findings.push_back({eFinding::Warning, "folder",
                            strFolder + " is missing: no EMP lives there",
                            "mkdir -p " + strFolder});
        return;
    }
    if (!S_ISDIR(info.st_mode)) {
        findings.push_back({eFinding::Problem, "folder", strFolder + " is no folder",
                            "move it away, then mkdir -p " + strFolder});
        return;
    }
    const std::size_t nBefore = findings.size();
    CheckWhoWrites(patient, strFolder, info, findings);
    if (findings.size() == nBefore)
        findings.push_back({eFinding::Ok, "folder", strFolder + " is in order"});
}

std::string PathIn(const std::string& strFolder, const std::string& strName) {
    return std::string(strFolder).append("/").append(strName);
}

bool EndsWith(const std::string& strText, const std::string& strEnd) {
    return strText.size() >= strEnd.size() &&
           strText.compare(strText.size() - strEnd.size(), strEnd.size(), strEnd) == 0;
}

void CheckImageFolder(const Patient& patient, const std::string& strPath, const std::string& strEmp,
                      Findings& findings) {
    const std::string strImage = paths::ImageFile(strEmp);
    if (LookFor(patient.strRoot + strImage) == ePresence::Missing)
        findings.push_back({eFinding::Warning, "EMP", strPath + " holds no image",
                            "the image is to be " + strImage});
}

bool IsDanglingLink(const std::string& strPath) {
    std::error_code error;
    return fs::is_symlink(strPath, error) && LookFor(strPath) == ePresence::Missing;
}

/// The configuration alone is that of a grouping process that comes as an image.
void CheckPreinstalledFolder(const Patient& patient, const std::string& strPath,
                             const std::string& strEmp, Findings& findings) {
    if (strEmp == paths::kPlugins) return;
    const std::string strProgram = paths::PreinstalledProgram(strEmp);
    if (IsDanglingLink(patient.strRoot + strProgram))
        findings.push_back({eFinding::Problem, "program", strProgram + " is a link to nowhere",
                            "mend the link, or install the program there"});
    else if (LookFor(patient.strRoot + strProgram) == ePresence::Missing &&
             LookFor(patient.strRoot + std::string(paths::PreinstalledConfig(strEmp))) ==
                 ePresence::Missing)
        findings.push_back({eFinding::Warning, "EMP", strPath + " holds no program",
                            "the program is to be " + strProgram});
}

/// What `fsck` keeps in the top folder of a file system.
constexpr char kLostAndFound[] = "lost+found";

/// A folder that looks like an EMP's and has none in it opens nothing, and nobody says so.
void CheckFolderNames(const Patient& patient, Findings& findings) {
    for (const std::string_view root : {paths::kDownloadedEmps, paths::kPreinstalledEmps}) {
        const std::string strRoot{root};
        for (const std::string& strFolder : SubFolders(patient.strRoot + strRoot)) {
            if (strFolder == kLostAndFound) continue;
            const std::string strPath = PathIn(strRoot, strFolder);
            if (strFolder.rfind(kStart, 0) != 0 || strFolder == kStart) {
                findings.push_back({eFinding::Warning, "EMP", strPath + " is never looked at",
                                    "an EMP's folder is called empNAME, its image's empNAME_img"});
                continue;
            }
            if (IsForRootOnly(patient, "EMP", strPath, findings)) continue;
            const std::string strEmp = strFolder.substr(sizeof kStart - 1);
            if (root == paths::kPreinstalledEmps)
                CheckPreinstalledFolder(patient, strPath, strEmp, findings);
            else if (EndsWith(strFolder, kImageEnd))
                CheckImageFolder(patient, strPath,
                                 strEmp.substr(0, strEmp.size() - (sizeof kImageEnd - 1)),
                                 findings);
        }
    }
}

void CheckImage(const Patient& patient, const std::string& strPath, Findings& findings) {
    if (!Exists(patient, strPath)) return;
    if (IsForRootOnly(patient, "image", strPath, findings)) return;
    const ImageLook look = LookAtImage(patient.strRoot + strPath);
    if (look.strTrouble.empty())
        findings.push_back({eFinding::Ok, "image", strPath + " is " + look.strFileSystem});
    else
        findings.push_back({eFinding::Problem, "image", strPath + ": " + look.strTrouble,
                            "install the image again"});
}

void CheckProgram(const Patient& patient, const std::string& strPath, Findings& findings) {
    if (!Exists(patient, strPath)) return;
    if (IsForRootOnly(patient, "program", strPath, findings)) return;
    const std::string strTrouble = TroubleOfProgram(patient.strRoot + strPath);
    if (strTrouble.empty())
        findings.push_back({eFinding::Ok, "program", strPath + " can be started"});
    else
        findings.push_back({eFinding::Problem, "program", strPath + ": " + strTrouble,
                            "install a binary for this machine there, with mode 755"});
}

/// As the broker reads it: a number and nothing else.
bool IsVersion(const std::string& strText) {
    if (strText.empty() || std::isspace(static_cast<unsigned char>(strText.front())) != 0)
        return false;
    char* pEnd = nullptr;
    (void)std::strtod(strText.c_str(), &pEnd);
    return *pEnd == '\0';
}

void CheckConfig(const Patient& patient, const std::string& strPath, Findings& findings) {
    if (!Exists(patient, strPath)) return;
    if (IsForRootOnly(patient, "configuration", strPath, findings)) return;
    const std::string strXml = ReadSmallFile(patient.strRoot + strPath);
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_buffer(strXml.data(), strXml.size());
    std::string strTrouble;
    if (strXml.size() > kMaxTextFile)
        strTrouble = "it is too large";
    else if (!result)
        strTrouble = result.description();
    else if (!document.child("Emp"))
        strTrouble = "its root is not <Emp>";
    if (!strTrouble.empty()) {
        findings.push_back({eFinding::Problem, "configuration",
                            strPath + " counts as none: " + strTrouble, "mend or remove it"});
        return;
    }
    if (!IsVersion(document.child("Emp").child_value("Version"))) {
        findings.push_back({eFinding::Warning, "configuration",
                            strPath + " has no <Version> that is a number, and counts as 0",
                            "write one, as in <Version>1.0</Version>"});
        return;
    }
    findings.push_back({eFinding::Ok, "configuration", strPath + " is well-formed"});
}

/// Every EMP with files, and those of grouping processes that have a configuration only.
void CheckEmps(const Patient& patient, Findings& findings) {
    const std::vector<std::string> names = InstalledEmps(patient.strRoot);
    for (const std::string& strEmp : names) {
        CheckImage(patient, paths::ImageFile(strEmp), findings);
        CheckProgram(patient, paths::PreinstalledProgram(strEmp), findings);
        CheckProgram(patient, paths::DownloadedProgram(strEmp), findings);
    }
    bool bHidden = false;
    for (const std::string_view root : {paths::kDownloadedEmps, paths::kPreinstalledEmps})
        if (IsForRootOnly(patient, "EMPs", std::string(root), findings)) bHidden = true;
    if (names.empty() && !bHidden)
        findings.push_back({eFinding::Ok, "EMPs", "none is installed; launchers may serve some"});
    for (const std::string_view root : {paths::kPreinstalledEmps, paths::kDownloadedEmps}) {
        const std::string strRoot{root};
        for (const std::string& strFolder : SubFolders(patient.strRoot + strRoot))
            if (strFolder.rfind(kStart, 0) == 0)
                CheckConfig(patient, PathIn(PathIn(strRoot, strFolder), strFolder + ".xml"),
                            findings);
    }
}

/// Without its plug-in set mounted, a broker does not start.
void CheckPlugins(const Patient& patient, const Looks& looks, Findings& findings) {
    const std::string strDownload = paths::kPluginDownload;
    const std::string strUpdate = paths::ImageFile(paths::kPlugins);
    const std::string strBuiltIn = paths::PreinstalledImage(paths::kPlugins);
    for (const std::string& strImage : {strDownload, strUpdate, strBuiltIn})
        CheckImage(patient, strImage, findings);
    if (Exists(patient, paths::kPluginProbe)) {
        findings.push_back(
            {eFinding::Ok, "plug-in set", std::string(paths::kPluginMountPoint) + " is in use"});
        return;
    }
    if (IsForRootOnly(patient, "plug-in set", paths::kPluginProbe, findings)) return;
    const bool bAny =
        Exists(patient, strDownload) || Exists(patient, strUpdate) || Exists(patient, strBuiltIn);
    if (bAny && !looks.MayHaveBroker())
        findings.push_back({eFinding::Ok, "plug-in set", "is mounted when a broker starts"});
    else if (bAny)
        findings.push_back(
            {eFinding::Warning, "plug-in set",
             std::string(paths::kPluginProbe) + " is missing, and the broker serves",
             "look for a plug-in set without webapis, or for one that was unmounted"});
    else if (!IsForRootOnly(patient, "plug-in set", strDownload, findings) &&
             !IsForRootOnly(patient, "plug-in set", strUpdate, findings) &&
             !IsForRootOnly(patient, "plug-in set", strBuiltIn, findings))
        findings.push_back({eFinding::Problem, "plug-in set",
                            "there is none, and a broker does not start without",
                            "install " + strBuiltIn + ", or a folder " + paths::kPluginProbe});
}

/// An image that was mounted by hand, below or above the broker's mount, hides or is hidden. Those
/// of the broker count, when it is known: it may see others.
void CheckMounts(const Patient& patient, const Looks& looks, Findings& findings) {
    const std::string strProcess =
        looks.admin.nPid != 0 ? std::to_string(looks.admin.nPid) : "self";
    std::istringstream lines(ReadSmallFile(patient.strRoot + "/proc/" + strProcess + "/mountinfo"));
    const std::string strBelow = std::string(paths::kDownloadedEmps) + '/';
    std::map<std::string, int> counts;
    std::string strLine;
    while (std::getline(lines, strLine)) {
        std::istringstream words(strLine);
        std::string strWord;
        for (int i = 0; i < 5; ++i) words >> strWord;  // the mount point is the fifth
        if (strWord.rfind(strBelow, 0) == 0 || strWord == paths::kPluginMountPoint)
            ++counts[strWord];
    }
    for (const auto& [strPoint, nCount] : counts)
        if (nCount > 1)
            findings.push_back(
                {eFinding::Warning, "mount",
                 std::to_string(nCount) + " mounts lie on " + strPoint +
                     ", one over the other, and only the topmost is seen",
                 "when no client minds, umount " + strPoint + " until one, or none, is left"});
}

/// The names of elements may begin with a digit there, which XML does not allow.
std::string MarkDigits(const std::string& strXml) {
    std::string strMarked;
    bool bName = false;
    for (const char c : strXml) {
        if (bName && std::isdigit(static_cast<unsigned char>(c)) != 0) strMarked += '_';
        bName = c == '<' || (bName && c == '/');
        strMarked += c;
    }
    return strMarked;
}

void CheckPolicyNode(const pugi::xml_node& node, Findings& findings) {
    std::string strMissing;
    for (const char* const szAttribute : kPolicyAttributes)
        if (!node.attribute(szAttribute)) strMissing += std::string(" ") + szAttribute;
    if (strMissing.empty())
        findings.push_back({eFinding::Ok, "log policy",
                            std::string("fault reports go to ") + node.attribute("url").value()});
    else
        findings.push_back(
            {eFinding::Warning, "log policy",
             std::string(paths::kLogPolicy) + ": " + kPolicyNode + " lacks" + strMissing,
             "add what is missing: see vok-broker(8)"});
}

void CheckLogPolicy(const Patient& patient, Findings& findings) {
    const std::string strFile = paths::kLogPolicy;
    const std::string strUnreported = ": opens that fail are not reported";
    if (IsForRootOnly(patient, "log policy", strFile, findings)) return;
    if (!Exists(patient, strFile)) {
        findings.push_back({eFinding::Warning, "log policy",
                            strFile + " is missing" + strUnreported,
                            "install one with an element " + std::string(kPolicyNode) +
                                ", if the set is to report faults"});
        return;
    }
    const std::string strXml = MarkDigits(ReadSmallFile(patient.strRoot + strFile));
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_buffer(strXml.data(), strXml.size());
    if (!result) {
        findings.push_back(
            {eFinding::Problem, "log policy",
             strFile + " is malformed" + strUnreported + " (" + result.description() + ")",
             "mend it"});
        return;
    }
    const std::string strTag = std::string("_") + kPolicyNode;
    const pugi::xml_node node = document.find_node([&](const pugi::xml_node& candidate) {
        return strTag == candidate.name() ||
               std::string(kPolicyNode) == candidate.attribute("name").value();
    });
    if (node) return CheckPolicyNode(node, findings);
    findings.push_back({eFinding::Warning, "log policy",
                        strFile + " has no element " + kPolicyNode + strUnreported,
                        "add one, if the set is to report faults: see vok-broker(8)"});
}

}  // namespace

void CheckFiles(const Patient& patient, const Looks& looks, Findings& findings) {
    CheckFolder(patient, std::string(paths::kDownloadedEmps), findings);
    CheckFolder(patient, std::string(paths::kPreinstalledEmps), findings);
    CheckFolderNames(patient, findings);
    CheckEmps(patient, findings);
    CheckPlugins(patient, looks, findings);
    CheckMounts(patient, looks, findings);
    CheckLogPolicy(patient, findings);
}

}  // namespace vok::ctl
