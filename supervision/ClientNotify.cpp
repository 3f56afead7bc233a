// Telling one side of a connection about the other.
#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

void CBroker::SendCallbackNotification(ConnectionKey key) {
    VOK_LOG(LEVEL_DETAIL, "Clients of [%s][%s] are not notified yet.", key.first.c_str(),
            key.second.c_str());
}

bool CBroker::SetConnectedClientToEMP(const std::string& strEmp, const std::string& strClientPort,
                                      const std::string& strEmpPort) {
    VOK_LOG(LEVEL_DETAIL, "EMP [%s][%s] is not told of its client [%s] yet.", strEmp.c_str(),
            strEmpPort.c_str(), strClientPort.c_str());
    return false;
}

}  // namespace vok
