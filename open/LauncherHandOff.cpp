// Handing an open to the launcher that serves the EMP.
#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

bool CBroker::SendOpenToEmpLauncher(const std::string& strEmp, int nTicketSerial,
                                    const std::string& strCallbackPort,
                                    const std::string& strLauncherPort) {
    (void)nTicketSerial;
    VOK_LOG(LEVEL_DETAIL,
            "Call EmpLauncher to start emp with name:%s, cbSrvPath:%s, launcherPort:%s",
            strEmp.c_str(), strCallbackPort.c_str(), strLauncherPort.c_str());
    return false;
}

bool CBroker::IsLauncherServerRunning(std::string strIp, std::string strPort) {
    VOK_LOG(LEVEL_TRACE, "It seems something wrong with Server:[%s,%s].", strIp.c_str(),
            strPort.c_str());
    return false;
}

void CBroker::ConfirmGroupingEmpServer(const std::string& strGroupName,
                                       const std::string& strPort) {
    VOK_LOG(LEVEL_DETAIL, "The port of grouping EMP [%s] is now [%s].", strGroupName.c_str(),
            strPort.c_str());
}

}  // namespace vok
