#include "platform/Move.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "platform/CUniqueFd.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"

namespace vok {

namespace {

constexpr std::size_t kCopyBuffer = std::size_t{256} * 1024;

std::string FolderOf(const std::string& strPath) {
    const std::string strFolder = std::filesystem::path(strPath).parent_path().string();
    return strFolder.empty() ? "." : strFolder;
}

bool WriteAll(int nFd, const char* pData, std::size_t nSize) {
    while (nSize > 0) {
        const ssize_t nWritten = ::write(nFd, pData, nSize);
        if (nWritten < 0 && errno == EINTR) continue;
        if (nWritten < 0) return false;
        pData += nWritten;
        nSize -= static_cast<std::size_t>(nWritten);
    }
    return true;
}

bool CopyBytes(int nFrom, int nTo) {
    const auto pBuffer = std::make_unique<char[]>(kCopyBuffer);
    for (;;) {
        const ssize_t nRead = ::read(nFrom, pBuffer.get(), kCopyBuffer);
        if (nRead == 0) return true;
        if (nRead < 0 && errno == EINTR) continue;
        if (nRead < 0 || !WriteAll(nTo, pBuffer.get(), static_cast<std::size_t>(nRead))) {
            return false;
        }
    }
}

bool CopyAttributes(int nFrom, int nTo) {
    struct stat info {};
    if (::fstat(nFrom, &info) != 0) return false;
    // The owner first: giving a file away clears its set-id bits. Not everybody may do so.
    if (::fchown(nTo, info.st_uid, info.st_gid) != 0 && errno != EPERM) return false;
    return ::fchmod(nTo, info.st_mode & 07777) == 0;
}

void SyncFolder(const std::string& strFolder) {
    const CUniqueFd fd{::open(strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    // Some file systems cannot; the file itself is safe.
    if (fd.IsOpen()) (void)::fsync(fd.Get());
}

/// Copies the file to `strTo` by way of a temporary name beside it. That name is always the same,
/// so that copies which a power cut has stopped do not pile up. False with errno; nothing is left
/// then.
bool CopyIntoPlace(const std::string& strFrom, const std::string& strTo) {
    const CUniqueFd from{::open(strFrom.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)};
    if (!from.IsOpen()) return false;
    const std::string strTemporary = strTo + ".moving";
    if (::unlink(strTemporary.c_str()) != 0 && errno != ENOENT) return false;
    const CUniqueFd to{::open(strTemporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    if (!to.IsOpen()) return false;
    ScopeGuard removeTemporary{[&] {
        const int nErrno = errno;
        (void)::unlink(strTemporary.c_str());
        errno = nErrno;
    }};
    if (!CopyBytes(from.Get(), to.Get()) || !CopyAttributes(from.Get(), to.Get()) ||
        ::fsync(to.Get()) != 0 || ::rename(strTemporary.c_str(), strTo.c_str()) != 0) {
        return false;
    }
    removeTemporary.Dismiss();
    SyncFolder(FolderOf(strTo));
    return true;
}

bool MoveAcross(const std::string& strFrom, const std::string& strTo) {
    // Asked before anything is changed: a source that cannot go must not be copied.
    if (::access(FolderOf(strFrom).c_str(), W_OK | X_OK) != 0) return false;
    if (!CopyIntoPlace(strFrom, strTo)) return false;
    if (::unlink(strFrom.c_str()) != 0) {
        // The target has been replaced; that is what callers go on with.
        VOK_LOG_AS("Move", LEVEL_EVENT, "[%s] stays beside its copy: [%s].", strFrom.c_str(),
                   std::strerror(errno));
    }
    return true;
}

bool IsRegularFile(const std::string& strPath) {
    struct stat info {};
    if (::lstat(strPath.c_str(), &info) != 0) return false;
    if (S_ISREG(info.st_mode)) return true;
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    return false;
}

bool CreateFolder(const std::string& strFolder) {
    std::error_code error;
    std::filesystem::create_directories(strFolder, error);
    errno = error.value();
    return !error;
}

}  // namespace

bool Move(const std::string& strFrom, const std::string& strTo) {
    const bool bMoved = IsRegularFile(strFrom) && CreateFolder(FolderOf(strTo)) &&
                        (::rename(strFrom.c_str(), strTo.c_str()) == 0 ||
                         (errno == EXDEV && MoveAcross(strFrom, strTo)));
    if (!bMoved) {
        VOK_LOG(LEVEL_ERROR, "Moving [%s] to [%s] failed: [%s].", strFrom.c_str(), strTo.c_str(),
                std::strerror(errno));
    }
    return bMoved;
}

}  // namespace vok
