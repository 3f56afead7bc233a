#include "ctl/Output.h"

#include <fcntl.h>
#include <langinfo.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ctl/Failure.h"

namespace vok::ctl {

namespace {

bool IsSet(const char* szVariable) {
    const char* const szValue = std::getenv(szVariable);
    return szValue != nullptr && *szValue != '\0';
}

bool IsDumb() {
    const char* const szTerminal = std::getenv("TERM");
    return szTerminal == nullptr || std::strcmp(szTerminal, "dumb") == 0;
}

/// True when there is room, false when the wait has been interrupted.
bool AwaitRoom(int nInterrupt) {
    std::array<pollfd, 2> fds{{{STDOUT_FILENO, POLLOUT, 0}, {nInterrupt, POLLIN, 0}}};
    while (::poll(fds.data(), fds.size(), -1) < 0) {
        if (errno != EINTR) return true;  // writing tells what is wrong
    }
    return fds[0].revents != 0;
}

std::string Dump(const Json& json, int nIndent, bool bAscii) {
    // Names and ports may be any bytes: each that is no UTF-8 becomes U+FFFD.
    return json.dump(nIndent, ' ', bAscii, Json::error_handler_t::replace) + '\n';
}

constexpr int kIndent = 2;

}  // namespace

void FillStandardDescriptors() {
    for (int nFd = STDIN_FILENO; nFd <= STDERR_FILENO; ++nFd) {
        if (::fcntl(nFd, F_GETFD) >= 0) continue;
        // The lowest free one is this one. The wrong way round, so that using it fails.
        (void)::open("/dev/null", nFd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

Style DetectStyle() {
    Style style;
    (void)std::setlocale(LC_CTYPE, "");
    style.bUtf8 = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
    style.bTerminal = ::isatty(STDOUT_FILENO) != 0;
    if (!style.bTerminal) return style;
    style.bColour = !IsSet("NO_COLOR") && !IsDumb();
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
        style.nWidth = size.ws_col;
        style.nHeight = size.ws_row;
    }
    return style;
}

void COutput::AddDocument(const Json& json) {
    // On a terminal as \uXXXX: some characters beyond ASCII control it.
    Add(Dump(json, kIndent, m_Style.bTerminal));
}

void COutput::AddLine(const Json& json) {
    Add(Dump(json, -1, m_Style.bTerminal));
}

void COutput::AddNote(const std::string& strText) const {
    const std::string strLine = Printable(strText, m_Style.bUtf8) + '\n';
    (void)!::write(STDERR_FILENO, strLine.data(), strLine.size());  // nobody else to tell
}

void COutput::Flush() {
    const std::string strText = std::exchange(m_strPending, {});
    if (!strText.empty()) Write(strText);
}

void COutput::Write(const std::string& strText) {
    for (std::size_t nWritten = 0; nWritten < strText.size();) {
        if (!AwaitRoom(m_nInterrupt)) return;
        // No more than a pipe takes at once: it says that it has room for that.
        const std::size_t nSize = std::min<std::size_t>(strText.size() - nWritten, PIPE_BUF);
        const ssize_t nDone = ::write(STDOUT_FILENO, strText.data() + nWritten, nSize);
        if (nDone >= 0) {
            nWritten += static_cast<std::size_t>(nDone);
        } else if (errno == EPIPE) {
            throw CFailure(EXIT_FAILED, "");
        } else if (errno != EINTR && errno != EAGAIN) {
            throw CFailure(EXIT_FAILED, std::string("cannot write to the standard output: ") +
                                            std::strerror(errno));
        }
    }
}

}  // namespace vok::ctl
