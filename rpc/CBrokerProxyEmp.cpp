#include "rpc/CBrokerProxyEmp.h"

#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/Number.h"
#include "platform/VokExecShell.h"

#define PROXY_LOG(level, ...) VOK_CLASS_LOG("CBrokerProxyEmp", level, __VA_ARGS__)
#define PROXY_LOG_AS(operation, level, ...) \
    VOK_CLASS_LOG_AS("CBrokerProxyEmp", operation, level, __VA_ARGS__)

namespace vok {
namespace {

/// An EMP does not come up: puts the state of the system into the log.
void LogSystemState(const std::string& strPort, int nCount) {
    constexpr char kOperation[] = "IsServerRunning";
    PROXY_LOG_AS(kOperation, LEVEL_DETAIL, "Port:[%s]. count:[%d]", strPort.c_str(), nCount);
    PROXY_LOG_AS(kOperation, LEVEL_DETAIL,
                 "please capture all the logs from boot! to send VOK team");
    PROXY_LOG_AS(kOperation, LEVEL_DETAIL, "netstat -a!!!");
    VokExecShell("netstat -a");
    PROXY_LOG_AS(kOperation, LEVEL_DETAIL, "ps !!!");
    VokExecShell("ps");
    PROXY_LOG_AS(kOperation, LEVEL_DETAIL, "free -k!!!");
    VokExecShell("free -k");
    PROXY_LOG_AS(kOperation, LEVEL_DETAIL, "Thank you for your patience.");
}

}  // namespace

CBrokerProxyEmp::CBrokerProxyEmp(std::string strPort) : m_strPort(std::move(strPort)) {}

int32_t CBrokerProxyEmp::Open(const std::string& strClientID, const std::string& strName,
                              const std::string& strVersion, const std::string& strCredential) {
    PROXY_LOG(LEVEL_DETAIL,
              "Open call start with Port/Path:[%s] clientID:[%s] name:%s version:[%s] "
              "credential:[%s] ",
              m_strPort.c_str(), strClientID.c_str(), strName.c_str(), strVersion.c_str(),
              strCredential.c_str());
    constexpr char kOperation[] = "Open";
    const bool bCalled = CallOnce<VokEmpClient>(
        Address(),
        [&](VokEmpClient& emp) { emp.Open(strClientID, strName, strVersion, strCredential); },
        [&](const char* szWhat) {
            PROXY_LOG_AS(kOperation, LEVEL_ERROR, "Transport Error : [%s]", szWhat);
        });
    if (!bCalled) return 0;
    PROXY_LOG(LEVEL_DETAIL, "Open call end");
    return 1;
}

int32_t CBrokerProxyEmp::Close(const std::string& strClientID, EmpType::type eType) {
    PROXY_LOG(LEVEL_DETAIL, "Close from clientID:[%s], emp type:[%d].", strClientID.c_str(),
              static_cast<int>(eType));
    PROXY_LOG(LEVEL_DETAIL, ">>>>>>TCP Socket, emp server port:[%d].", LeadingNumber(m_strPort));

    constexpr char kOperation[] = "Close";
    int32_t nReferences = -1;  // stays when the call fails; an answer stays when closing fails
    CallOnce<VokEmpClient>(
        Address(), [&](VokEmpClient& emp) { nReferences = emp.Close(strClientID, eType); },
        [&](const char* szWhat) {
            PROXY_LOG_AS(kOperation, LEVEL_ERROR,
                         "Close call error [%s], strEngineKey is %s,ip is %s, empport is %s",
                         szWhat, strClientID.c_str(), m_strIP.c_str(), m_strPort.c_str());
        });
    return nReferences;
}

void CBrokerProxyEmp::Execute(std::string& strResult, const std::string& strClientID,
                              const std::string& strCmd, const std::string& strArg3,
                              const std::string& strArg4, const std::string& strArg5,
                              const std::string& strArg6) {
    constexpr char kOperation[] = "Execute";
    try {
        PROXY_LOG(LEVEL_DETAIL, "Execute call start clientID:%s cmd:%s ", strClientID.c_str(),
                  strCmd.c_str());
        const bool bCalled = CallOnce<VokEmpClient>(
            Address(),
            [&](VokEmpClient& emp) {
                emp.Execute(strResult, strClientID, strCmd, strArg3, strArg4, strArg5, strArg6);
            },
            [&](const char* szWhat) {
                strResult = "error";
                PROXY_LOG_AS(kOperation, LEVEL_ERROR,
                             "Execute call error [%s], strEngineKey is %s, ip is %s, empport is "
                             "%s,cmd is %s",
                             szWhat, strClientID.c_str(), m_strIP.c_str(), m_strPort.c_str(),
                             strCmd.c_str());
            });
        if (bCalled) PROXY_LOG(LEVEL_DETAIL, "Execute call end");
    } catch (...) {
        strResult = "error";
        PROXY_LOG(LEVEL_ERROR, "An unexpected error occured. Execute call error");
    }
}

void CBrokerProxyEmp::ExecuteWithParamList(std::string& strResult, const std::string& strClientID,
                                           const std::string& strCmd, const ParamList& params) {
    PROXY_LOG(LEVEL_DETAIL, "ExecuteWithParamList call start clientID:%s cmd:%s ",
              strClientID.c_str(), strCmd.c_str());
    constexpr char kOperation[] = "ExecuteWithParamList";
    CallOnce<VokEmpClient>(
        Address(),
        [&](VokEmpClient& emp) {
            emp.ExecuteWithParamList(strResult, strClientID, strCmd, params);
        },
        [&](const char* szWhat) {
            strResult = "error";
            PROXY_LOG_AS(kOperation, LEVEL_ERROR, "Execute call error [%s]", szWhat);
        });
}

bool CBrokerProxyEmp::SetIP(std::string strIP) {
    if (strIP.empty()) return false;
    m_strIP = std::move(strIP);
    return true;
}

bool CBrokerProxyEmp::SetPortInfo(std::string strPort) {
    VOK_LOG(LEVEL_DETAIL, "Path is reset %s->%s", m_strPort.c_str(), strPort.c_str());
    m_strPort = std::move(strPort);
    return true;
}

std::string CBrokerProxyEmp::GetOption(std::string strClientID) {
    std::string strResult;
    Execute(strResult, strClientID, "GetOption", "", "", "", "");
    return strResult;
}

bool CBrokerProxyEmp::Ping(std::string strClientID) {
    std::string strResult;
    Execute(strResult, strClientID, "Ping", "", "", "", "");
    if (strResult != "1") return false;
    PROXY_LOG(LEVEL_DETAIL, "Ping Ok : [%s]", strClientID.c_str());
    return true;
}

bool CBrokerProxyEmp::HasAppID(std::string strClientID, std::string strAppID,
                               std::string strWidgetID) {
    std::string strResult;
    Execute(strResult, strClientID, "CompareAppID", strAppID, strWidgetID, "", "");
    const bool bOwns = strResult == "EMP_OWNS_APP_ID";
    PROXY_LOG(LEVEL_DETAIL, "appID:[%s]'s status  [%d], ret:[%s]", strAppID.c_str(), bOwns,
              strResult.c_str());
    return bOwns;
}

bool CBrokerProxyEmp::IsServerRunning(std::string strPort) {
    SetPortInfo(strPort);
    for (int nCount = 1;; ++nCount) {
        PROXY_LOG(LEVEL_DETAIL, "Ping Try[%d]", nCount + 1);  // the first try is number 2
        if (Ping(strPort)) {
            PROXY_LOG(LEVEL_DETAIL, "Ping Ok at Try[%d]", nCount + 1);
            return true;
        }
        std::this_thread::sleep_for(kEmpPingPause);
        if (nCount % kEmpPingDiagnosis == 0) LogSystemState(strPort, nCount);
        if (nCount + 1 == kLastEmpPing)
            throw std::string{"EmpServer(Port:[" + strPort + "]) is not available now"};
    }
}

}  // namespace vok
