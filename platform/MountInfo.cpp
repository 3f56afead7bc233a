#include "platform/MountInfo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "platform/CUniqueFd.h"

namespace vok {

namespace {

/// Takes the text up to the next blank off the front of a line; empty at its end.
std::string_view TakeField(std::string_view* pLine) {
    const std::size_t nEnd = pLine->find(' ');
    const std::string_view field = pLine->substr(0, nEnd);
    pLine->remove_prefix(nEnd == std::string_view::npos ? pLine->size() : nEnd + 1);
    return field;
}

bool IsOctal(char c) {
    return c >= '0' && c <= '7';
}

/// The kernel writes blanks, tabs, line feeds and backslashes as \ooo.
std::string Unescape(std::string_view strField) {
    std::string strText;
    strText.reserve(strField.size());
    for (std::size_t i = 0; i < strField.size(); ++i) {
        if (strField[i] == '\\' && i + 3 < strField.size() && IsOctal(strField[i + 1]) &&
            IsOctal(strField[i + 2]) && IsOctal(strField[i + 3])) {
            const int nCode = (strField[i + 1] - '0') * 64 + (strField[i + 2] - '0') * 8 +
                              (strField[i + 3] - '0');
            strText += static_cast<char>(static_cast<unsigned char>(nCode & 0xff));
            i += 3;
        } else {
            strText += strField[i];
        }
    }
    return strText;
}

bool ParseDevice(std::string_view strField, MountEntry* pEntry) {
    const char* const szEnd = strField.data() + strField.size();
    const auto major = std::from_chars(strField.data(), szEnd, pEntry->nMajor);
    if (major.ec != std::errc() || major.ptr == szEnd || *major.ptr != ':') return false;
    const auto minor = std::from_chars(major.ptr + 1, szEnd, pEntry->nMinor);
    return minor.ec == std::errc() && minor.ptr == szEnd;
}

/// ID PARENT MAJOR:MINOR ROOT MOUNTPOINT OPTIONS [OPTIONAL...] - TYPE SOURCE SUPEROPTIONS
std::optional<MountEntry> ParseLine(std::string_view strLine, std::string_view strMountPoint) {
    MountEntry entry;
    (void)TakeField(&strLine);
    (void)TakeField(&strLine);
    if (!ParseDevice(TakeField(&strLine), &entry)) return std::nullopt;
    (void)TakeField(&strLine);
    if (Unescape(TakeField(&strLine)) != strMountPoint) return std::nullopt;
    (void)TakeField(&strLine);
    while (!strLine.empty()) {
        if (TakeField(&strLine) != "-") continue;
        entry.strFileSystem = Unescape(TakeField(&strLine));
        entry.strSource = Unescape(TakeField(&strLine));
        if (entry.strFileSystem.empty()) return std::nullopt;
        return entry;
    }
    return std::nullopt;
}

std::string ReadWhole(const char* szPath) {
    std::string strText;
    const CUniqueFd fd{::open(szPath, O_RDONLY | O_CLOEXEC)};
    if (!fd.IsOpen()) return strText;
    char buffer[16384];
    for (;;) {
        const ssize_t nRead = ::read(fd.Get(), buffer, sizeof buffer);
        if (nRead < 0 && errno == EINTR) continue;
        if (nRead <= 0) return strText;
        strText.append(buffer, static_cast<std::size_t>(nRead));
    }
}

}  // namespace

std::optional<MountEntry> FindMount(std::string_view strMountInfo, std::string_view strMountPoint) {
    std::optional<MountEntry> found;
    while (!strMountInfo.empty()) {
        const std::size_t nEnd = strMountInfo.find('\n');
        auto entry = ParseLine(strMountInfo.substr(0, nEnd), strMountPoint);
        if (entry) {
            if (found) entry->nStacked = found->nStacked + 1;
            found = std::move(entry);
        }
        strMountInfo.remove_prefix(nEnd == std::string_view::npos ? strMountInfo.size() : nEnd + 1);
    }
    return found;
}

std::optional<MountEntry> FindMount(const std::string& strMountPoint) {
    return FindMount(ReadWhole("/proc/self/mountinfo"), strMountPoint);
}

}  // namespace vok
