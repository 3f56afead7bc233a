#include "bench/CStage.h"

#include <sys/resource.h>

#include <stdexcept>

#include "bench/Clock.h"
#include "bench/Emps.h"
#include "rpc/CBrokerProxyEmp.h"
#include "tests/support/CPrivateWorld.h"

namespace vok::bench {

using test::CBrokerClient;
using test::CDaemon;

namespace {

constexpr char kStayingClient[] = "40000";

CDaemon::Options DaemonOptions(const CStage::Options& options) {
    CDaemon::Options result;
    result.nLogLevel = options.nLogLevel;
    if (options.nDescriptors != 0)
        result.limits[RLIMIT_NOFILE] = {options.nDescriptors, options.nDescriptors};
    return result;
}

}  // namespace

CStage::CStage(const Options& options)
    : m_pNetwork(options.pNetwork), m_pDaemon(std::make_unique<CDaemon>()) {
    const CNetwork::CVisit visit{m_pNetwork};
    if (!m_pDaemon->Start(DaemonOptions(options)))
        throw std::runtime_error("the daemon does not start");
}

CStage::~CStage() {
    for (const std::string& strEmp : m_Emps) KillEmp(strEmp);
    m_pDaemon.reset();
    (void)test::CPrivateWorld::ReapOrphans();
}

std::unique_ptr<CBrokerClient> CStage::Connect() const {
    const CNetwork::CVisit visit{m_pNetwork};
    return std::make_unique<CBrokerClient>();
}

ConnectionInfo CStage::Open(CBrokerClient& client, const std::string& strEmp,
                            const std::string& strClientPort) {
    ConnectionInfo info = client.Open(strClientPort, strEmp, kEmpVersion, kAppInfo);
    if (info.empName != strEmp) throw std::runtime_error(strEmp + " is not opened");
    return info;
}

void CStage::Close(CBrokerClient& client, const ConnectionInfo& info) {
    if (!client.Close(info)) throw std::runtime_error(info.empName + " is not closed");
}

ConnectionInfo CStage::KeepRunning(const std::string& strEmp) {
    EndAtLast(strEmp);
    const auto pClient = Connect();
    const ConnectionInfo info = Open(*pClient, strEmp, kStayingClient);
    const CNetwork::CVisit visit{m_pNetwork};
    if (CBrokerProxyEmp{info.empPort}.Open(kStayingClient, strEmp, kEmpVersion, kAppInfo) == 0)
        throw std::runtime_error(strEmp + " does not answer");
    return info;
}

double CStage::Stop() {
    return SecondsOf([this] {
        if (m_pDaemon->Stop() != CDaemon::kOrderly)
            throw std::runtime_error("the daemon does not end orderly");
    });
}

}  // namespace vok::bench
