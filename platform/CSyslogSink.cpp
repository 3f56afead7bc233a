#include "platform/CSyslogSink.h"

#include <spdlog/details/os.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace vok {

namespace {

/// What log daemons take in one message by default. A longer record is sent in pieces.
constexpr std::size_t kMaxPiece = 7500;

int Priority(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::err:
            return LOG_DAEMON | LOG_ERR;
        case spdlog::level::warn:
            return LOG_DAEMON | LOG_WARNING;
        case spdlog::level::info:
            return LOG_DAEMON | LOG_NOTICE;
        default:
            return LOG_DAEMON | LOG_DEBUG;
    }
}

/// "<29>Jan 31 16:04:24 vok-broker[123]: ". The months are English whatever the host's locale is.
std::string Header(const spdlog::details::log_msg& message) {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::tm time = spdlog::details::os::localtime(spdlog::log_clock::to_time_t(message.time));
    char szHeader[96];
    std::snprintf(szHeader, sizeof szHeader,
                  "<%d>%s %2d %02d:%02d:%02d vok-broker[%d]: ", Priority(message.level),
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

void CSyslogSink::sink_it_(const spdlog::details::log_msg& message) {
    spdlog::memory_buf_t formatted;
    formatter_->format(message, formatted);
    std::string_view strRecord(formatted.data(), formatted.size());
    while (!strRecord.empty() && strRecord.back() == '\n') strRecord.remove_suffix(1);

    const std::string strHeader = Header(message);
    do {
        const std::string_view strPiece = strRecord.substr(0, kMaxPiece);
        if (!Send(strHeader + std::string(strPiece))) return;
        strRecord.remove_prefix(strPiece.size());
    } while (!strRecord.empty());
}

}  // namespace vok
