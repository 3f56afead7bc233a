// A client opens an EMP: from its request to a connected EMP, or back to where it began.
#include <boost/make_shared.hpp>

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

#include "broker/CBroker.h"
#include "broker/ThreadName.h"
#include "open/ExecImage.h"
#include "open/ServerChoice.h"
#include "platform/EmpPaths.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/ScopeGuard.h"

namespace vok {

using namespace std::string_view_literals;

/// One open. Members hold what the steps share; `Run` is the story.
class COpenOperation {
public:
    COpenOperation(CBroker& broker, ConnectionInfo& result, const std::string& strClientPort,
                   const std::string& strEmp, const std::string& strVersion,
                   const std::string& strAppInfo)
        : m_Broker(broker),
          m_Result(result),
          m_strClientPort(strClientPort),
          m_strEmp(strEmp),
          m_strVersion(strVersion),
          m_strAppInfo(strAppInfo) {
        m_Trace.begin = OpenTrace::Now();
    }

    /// Never throws.
    void Run();

private:
    /// Whose files count: the EMP, or its grouping process.
    const std::string& Image() const {
        return m_Location == EMPLOCATION_GROUPING ? m_strGroup : m_strEmp;
    }

    void RunOrUndo();
    bool RunSteps();

    bool CheckArguments();
    void NameThread();
    bool Locate();
    void IssueTicket();
    bool ChooseServer();
    bool ChooseServerOfKnownEmp(EMP_STATUS eStatus);
    void ReuseServer(std::string&& strPort);
    void NoteWait(OpenTrace::Moment begin);
    void RaiseMountCount();
    void CountMountedImage() VOK_REQUIRES(m_Broker.m_mtxMapEmp);
    void MountImage() VOK_REQUIRES(m_Broker.m_mtxMapEmp);
    bool CheckEmpStatus();
    void ForgetMountCount();
    void StartAndAwaitReport();
    void FillParams(ForkEmpParams& params, const std::string& strProgram);
    void AwaitReport();
    void KeepReport();
    void Succeed();
    void FillResult(std::string&& strEmp, std::string&& strClientPort);

    bool Refuse();
    void Undo(const std::string& strReason);
    void GiveBack();
    template <typename Step>
    void Attempt(Step&& step);
    void LowerMountCount();
    void UnmountImageWithoutProgram();
    void GiveBackMount();
    bool UnmountImage();
    void CountFailure();
    void Finish();
    void FinishTicket() VOK_REQUIRES(m_Broker.m_mtxTicket);
    void Remember() VOK_REQUIRES(m_Broker.m_mtxTicket);

    CBroker& m_Broker;
    ConnectionInfo& m_Result;
    const std::string& m_strClientPort;
    const std::string& m_strEmp;
    const std::string& m_strVersion;
    const std::string& m_strAppInfo;

    OpenTrace m_Trace{};
    eEmpLocation m_Location = EMPLOCATION_UNKNOWN;
    std::string m_strGroup;  // the grouping process, when it hosts the EMP
    boost::shared_ptr<Ticket> m_spTicket;
    bool m_bMounted = false;  // the image, by this open
    bool m_bIsNew = false;
    bool m_bReuse = false;
    bool m_bCounted = false;  // the mount count is raised
    bool m_bShortOfMemory = false;
    std::string m_strOption;             // of the known EMP's record
    std::string m_strEmpPort = kNoPort;  // of the server that the client gets
};

#define OPEN_LOG(level, ...) VOK_LOG_AS("OpenEmp", level, __VA_ARGS__)

void CBroker::OpenEmp(ConnectionInfo& _return, const std::string& clientPort,
                      const std::string& empName, const std::string& empVersion,
                      const std::string& appInfo) {
    COpenOperation{*this, _return, clientPort, empName, empVersion, appInfo}.Run();
}

void COpenOperation::Run() {
    const ScopeGuard finish{[this] { Finish(); }};
    try {
        RunOrUndo();
    } catch (const std::bad_alloc&) {
        // Memory may be back for the next open, which must find no record that blocks the EMP.
        CountFailure();
        GiveBack();
        OPEN_LOG(LEVEL_ERROR, "UNEXPECTED ERROR OCCURED, EMP:[%s].", m_strEmp.c_str());
    } catch (...) {
        // An unknown failure leaves an unknown state: undoing might take what another open needs.
        CountFailure();
        OPEN_LOG(LEVEL_ERROR, "UNEXPECTED ERROR OCCURED, EMP:[%s].", m_strEmp.c_str());
    }
}

void COpenOperation::RunOrUndo() {
    try {
        ++m_Broker.m_Counters.nOpens;
        if (!RunSteps()) ++m_Broker.m_Counters.nRefusals;
    } catch (const std::string& strReason) {
        Undo(strReason);
        CountFailure();
    }
}

/// False when the open is refused.
bool COpenOperation::RunSteps() {
    if (!CheckArguments()) return false;
    NameThread();
    if (!Locate()) return false;
    IssueTicket();
    if (!ChooseServer()) return Refuse();
    // Not for a server that runs: it is found in no time, and each look at the clock would show.
    if (!m_bReuse) m_Trace.located = OpenTrace::Now();
    RaiseMountCount();
    if (!CheckEmpStatus()) return Refuse();
    if (m_bReuse)
        ++m_Broker.m_Counters.nReuses;
    else
        StartAndAwaitReport();  // throws the reason as text
    Succeed();
    m_Trace.eOutcome = m_bReuse ? OPEN_REUSED : OPEN_STARTED;
    return true;
}

bool COpenOperation::CheckArguments() {
    if (m_strEmp.empty() || m_strAppInfo.empty()) {
        OPEN_LOG(LEVEL_NOTICE, "wrong parameters with NULL");
        return false;
    }
    if (m_strEmp == "Broker"sv) {
        OPEN_LOG(LEVEL_ERROR, "Invalid opening, [Broker] is not a EMP.");
        CBroker::SetInvalidConnectionInfo(m_Result);
        return false;
    }
    if (m_strVersion.empty()) {
        OPEN_LOG(LEVEL_NOTICE, "wrong parameters with NULL.");
        CBroker::SetInvalidConnectionInfo(m_Result);
        return false;
    }
    return true;
}

void COpenOperation::NameThread() {
    char szName[16] = "B-O-";
    m_strEmp.copy(szName + 4, std::min<std::size_t>(m_strEmp.size(), 10));
    NameConnectionThread("OpenEmp", szName);
}

bool COpenOperation::Locate() {
    m_Location = m_Broker.WhereIsEMP(m_strEmp);
    if (m_Location == EMPLOCATION_UNKNOWN) {
        OPEN_LOG(LEVEL_ERROR, "Unknown location.");
        return false;
    }
    if (m_Location == EMPLOCATION_GROUPING) {
        std::string strGroupPort;
        (void)m_Broker.GetGroupingEMPInfo(m_strGroup, strGroupPort, m_strEmp);  // empty when lost
        OPEN_LOG(LEVEL_DETAIL, "EMP Location is EMPLOCATION_GROUPING, GroupingEmpName is %s",
                 Image().c_str());
    }
    m_Result.ip = m_Broker.GetEmpIP(m_Location);
    OPEN_LOG(LEVEL_DETAIL, "# EMP INFO # name:[%s] location:[%d] IP:[%s] ClientPort:[%s]",
             m_strEmp.c_str(), m_Location, m_Result.ip.c_str(), m_strClientPort.c_str());
    return true;
}

void COpenOperation::IssueTicket() {
    m_spTicket = boost::make_shared<Ticket>("-1");
    // Announced before anybody can find it: a report that finds it never has to wait, whether its
    // opener will ever wait or not.
    m_spTicket->m_Condition.SetDoWaiting(true);

    const CLock lock{m_Broker.m_mtxTicket};
    // Serials grow: it nearly always comes last.
    TicketMap& mapTicket = m_Broker.m_mapTicket;
    mapTicket.insert_or_assign(mapTicket.end(), m_spTicket->GetSerial(), m_spTicket);
    PruneTickets(mapTicket, kMaxTickets);
}

/// False when the open is refused.
bool COpenOperation::ChooseServer() {
    EMP_STATUS eStatus = EMP_NOT_FOUND;
    m_bIsNew = m_Broker.m_EmpInfo.Add(m_strEmp, m_strVersion, eStatus);
    if (!m_bIsNew) return ChooseServerOfKnownEmp(eStatus);

    OPEN_LOG(LEVEL_TRACE, "Emp:[%s] is not in the m_EmpInfo.", m_strEmp.c_str());
    return true;
}

bool COpenOperation::ChooseServerOfKnownEmp(EMP_STATUS eStatus) {
    // No look at the clock for a server that runs.
    const OpenTrace::Moment waitBegin =
        IsTransitional(eStatus) ? OpenTrace::Now() : OpenTrace::Moment::zero();
    if (!m_Broker.AwaitSettledStatus(m_strEmp, eStatus)) return false;

    m_strOption = m_Broker.m_EmpInfo.OptionOf(m_strEmp);
    OPEN_LOG(LEVEL_TRACE, "strOption:[%s] ", m_strOption.c_str());
    std::string strPort = m_Broker.m_ConnectionDB.PortOf(m_strEmp);
    switch (vok::ChooseServer(m_strOption, strPort != std::string_view(kNoPort))) {
        case eServerChoice::Reuse:
            OPEN_LOG(LEVEL_DETAIL, "Singleton EMP: existing empPort[%s] will be used",
                     strPort.c_str());
            ReuseServer(std::move(strPort));
            NoteWait(waitBegin);
            break;
        case eServerChoice::Refuse:
            OPEN_LOG(LEVEL_TRACE,
                     "Singleton-OneConnection EMP: there is already connection, ignore this second "
                     "open! Existing empPort[%s]",
                     strPort.c_str());
            return false;
        case eServerChoice::StartLostServer:
            OPEN_LOG(LEVEL_DETAIL,
                     "EmpInfo already got EMP. But ConnectinoDB doest not have it. name:[%s] "
                     "empPort[%s]",
                     m_strEmp.c_str(), strPort.c_str());
            break;
        case eServerChoice::StartOneConnection:
            OPEN_LOG(LEVEL_TRACE, "Singleton-OneConnection EMP: there used to get connection, [%s]",
                     m_strEmp.c_str());
            break;
        case eServerChoice::StartAnother:
            OPEN_LOG(LEVEL_TRACE, "[EMP_OPTION_NOT_SINGLETON] EMP:[%s]", m_strEmp.c_str());
            break;
        case eServerChoice::StartUnknown:
            OPEN_LOG(LEVEL_ERROR, "IT IS NOT SUPPOSED TO BE SEEN. name:[%s], strOption:[%s]",
                     m_strEmp.c_str(), m_strOption.c_str());
            break;
    }
    return true;
}

void COpenOperation::ReuseServer(std::string&& strPort) {
    m_bReuse = true;
    m_strEmpPort = std::move(strPort);
    const CLock lock{m_Broker.m_mtxTicket};
    m_spTicket->m_strPort = m_strEmpPort;
}

/// Of an open that found another one starting the server: it has waited for that one's report.
void COpenOperation::NoteWait(OpenTrace::Moment begin) {
    if (begin == OpenTrace::Moment::zero()) return;
    m_Trace.located = begin;
    m_Trace.reported = OpenTrace::Now();
}

void COpenOperation::RaiseMountCount() {
    OPEN_LOG(LEVEL_TRACE, "Location:[%d], Name:[%s]", m_Location, Image().c_str());
    const int nFile = m_Broker.GetEmpLocationType(Image());
    if (nFile != EMPFILE_MOUNTED && nFile != EMPFILE_IMAGE) {
        OPEN_LOG(LEVEL_DETAIL, "Nothing to do with Mount/UMount.");
        return;
    }
    // Looked at again under the lock, which is held across mounting and unmounting: what was
    // mounted may just have been unmounted after its last user, and the other way round.
    const CLock lock{m_Broker.m_mtxMapEmp};
    if (m_Broker.m_Platform.pFiles->Exists(paths::DownloadedProgram(Image()).c_str()))
        CountMountedImage();
    else
        MountImage();
}

void COpenOperation::CountMountedImage() {
    const auto [it, bAdded] = m_Broker.EnterMountCount(Image());
    if (bAdded)
        OPEN_LOG(LEVEL_ERROR, "Maybe something wrong with [%s]'s the count of mount/umount.",
                 Image().c_str());
    m_Broker.AddToMountCount(it, 1);
    m_bCounted = true;
}

void COpenOperation::MountImage() {
    const std::string strImageFile = paths::ImageFile(Image());
    const std::string strMountPoint = paths::MountPoint(Image());

    // The entry first, under the lock that nobody looks past: a mount without a count would stay.
    const auto [it, bAdded] = m_Broker.EnterMountCount(Image());
    ScopeGuard forgetEntry{[this, it = it, bAdded = bAdded]() VOK_TSA(no_thread_safety_analysis) {
        if (bAdded) m_Broker.EraseMountCount(it);
    }};
    const bool bMounted = m_Broker.m_Platform.pMounter->Mount(strImageFile, strMountPoint);
    OPEN_LOG(LEVEL_DETAIL, "[Attention] Mount img:[%s] to [%s].", strImageFile.c_str(),
             strMountPoint.c_str());
    if (!bMounted) {
        // The open goes on: it is the start that fails when the program is missing.
        OPEN_LOG(LEVEL_ERROR, "Failed to mount [%s] to [%s].", strImageFile.c_str(),
                 strMountPoint.c_str());
        return;
    }
    m_Trace.mounted = OpenTrace::Now();
    forgetEntry.Dismiss();
    m_Broker.AddToMountCount(it, 1 - it->second);  // the first, whatever was counted before
    m_bMounted = true;
    m_bCounted = true;
    OPEN_LOG(LEVEL_DETAIL, "EMP COUNT: It's first time to open [%s] EMP.", Image().c_str());
}

/// False when the EMP's status refuses the open. The mount count stays raised then.
bool COpenOperation::CheckEmpStatus() {
    const EMP_STATUS eStatus = m_Broker.m_EmpInfo.StatusOf(m_strEmp);
    if (eStatus == EMP_NOT_FOUND) {
        OPEN_LOG(LEVEL_ERROR,
                 ". EMP:[%s]'s status:EMP_NOT_FOUND, Serial:[%d], set invalid info and remove item "
                 "from m_mapEMP",
                 m_strEmp.c_str(), m_spTicket->GetSerial());
        ForgetMountCount();
        return false;
    }
    if (eStatus == EMP_PENDING || eStatus == EMP_RESERVED5) {
        OPEN_LOG(LEVEL_ERROR, "Broker may return false due to status[%d]. EMP:[%s] Serial:[%d]",
                 eStatus, m_strEmp.c_str(), m_spTicket->GetSerial());
        return false;
    }
    if (eStatus == EMP_CLOSED && m_bReuse)
        OPEN_LOG(LEVEL_NOTICE, "[%s] is CLOSED status but ConnectionDB has connection info",
                 m_strEmp.c_str());
    return true;
}

void COpenOperation::ForgetMountCount() {
    const CLock lock{m_Broker.m_mtxMapEmp};
    // By the EMP's name, also for one that a grouping process hosts.
    const auto it = m_Broker.m_mapEmp.find(m_strEmp);
    if (it == m_Broker.m_mapEmp.end()) {
        OPEN_LOG(LEVEL_ERROR, "[EMP EXCPETION NOT FOUND Umount]: EMP [%s] is not in the map. ",
                 m_strEmp.c_str());
        return;
    }
    OPEN_LOG(LEVEL_ERROR, "[EMP EXCPETION NOT FOUND Umount]: Found EMP [%s] in the map. ",
             m_strEmp.c_str());
    m_Broker.EraseMountCount(it);
}

void COpenOperation::StartAndAwaitReport() {
    OPEN_LOG(LEVEL_DETAIL, "EMP:[%s] Ticket(Serial:[%d]) has been inserted", m_strEmp.c_str(),
             m_spTicket->GetSerial());
    {
        std::string strEmp = m_strEmp;  // its memory comes before the lock
        const CLock lock{m_Broker.m_mtxTicket};
        m_spTicket->m_strEmp = std::move(strEmp);
        m_spTicket->m_bAwaitsReport = true;
    }

    const std::string strProgram = m_Broker.GetEmpLocationType(Image()) == EMPFILE_PREINSTALLED
                                       ? paths::PreinstalledProgram(Image())
                                       : paths::DownloadedProgram(Image());
    ForkEmpParams params;
    FillParams(params, strProgram);
    if (!m_Broker.StartEmp(m_strEmp, &params, m_Location)) throw std::string("Start Emp failed");
    m_Trace.started = OpenTrace::Now();

    AwaitReport();
    m_Trace.reported = OpenTrace::Now();
    KeepReport();
    OPEN_LOG(LEVEL_DETAIL, "GetOption strOption [%s]", m_strOption.c_str());
}

void COpenOperation::FillParams(ForkEmpParams& params, const std::string& strProgram) {
    params.ARGV_path = strProgram.c_str();
    if (m_Location == EMPLOCATION_GROUPING) CopyBounded(params.ARGV_groupingEmpName, Image());
    CopyBounded(params.ARGV_empName, m_strEmp);
    params.ARGV_ticketSerial = static_cast<int>(m_spTicket->GetSerial());
    params.CbSrvPort = m_strClientPort;
    params.spTicket = m_spTicket;
    OPEN_LOG(LEVEL_DETAIL, "forkEmpParams.ARGV_ticketSerial:[%d], CbSrvPort:[%s]",
             params.ARGV_ticketSerial, params.CbSrvPort.c_str());
}

void COpenOperation::AwaitReport() {
    const unsigned int nSerial = m_spTicket->GetSerial();
    OPEN_LOG(LEVEL_DETAIL, "## START wait... name:[%s] Address:[%p],ticketSerial:[%d]",
             m_strEmp.c_str(), static_cast<void*>(m_spTicket.get()), nSerial);
    const int rc = m_spTicket->m_Condition.Wait(kReportWaitMs);
    if (rc == 0) return;

    OPEN_LOG(LEVEL_ERROR, "[Look] 10s past, launch Emp:[%s,%d] timeout, rc:[%d]", m_strEmp.c_str(),
             nSerial, rc);
    throw std::string("An exception occured in waiting");
}

void COpenOperation::KeepReport() {
    std::string strOption;
    int nPid = 0;
    ProcessId process;
    {
        // A second report may be writing the ticket right now.
        const CLock lock{m_Broker.m_mtxTicket};
        m_spTicket->m_bAwaitsReport = false;
        m_strEmpPort = m_spTicket->m_strPort;
        strOption = m_spTicket->m_strOption;
        nPid = m_spTicket->m_nPid;
        process = m_spTicket->m_Process;
    }
    OPEN_LOG(LEVEL_DETAIL,
             "## END wait...  name:[%s] ticketSerial:[%d], EMPServerPortNum:[%s], "
             "EMPServerPidNum:[%d]",
             m_strEmp.c_str(), m_Result.serial, m_strEmpPort.c_str(), nPid);
    if (!m_bIsNew) return;

    if (strOption.empty()) throw std::string("New EMP is failed to Open");
    OPEN_LOG(LEVEL_DETAIL, "This is new EMP strOption [%s]", strOption.c_str());
    // The record may have gone meanwhile, by a stop report: that is logged there.
    (void)m_Broker.m_EmpInfo.SetTypeOption(m_strEmp, strOption);

    if (nPid == 0) throw std::string("New EMP is failed to Open");
    OPEN_LOG(LEVEL_DETAIL, "This is new EMP pid [%d]", nPid);
    (void)m_Broker.m_EmpInfo.SetEmpProcess(m_strEmp, process);
}

void COpenOperation::Succeed() {
    // All memory that is needed comes first: what is recorded is also answered.
    std::string strAnsweredEmp = m_strEmp;
    std::string strAnsweredClient = m_strClientPort;
    OPEN_LOG(LEVEL_DETAIL,
             "Add connectionData to connectionDB, name :[%s], empport[%s], clientport[%s]",
             m_strEmp.c_str(), m_strEmpPort.c_str(), m_strClientPort.c_str());
    // A client that is connected already stays so.
    (void)m_Broker.m_ConnectionDB.AddClient(m_strEmp, m_strEmpPort, m_strClientPort);
    (void)m_Broker.m_EmpInfo.SetStatusOf(m_strEmp, EMP_OPENED);
    FillResult(std::move(strAnsweredEmp), std::move(strAnsweredClient));
}

void COpenOperation::FillResult(std::string&& strEmp, std::string&& strClientPort) {
    m_Result.empName = std::move(strEmp);
    m_Result.clientPort = std::move(strClientPort);
    m_Result.empPort = std::move(m_strEmpPort);
    m_Result.serial = static_cast<int32_t>(m_spTicket->GetSerial());
    OPEN_LOG(LEVEL_DETAIL, "empID:[%s] Emp:[%s] , Serial:[%d] , Option:[%s] , Status:[%d]",
             m_Result.empName.c_str(), m_Result.empPort.c_str(), m_Result.serial,
             m_strOption.c_str(), EMP_OPENED);
}

/// Returns false, the answer of whoever refuses.
bool COpenOperation::Refuse() {
    CBroker::SetInvalidConnectionInfo(m_Result);
    const CLock lock{m_Broker.m_mtxTicket};
    m_Broker.m_mapTicket.erase(m_spTicket->GetSerial());
    return false;
}

/// One step of the undo, which must not keep the others from being made.
template <typename Step>
void COpenOperation::Attempt(Step&& step) {
    try {
        step();
    } catch (...) {
        OPEN_LOG(LEVEL_ERROR, "The undo of opening EMP:[%s] is incomplete.", m_strEmp.c_str());
    }
}

void COpenOperation::Undo(const std::string& strReason) {
    OPEN_LOG(LEVEL_ERROR, "[Fail] Open emp:[%s], Prepare exception handling.", m_strEmp.c_str());
    // Each step for itself, and the records in any case: one that stayed would block the EMP for
    // ever.
    Attempt([this] {
        m_Broker.ReportLogToServer(m_strEmp, m_strVersion, m_strAppInfo);
        OPEN_LOG(LEVEL_ERROR, "[Completed] Report for %s to Log Server.", m_strEmp.c_str());
    });
    Attempt([this] {
        try {
            LowerMountCount();
        } catch (const std::bad_alloc&) {
            if (!m_bCounted) throw;
            m_bShortOfMemory = true;
            GiveBackMount();  // what this open has added, without a look at the files
        }
    });

    const CLock lock{m_Broker.m_mtxTicket};
    m_Broker.m_mapTicket.erase(m_spTicket->GetSerial());
    CBroker::SetInvalidConnectionInfo(m_Result);
    // At once, without a "closed" in between: another open may be waiting for a change. A record
    // that has gone already is logged as missing.
    m_Broker.m_EmpInfo.EndFailedOpen(m_strEmp, m_bIsNew);
    OPEN_LOG(LEVEL_ERROR, "UNEXPECTED ERROR:[%s] OCCURED. EmpName:[%s] bIsNew:[%d].",
             strReason.c_str(), m_strEmp.c_str(), m_bIsNew);
}

/// Memory was short: takes out of the tables what this open has put there. Needs no memory itself,
/// but for the unmounting of an image, whose count stays when there is none for that either.
void COpenOperation::GiveBack() {
    m_bShortOfMemory = true;
    if (m_bCounted) Attempt([this] { GiveBackMount(); });
    if (!m_spTicket) return;

    const CLock lock{m_Broker.m_mtxTicket};
    m_Broker.m_mapTicket.erase(m_spTicket->GetSerial());
    if (m_bIsNew) m_Broker.m_EmpInfo.EndFailedOpen(m_strEmp, m_bIsNew);
}

void COpenOperation::LowerMountCount() {
    switch (m_Broker.GetEmpLocationType(Image())) {
        case EMPFILE_MOUNTED:
            break;
        case EMPFILE_IMAGE:
            OPEN_LOG(LEVEL_ERROR, "Maybe it was not mounted yet.");
            if (m_bMounted) UnmountImageWithoutProgram();
            return;
        default:
            OPEN_LOG(LEVEL_DETAIL, "Nothing to do with Mount/UMount.");
            return;
    }
    GiveBackMount();
}

void COpenOperation::GiveBackMount() {
    const CLock lock{m_Broker.m_mtxMapEmp};
    const auto it = m_Broker.m_mapEmp.find(Image());
    if (it == m_Broker.m_mapEmp.end()) {
        OPEN_LOG(LEVEL_ERROR, "EMP COUNT: EMP [%s] is not in the map.", Image().c_str());
        return;
    }
    if (it->second == 1) {
        if (UnmountImage()) m_Broker.EraseMountCount(it);
        return;
    }
    const int nBefore = it->second;
    m_Broker.AddToMountCount(it, -1);
    OPEN_LOG(LEVEL_DETAIL, "EMP COUNT: Emp=[%s], count=[%d].", Image().c_str(), nBefore);
}

/// An image without its program looks as if it were not mounted. It must not stay: a repaired image
/// could then never be mounted in its place.
void COpenOperation::UnmountImageWithoutProgram() {
    const CLock lock{m_Broker.m_mtxMapEmp};
    const auto it = m_Broker.m_mapEmp.find(Image());
    if (it == m_Broker.m_mapEmp.end()) return;  // another open of it has been here
    if (m_Broker.m_Platform.pMounter->Umount(paths::MountPoint(Image())))
        m_Broker.EraseMountCount(it);
}

/// True when the image is gone, by this call or before it.
bool COpenOperation::UnmountImage() {
    if (m_Broker.m_Platform.pMounter->Umount(paths::MountPoint(Image()))) {
        OPEN_LOG(LEVEL_DETAIL, "Umount for [%s] EMP Succeeded!", Image().c_str());
        return true;
    }
    // It may not even have been tried: whoever comes next tries again.
    if (m_bShortOfMemory) return false;
    if (m_Broker.CheckEmpFile(paths::DownloadedProgram(Image()).c_str())) return false;

    OPEN_LOG(LEVEL_ERROR, "TargetEmpFile:[%s] doesn't exist, remove it from [m_mapEmp]",
             Image().c_str());
    return true;
}

void COpenOperation::CountFailure() {
    ++m_Broker.m_Counters.nFailures;
    m_Trace.eOutcome = OPEN_FAILED;
}

/// The answer is ready, whatever it says. Nothing here needs memory.
void COpenOperation::Finish() {
    m_Trace.answered = OpenTrace::Now();
    const CLock lock{m_Broker.m_mtxTicket};
    FinishTicket();
    Remember();
}

/// The ticket of a successful open stays for late reports, but may be pruned from now on.
void COpenOperation::FinishTicket() {
    if (!m_spTicket) return;
    m_spTicket->m_bInProgress = false;
    m_spTicket->m_bAwaitsReport = false;
}

void COpenOperation::Remember() {
    m_Trace.nSerial = m_spTicket ? std::int64_t{m_spTicket->GetSerial()} : -1;
    m_Trace.location = m_Location;
    m_Broker.m_OpenHistory.Add(m_Trace, m_strEmp, m_strClientPort);
}

}  // namespace vok
