// Is the broker alive, and are the EMPs?
#include <boost/make_shared.hpp>
#include <thrift/Thrift.h>
#include <thrift/transport/TBufferTransports.h>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ThreadMaker.h"
#include "rpc/CBrokerProxyEmp.h"
#include "rpc/CallOnce.h"

namespace vok {

#define PING_LOG(level, ...) VOK_LOG_AS("PingTest", level, __VA_ARGS__)

bool CBroker::IsBrokerServerRunning() {
    try {
        apache::thrift::transport::TBufferedTransport transport{
            MakeRpcSocket({GetProcessIP(PROCESSTYPE_CLIENT), kBrokerPort, {}}), kRpcBuffer,
            kRpcBuffer};
        transport.open();
        transport.close();
        return true;
    } catch (const apache::thrift::TException& e) {
        VOK_LOG(LEVEL_TRACE, "Broker is not running now. Maybe, Server is preparing to run. [%s]",
                e.what());
    } catch (...) {
        VOK_LOG(LEVEL_TRACE, "Broker is not running now. Maybe, Server is preparing to run. ");
    }
    return false;
}

void* CBroker::PingTestWorker(void* pBroker) {
    VOK_LOG(LEVEL_DETAIL, "PingTestWoker starts");
    if (pBroker == nullptr) {
        VOK_LOG(LEVEL_ERROR, "PingTestWoker cannot start due to the fact that pBroker is NULL");
        return nullptr;
    }
    ThreadMaker::NameThisThread("VOK-B-PingTest");
    CBroker& broker = *static_cast<CBroker*>(pBroker);

    bool bAnswers = false;
    for (int nTry = 0; nTry < kServerTries && !bAnswers; ++nTry)
        bAnswers = broker.IsBrokerServerRunning();
    if (bAnswers) broker.m_bIsBrokerServerRunning = true;

    // The start-up may have seen the server where this thread has not.
    if (broker.m_bIsBrokerServerRunning)
        VOK_LOG(LEVEL_DETAIL, "Broker-Server is running well.");
    else
        VOK_LOG(LEVEL_ERROR, "Broker-Server is not runnning now. Check your system");
    VOK_LOG(LEVEL_DETAIL, "PingTest is disable");
    return nullptr;
}

void CBroker::PingTest() {
    const auto spProxy = boost::make_shared<CBrokerProxyEmp>(kNoPort);
    m_PingStop.SetDoWaiting(true);
    while (AwaitNextPing()) PingEmps(*spProxy);
}

/// False when the broker is to stop. The flags are looked at once in a pause.
bool CBroker::AwaitNextPing() {
    do {
        // A stop that came before the announcement has left its mark; one that comes now is kept.
        if (m_bStopRequested || m_Platform.pClock->SleepUnlessNotified(m_PingStop, kPingPause))
            return false;
    } while (!m_bEnablePingTest || gbVokBrokerServerFail);
    return !m_bStopRequested;
}

/// One round. What goes wrong with one EMP does not keep the others from being pinged.
void CBroker::PingEmps(CBrokerProxyEmp& proxy) {
    PING_LOG(LEVEL_DETAIL, "Start");
    for (const ConnectionKey& key : m_ConnectionDB.GetConnectionKeyList()) {
        if (m_bStopRequested) return;
        try {
            PingEmp(proxy, key);
        } catch (...) {
            PING_LOG(LEVEL_ERROR, "The ping of EMP [%s] was not completed.", key.first.c_str());
        }
    }
    PING_LOG(LEVEL_DETAIL, "End");
}

/// EMPs with a process of their own are not pinged: their end is noticed by itself.
void CBroker::PingEmp(CBrokerProxyEmp& proxy, const ConnectionKey& key) {
    const eEmpLocation location = WhereIsEMP(key.first);
    if (location == EMPLOCATION_EXTERNAL) return;

    (void)proxy.SetIP(GetEmpIP(location));
    (void)proxy.SetPortInfo(key.second);
    if (proxy.Ping(paths::kBrokerSocket)) {
        m_ConnectionDB.ResetPendingCount(key);
        return;
    }
    const int nPrevious = m_ConnectionDB.IncreasePendingCount(key);
    if (nPrevious <= EMP_MAX_PENDING_COUNT) return;

    PING_LOG(LEVEL_ERROR, "[%s] Exceed EMP_MAX_PENDING_COUNT!!!!! [%d]", key.first.c_str(),
             nPrevious);
    SendCallbackNotification(key);
    m_ConnectionDB.ResetPendingCount(key);
}

}  // namespace vok
