/// A client of the broker.
#pragma once

#include <thrift/transport/TSocket.h>

#include <chrono>
#include <memory>
#include <string>

#include "VokBroker.h"
#include "platform/Limits.h"

namespace vok::test {

/// One connection to the broker's port, or to that of who speaks like it. Calls throw
/// apache::thrift::TException when the transport fails or the broker answers with an exception. One
/// call at a time.
class CBrokerClient {
public:
    /// How long a call may take before it fails: longer than anything that the broker does.
    static constexpr std::chrono::seconds kPatience{90};

    /// Connects.
    explicit CBrokerClient(std::chrono::milliseconds patience = kPatience, int nPort = kBrokerPort);
    CBrokerClient(const CBrokerClient&) = delete;
    CBrokerClient& operator=(const CBrokerClient&) = delete;

    ConnectionInfo Open(const std::string& strClientPort, const std::string& strEmp,
                        const std::string& strVersion = "", const std::string& strAppInfo = "");
    /// The arguments in the order in which they travel: the command word is the second.
    std::string Execute(const std::string& strArg1, const std::string& strCmd,
                        const std::string& strArg3 = "", const std::string& strArg4 = "",
                        const std::string& strArg5 = "", const std::string& strArg6 = "");
    bool Close(const ConnectionInfo& info);

    /// "5.100" when all is well.
    std::string Version() { return Execute("", "GetVOKVersion"); }

    void Disconnect();

    // ---- Below the calls: messages that no client would send. Throw TTransportException. --------

    /// For the two halves of a call: send_Execute, recv_Execute and so on.
    VokBrokerClient& Rpc() { return *m_pClient; }
    int Socket() const { return static_cast<int>(m_pSocket->getSocketFD()); }
    void SendRaw(const std::string& strBytes);
    /// What comes next, at most `nMost` bytes; "" when the broker has closed the connection.
    std::string ReceiveRaw(std::size_t nMost = 4096);

private:
    const std::shared_ptr<apache::thrift::transport::TSocket> m_pSocket;
    std::unique_ptr<VokBrokerClient> m_pClient;
};

}  // namespace vok::test
