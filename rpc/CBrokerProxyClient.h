/// The broker's client towards a client's callback server.
#pragma once

#include <boost/shared_ptr.hpp>

#include <memory>
#include <string>

#include "VokEmpEvent.h"
#include "rpc/CallOnce.h"

namespace vok {

/// Events that the broker sends.
inline constexpr int kEventPing = 99;            // "Broker", "Ping": does the client live?
inline constexpr int kEventReset = -50000;       // "E0003" twice: an EMP stopped answering
inline constexpr int kEventDebugLevel = -30001;  // "LEVEL_ON_PARAM2", level

/// Sends events to one client. The connection is opened and closed for every event, so a proxy may
/// send several. Calls block for the whole RPC. No lock: one thread per proxy.
class CBrokerProxyClient : public VokEmpEventIf {
public:
    /// The Unix domain socket at `strPath`.
    explicit CBrokerProxyClient(const std::string& strPath);
    /// `strPort`: TCP port as decimal text; any other text makes calls fail at connect.
    CBrokerProxyClient(const std::string& strIp, std::string strPort);

    /// Sends an event. What fails is logged (level 3; what is no RPC failure: level 0). Never
    /// throws.
    void Callback(int32_t nEvtType, const std::string& strA, const std::string& strB) override;

    /// Sends an event: 0. Or -1, silently when the RPC failed. Never throws.
    int WrapperCallback(int nEvtType, const std::string& strA, const std::string& strB);

private:
    class CTransport;

    explicit CBrokerProxyClient(const RpcAddress& address);
    void Send(int nEvtType, const std::string& strA, const std::string& strB);

    std::shared_ptr<apache::thrift::transport::TSocket> m_pSocket;
    std::shared_ptr<CTransport> m_pTransport;
    std::shared_ptr<apache::thrift::protocol::TBinaryProtocol> m_pProtocol;
    std::shared_ptr<VokEmpEventClient> m_pClient;
};

/// A proxy for a client as the tables know it: a port text that begins with '/' is the path of a
/// Unix domain socket, all else a TCP port on `strIp`.
boost::shared_ptr<CBrokerProxyClient> MakeClientProxy(const std::string& strIp,
                                                      const std::string& strClientPort);

}  // namespace vok
