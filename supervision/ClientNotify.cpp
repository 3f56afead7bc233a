// Telling one side of a connection about the other.
#include <boost/make_shared.hpp>

#include "broker/CBroker.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "rpc/CBrokerProxyClient.h"
#include "rpc/CBrokerProxyEmp.h"

namespace vok {

void CBroker::SendCallbackNotification(ConnectionKey key) {
    const std::set<std::string> setClient = m_ConnectionDB.GetClientPortNumList(key);
    if (setClient.empty()) return;

    // The first is told, and nobody else.
    const std::string& strClientPort = *setClient.begin();
    VOK_LOG(LEVEL_DETAIL, "1 RESET -> clientPort[%s]", strClientPort.c_str());
    const auto spClient = MakeClientProxy(GetProcessIP(PROCESSTYPE_CLIENT), strClientPort);
    spClient->Callback(kEventReset, "E0003", "E0003");
}

bool CBroker::SetConnectedClientToEMP(const std::string& strEmp, const std::string& strClientPort,
                                      const std::string& strEmpPort) {
    const auto spProxy = boost::make_shared<CBrokerProxyEmp>(strEmpPort);
    std::string strResult;
    spProxy->Execute(strResult, strClientPort, "SetConnecttedClient", "", "", "", "");
    VOK_LOG(LEVEL_DETAIL, "After execute with cmd EMP_CMD_SET_CONNECTTED_CLIENT, _return is %s",
            strResult.c_str());
    if (strResult != "error") return true;

    VOK_LOG(LEVEL_ERROR, "ERROR! Set connected client to EMP[%s][%s] failed, this emp is gone.",
            strEmp.c_str(), strEmpPort.c_str());
    return false;
}

}  // namespace vok
