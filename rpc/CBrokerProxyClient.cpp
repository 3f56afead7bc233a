#include "rpc/CBrokerProxyClient.h"

#include <boost/make_shared.hpp>

#include "platform/Log.h"
#include "platform/Number.h"
#include "platform/ScopeGuard.h"

namespace vok {

using apache::thrift::TException;
using apache::thrift::protocol::TBinaryProtocol;

#define PROXY_LOG(level, ...) VOK_CLASS_LOG("CBrokerProxyClient", level, __VA_ARGS__)

/// Can be brought back to where it began, whatever a failed call has left in it.
class CBrokerProxyClient::CTransport : public CTextTransport {
public:
    using CTextTransport::CTextTransport;

    void Reset() {
        transport_->close();  // this one's own close would first send what was not sent
        initPointers();
    }
};

CBrokerProxyClient::CBrokerProxyClient(const RpcAddress& address)
    : m_pSocket(MakeRpcSocket(address)),
      m_pTransport(std::make_shared<CTransport>(m_pSocket, kRpcBuffer, kRpcBuffer)),
      m_pProtocol(std::make_shared<TBinaryProtocol>(m_pTransport, kLongestText, 0, false, true)),
      m_pClient(std::make_shared<VokEmpEventClient>(m_pProtocol)) {}

CBrokerProxyClient::CBrokerProxyClient(const std::string& strPath)
    : CBrokerProxyClient(RpcAddress{{}, 0, strPath}) {}

CBrokerProxyClient::CBrokerProxyClient(const std::string& strIp, std::string strPort)
    : CBrokerProxyClient(RpcAddress{strIp, LeadingNumber(strPort), {}}) {}

void CBrokerProxyClient::Callback(int32_t nEvtType, const std::string& strA,
                                  const std::string& strB) {
    try {
        Send(nEvtType, strA, strB);
    } catch (const TException& e) {
        PROXY_LOG(LEVEL_TRACE, "Callback can't be sent : evtType[%d] what:[%s]", nEvtType,
                  e.what());
    } catch (const std::exception&) {
        PROXY_LOG(LEVEL_ERROR, "std::exception has been caught. strange.");
    } catch (...) {
        PROXY_LOG(LEVEL_ERROR, "Unexpected problem occured");
    }
}

int CBrokerProxyClient::WrapperCallback(int nEvtType, const std::string& strA,
                                        const std::string& strB) {
    try {
        Send(nEvtType, strA, strB);
        return 0;
    } catch (const TException&) {
        return -1;  // the caller asks whether the client lives: its end is no error
    } catch (...) {
        PROXY_LOG(LEVEL_ERROR, "thrift error throw.. ");
        return -1;
    }
}

void CBrokerProxyClient::Send(int nEvtType, const std::string& strA, const std::string& strB) {
    const ScopeGuard resetTransport{[this] { m_pTransport->Reset(); }};
    m_pTransport->open();
    m_pClient->Callback(nEvtType, strA, strB);
    m_pTransport->close();
}

boost::shared_ptr<CBrokerProxyClient> MakeClientProxy(const std::string& strIp,
                                                      const std::string& strClientPort) {
    if (!strClientPort.empty() && strClientPort.front() == '/')
        return boost::make_shared<CBrokerProxyClient>(strClientPort);
    return boost::make_shared<CBrokerProxyClient>(strIp, strClientPort);
}

}  // namespace vok
