#include "platform/LoopDevice.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#ifndef LOOP_CONFIGURE  // kernel headers before 5.8
#define LOOP_CONFIGURE 0x4C0A
struct loop_config {
    __u32 fd;
    __u32 block_size;
    loop_info64 info;
    __u64 __reserved[8];
};
#endif

namespace vok {

namespace {

/// Between being told a free device and taking it, somebody else may take it.
constexpr int kRaces = 64;
/// A device that the kernel has just made may get its node later.
constexpr int kNodeTries = 100;
constexpr std::chrono::milliseconds kNodePause{10};

CUniqueFd OpenImage(const std::string& strImageFile) {
    // O_NONBLOCK: a FIFO of that name must not hang us.
    CUniqueFd fd{::open(strImageFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat info {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0) return CUniqueFd();
    if (!S_ISREG(info.st_mode)) {
        fd.Reset();
        errno = EINVAL;
    }
    return fd;
}

CUniqueFd OpenNode(const std::string& strPath) {
    for (int nTry = 0;; ++nTry) {
        CUniqueFd fd{::open(strPath.c_str(), O_RDONLY | O_CLOEXEC)};
        if (fd.IsOpen() || (errno != ENOENT && errno != ENXIO) || nTry == kNodeTries) return fd;
        std::this_thread::sleep_for(kNodePause);
    }
}

/// For kernels without LOOP_CONFIGURE. The device is read-only because the image's descriptor is.
bool AttachInTwoSteps(int nLoop, int nImage, const loop_info64& info) {
    if (::ioctl(nLoop, LOOP_SET_FD, nImage) != 0) return false;
    if (::ioctl(nLoop, LOOP_SET_STATUS64, &info) == 0) return true;
    const int nErrno = errno;
    (void)::ioctl(nLoop, LOOP_CLR_FD, 0);  // ours: nobody else uses it yet
    errno = nErrno;
    return false;
}

bool Attach(int nLoop, int nImage, const std::string& strImageFile) {
    loop_config config{};
    config.fd = static_cast<__u32>(nImage);
    config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
    // Only shown by losetup(8); a longer path is cut.
    const std::size_t nLength = std::min<std::size_t>(strImageFile.size(), LO_NAME_SIZE - 1);
    std::copy_n(strImageFile.begin(), nLength, config.info.lo_file_name);
    if (::ioctl(nLoop, LOOP_CONFIGURE, &config) == 0) return true;
    if (errno != EINVAL && errno != ENOTTY && errno != ENOSYS) return false;
    return AttachInTwoSteps(nLoop, nImage, config.info);
}

/// The kernel reports device numbers in its own encoding, not in that of the C library's dev_t.
bool IsDevice(std::uint64_t nKernelDevice, dev_t nDevice) {
    const std::uint64_t nMajor = (nKernelDevice & 0xfff00) >> 8;
    const std::uint64_t nMinor = (nKernelDevice & 0xff) | ((nKernelDevice >> 12) & 0xfff00);
    return nMajor == major(nDevice) && nMinor == minor(nDevice);
}

}  // namespace

LoopDevice SetUpLoopDevice(const std::string& strImageFile) {
    const CUniqueFd image = OpenImage(strImageFile);
    if (!image.IsOpen()) return {};
    const CUniqueFd control{::open("/dev/loop-control", O_RDWR | O_CLOEXEC)};
    if (!control.IsOpen()) return {};
    for (int nRace = 0; nRace < kRaces; ++nRace) {
        const int nDevice = ::ioctl(control.Get(), LOOP_CTL_GET_FREE);
        if (nDevice < 0) return {};
        LoopDevice device;
        device.strPath = "/dev/loop" + std::to_string(nDevice);
        device.fd = OpenNode(device.strPath);
        if (!device.fd.IsOpen()) return {};
        if (Attach(device.fd.Get(), image.Get(), strImageFile)) return device;
        if (errno != EBUSY && errno != EAGAIN) {
            const int nErrno = errno;
            device.fd.Reset();
            errno = nErrno;
            return {};
        }
    }
    errno = EBUSY;
    return {};
}

bool LoopDeviceServes(const std::string& strDevice, const std::string& strImageFile) {
    struct stat image {};
    if (::stat(strImageFile.c_str(), &image) != 0) return false;
    const CUniqueFd fd{::open(strDevice.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat device {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &device) != 0) return false;
    if (!S_ISBLK(device.st_mode) || major(device.st_rdev) != LOOP_MAJOR) return false;
    loop_info64 info{};
    if (::ioctl(fd.Get(), LOOP_GET_STATUS64, &info) != 0) return false;
    return IsDevice(info.lo_device, image.st_dev) && info.lo_inode == image.st_ino &&
           info.lo_offset == 0 && info.lo_sizelimit == 0;
}

}  // namespace vok
