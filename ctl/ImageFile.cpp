#include "ctl/ImageFile.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/CUniqueFd.h"

namespace vok::ctl {

namespace {

using ElfHeader = ElfW(Ehdr);
using ElfSegment = ElfW(Phdr);

/// Enough for the first block of every file system that is recognised.
constexpr std::size_t kBegin = 2048;

/// Where file systems that leave room for a boot sector have their first block.
constexpr std::size_t kSuperblock = 1024;

struct FileLook {
    std::string strBegin;
    std::uint64_t nSize = 0;
    mode_t nMode = 0;
    std::string strTrouble;
};

FileLook LookAt(const std::string& strPath) {
    FileLook look;
    // A FIFO or a device in a file's place shall not make anybody wait.
    const CUniqueFd fd{::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    struct stat info {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0) {
        look.strTrouble = std::string("it cannot be read: ") + std::strerror(errno);
        return look;
    }
    look.nMode = info.st_mode;
    look.nSize = static_cast<std::uint64_t>(info.st_size);
    if (!S_ISREG(info.st_mode)) {
        look.strTrouble = "it is no file";
        return look;
    }
    look.strBegin.resize(kBegin);
    const ssize_t nRead = ::read(fd.Get(), look.strBegin.data(), look.strBegin.size());
    if (nRead < 0) look.strTrouble = std::string("it cannot be read: ") + std::strerror(errno);
    look.strBegin.resize(static_cast<std::size_t>(std::max<ssize_t>(nRead, 0)));
    return look;
}

/// A number as file systems write it: the lowest byte first. 0 beyond the end.
std::uint64_t NumberAt(const std::string& strBytes, std::size_t nAt, std::size_t nSize) {
    std::uint64_t nNumber = 0;
    if (nAt + nSize > strBytes.size()) return 0;
    for (std::size_t i = nSize; i-- > 0;)
        nNumber = (nNumber << 8U) | static_cast<unsigned char>(strBytes[nAt + i]);
    return nNumber;
}

/// How large a file system says that it is.
struct Extent {
    std::string strFileSystem;
    std::uint64_t nSize = 0;
};

std::uint64_t Shifted(std::uint64_t nBlocks, std::uint64_t nBits) {
    return nBits < 32 ? nBlocks << nBits : 0;  // no block is that large
}

std::string KindOfExt(const std::string& strBegin) {
    constexpr std::uint64_t kJournal = 0x4;
    constexpr std::uint64_t kNewer = 0x40 | 0x80 | 0x200;  // extents, 64 bits, flexible groups
    if ((NumberAt(strBegin, kSuperblock + 96, 4) & kNewer) != 0) return "ext4";
    return (NumberAt(strBegin, kSuperblock + 92, 4) & kJournal) != 0 ? "ext3" : "ext2";
}

Extent Recognise(const std::string& strBegin) {
    constexpr std::uint64_t kSquashfs = 0x73717368;
    constexpr std::uint64_t kExt = 0xEF53;
    constexpr std::uint64_t kErofs = 0xE0F5E1E2;
    if (NumberAt(strBegin, 0, 4) == kSquashfs) return {"squashfs", NumberAt(strBegin, 40, 8)};
    if (NumberAt(strBegin, kSuperblock, 4) == kErofs)
        return {"erofs", Shifted(NumberAt(strBegin, kSuperblock + 36, 4),
                                 NumberAt(strBegin, kSuperblock + 12, 1))};
    if (NumberAt(strBegin, kSuperblock + 56, 2) == kExt)
        return {KindOfExt(strBegin), Shifted(NumberAt(strBegin, kSuperblock + 4, 4),
                                             10 + NumberAt(strBegin, kSuperblock + 24, 4))};
    return {};
}

/// What decides whether a processor runs a program: class, byte order, machine.
std::string ProcessorOf(const std::string& strBegin) {
    constexpr std::size_t kMachine = 18;
    if (strBegin.size() < kMachine + 2) return {};
    return strBegin.substr(EI_CLASS, 2) + strBegin.substr(kMachine, 2);
}

/// The size that a program for this machine needs to have for the kernel to load it: up to the end
/// of its last segment. What of its table lies beyond what was read counts as nothing.
std::uint64_t SizeOfSegments(const std::string& strBegin) {
    ElfHeader header{};
    if (strBegin.size() < sizeof header) return sizeof header;
    std::memcpy(&header, strBegin.data(), sizeof header);
    std::uint64_t nEnd = header.e_phoff + std::uint64_t{header.e_phnum} * sizeof(ElfSegment);
    if (header.e_phoff > strBegin.size()) return nEnd;
    std::string_view strTable = std::string_view(strBegin).substr(header.e_phoff);
    ElfSegment segment{};
    for (int i = 0; i < header.e_phnum && strTable.size() >= sizeof segment; ++i) {
        std::memcpy(&segment, strTable.data(), sizeof segment);
        strTable.remove_prefix(sizeof segment);
        if (segment.p_type == PT_LOAD)
            nEnd = std::max(nEnd, std::uint64_t{segment.p_offset} + segment.p_filesz);
    }
    return nEnd;
}

std::string EndsAfter(std::uint64_t nSize, std::uint64_t nNeeded) {
    return "it ends after " + std::to_string(nSize) + " of " + std::to_string(nNeeded) + " bytes";
}

}  // namespace

ImageLook LookAtImage(const std::string& strPath) {
    const FileLook look = LookAt(strPath);
    if (!look.strTrouble.empty()) return {"", look.strTrouble};
    if (look.nSize == 0) return {"", "it is empty"};
    const Extent extent = Recognise(look.strBegin);
    if (extent.strFileSystem.empty())
        return {"", "it is neither squashfs nor ext2 to ext4 nor erofs"};
    if (extent.nSize > look.nSize)
        return {extent.strFileSystem, EndsAfter(look.nSize, extent.nSize)};
    return {extent.strFileSystem, ""};
}

std::string TroubleOfProgram(const std::string& strPath) {
    const FileLook look = LookAt(strPath);
    if (!look.strTrouble.empty()) return look.strTrouble;
    if (look.strBegin.rfind("#!", 0) == 0) return "it is a script, and only binaries are started";
    if (look.strBegin.rfind(ELFMAG, 0) != 0) return "it is no program";
    if (ProcessorOf(look.strBegin) != ProcessorOf(LookAt("/proc/self/exe").strBegin))
        return "it is built for another processor";
    const std::uint64_t nNeeded = SizeOfSegments(look.strBegin);
    if (look.nSize < nNeeded) return EndsAfter(look.nSize, nNeeded);
    if ((look.nMode & S_IXUSR) == 0) return "it may not be executed";
    return {};
}

}  // namespace vok::ctl
