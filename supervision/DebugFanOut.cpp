// A change of the debug level reaches everybody who is connected.
#include <boost/make_shared.hpp>

#include <cstdio>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "broker/vok.h"
#include "platform/Log.h"
#include "rpc/CBrokerProxyClient.h"
#include "rpc/CBrokerProxyEmp.h"

namespace vok {

namespace {

#define LEVEL_LOG(level, ...) VOK_LOG_AS("OnSetDebugLevel", level, __VA_ARGS__)

/// What tells clients that the level is the event's second text.
constexpr char kLevelOnParam2[] = "LEVEL_ON_PARAM2";

}  // namespace

void CBroker::OnSetDebugLevel(unsigned int nLevel) {
    CVOKDebug::SetLogLevel(static_cast<unsigned short>(nLevel));
    // Nobody is connected to a broker that does not serve.
    if (vok_GetBroker() == nullptr || gbVokBrokerServerFail) return;

    char szLevel[10] = {};
    (void)std::snprintf(szLevel, sizeof szLevel, "%d", static_cast<int>(nLevel));
    SendDebugLevelToEmps(szLevel);
    SendDebugLevelToClients(szLevel);
}

void CBroker::SendDebugLevelToEmps(const std::string& strLevel) {
    const auto spProxy = boost::make_shared<CBrokerProxyEmp>(kNoPort);
    for (const auto& [strEmp, strPort] : m_ConnectionDB.GetConnectionKeyList()) {
        (void)spProxy->SetPortInfo(strPort);
        (void)spProxy->SetIP(GetEmpIP(WhereIsEMP(strEmp)));
        LEVEL_LOG(LEVEL_DETAIL, "[%s] ip:[%s] port[%s] - SetDebugLevel[%s]", strEmp.c_str(),
                  spProxy->GetIP().c_str(), strPort.c_str(), strLevel.c_str());
        std::string strIgnored;
        spProxy->Execute(strIgnored, "100", "SetDebugLevel", strLevel, "", "", "");
    }
}

/// A client hears it once for each of its connections.
void CBroker::SendDebugLevelToClients(const std::string& strLevel) {
    for (const auto& [key, data] : m_ConnectionDB.GetConnectionDB()) {
        for (const auto& client : data.m_mapClient) {
            const std::string& strClientPort = client.first;
            LEVEL_LOG(LEVEL_DETAIL, "SET DEBUGGING ClientPort[%s], cmd:[%s] loglevel:[%s]",
                      strClientPort.c_str(), kLevelOnParam2, strLevel.c_str());
            const auto spClient = MakeClientProxy(GetProcessIP(PROCESSTYPE_CLIENT), strClientPort);
            (void)spClient->WrapperCallback(kEventDebugLevel, kLevelOnParam2, strLevel);
        }
    }
}

}  // namespace vok
