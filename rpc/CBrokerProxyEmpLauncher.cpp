#include "rpc/CBrokerProxyEmpLauncher.h"

#include <utility>

#include "VOKEmpLauncher.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/Number.h"
#include "rpc/CallOnce.h"

namespace vok {

CBrokerProxyEmpLauncher::CBrokerProxyEmpLauncher(std::string strPort)
    : m_strPort(std::move(strPort)) {}

int CBrokerProxyEmpLauncher::Open(std::string strName, int nTicketSerial, std::string strIp,
                                  std::string strCbSrvPath) {
    VOK_LOG(LEVEL_DETAIL, "Open call start with name:%s, cbSrvPath:%s, launcherPort:%s, ip:%s",
            strName.c_str(), strCbSrvPath.c_str(), m_strPort.c_str(), strIp.c_str());
    constexpr char kOperation[] = "Open";
    int nResult = 0;
    const bool bCalled = CallOnce<VOKEmpLauncherClient>(
        {kBrokerAddress, LeadingNumber(m_strPort), {}},
        [&](VOKEmpLauncherClient& launcher) {
            VOK_LOG_AS(kOperation, LEVEL_DETAIL, "Before send open to launcher");
            nResult = launcher.Open(strName, nTicketSerial, strCbSrvPath);
            VOK_LOG_AS(kOperation, LEVEL_DETAIL, "after send open to launcher");
        },
        [&](const char* szWhat) {
            VOK_LOG_AS(kOperation, LEVEL_ERROR, "Transport Error : [%s]", szWhat);
        });
    if (!bCalled) return 0;
    VOK_LOG(LEVEL_DETAIL, "Open call end");
    return nResult;
}

}  // namespace vok
