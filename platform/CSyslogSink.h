/// The syslog destination of the logger.
#pragma once

#include <string>
#include <string_view>

#include "platform/CMutex.h"
#include "platform/CUniqueFd.h"

namespace vok {

/// Sends records as RFC 3164 datagrams to /dev/log. syslog(3) would wait for a log daemon that has
/// stopped reading, and hold its lock meanwhile; here such a record is lost instead. A log daemon
/// that comes back is found again. A record that is too long for a datagram is sent in pieces.
class CSyslogSink {
public:
    explicit CSyslogSink(std::string strSocketPath = "/dev/log");

    /// `nSeverity`: one of syslog's, LOG_ERR and so on. Thread-safe, never blocks; throws nothing
    /// but std::bad_alloc.
    void Write(int nSeverity, std::string_view strRecord);

private:
    bool Connect() VOK_REQUIRES(m_Mutex);
    /// False when the datagram is lost.
    bool Send(const std::string& strDatagram) VOK_REQUIRES(m_Mutex);

    const std::string m_strSocketPath;
    CMutex m_Mutex;
    CUniqueFd m_Socket VOK_GUARDED_BY(m_Mutex);
};

}  // namespace vok
