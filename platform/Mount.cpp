#include "platform/Mount.h"

#include <libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "platform/EmpPaths.h"
#include "platform/Log.h"
#include "platform/LoopDevice.h"
#include "platform/MountInfo.h"

namespace vok {

namespace {

struct FreeContext {
    void operator()(libmnt_context* pContext) const { mnt_free_context(pContext); }
};
using Context = std::unique_ptr<libmnt_context, FreeContext>;

/// A context that reads no fstab, writes no tables and runs no helper programs.
Context NewContext(const std::string& strTarget) {
    Context pContext(mnt_new_context());
    if (!pContext || mnt_context_set_target(pContext.get(), strTarget.c_str()) != 0 ||
        mnt_context_set_optsmode(pContext.get(), MNT_OMODE_NOTAB) != 0 ||
        mnt_context_disable_mtab(pContext.get(), 1) != 0 ||
        mnt_context_disable_helpers(pContext.get(), 1) != 0) {
        return nullptr;
    }
    return pContext;
}

std::string Reason(const Context& pContext, int nResult) {
    char szReason[256] = "";
    (void)mnt_context_get_excode(pContext.get(), nResult, szReason, sizeof szReason);
    return szReason[0] != '\0' ? szReason : std::strerror(nResult < 0 ? -nResult : nResult);
}

/// As the kernel lists it: without links.
std::string Canonical(const std::string& strPath) {
    const std::unique_ptr<char, decltype(&std::free)> szPath(::realpath(strPath.c_str(), nullptr),
                                                             &std::free);
    return szPath ? szPath.get() : strPath;
}

/// True when the mount is a loop device that serves the image. The name of the device counts only
/// when it means the mounted device in this mount namespace.
bool IsMountOf(const MountEntry& entry, const std::string& strImageFile) {
    struct stat info {};
    if (::stat(entry.strSource.c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) return false;
    return info.st_rdev == makedev(entry.nMajor, entry.nMinor) &&
           LoopDeviceServes(entry.strSource, strImageFile);
}

/// True when mounted; else `pErrno` has the system call's error, 0 when none was made.
bool MountDevice(const std::string& strDevice, const std::string& strTarget, const char* szOptions,
                 int* pErrno, std::string* pReason) {
    *pErrno = 0;
    const Context pContext = NewContext(strTarget);
    if (!pContext || mnt_context_set_source(pContext.get(), strDevice.c_str()) != 0 ||
        mnt_context_set_options(pContext.get(), szOptions) != 0) {
        *pReason = "out of memory";
        return false;
    }
    const int nResult = mnt_context_mount(pContext.get());
    if (nResult == 0 && mnt_context_get_status(pContext.get()) == 1) return true;
    // Negative or positive, depending on the library's version; 0 when no call was made.
    *pErrno = std::abs(mnt_context_get_syscall_errno(pContext.get()));
    *pReason = Reason(pContext, nResult);
    return false;
}

}  // namespace

bool Mount(const std::string& strImageFile, const std::string& strMountPoint) {
    std::error_code error;
    std::filesystem::create_directories(strMountPoint, error);
    const std::string strTarget = Canonical(strMountPoint);
    if (const auto entry = FindMount(strTarget)) {
        if (IsMountOf(*entry, strImageFile)) return true;
        VOK_LOG(LEVEL_ERROR, "[%s] is mounted on [%s], not [%s].", entry->strSource.c_str(),
                strMountPoint.c_str(), strImageFile.c_str());
        return false;
    }

    const LoopDevice device = SetUpLoopDevice(strImageFile);
    if (!device.fd.IsOpen()) {
        VOK_LOG(LEVEL_ERROR, "No loop device for [%s]: [%s].", strImageFile.c_str(),
                std::strerror(errno));
        return false;
    }
    int nErrno = 0;
    std::string strReason;
    if (MountDevice(device.strPath, strTarget, "ro,nosuid,nodev", &nErrno, &strReason)) return true;
    // An ext image that was not unmounted cleanly wants to replay its journal, which a read-only
    // device forbids. Its files can be read without that.
    if (nErrno == EROFS &&
        MountDevice(device.strPath, strTarget, "ro,nosuid,nodev,noload", &nErrno, &strReason)) {
        return true;
    }
    VOK_LOG(LEVEL_ERROR, "Mounting [%s] on [%s] failed: [%s].", strImageFile.c_str(),
            strMountPoint.c_str(), strReason.c_str());
    return false;
}

bool Umount(const std::string& strMountPoint) {
    const std::string strTarget = Canonical(strMountPoint);
    if (!FindMount(strTarget)) {
        VOK_LOG(LEVEL_ERROR, "Nothing is mounted on [%s].", strMountPoint.c_str());
        return false;
    }
    const Context pContext = NewContext(strTarget);
    if (!pContext) {
        VOK_LOG(LEVEL_ERROR, "Unmounting [%s] failed: [out of memory].", strMountPoint.c_str());
        return false;
    }
    const int nResult = mnt_context_umount(pContext.get());
    if (nResult == 0 && mnt_context_get_status(pContext.get()) == 1) return true;
    VOK_LOG(LEVEL_ERROR, "Unmounting [%s] failed: [%s].", strMountPoint.c_str(),
            Reason(pContext, nResult).c_str());
    return false;
}

bool IsImgMounted(const std::string& strEmp) {
    if (!paths::IsFileName(strEmp)) return false;
    return MountedOn(paths::MountPoint(strEmp)).has_value();
}

std::optional<MountEntry> MountedOn(const std::string& strMountPoint) {
    return FindMount(Canonical(strMountPoint));
}

}  // namespace vok
