#include "bench/support/CBrokerStage.h"

#include <boost/make_shared.hpp>

#include <cstdio>

#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "tests/support/BrokerProbe.h"

namespace vok::bench {
namespace {

constexpr int kFirstEmpPort = 51000;
constexpr int kFirstClientPort = 40000;

/// "Emp0007"
std::string Numbered(const char* szWord, int nNumber) {
    char szName[32];
    (void)std::snprintf(szName, sizeof szName, "%s%04d", szWord, nNumber);
    return szName;
}

}  // namespace

Platform CBrokerStage::PlatformOf(CBrokerStage& stage) {
    Platform platform = stage.fake.Get();
    platform.pFiles = &stage.files;
    return platform;
}

void CBrokerStage::AddRunning(int nEmps, int nClientsOfEach) {
    for (int n = 0; n < nEmps; ++n)
        AddRunning(Numbered("Emp", n), std::to_string(kFirstEmpPort + n), nClientsOfEach);
}

void CBrokerStage::AddRunning(const std::string& strEmp, const std::string& strPort, int nClients) {
    files.AddPath(paths::PreinstalledProgram(strEmp));
    CEmpInfo& empInfo = BrokerProbe::EmpInfo(broker);
    (void)empInfo.Add(strEmp, "1.0");
    (void)empInfo.SetTypeOption(strEmp, kOptionSingleton);
    (void)empInfo.SetTypeStatus(strEmp, EMP_OPENED);
    for (int n = 0; n < nClients; ++n)
        (void)BrokerProbe::ConnectionDB(broker).AddConnectionData(
            {strEmp, strPort}, std::to_string(kFirstClientPort + n));
}

void CBrokerStage::AddLaunchers(int nLaunchers, int nEmpsOfEach) {
    for (int n = 0; n < nLaunchers; ++n) {
        std::set<std::string> setGrouped;
        std::set<std::string> setRegistered;
        for (int nEmp = 0; nEmp < nEmpsOfEach; ++nEmp) {
            setGrouped.insert(Numbered("Grouped", n * nEmpsOfEach + nEmp));
            setRegistered.insert(Numbered("Registered", n * nEmpsOfEach + nEmp));
        }
        BrokerProbe::SetGroup(broker, Numbered("Group", n), kGroupNotRunning, setGrouped);
        BrokerProbe::SetLauncher(broker, Numbered("Launcher", n), std::to_string(45000 + n),
                                 setRegistered);
    }
}

void CBrokerStage::FillTickets() {
    for (std::size_t n = 0; n < kMaxTickets; ++n) {
        const auto spTicket = boost::make_shared<Ticket>("-1");
        spTicket->m_bInProgress = false;
        BrokerProbe::SetTicket(broker, spTicket->GetSerial(), spTicket);
    }
}

}  // namespace vok::bench
