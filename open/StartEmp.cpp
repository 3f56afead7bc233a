// Starting an EMP, in the way that its location demands.
#include "open/StartEmp.h"

#include <memory>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "platform/Descriptors.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ThreadMaker.h"

namespace vok {

OwnedForkEmpParams::OwnedForkEmpParams(const ForkEmpParams& borrowed, const char* szLibraryPath,
                                       const Platform& platform)
    : params(borrowed),
      strPath(borrowed.ARGV_path == nullptr ? "" : borrowed.ARGV_path),
      strLibraryPath(szLibraryPath == nullptr ? "" : szLibraryPath),
      bHasLibraryPath(szLibraryPath != nullptr),
      m_Platform(platform) {
    params.ARGV_path = strPath.c_str();
}

namespace {

#define START_LOG(level, ...) VOK_LOG_AS("StartEmp", level, __VA_ARGS__)

bool LaunchForkThread(const std::string& strName, const ForkEmpParams& params,
                      const Platform& platform) {
    auto pOwned = std::make_unique<OwnedForkEmpParams>(params, gpVokBrokerLibraryPath, platform);
    if (!ThreadMaker::CreateThread(strName, &CBroker::ForkEmp, pOwned.get(), kThreadStack, true))
        return false;
    (void)pOwned.release();  // the thread's now
    return true;
}

/// Descriptors that a library opened may lack the flag; the child of a fork closes them in any
/// case.
void SweepDescriptors() {
    // To be told costs a look at each of them.
    if (!CVOKDebug::IsWritten(LEVEL_DETAIL)) return SetCloseOnExec(nullptr);
    SetCloseOnExec(
        [](int nFd) { START_LOG(LEVEL_DETAIL, "debug] close-on-exec bit off [%d]", nFd); });
}

bool StartExternal(const ForkEmpParams& params, const Platform& platform) {
    SweepDescriptors();
    return LaunchForkThread("ForkEmp", params, platform);
}

bool IsGroupRunning(CBroker& broker, const std::string& strGroup, const std::string& strPort) {
    if (strPort == kGroupNotRunning) return false;

    const bool bRunning = broker.IsLauncherServerRunning(kBrokerAddress, strPort);
    if (!bRunning) {
        START_LOG(LEVEL_DETAIL, "Maybe something wrong with [%s], reset the Map Info.",
                  strGroup.c_str());
        broker.ConfirmGroupingEmpServer(strGroup, kGroupNotRunning);
    }
    // Written after a failed test, too.
    START_LOG(LEVEL_DETAIL, "Launcher Server [%s] is running well.", strGroup.c_str());
    return bRunning;
}

bool StartGrouping(CBroker& broker, const std::string& strEmp, const ForkEmpParams& params,
                   const Platform& platform) {
    std::string strGroup;
    std::string strPort;
    if (!broker.GetGroupingEMPInfo(strGroup, strPort, params.ARGV_empName)) {
        START_LOG(LEVEL_ERROR, ">>>>>>>>emp[%s] is not in a grouping EMP", strEmp.c_str());
        return false;
    }
    const bool bRunning = IsGroupRunning(broker, strGroup, strPort);
    START_LOG(LEVEL_DETAIL, ">>>>>>>>>emp is [%s], Grouping EMP [%s]'s port is [%s]",
              strEmp.c_str(), strGroup.c_str(), strPort.c_str());
    if (!bRunning) {
        START_LOG(LEVEL_DETAIL,
                  "Grouping emp [%s]'s port is empty, process is not running, fork this process",
                  params.ARGV_groupingEmpName);
        return LaunchForkThread(strEmp, params, platform);
    }

    START_LOG(LEVEL_DETAIL, "EmpLauncher process is already running, send open function!");
    (void)broker.GetGroupingEMPInfo(strGroup, strPort, params.ARGV_empName);
    START_LOG(LEVEL_DETAIL,
              "After GetGroupingEmpInfo, groupingEmpName[%s], groupingEMPPort[%s], empName[%s]",
              strGroup.c_str(), strPort.c_str(), strEmp.c_str());
    return broker.SendOpenToEmpLauncher(strEmp, params.ARGV_ticketSerial, params.CbSrvPort,
                                        strPort);
}

bool StartRegister(CBroker& broker, const std::string& strEmp, const ForkEmpParams& params) {
    START_LOG(LEVEL_DETAIL, "EMP is register emp, send open function to Register launcher!");
    std::string strLauncher;
    std::string strPort;
    (void)broker.GetRegisterEMPInfo(strLauncher, strPort, strEmp);
    START_LOG(LEVEL_DETAIL,
              "After GetRegisterEMPInfo, RegisterEMPName[%s], RegisterEMPPort[%s], empName[%s]",
              strLauncher.c_str(), strPort.c_str(), strEmp.c_str());
    if (strPort.empty()) {
        START_LOG(LEVEL_ERROR,
                  "RegisterEMPPort is empty, RegisterEmp launcher is not running, return false."
                  "RegisterEMPName[%s], RegisterEMPPort[%s], empName[%s]",
                  strLauncher.c_str(), strPort.c_str(), strEmp.c_str());
        return false;
    }
    return broker.SendOpenToEmpLauncher(strEmp, params.ARGV_ticketSerial, params.CbSrvPort,
                                        strPort);
}

}  // namespace

bool CBroker::StartEmp(std::string strEmp, void* pParams, eEmpLocation location) {
    if (pParams == nullptr) {
        VOK_LOG(LEVEL_ERROR, "StartEmp failed, forkEmpParams is NULL!");
        return false;
    }
    const ForkEmpParams& params = *static_cast<const ForkEmpParams*>(pParams);
    switch (location) {
        case EMPLOCATION_EXTERNAL:
            return StartExternal(params, m_Platform);
        case EMPLOCATION_GROUPING:
            return StartGrouping(*this, strEmp, params, m_Platform);
        case EMPLOCATION_REGISTER:
            return StartRegister(*this, strEmp, params);
        default:
            return m_EmpLauncherProxy.Open(strEmp, params.ARGV_ticketSerial,
                                           GetProcessIP(PROCESSTYPE_BROKER), params.CbSrvPort) != 0;
    }
}

}  // namespace vok
