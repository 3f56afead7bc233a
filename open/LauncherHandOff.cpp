// Handing an open to the launcher that serves the EMP.
#include <thrift/Thrift.h>
#include <thrift/transport/TBufferTransports.h>

#include "VOKEmpLauncher.h"
#include "broker/CBroker.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/Number.h"
#include "rpc/CallOnce.h"

namespace vok {

bool CBroker::SendOpenToEmpLauncher(const std::string& strEmp, int nTicketSerial,
                                    const std::string& strCallbackPort,
                                    const std::string& strLauncherPort) {
    VOK_LOG(LEVEL_DETAIL,
            "Call EmpLauncher to start emp with name:%s, cbSrvPath:%s, launcherPort:%s",
            strEmp.c_str(), strCallbackPort.c_str(), strLauncherPort.c_str());
    constexpr char kOperation[] = "SendOpenToEmpLauncher";
    bool bTaken = false;
    const bool bCalled = CallOnce<VOKEmpLauncherClient>(
        {kBrokerAddress, LeadingNumber(strLauncherPort), {}},
        [&](VOKEmpLauncherClient& launcher) {
            VOK_LOG_AS(kOperation, LEVEL_DETAIL, "Before send open to launcher");
            bTaken = launcher.Open(strEmp, nTicketSerial, strCallbackPort) != 0;
            VOK_LOG_AS(kOperation, LEVEL_DETAIL, "after send open to launcher");
        },
        [&](const char* szWhat) {
            VOK_LOG_AS(kOperation, LEVEL_ERROR, "Transport Error : [%s]", szWhat);
        });
    if (!bCalled) return false;
    VOK_LOG(LEVEL_DETAIL, "Open call end");
    return bTaken;
}

bool CBroker::IsLauncherServerRunning(std::string strIp, std::string strPort) {
    try {
        apache::thrift::transport::TBufferedTransport transport{
            MakeRpcSocket({strIp, LeadingNumber(strPort), {}}), kRpcBuffer, kRpcBuffer};
        transport.open();
        transport.close();
        return true;
    } catch (const apache::thrift::TException& e) {
        VOK_LOG(LEVEL_TRACE, "It seems something wrong with Server:[%s,%s], ErrCode:[%s]",
                strIp.c_str(), strPort.c_str(), e.what());
    } catch (...) {
        VOK_LOG(LEVEL_TRACE, "It seems something wrong with Server:[%s,%s].", strIp.c_str(),
                strPort.c_str());
    }
    return false;
}

void CBroker::ConfirmGroupingEmpServer(const std::string& strGroupName,
                                       const std::string& strPort) {
    VOK_LOG(LEVEL_DETAIL, ">>>>>>>>Enter ConfirmGroupingEmpServer[%s] [%s], map size is [%d]",
            strGroupName.c_str(), strPort.c_str(), CountGroupingEmps());
    const CLock lock{m_mtxGroupingEmp};
    // The first with this name, whatever its port. An unknown group is not added.
    const auto it = m_mapGroupingEmp.lower_bound({strGroupName, std::string()});
    if (it == m_mapGroupingEmp.end() || it->first.first != strGroupName) return;

    if (it->first.second == strPort) {
        VOK_LOG(LEVEL_DETAIL, "grouping emp[%s]'s port already is [%s]", strGroupName.c_str(),
                strPort.c_str());
        return;
    }
    // An entry that has the new key already keeps its own EMPs.
    m_mapGroupingEmp.try_emplace({strGroupName, strPort}, it->second);
    m_mapGroupingEmp.erase(it);
    VOK_LOG(LEVEL_DETAIL, "After confirm Grouping EMP port, map size is[%d] ",
            static_cast<int>(m_mapGroupingEmp.size()));
}

}  // namespace vok
