// Where an EMP lives, why, and what serves it, for those who look after the set. Nothing is logged
// but the trace of the EMP's option: whoever asks, asks about any name.
#include <algorithm>

#include "broker/CBroker.h"
#include "platform/EmpPaths.h"
#include "supervision/StateText.h"
#include "vok_admin_types.h"

namespace vok {

namespace {

/// The part of a table that lists an EMP.
LauncherTable ThoseOf(const std::string& strEmp, const LauncherTable& table) {
    LauncherTable those;
    for (const auto& launcher : table)
        if (launcher.second.count(strEmp) != 0) those.insert(launcher);
    return those;
}

/// The part of a table that is called so itself.
LauncherTable ThoseCalled(const std::string& strName, const LauncherTable& table) {
    LauncherTable those;
    for (const auto& launcher : table)
        if (launcher.first.first == strName) those.insert(launcher);
    return those;
}

/// Looks at files, and writes down what it has found.
class CFileList {
public:
    CFileList(IFiles& files, std::vector<admin::FileState>& states)
        : m_Files(files), m_States(states) {}

    void Add(const std::string& strPath, const char* szRole) {
        admin::FileState& state = m_States.emplace_back();
        state.path = Text(strPath);
        state.role = szRole;
        state.exists = m_Files.Exists(strPath.c_str());
    }
    void AddImage(const std::string& strEmp) { Add(paths::ImageFile(strEmp), "image"); }
    void AddPreinstalled(const std::string& strEmp) {
        Add(paths::PreinstalledProgram(strEmp), "preinstalled program");
    }
    void AddDownloaded(const std::string& strEmp) {
        Add(paths::DownloadedProgram(strEmp), "downloaded program");
    }
    void AddConfigurations(const std::string& strEmp) {
        for (const auto& strPath :
             {paths::PreinstalledConfig(strEmp), paths::DownloadedConfig(strEmp)})
            Add(strPath, "configuration");
    }

private:
    IFiles& m_Files;
    std::vector<admin::FileState>& m_States;
};

}  // namespace

void CBroker::GetWhereabouts(const std::string& strEmp, admin::Whereabouts& whereabouts) {
    whereabouts.empName = Text(strEmp);
    whereabouts.location = LocateSilently(strEmp);
    const std::string strHost = DescribeHosts(strEmp, whereabouts);
    const std::string& strImage =
        whereabouts.location == EMPLOCATION_GROUPING && !strHost.empty() ? strHost : strEmp;
    DescribeFiles(strEmp, strImage, whereabouts);
    DescribeServers(strEmp, whereabouts);
    DescribeMountOf(strImage, whereabouts);
}

/// Returns the grouping process that hosts the EMP: the first, as for an open. Empty: none does.
std::string CBroker::DescribeHosts(const std::string& strEmp, admin::Whereabouts& whereabouts) {
    LauncherTable groups;
    LauncherTable launchers;
    LauncherTable ownGroups;
    LauncherTable ownLaunchers;
    {
        const CLock lock{m_mtxGroupingEmp};
        groups = ThoseOf(strEmp, m_mapGroupingEmp);
        ownGroups = ThoseCalled(strEmp, m_mapGroupingEmp);
    }
    {
        const CLock lock{m_mtxRegisterEmp};
        launchers = ThoseOf(strEmp, m_mapRegisterEmp);
        ownLaunchers = ThoseCalled(strEmp, m_mapRegisterEmp);
    }
    whereabouts.groups = Describe(groups);
    whereabouts.launchers = Describe(launchers);
    whereabouts.ownGroups = Describe(ownGroups);
    whereabouts.ownLaunchers = Describe(ownLaunchers);
    return groups.empty() ? std::string() : groups.begin()->first.first;
}

/// First what decides where the EMP lives, then what its start takes: `strImage` is the EMP, or the
/// grouping process that hosts it. At last, what the broker has read at its start.
void CBroker::DescribeFiles(const std::string& strEmp, const std::string& strImage,
                            admin::Whereabouts& whereabouts) {
    CFileList list{*m_Platform.pFiles, whereabouts.files};
    if (paths::IsFileName(strEmp)) {
        list.AddImage(strEmp);
        list.AddPreinstalled(strEmp);
    }
    if (!paths::IsFileName(strImage)) return;

    list.AddDownloaded(strImage);
    if (strImage != strEmp) {
        list.AddImage(strImage);
        list.AddPreinstalled(strImage);
    }
    list.AddConfigurations(strImage);
}

void CBroker::DescribeServers(const std::string& strEmp, admin::Whereabouts& whereabouts) {
    CEmpDataInfo record;  // status "not found", and no process
    const auto records = m_EmpInfo.GetEmpInfo();
    const auto itRecord = records.find(strEmp);
    if (itRecord != records.end()) {
        record = itRecord->second;
        whereabouts.status = record.GetStatus();
        whereabouts.option = Text(record.GetOption());
    }
    std::map<std::string, ProcessId> processes;
    const ConnectionMap connections = m_ConnectionDB.GetConnectionDB();
    for (const auto& entry : connections)
        if (entry.first.first == strEmp) processes[entry.first.second];
    FindReporters(strEmp, processes);
    if (processes.size() == 1) {
        // Its ticket may have been pruned: but the process on record is that of the only server.
        // One that has reported the port and runs is told before it: the record may be an earlier
        // one's.
        ProcessId& reporter = processes.begin()->second;
        const ProcessId recorded = record.GetEmpProcess();
        if (reporter.nPid <= 0 || (!Runs(reporter) && Runs(recorded))) reporter = recorded;
    }

    for (const auto& [strPort, process] : processes) {
        admin::ServerState& server = whereabouts.servers.emplace_back();
        server.port = Text(strPort);
        server.pid = process.nPid;
        server.program = Text(m_Platform.pProcesses->ProgramOf(process));
        Describe(connections.at({strEmp, strPort}).m_mapClient, server.clientPorts,
                 server.clientAgesMs);
    }
}

/// Fills in, by port, which process has reported it last for this EMP: a port that has become free
/// may have been another EMP's since, or before. A port that none has reported, in what is kept of
/// the tickets, is left as it is.
void CBroker::FindReporters(const std::string& strEmp,
                            std::map<std::string, ProcessId>& processes) {
    const CLock lock{m_mtxTicket};
    for (const auto& [nSerial, spTicket] : m_mapTicket) {
        if (!spTicket || spTicket->m_Process.nPid <= 0 || spTicket->m_strEmp != strEmp) continue;
        const auto it = processes.find(spTicket->m_strPort);
        if (it != processes.end()) it->second = spTicket->m_Process;
    }
}

/// It, and no other process that has been given its pid. Asks the system, without a lock.
bool CBroker::Runs(const ProcessId& process) const {
    return process.nPid > 0 && process.nStartTime != 0 &&
           m_Platform.pProcesses->Identify(process.nPid).nStartTime == process.nStartTime;
}

void CBroker::DescribeMountOf(const std::string& strImage, admin::Whereabouts& whereabouts) {
    const MountCounts counts = CopyMountCounts();
    const auto it = counts.find(strImage);
    const bool bCounted = it != counts.end();
    if (bCounted) whereabouts.mount.count = it->second;
    whereabouts.mount.image = Text(strImage);
    if (!paths::IsFileName(strImage)) return;

    IFiles& files = *m_Platform.pFiles;
    whereabouts.mount.mounted = files.Exists(paths::DownloadedProgram(strImage).c_str());
    const std::string strMountPoint = paths::MountPoint(strImage);
    const auto mounted = m_Platform.pMounter->MountedOn(strMountPoint);
    if (!bCounted && !whereabouts.mount.mounted && !mounted &&
        !files.Exists(paths::ImageFile(strImage).c_str()))
        return;

    whereabouts.mountPoint = Text(strMountPoint);
    if (!mounted) return;
    whereabouts.mountSource = Text(mounted->strSource);
    whereabouts.fileSystem = Text(mounted->strFileSystem);
    whereabouts.mounts = static_cast<std::int32_t>(mounted->nStacked);
}

}  // namespace vok
