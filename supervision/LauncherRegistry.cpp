// Which launcher serves which EMP.
#include <tuple>
#include <utility>
#include <vector>

#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

namespace {

/// The first launcher, in key order, that serves an EMP; the end when none does.
LauncherTable::const_iterator FindLauncherOf(const LauncherTable& table,
                                             const std::string& strEmp) {
    auto it = table.begin();
    while (it != table.end() && it->second.count(strEmp) == 0) ++it;
    return it;
}

/// The first launcher, in key order, with this port; names do not count.
LauncherTable::iterator FindLauncherAt(LauncherTable& table, const std::string& strPort) {
    auto it = table.begin();
    while (it != table.end() && it->first.second != strPort) ++it;
    return it;
}

}  // namespace

#define REMOVE_LOG(level, ...) VOK_LOG_AS("RemoveLauncherInfo", level, __VA_ARGS__)

bool CBroker::GetGroupingEMPInfo(std::string& strGroupName, std::string& strGroupPort,
                                 std::string strEmp) {
    VOK_LOG(LEVEL_DETAIL, ">>>>>>>>Find [%s]'s group name, Current Map size:[%d].", strEmp.c_str(),
            CountGroupingEmps());
    const CLock lock{m_mtxGroupingEmp};
    const auto it = FindLauncherOf(m_mapGroupingEmp, strEmp);
    if (it == m_mapGroupingEmp.end()) return false;

    std::tie(strGroupName, strGroupPort) = it->first;
    VOK_LOG(LEVEL_DETAIL, ">>Found it, it's group name:[%s], port:[%s].", strGroupName.c_str(),
            strGroupPort.c_str());
    return true;
}

bool CBroker::GetRegisterEMPInfo(std::string& strLauncherName, std::string& strLauncherPort,
                                 std::string strEmp) {
    VOK_LOG(LEVEL_DETAIL, ">>Find [%s]'s Service name, Current Map size:[%d].", strEmp.c_str(),
            CountRegisterEmps());
    const CLock lock{m_mtxRegisterEmp};
    const auto it = FindLauncherOf(m_mapRegisterEmp, strEmp);
    if (it == m_mapRegisterEmp.end()) return false;

    std::tie(strLauncherName, strLauncherPort) = it->first;
    VOK_LOG(LEVEL_DETAIL, ">> Found it, it's Register Service name:[%s], port:[%s].",
            strLauncherName.c_str(), strLauncherPort.c_str());
    return true;
}

int CBroker::CountGroupingEmps() {
    const CLock lock{m_mtxGroupingEmp};
    return static_cast<int>(m_mapGroupingEmp.size());
}

int CBroker::CountRegisterEmps() {
    const CLock lock{m_mtxRegisterEmp};
    return static_cast<int>(m_mapRegisterEmp.size());
}

void CBroker::InsertGroupingEMP(const std::string& strGroupName, const std::string& strPort,
                                const std::set<std::string>& setEmp) {
    // All that needs memory comes before the first change.
    const std::pair<std::string, std::string> anyPort{strGroupName, std::string()};
    LauncherTable added;
    std::set<std::string>& setAdded = added[{strGroupName, strPort}];
    setAdded = setEmp;

    const CLock lock{m_mtxGroupingEmp};
    // One that is known keeps its port when none is told: it may be running.
    auto it = m_mapGroupingEmp.lower_bound(anyPort);
    const bool bKnown = it != m_mapGroupingEmp.end() && it->first.first == strGroupName;
    if (!bKnown || strPort != kGroupNotRunning) it = m_mapGroupingEmp.find(added.begin()->first);
    if (it != m_mapGroupingEmp.end())
        it->second.merge(setAdded);
    else
        it = m_mapGroupingEmp.insert(added.extract(added.begin())).position;
    VOK_LOG(LEVEL_EVENT, "Grouping EMP [%s|%s] hosts [%d] EMPs.", strGroupName.c_str(),
            it->first.second.c_str(), static_cast<int>(it->second.size()));
}

bool CBroker::RegisterEMP(const std::string& strEmp, const std::string& strLauncherPort) {
    VOK_LOG(LEVEL_EVENT, "[RegisterEMP] Emp[%s], Launcher port[%s]", strEmp.c_str(),
            strLauncherPort.c_str());
    const CLock lock{m_mtxRegisterEmp};
    const auto it = FindLauncherAt(m_mapRegisterEmp, strLauncherPort);
    if (it == m_mapRegisterEmp.end()) return false;

    auto& [key, setEmp] = *it;
    VOK_LOG(LEVEL_DETAIL, "[before] RegisterEMP, size:[%d].", static_cast<int>(setEmp.size()));
    setEmp.insert(strEmp);
    VOK_LOG(LEVEL_DETAIL, "Add a new registeren emp:[%s] into Launcher:[%s|%s]", strEmp.c_str(),
            key.first.c_str(), key.second.c_str());
    VOK_LOG(LEVEL_DETAIL, "[after] RegisterEMP, size:[%d].", static_cast<int>(setEmp.size()));
    return true;
}

bool CBroker::UnRegisterEMP(const std::string& strEmp, const std::string& strLauncherPort) {
    VOK_LOG(LEVEL_EVENT, "[UnRegisterEMP] Emp[%s], Launcher port[%s].", strEmp.c_str(),
            strLauncherPort.c_str());
    if (m_EmpInfo.IsAdded(strEmp)) {
        VOK_LOG(LEVEL_ERROR, "UnRegisterEMP failed, EMP:[%s] is in use now.", strEmp.c_str());
        return false;
    }
    const CLock lock{m_mtxRegisterEmp};
    VOK_LOG(LEVEL_DETAIL, "UnRegisterEMP m_mtxRegisterEmp size:[%d].",
            static_cast<int>(m_mapRegisterEmp.size()));
    const auto it = FindLauncherAt(m_mapRegisterEmp, strLauncherPort);
    if (it == m_mapRegisterEmp.end()) return false;

    auto& [key, setEmp] = *it;
    VOK_LOG(LEVEL_DETAIL, "[before] UnRegisterEMP, size:[%d].", static_cast<int>(setEmp.size()));
    setEmp.erase(strEmp);
    VOK_LOG(LEVEL_DETAIL, "Remove Emp:[%s] from Launcher:[%s|%s].", strEmp.c_str(),
            key.first.c_str(), key.second.c_str());
    VOK_LOG(LEVEL_DETAIL, "[after] UnRegisterEMP, size:[%d].", static_cast<int>(setEmp.size()));
    return true;
}

void CBroker::AddLauncherInfo(std::string strName, std::string strPort) {
    // Made before the old one goes, so that a launcher is not lost when memory is short.
    LauncherTable added;
    added.try_emplace({strName, strPort});
    const CLock lock{m_mtxRegisterEmp};
    // The first with this name, whatever its port: one that comes again starts without EMPs.
    const auto it = m_mapRegisterEmp.lower_bound({strName, std::string()});
    if (it != m_mapRegisterEmp.end() && it->first.first == strName) {
        VOK_LOG(LEVEL_DETAIL, "Old Register-Launcher:[%s,%s] to be updated.", strName.c_str(),
                it->first.second.c_str());
        m_mapRegisterEmp.erase(it);
    }
    (void)m_mapRegisterEmp.insert(added.extract(added.begin()));  // needs no memory any more
    VOK_LOG(LEVEL_EVENT, "Add a new Register-Launcher:[%s,%s].", strName.c_str(), strPort.c_str());
}

bool CBroker::UpdateLauncherInfo(LauOption_E option, std::string strName, std::string strPort) {
    if (strName.empty() || strPort.empty()) {
        VOK_LOG(LEVEL_ERROR, "[Launcher] Name or Port maybe empty.");
        return false;
    }
    switch (option) {
        case LAU_OPTION_UNREGISTER:
            RemoveLauncherInfo(strName, strPort);
            break;
        case LAU_OPTION_REGISTER:
            AddLauncherInfo(strName, strPort);
            break;
        default:
            VOK_LOG(LEVEL_ERROR, "Unknown option:[%d].", option);  // and true all the same
    }
    return true;
}

void CBroker::RemoveLauncherInfo(std::string strName, std::string strPort) {
    if (strName.empty() || strPort.empty()) {
        VOK_LOG(LEVEL_ERROR, "[Launcher] Name or Port maybe empty.");
        return;
    }
    const std::pair<std::string, std::string> key{strName, strPort};
    std::vector<ConnectionInfo> connections;
    if (!CollectConnections(strName, strPort, connections)) return;

    VOK_LOG(LEVEL_DETAIL, "[%d] emp needs to be closed.", static_cast<int>(connections.size()));
    // Without the lock: closing calls the EMP.
    for (const ConnectionInfo& info : connections) {
        VOK_LOG(LEVEL_DETAIL, "[StopVokLauncherServer] -> Close EMP:[%s|%s|%s].",
                info.empName.c_str(), info.clientPort.c_str(), info.empPort.c_str());
        bool bClosed = false;
        try {
            bClosed = CloseEmp(info);
        } catch (...) {
            // The others are closed all the same, and the launcher goes.
            VOK_LOG(LEVEL_ERROR, "EMP [%s] was not closed.", info.empName.c_str());
        }
        VOK_LOG(LEVEL_DETAIL, "[StopVokLauncherServer] -> Close EMP, Result:[%d].", bClosed);
    }

    const CLock lock{m_mtxRegisterEmp};
    m_mapRegisterEmp.erase(key);
    VOK_LOG(LEVEL_EVENT, "Remove the Register-Launcher:[%s,%s].", strName.c_str(), strPort.c_str());
}

/// Finds every connection of a launcher's EMPs. Those that have none lose their records.
/// False when there is no such launcher.
bool CBroker::CollectConnections(const std::string& strName, const std::string& strPort,
                                 std::vector<ConnectionInfo>& connections) {
    const CLock lock{m_mtxRegisterEmp};
    const auto it = m_mapRegisterEmp.find({strName, strPort});
    if (it == m_mapRegisterEmp.end()) {
        REMOVE_LOG(LEVEL_ERROR, "The Register-Launcher:[%s,%s] does not exist in DB.",
                   strName.c_str(), strPort.c_str());
        return false;
    }
    REMOVE_LOG(LEVEL_DETAIL, "EMP Count:[%d] <-> Launcher:[%s|%s].",
               static_cast<int>(it->second.size()), strName.c_str(), strPort.c_str());
    std::vector<std::string> unused;
    for (const std::string& strEmp : it->second) {
        const std::string strEmpPort = m_ConnectionDB.GetEmpPort(strEmp);
        if (strEmpPort == kNoPort) {
            REMOVE_LOG(LEVEL_ERROR, "Failed to get port of EMP:[%s].", strEmp.c_str());
            unused.push_back(strEmp);
            continue;
        }
        REMOVE_LOG(LEVEL_DETAIL, "[RemoveLauncherInfo] emp:[%s], port:[%s].", strEmp.c_str(),
                   strEmpPort.c_str());
        const auto setClient = m_ConnectionDB.GetClientPortNumList({strEmp, strEmpPort});
        REMOVE_LOG(LEVEL_DETAIL, "ClientPortList size:[%d].", static_cast<int>(setClient.size()));
        for (const std::string& strClientPort : setClient) {
            ConnectionInfo info;
            info.empName = strEmp;
            info.clientPort = strClientPort;
            info.empPort = strEmpPort;
            REMOVE_LOG(LEVEL_DETAIL, "[TODO] EmpInfo:[%s|%s|%s].", info.empName.c_str(),
                       info.clientPort.c_str(), info.empPort.c_str());
            connections.push_back(info);
        }
    }
    for (std::string& strEmp : unused) (void)m_EmpInfo.Remove(std::move(strEmp));
    return true;
}

}  // namespace vok
