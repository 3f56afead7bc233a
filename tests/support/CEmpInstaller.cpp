#include "tests/support/CEmpInstaller.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/CPrivateWorld.h"

extern char** environ;

namespace vok::test {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kPoll{2};

bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(kPoll);
    }
    return true;
}

void WriteText(const fs::path& path, const std::string& strText) {
    std::ofstream file(path, std::ios::trunc | std::ios::binary);
    if (!(file << strText << std::flush)) throw std::runtime_error("cannot write " + path.string());
}

/// Starts of EMPs run while others are installed: a file that is being written cannot be executed,
/// so one copy is made and the others are links to it.
void LinkProgram(const fs::path& source, const fs::path& master, const fs::path& target) {
    fs::create_directories(master.parent_path());
    if (!fs::exists(master)) fs::copy_file(source, master);
    fs::remove(target);
    fs::create_hard_link(master, target);
}

void Run(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& strArgument : command)
        arguments.push_back(const_cast<char*>(strArgument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t nPid = 0;
    const int nError =
        ::posix_spawnp(&nPid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (nError != 0) throw std::runtime_error(command[0] + ": " + std::strerror(nError));
    int nStatus = 0;
    while (::waitpid(nPid, &nStatus, 0) < 0 && errno == EINTR) continue;
    if (nStatus != 0) throw std::runtime_error(command[0] + " failed");
}

fs::path ImageContent(const std::string& strEmp) {
    return "/run/images/" + strEmp;
}

std::vector<int> AllProcesses() {
    std::vector<int> pids;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string strName = entry.path().filename();
        if (strName.find_first_not_of("0123456789") == std::string::npos)
            pids.push_back(std::stoi(strName));
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

}  // namespace

CEmpBehaviour& CEmpBehaviour::With(const std::string& strKey, const std::string& strValue) {
    m_strText += strKey + ' ' + strValue + '\n';
    return *this;
}

StartRecord ReadStartRecord(const std::string& strFile) {
    StartRecord record;
    if (!WaitUntil([&] { return fs::exists(strFile); })) return record;
    std::ifstream file(strFile);
    for (std::string strLine; std::getline(file, strLine);) {
        const std::size_t nBlank = strLine.find(' ');
        const std::string strKey = strLine.substr(0, nBlank);
        const std::string strValue = strLine.substr(nBlank + 1);
        if (strKey == "argument") record.arguments.push_back(strValue);
        if (strKey == "environment") record.environment.push_back(strValue);
        if (strKey == "descriptor") record.descriptors.push_back(std::stoi(strValue));
        if (strKey == "SigBlk:") record.strBlockedSignals = strValue;
        if (strKey == "SigIgn:") record.strIgnoredSignals = strValue;
        if (strKey == "limit") record.strDescriptorLimit = strValue;
    }
    return record;
}

void CEmpInstaller::Preinstall(const std::string& strEmp, const CEmpBehaviour& behaviour) {
    const fs::path program = ProgramPath(strEmp);
    fs::create_directories(program.parent_path());
    WriteText(program.parent_path() / "behaviour", behaviour.Text());
    if (!fs::exists(program))
        LinkProgram(BuiltProgram("fake-emp"), "/usr/bin/emps/.programs/fake-emp", program);
}

void CEmpInstaller::InstallImage(const std::string& strEmp, const CEmpBehaviour& behaviour) {
    fs::create_directories(ImageContent(strEmp));
    WriteText(ImageContent(strEmp) / "behaviour", behaviour.Text());
    InstallImageCopy(strEmp, "fake-emp");
}

void CEmpInstaller::PreinstallFile(const std::string& strEmp, const std::string& strContent,
                                   int nMode) {
    const fs::path program = ProgramPath(strEmp);
    fs::create_directories(program.parent_path());
    WriteText(program, strContent);
    fs::permissions(program, static_cast<fs::perms>(nMode));
}

void CEmpInstaller::PreinstallCopy(const std::string& strEmp, const std::string& strProgram) {
    const fs::path program = ProgramPath(strEmp);
    fs::create_directories(program.parent_path());
    LinkProgram(BuiltProgram(strProgram), "/usr/bin/emps/.programs/" + strProgram, program);
}

void CEmpInstaller::InstallImageCopy(const std::string& strEmp, const std::string& strProgram) {
    const fs::path folder = ImageContent(strEmp);
    fs::create_directories(folder);
    const fs::path program = folder / ("emp" + strEmp);
    if (!fs::exists(program))
        LinkProgram(BuiltProgram(strProgram), "/run/programs/" + strProgram, program);

    const fs::path image = ImagePath(strEmp);
    fs::create_directories(image.parent_path());
    fs::remove(image);
    Run({"mksquashfs", folder, image, "-noappend", "-quiet", "-no-progress", "-noI", "-noD", "-noF",
         "-noX"});
}

std::string CEmpInstaller::ProgramPath(const std::string& strEmp) {
    return "/usr/bin/emps/emp" + strEmp + "/emp" + strEmp;
}

std::string CEmpInstaller::ImagePath(const std::string& strEmp) {
    return "/opt/down/emps/emp" + strEmp + "_img/emp" + strEmp + ".img";
}

std::string CEmpInstaller::MountPoint(const std::string& strEmp) {
    return "/opt/down/emps/emp" + strEmp;
}

std::string CEmpInstaller::BuiltProgram(const std::string& strProgram) {
    return CPrivateWorld::ProgramFolder() / strProgram;
}

int CountAllProcesses() {
    return static_cast<int>(AllProcesses().size());
}

std::vector<int> ProcessesOf(const std::string& strProgram) {
    std::vector<int> pids;
    for (const int nPid : AllProcesses()) {
        std::error_code gone;  // or a process that has ended
        if (fs::read_symlink("/proc/" + std::to_string(nPid) + "/exe", gone) == strProgram)
            pids.push_back(nPid);
    }
    return pids;
}

bool WaitUntilEnded(const std::string& strProgram) {
    return WaitForProcesses(strProgram, 0);
}

bool WaitForProcesses(const std::string& strProgram, std::size_t nProcesses) {
    return WaitUntil([&] { return ProcessesOf(strProgram).size() == nProcesses; });
}

bool IsMounted(const std::string& strPoint) {
    return CountMounts(strPoint) > 0;
}

int CountMounts(const std::string& strPoint) {
    std::ifstream mounts("/proc/self/mounts");
    int nMounts = 0;
    for (std::string strLine; std::getline(mounts, strLine);) {
        std::istringstream fields(strLine);
        std::string strSource;
        std::string strTarget;
        if (fields >> strSource >> strTarget && strTarget == strPoint) ++nMounts;
    }
    return nMounts;
}

int CountAllMounts() {
    std::ifstream mounts("/proc/self/mounts");
    int nMounts = 0;
    for (std::string strLine; std::getline(mounts, strLine);) ++nMounts;
    return nMounts;
}

int CountLoopDevices(const std::string& strImage) {
    int nDevices = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block")) {
        if (entry.path().filename().string().rfind("loop", 0) != 0) continue;
        std::ifstream file(entry.path() / "loop/backing_file");
        std::string strFile;
        if (std::getline(file, strFile) && strFile == strImage) ++nDevices;
    }
    return nDevices;
}

}  // namespace vok::test
