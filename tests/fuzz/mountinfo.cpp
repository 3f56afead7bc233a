// What the kernel tells about mounts.
//
// Input: a line with a mount point, then the text of /proc/self/mountinfo.
#include "platform/MountInfo.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "tests/fuzz/support/Target.h"

namespace vok::test {
namespace {

/// As the kernel writes it.
std::string Escape(std::string_view strText) {
    std::string strEscaped;
    for (const char c : strText) {
        if (c != ' ' && c != '\t' && c != '\n' && c != '\\') {
            strEscaped += c;
            continue;
        }
        char szCode[5];
        std::snprintf(szCode, sizeof szCode, "\\%03o", static_cast<unsigned int>(c));
        strEscaped += szCode;
    }
    return strEscaped;
}

void RequireReadable(const std::string& strMountInfo, std::string_view strMountPoint) {
    const auto entry = FindMount(strMountInfo, strMountPoint);
    if (entry) Require(!entry->strFileSystem.empty(), "what is mounted has a file system");
}

/// The last of several mounts is the one that is seen, whatever was written before it.
void RequireFound(const std::string& strMountInfo, std::string_view strMountPoint) {
    const std::string strLine = "\n36 35 7:1 / " + Escape(strMountPoint) +
                                " ro,nosuid shared:1 - " + Escape("squash fs") + ' ' +
                                Escape(strMountPoint) + " ro\n";
    const auto entry = FindMount(strMountInfo + strLine, strMountPoint);
    Require(entry.has_value(), "what is mounted is found");
    Require(entry->nMajor == 7 && entry->nMinor == 1, "with its device");
    Require(entry->strFileSystem == "squash fs", "with its file system");
    Require(entry->strSource == strMountPoint, "with its source");
}

}  // namespace
}  // namespace vok::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    const std::string_view strInput{reinterpret_cast<const char*>(pData), nSize};
    const std::size_t nEnd = std::min(strInput.find('\n'), strInput.size());
    const std::string_view strMountPoint = strInput.substr(0, nEnd);
    const std::string strMountInfo{strInput.substr(std::min(nEnd + 1, strInput.size()))};
    vok::test::RequireReadable(strMountInfo, strMountPoint);
    vok::test::RequireFound(strMountInfo, strMountPoint);
    return 0;
}
