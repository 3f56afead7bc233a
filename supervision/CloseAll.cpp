// Closing on the clients' behalf: an application has ended, or a client has died.
//
// Both walk a copy of the table and hold no lock over a call. What goes wrong with one client is
// logged and never keeps the others from being looked at.
#include <boost/make_shared.hpp>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "platform/Log.h"
#include "rpc/CBrokerProxyClient.h"
#include "rpc/CBrokerProxyEmp.h"

namespace vok {

namespace {

#define CLOSE_ALL_LOG(level, ...) VOK_LOG_AS("CloseAllEmpWithAppID", level, __VA_ARGS__)
#define SWEEP_LOG(level, ...) VOK_LOG_AS("PingTest_For_Webkit", level, __VA_ARGS__)

/// The EMP whose playback must end before its client's connection does.
constexpr char kPlayer[] = "Player";

ConnectionInfo MakeConnectionInfo(const ConnectionKey& key, const std::string& strClientPort) {
    ConnectionInfo info;
    info.empName = key.first;
    info.clientPort = strClientPort;
    info.empPort = key.second;
    return info;
}

/// Looks at one client, or at what all clients of an EMP share. False also when that was not
/// completed.
template <typename Look>
bool LookAt(const char* szOperation, const std::string& strWhom, Look&& look) {
    try {
        return look();
    } catch (...) {
        VOK_LOG_AS(szOperation, LEVEL_ERROR, "[%s] was not looked at to the end.", strWhom.c_str());
        return false;
    }
}

}  // namespace

int CBroker::CloseAllEmpWithAppID(std::string strAppId, std::string strWidgetId) {
    VOK_LOG(LEVEL_DETAIL, "appId_[%s] widgetID_[%s]", strAppId.c_str(), strWidgetId.c_str());
    const auto spProxy = boost::make_shared<CBrokerProxyEmp>(kNoPort);
    VOK_LOG(LEVEL_DETAIL, "CloseAllEmpWithAppID begins");

    int nClosed = 0;
    for (const auto& [key, data] : m_ConnectionDB.GetConnectionDB()) {
        // Every EMP serves at the same address: an EMP whose place cannot be looked up is asked at
        // that of the one before.
        (void)LookAt("CloseAllEmpWithAppID", key.first, [&, &strEmp = key.first] {
            return spProxy->SetIP(GetEmpIP(WhereIsEMP(strEmp)));
        });
        for (const auto& client : data.m_mapClient) {
            const std::string& strClientPort = client.first;
            const bool bClosed = LookAt("CloseAllEmpWithAppID", strClientPort, [&, &key = key] {
                return CloseOfApplication(*spProxy, MakeConnectionInfo(key, strClientPort),
                                          strAppId, strWidgetId);
            });
            if (bClosed) ++nClosed;
        }
    }
    VOK_LOG(LEVEL_DETAIL, "End with retCnt:[%d]", nClosed);
    return nClosed;
}

/// Closes a connection when its client belongs to the application.
bool CBroker::CloseOfApplication(CBrokerProxyEmp& proxy, const ConnectionInfo& info,
                                 const std::string& strAppId, const std::string& strWidgetId) {
    (void)proxy.SetPortInfo(info.empPort);
    if (!proxy.HasAppID(info.clientPort, strAppId, strWidgetId)) return false;

    const bool bClosed = CloseEmp(info);
    if (bClosed)
        CLOSE_ALL_LOG(LEVEL_DETAIL,
                      "=> Close call to Emp successfully. Name[%s] EmpPort[%s] ClientPort[%s], "
                      "appID:[%s]",
                      info.empName.c_str(), info.empPort.c_str(), info.clientPort.c_str(),
                      strAppId.c_str());
    else
        CLOSE_ALL_LOG(LEVEL_ERROR,
                      "=> Close call to Emp failed. Name[%s] EmpPort[%s] ClientPort[%s], "
                      "appID:[%s]",
                      info.empName.c_str(), info.empPort.c_str(), info.clientPort.c_str(),
                      strAppId.c_str());
    return bClosed;
}

void CBroker::PingTest_For_Webkit() {
    (void)SweepZombies();
}

int CBroker::SweepZombies() {
    if (gbVokBrokerServerFail) return 0;

    ++m_Counters.nSweeps;
    const auto spEmpProxy = boost::make_shared<CBrokerProxyEmp>(kNoPort);
    SWEEP_LOG(LEVEL_DETAIL, "PingTest_For_Webkit Begins");

    int nClosed = 0;
    for (const auto& [key, data] : m_ConnectionDB.GetConnectionDB()) {
        SWEEP_LOG(LEVEL_TRACE, "test zombie ID[%s] EmpPort/Path:[%s]", key.first.c_str(),
                  key.second.c_str());
        for (const auto& client : data.m_mapClient) {
            const std::string& strClientPort = client.first;
            SWEEP_LOG(LEVEL_TRACE, "\ttest zombie ClientPort[%s]", strClientPort.c_str());
            const bool bClosed = LookAt("PingTest_For_Webkit", strClientPort, [&, &key = key] {
                return CloseIfZombie(*spEmpProxy, MakeConnectionInfo(key, strClientPort));
            });
            if (bClosed) ++nClosed;
        }
    }
    SWEEP_LOG(LEVEL_DETAIL, "End");
    return nClosed;
}

/// Closes a connection when its client does not answer.
bool CBroker::CloseIfZombie(CBrokerProxyEmp& empProxy, const ConnectionInfo& info) {
    const auto spClient = MakeClientProxy(GetProcessIP(PROCESSTYPE_CLIENT), info.clientPort);
    if (spClient->WrapperCallback(kEventPing, "Broker", "Ping") != -1) return false;

    SWEEP_LOG(LEVEL_ERROR,
              "=> Found Zombie Client, send Close call to matching Emp. ID[%s] EmpPort[%s] "
              "ClientPort[%s]",
              info.empName.c_str(), info.empPort.c_str(), info.clientPort.c_str());
    if (info.empName == kPlayer) {
        SWEEP_LOG(LEVEL_ERROR, "=> Player Plugin:: Call Stop!!\n");
        (void)empProxy.SetPortInfo(info.empPort);
        std::string strResult;
        empProxy.Execute(strResult, info.clientPort, "Stop", "", "", "", "");
        SWEEP_LOG(LEVEL_DETAIL, "spBrokerProxyEmp->Execute Stop cmd : %s\n", strResult.c_str());
    }
    if (CloseEmp(info)) return true;

    SWEEP_LOG(LEVEL_ERROR, "=> Close call to Emp failed. ID[%s] EmpPort[%s] ClientPort[%s]",
              info.empName.c_str(), info.empPort.c_str(), info.clientPort.c_str());
    return false;
}

}  // namespace vok
