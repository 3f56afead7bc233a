/// What tests may see and set inside the broker.
#pragma once

#include <boost/shared_ptr.hpp>

#include <map>
#include <set>
#include <string>

#include "broker/CBroker.h"
#include "rpc/CBrokerProxyEmp.h"

namespace vok {

/// Every access takes the lock of what it looks at; nothing is kept.
struct BrokerProbe {
    static std::map<std::string, int> MountCounts(CBroker& broker) {
        const CLock lock{broker.m_mtxMapEmp};
        return broker.m_mapEmp;
    }
    static void SetMountCount(CBroker& broker, const std::string& strImage, int nCount) {
        const CLock lock{broker.m_mtxMapEmp};
        broker.m_mapEmp[strImage] = nCount;
    }

    static void TakeCountUpdateLock(CBroker& broker) { const CLock lock{broker.m_mtxMountCount}; }

    static TicketMap Tickets(CBroker& broker) {
        const CLock lock{broker.m_mtxTicket};
        return broker.m_mapTicket;
    }
    static void SetTicket(CBroker& broker, unsigned int nSerial,
                          const boost::shared_ptr<Ticket>& spTicket) {
        const CLock lock{broker.m_mtxTicket};
        broker.m_mapTicket[nSerial] = spTicket;
    }

    /// There has to be, or have been, a broker: its constructor makes the lock.
    static void TakeSerialLock() { const CLock lock{*Ticket::m_pTicketScopedMutex}; }

    static void SetGroup(CBroker& broker, const std::string& strGroup, const std::string& strPort,
                         const std::set<std::string>& setEmp) {
        const CLock lock{broker.m_mtxGroupingEmp};
        broker.m_mapGroupingEmp[{strGroup, strPort}] = setEmp;
    }
    static void ForgetGroups(CBroker& broker) {
        const CLock lock{broker.m_mtxGroupingEmp};
        broker.m_mapGroupingEmp.clear();
    }
    static void SetLauncher(CBroker& broker, const std::string& strLauncher,
                            const std::string& strPort, const std::set<std::string>& setEmp) {
        const CLock lock{broker.m_mtxRegisterEmp};
        broker.m_mapRegisterEmp[{strLauncher, strPort}] = setEmp;
    }

    static LauncherTable Groups(CBroker& broker) {
        const CLock lock{broker.m_mtxGroupingEmp};
        return broker.m_mapGroupingEmp;
    }
    static LauncherTable Launchers(CBroker& broker) {
        const CLock lock{broker.m_mtxRegisterEmp};
        return broker.m_mapRegisterEmp;
    }
    static CEmpInfo& EmpInfo(CBroker& broker) { return broker.m_EmpInfo; }
    static CConnectionDB& ConnectionDB(CBroker& broker) { return broker.m_ConnectionDB; }

    /// One round of the pings.
    static void PingEmps(CBroker& broker) {
        CBrokerProxyEmp proxy{kNoPort};
        broker.PingEmps(proxy);
    }

    static bool IsPingTestEnabled(const CBroker& broker) { return broker.m_bEnablePingTest; }
    static bool IsStopRequested(const CBroker& broker) { return broker.m_bStopRequested; }

    // Steps of the start and the stop.
    static bool InstallPluginUpdate(CBroker& broker) { return broker.InstallPluginUpdate(); }
    static double ReadUpdateVersion(CBroker& broker) { return broker.ReadUpdateVersion(); }
    static bool PreparePlugins(CBroker& broker) { return broker.PreparePlugins(); }
    static std::string ChoosePluginImage(CBroker& broker, double dUpdate, double dBuiltIn) {
        return broker.ChoosePluginImage(dUpdate, dBuiltIn);
    }
    static void ReadGroupingEmps(CBroker& broker) { broker.ReadGroupingEmps(); }
    static void LaunchPings(CBroker& broker) { broker.LaunchPings(); }
    static void LaunchAdminServer(CBroker& broker) { broker.LaunchAdminServer(); }
    static bool RaiseReadyFlag(CBroker& broker) { return broker.RaiseReadyFlag(); }
    static bool LowerReadyFlag(CBroker& broker) { return broker.LowerReadyFlag(); }
    static void AwaitStop(CBroker& broker) { broker.AwaitStop(); }

    static bool LaunchThread(CBroker& broker, void (*pBody)(CBroker&)) {
        return broker.LaunchThread("test", pBody);
    }
};

}  // namespace vok
