#include "tests/support/CPrivateWorld.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "platform/CUniqueFd.h"

namespace vok::test {

namespace {

namespace fs = std::filesystem;

/// Where this program is. Asked before the namespaces are entered: afterwards /proc tells a path of
/// the former one, which in a chroot is another.
fs::path s_ProgramFolder;

/// Without root, only the user namespace makes us root, and that root may not set up loop devices.
bool s_bOwnUsers = false;

void Check(bool bOk, const std::string& strStep) {
    if (!bOk) throw std::runtime_error(strStep + ": " + std::strerror(errno));
}

void WriteFile(const char* szPath, const std::string& strText) {
    const CUniqueFd fd{::open(szPath, O_WRONLY | O_CLOEXEC)};
    const auto nSize = static_cast<ssize_t>(strText.size());
    Check(fd.IsOpen() && ::write(fd.Get(), strText.data(), strText.size()) == nSize, szPath);
}

void EnterNamespaces() {
    const uid_t nUser = ::geteuid();
    const gid_t nGroup = ::getegid();
    s_bOwnUsers = nUser != 0;
    const int nFlags = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID;
    Check(::unshare(nFlags | (s_bOwnUsers ? CLONE_NEWUSER : 0)) == 0, "unshare");
    if (!s_bOwnUsers) return;
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(nUser) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(nGroup) + " 1");
}

void MountFresh(const char* szType, const std::string& strPoint, const char* szOptions = nullptr) {
    Check(::mount(szType, strPoint.c_str(), szType, 0, szOptions) == 0,
          std::string(szType) + " on " + strPoint);
}

/// A folder that is about to be covered by an empty one and shall stay visible.
struct KeptFolder {
    fs::path path;
    CUniqueFd fd;
};

std::vector<KeptFolder> OpenKeptFolders() {
    std::vector<fs::path> paths = {s_ProgramFolder, fs::current_path()};
    if (const char* const szDaemon = std::getenv("VOK_BROKER_UNDER_TEST")) {
        paths.push_back(fs::absolute(szDaemon).parent_path());
    }
    std::vector<KeptFolder> kept;
    for (const fs::path& path : paths) {
        // "/", "tmp", "build": an emptied folder itself cannot be kept, only what is below it.
        const fs::path top = path.relative_path().empty() ? fs::path() : *++path.begin();
        if (top != "tmp" && top != "opt" && top != "run") continue;
        if (path.parent_path() == path.root_path()) continue;
        kept.push_back({path, CUniqueFd{::open(path.c_str(), O_PATH | O_CLOEXEC)}});
    }
    return kept;
}

void ShowKeptFolder(const KeptFolder& folder) {
    fs::create_directories(folder.path);
    const std::string strSource = "/proc/self/fd/" + std::to_string(folder.fd.Get());
    Check(::mount(strSource.c_str(), folder.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          "keeping " + folder.path.string());
}

void CoverFileSystem() {
    Check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
          "making mounts private (the root of a chroot must be a mount point)");
    MountFresh("proc", "/proc");
    const fs::path workingFolder = fs::current_path();
    const std::vector<KeptFolder> kept = OpenKeptFolders();
    for (const char* szFolder : {"/tmp", "/opt", "/run"}) MountFresh("tmpfs", szFolder);
    Check(::chmod("/tmp", 01777) == 0, "/tmp");
    for (const KeptFolder& folder : kept) ShowKeptFolder(folder);
    fs::current_path(workingFolder);  // the new way to it, not the one below what covers it

    fs::create_directories("/run/usr-bin/upper");
    fs::create_directories("/run/usr-bin/work");
    MountFresh("overlay", "/usr/bin",
               "lowerdir=/usr/bin,upperdir=/run/usr-bin/upper,workdir=/run/usr-bin/work");
}

void RaiseLoopback() {
    const CUniqueFd fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    Check(fd.IsOpen() && ::ioctl(fd.Get(), SIOCGIFFLAGS, &request) == 0, "state of lo");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    Check(::ioctl(fd.Get(), SIOCSIFFLAGS, &request) == 0, "raising lo");
}

int Skip(const std::exception& reason) {
    std::cerr << "No private world: " << reason.what() << std::endl;
    return CPrivateWorld::kSkipped;
}

/// Pid 1 of the world.
int RunInside(const std::function<int()>& run) {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a killed test run leaves no world behind
    try {
        CoverFileSystem();
        RaiseLoopback();
    } catch (const std::exception& reason) {
        return Skip(reason);
    }
    return run();
}

}  // namespace

int CPrivateWorld::Run(const std::function<int()>& run) {
    try {
        s_ProgramFolder = fs::read_symlink("/proc/self/exe").parent_path();
        EnterNamespaces();
    } catch (const std::exception& reason) {
        return Skip(reason);
    }
    std::cout.flush();
    (void)std::fflush(nullptr);
    const pid_t nChild = ::fork();
    if (nChild < 0) {
        std::perror("fork");
        return kSkipped;
    }
    if (nChild == 0) std::exit(RunInside(run));
    int nStatus = 0;
    while (::waitpid(nChild, &nStatus, 0) < 0 && errno == EINTR) continue;
    // Without exit handlers: with its world, this process has lost the right to make processes,
    // which a leak check at exit needs.
    ::_exit(WIFSIGNALED(nStatus) ? 128 + WTERMSIG(nStatus) : WEXITSTATUS(nStatus));
}

std::filesystem::path CPrivateWorld::ProgramFolder() {
    return s_ProgramFolder;
}

int CPrivateWorld::ReapOrphans() {
    int nReaped = 0;
    while (::waitpid(-1, nullptr, WNOHANG) > 0) ++nReaped;
    return nReaped;
}

bool CPrivateWorld::MayLoopMount(std::string* pReason) {
    if (s_bOwnUsers) {
        *pReason = "loop devices need root";
        return false;
    }
    const CUniqueFd control{::open("/dev/loop-control", O_RDWR | O_CLOEXEC)};
    if (!control.IsOpen() || ::ioctl(control.Get(), LOOP_CTL_GET_FREE) < 0) {
        *pReason = std::string("/dev/loop-control: ") + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace vok::test
