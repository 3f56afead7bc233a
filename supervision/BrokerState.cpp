// What the broker knows at this moment, for those who look after the set.
#include <unistd.h>

#include <algorithm>

#include "broker/CBroker.h"
#include "platform/CVOKDebug.h"
#include "platform/EmpPaths.h"
#include "supervision/StateText.h"
#include "vok_admin_types.h"

namespace vok {

namespace {

bool Serves(const LauncherTable& table, const std::string& strEmp) {
    return std::any_of(table.begin(), table.end(),
                       [&](const auto& launcher) { return launcher.second.count(strEmp) != 0; });
}

}  // namespace

void CBroker::GetState(admin::BrokerState& state) {
    state.version = GetFullVersion();
    state.pid = ::getpid();
    state.uptimeMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::steady_clock::now() - m_Born)
                         .count();
    state.debugLevel = CVOKDebug::GetLogLevel();
    state.pingEnabled = m_bEnablePingTest;
    DescribeEmps(state.emps);
    DescribeConnections(state.connections);
    DescribeMounts(state.mounts);
    {
        const CLock lock{m_mtxRegisterEmp};
        state.launchers = Describe(m_mapRegisterEmp);
    }
    {
        const CLock lock{m_mtxGroupingEmp};
        state.groups = Describe(m_mapGroupingEmp);
    }
    {
        const CLock lock{m_mtxTicket};
        for (const auto& [nSerial, spTicket] : m_mapTicket) {
            if (spTicket && spTicket->m_bAwaitsReport) state.waitingTickets.push_back(nSerial);
        }
    }
    state.counters.opens = m_Counters.nOpens;
    state.counters.reuses = m_Counters.nReuses;
    state.counters.refusals = m_Counters.nRefusals;
    state.counters.failures = m_Counters.nFailures;
    state.counters.closes = m_Counters.nCloses;
    state.counters.sweeps = m_Counters.nSweeps;
}

void CBroker::DescribeEmps(std::vector<admin::EmpState>& emps) {
    for (const auto& [strEmp, record] : m_EmpInfo.GetEmpInfo()) {
        admin::EmpState& emp = emps.emplace_back();
        emp.name = Text(strEmp);
        emp.status = record.GetStatus();
        emp.option = Text(record.GetOption());
        emp.pid = record.GetEmpPid();
        emp.location = LocateSilently(strEmp);
    }
}

/// As WhereIsEMP, without a word in the log: whoever watches the broker asks again and again.
eEmpLocation CBroker::LocateSilently(const std::string& strEmp) {
    IFiles& files = *m_Platform.pFiles;
    if (paths::IsFileName(strEmp) && (files.Exists(paths::ImageFile(strEmp).c_str()) ||
                                      files.Exists(paths::PreinstalledProgram(strEmp).c_str())))
        return EMPLOCATION_EXTERNAL;
    {
        const CLock lock{m_mtxGroupingEmp};
        if (Serves(m_mapGroupingEmp, strEmp)) return EMPLOCATION_GROUPING;
    }
    const CLock lock{m_mtxRegisterEmp};
    return Serves(m_mapRegisterEmp, strEmp) ? EMPLOCATION_REGISTER : EMPLOCATION_UNKNOWN;
}

void CBroker::DescribeConnections(std::vector<admin::ConnectionState>& connections) {
    for (const auto& [key, data] : m_ConnectionDB.GetConnectionDB()) {
        admin::ConnectionState& connection = connections.emplace_back();
        connection.empName = Text(key.first);
        connection.empPort = Text(key.second);
        Describe(data.m_mapClient, connection.clientPorts, connection.clientAgesMs);
        connection.pendingCount = data.m_nPendingCount;
    }
}

void CBroker::DescribeMounts(std::vector<admin::MountState>& mounts) {
    for (const auto& [strImage, nCount] : CopyMountCounts()) {
        admin::MountState& mount = mounts.emplace_back();
        mount.image = Text(strImage);
        mount.count = nCount;
        mount.mounted = paths::IsFileName(strImage) &&
                        m_Platform.pFiles->Exists(paths::DownloadedProgram(strImage).c_str());
    }
}

}  // namespace vok
