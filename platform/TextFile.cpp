#include "platform/TextFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/CUniqueFd.h"

namespace vok {

std::optional<std::string> ReadTextFile(const char* szPath, std::size_t nMost) {
    const CUniqueFd fd{::open(szPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)};
    if (!fd.IsOpen()) return std::nullopt;

    std::string strContent;
    char buffer[4096];
    while (strContent.size() < nMost) {
        const std::size_t nWanted = std::min(sizeof buffer, nMost - strContent.size());
        const ssize_t nRead = ::read(fd.Get(), buffer, nWanted);
        if (nRead < 0 && errno == EINTR) continue;
        if (nRead <= 0) break;  // the end, nothing to read yet, or a folder
        strContent.append(buffer, static_cast<std::size_t>(nRead));
    }
    return strContent;
}

}  // namespace vok
