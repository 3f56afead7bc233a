#include "platform/CSyslogSink.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

namespace vok {

namespace {

/// What log daemons take in one message by default. A longer record is sent in pieces.
constexpr std::size_t kMaxPiece = 7500;

/// "<29>Jan 31 16:04:24 vok-broker[123]: ". The months are English whatever the host's locale is.
std::string Header(int nSeverity) {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    std::tm time{};
    (void)::localtime_r(&now, &time);
    char szHeader[96];
    std::snprintf(szHeader, sizeof szHeader,
                  "<%d>%s %2d %02d:%02d:%02d vok-broker[%d]: ", LOG_DAEMON | nSeverity,
                  kMonths[std::clamp(time.tm_mon, 0, 11)], time.tm_mday, time.tm_hour, time.tm_min,
                  time.tm_sec, static_cast<int>(::getpid()));
    return szHeader;
}

}  // namespace

CSyslogSink::CSyslogSink(std::string strSocketPath) : m_strSocketPath(std::move(strSocketPath)) {}

bool CSyslogSink::Connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_strSocketPath.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, m_strSocketPath.c_str(), m_strSocketPath.size());
    m_Socket.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_Socket.IsOpen()) return false;
    if (::connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
        0) {
        return true;
    }
    m_Socket.Reset();
    return false;
}

bool CSyslogSink::Send(const std::string& strDatagram) {
    if (!m_Socket.IsOpen() && !Connect()) return false;
    for (bool bAgain = true;; bAgain = false) {
        const ssize_t nSent = ::send(m_Socket.Get(), strDatagram.data(), strDatagram.size(),
                                     MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent >= 0) return true;
        if (errno == EAGAIN || errno == EINTR || errno == ENOBUFS) return false;
        // The log daemon has gone, perhaps for a new one.
        if (!bAgain || !Connect()) return false;
    }
}

void CSyslogSink::Write(int nSeverity, std::string_view strRecord) {
    while (!strRecord.empty() && strRecord.back() == '\n') strRecord.remove_suffix(1);

    const std::string strHeader = Header(nSeverity);
    const CLock lock{m_Mutex};
    do {
        const std::string_view strPiece = strRecord.substr(0, kMaxPiece);
        if (!Send(strHeader + std::string(strPiece))) return;
        strRecord.remove_prefix(strPiece.size());
    } while (!strRecord.empty());
}

}  // namespace vok
