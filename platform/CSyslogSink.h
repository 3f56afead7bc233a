/// The syslog destination of the logger.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <mutex>
#include <string>

#include "platform/CUniqueFd.h"

namespace vok {

/// Sends records as RFC 3164 datagrams to /dev/log. syslog(3) would wait for a log daemon that has
/// stopped reading, and hold its lock meanwhile; here such a record is lost instead. A log daemon
/// that comes back is found again. A record that is too long for a datagram is sent in pieces.
class CSyslogSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit CSyslogSink(std::string strSocketPath = "/dev/log");

protected:
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override {}

private:
    bool Connect();
    /// False when the datagram is lost.
    bool Send(const std::string& strDatagram);

    const std::string m_strSocketPath;
    CUniqueFd m_Socket;
};

}  // namespace vok
