// The command call: EMPs report and stop, launchers register, clients ask and leave.
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "broker/CBroker.h"
#include "broker/ThreadName.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/Number.h"
#include "platform/ThreadMaker.h"

namespace vok {

namespace {

#define EXECUTE_LOG(level, ...) VOK_LOG_AS("Execute", level, __VA_ARGS__)

constexpr char kConfirmed[] = "ConfirmComplete";

const char* DoneOrError(bool bDone) {
    return bDone ? "Done" : "Error";
}

void NameThread(const char* szSuffix) {
    char szName[16] = "B-E-";
    std::strncat(szName, szSuffix, sizeof szName - 1 - std::strlen(szName));
    NameConnectionThread("Execute", szName);
}

/// EMPs that run as a thread of their launcher have no process to stop.
constexpr int kEmpIsThread = 2;

}  // namespace

/// One command with its arguments; a handler for each word.
class CCommand {
public:
    CCommand(CBroker& broker, std::string& strResult, const std::string& strArg1,
             const std::string& strCmd, const std::string& strArg3, const std::string& strArg4,
             const std::string& strArg5, const std::string& strArg6)
        : m_Broker(broker),
          m_strResult(strResult),
          m_strArg1(strArg1),
          m_strCmd(strCmd),
          m_strArg3(strArg3),
          m_strArg4(strArg4),
          m_strArg5(strArg5),
          m_strArg6(strArg6) {}

    void Run();

private:
    struct Entry {
        const char* szWord;
        void (CCommand::*pHandler)();
    };
    static const Entry kTable[];

    void GetVokVersion();
    void NotifyEmpServerInfo();
    void NotifyGroupingEmpServer();
    void NotifyRegisterEmpServer();
    void NotifyRegisterEmp();
    void NotifyUnregisterEmp();
    void NotifyToStopEmpServer();
    void CloseAllEmpWithAppId();
    void PrepareToClose();

    bool HasEmpAndPort();
    void CloseAll();
    void StopProcess(const ProcessId& process);
    bool FindGroupToStop(std::string& strToStop, bool& bGrouping);
    void LaunchStop(const std::string& strToStop, bool bGrouping, const ProcessId& process);

    CBroker& m_Broker;
    std::string& m_strResult;
    const std::string& m_strArg1;
    const std::string& m_strCmd;
    const std::string& m_strArg3;
    const std::string& m_strArg4;
    const std::string& m_strArg5;
    const std::string& m_strArg6;
};

const CCommand::Entry CCommand::kTable[] = {
    {"GetVOKVersion", &CCommand::GetVokVersion},
    {"__BROKER_CMD_NOTIFY_EMP_SERVER_INFO", &CCommand::NotifyEmpServerInfo},
    {"__BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER", &CCommand::NotifyGroupingEmpServer},
    {"__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", &CCommand::NotifyRegisterEmpServer},
    {"__BROKER_CMD_NOTIFY_REGISTER_EMP", &CCommand::NotifyRegisterEmp},
    {"__BROKER_CMD_NOTIFY_UNREGISTER_EMP", &CCommand::NotifyUnregisterEmp},
    {"__BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER", &CCommand::NotifyToStopEmpServer},
    // Clients send this word with a blank at its end; without it, it is none of ours.
    {"CloseAllEmpWithAppID ", &CCommand::CloseAllEmpWithAppId},
    {"__CLIENT_CMD_PREPARE_TO_CLOSE", &CCommand::PrepareToClose},
};

void CBroker::Execute(std::string& _return, const std::string& arg1, const std::string& cmd,
                      const std::string& arg3, const std::string& arg4, const std::string& arg5,
                      const std::string& arg6) {
    CCommand{*this, _return, arg1, cmd, arg3, arg4, arg5, arg6}.Run();
}

void CCommand::Run() {
    for (const Entry& entry : kTable) {
        if (m_strCmd == entry.szWord) return (this->*entry.pHandler)();
    }
    EXECUTE_LOG(LEVEL_ERROR, "there is no command for broker execution[%s]", m_strCmd.c_str());
}

void CCommand::GetVokVersion() {
    EXECUTE_LOG(LEVEL_DETAIL, "fromPort:[%s] , strCmd:[%s]", m_strArg1.c_str(), m_strCmd.c_str());
    NameThread("GetVOKVer");
    m_strResult = CBroker::GetFullVersion();
    EXECUTE_LOG(LEVEL_DETAIL, "VOK FullVERSION STRING[%s]", m_strResult.c_str());
}

void CCommand::NotifyEmpServerInfo() {
    EXECUTE_LOG(LEVEL_DETAIL, "EMP Server:[%s], strCmd:[%s]", m_strArg4.c_str(), m_strCmd.c_str());
    if (m_strArg3.empty()) {
        EXECUTE_LOG(LEVEL_ERROR, ">>> Ticket Serial is NULL!!!");
        return;
    }
    NameThread("NOTIFY_EMP");
    m_strResult = kConfirmed;  // also when nobody waits for the report
    m_Broker.ConfirmEMPServer(m_strArg3, m_strArg4, m_strArg5, m_strArg6);
}

void CCommand::NotifyGroupingEmpServer() {
    EXECUTE_LOG(LEVEL_DETAIL,
                ">>> BROKER_CMD_NOTIFY_GROUPINGEMP_SERVER_PORT cmd is received in "
                "CBroker::execute!");
    EXECUTE_LOG(LEVEL_DETAIL, "Grouping EMP Server name[%s],  port/path:[%s], strCmd:[%s]",
                m_strArg3.c_str(), m_strArg4.c_str(), m_strCmd.c_str());
    if (m_strArg3.empty() || m_strArg4.empty()) {
        EXECUTE_LOG(LEVEL_ERROR, ">>> GroupingEmp name or port is empty!");
        return;
    }
    m_strResult = kConfirmed;
    m_Broker.ConfirmGroupingEmpServer(m_strArg3, m_strArg4);
}

void CCommand::NotifyRegisterEmpServer() {
    EXECUTE_LOG(LEVEL_DETAIL,
                ">>> BROKER_CMD_NOTIFY_REGISTEREMP_SERVER_PORT cmd is received in "
                "CBroker::execute!");
    EXECUTE_LOG(LEVEL_DETAIL, "Launcher Info:[%s|%s], strCmd:[%s]", m_strArg3.c_str(),
                m_strArg4.c_str(), m_strCmd.c_str());
    if (m_strArg1.empty() || m_strArg3.empty() || m_strArg4.empty()) {
        EXECUTE_LOG(LEVEL_ERROR, "[Register] Necessary info is empty!");
        return;
    }
    const auto option = static_cast<LauOption_E>(LeadingNumber(m_strArg1));
    m_strResult = DoneOrError(m_Broker.UpdateLauncherInfo(option, m_strArg3, m_strArg4));
}

bool CCommand::HasEmpAndPort() {
    if (!m_strArg3.empty() && !m_strArg4.empty()) return true;
    EXECUTE_LOG(LEVEL_ERROR, "RegisterEmpName or LauncherServerPort is empty!");
    return false;
}

void CCommand::NotifyRegisterEmp() {
    EXECUTE_LOG(LEVEL_DETAIL, "[REGISTER] comes from Launcher[%s,%s].", m_strArg3.c_str(),
                m_strArg4.c_str());
    if (!HasEmpAndPort()) return;

    const bool bDone = m_Broker.RegisterEMP(m_strArg3, m_strArg4);
    if (!bDone)
        EXECUTE_LOG(LEVEL_ERROR, ">>RegisterEMP:[%s|%s] failed.", m_strArg3.c_str(),
                    m_strArg4.c_str());
    m_strResult = DoneOrError(bDone);
}

void CCommand::NotifyUnregisterEmp() {
    EXECUTE_LOG(LEVEL_DETAIL, "[UNREGISTER] comes from Launcher[%s,%s].", m_strArg3.c_str(),
                m_strArg4.c_str());
    if (!HasEmpAndPort()) return;

    const bool bDone = m_Broker.UnRegisterEMP(m_strArg3, m_strArg4);
    if (!bDone)
        EXECUTE_LOG(LEVEL_ERROR, ">>UnRegisterEMP:[%s|%s] failed.", m_strArg3.c_str(),
                    m_strArg4.c_str());
    m_strResult = DoneOrError(bDone);
}

void CCommand::NotifyToStopEmpServer() {
    EXECUTE_LOG(LEVEL_DETAIL,
                "[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Name:[%s], C|S:[%s|%s], Type:[%s].",
                m_strArg3.c_str(), m_strArg1.c_str(), m_strArg4.c_str(), m_strArg5.c_str());
    if (m_strArg3.empty() || m_strArg4.empty() || m_strArg5.empty()) {
        EXECUTE_LOG(LEVEL_ERROR,
                    "[BROKER_CMD_NOTIFY_TO_STOP_EMP_SERVER] Any necessary param is empty.");
        return;
    }
    const ProcessId process = m_Broker.m_EmpInfo.GetEmpProcess(m_strArg3);
    if (process.nPid == 0) {
        EXECUTE_LOG(LEVEL_ERROR, "EMP:[%s]->pid:[0], maybe it's not existed.", m_strArg3.c_str());
        return;
    }
    // Memory before changes: the connection and the record go both or none of them.
    const ConnectionKey key{m_strArg3, m_strArg4};
    std::string strEmp = m_strArg3;
    (void)m_Broker.m_ConnectionDB.RemoveEmpInfoFromConnDB(key);
    (void)m_Broker.m_EmpInfo.Remove(std::move(strEmp));
    if (LeadingNumber(m_strArg5) == kEmpIsThread) {
        EXECUTE_LOG(LEVEL_DETAIL, "[Register] %s is in form of thread.", m_strArg3.c_str());
        return;
    }
    try {
        StopProcess(process);
    } catch (const std::bad_alloc&) {
        // The EMP has gone from the tables, and asking again would find nothing: as without a
        // thread.
        EXECUTE_LOG(LEVEL_ERROR, "Error occured during StopEMPServer");
    }
}

void CCommand::StopProcess(const ProcessId& process) {
    std::string strToStop = m_strArg3;
    bool bGrouping = false;
    if (m_Broker.WhereIsEMP(m_strArg3) == EMPLOCATION_GROUPING &&
        !FindGroupToStop(strToStop, bGrouping))
        return;
    LaunchStop(strToStop, bGrouping, process);
}

/// False when the grouping process stays: others use it, or nothing is known of it.
bool CCommand::FindGroupToStop(std::string& strToStop, bool& bGrouping) {
    std::string strGroup;
    std::string strGroupPort;
    (void)m_Broker.GetGroupingEMPInfo(strGroup, strGroupPort, m_strArg3);
    EXECUTE_LOG(LEVEL_DETAIL, "[Grouping Emp] | name:[%s], group:[%s].", m_strArg3.c_str(),
                strGroup.c_str());

    const CLock lock{m_Broker.m_mtxMapEmp};
    const auto it = m_Broker.m_mapEmp.find(strGroup);
    if (it == m_Broker.m_mapEmp.end()) {
        EXECUTE_LOG(LEVEL_ERROR, "Grouping EMP [%s] is not in the map, return.", strGroup.c_str());
        return false;
    }
    if (it->second != 0) {
        EXECUTE_LOG(LEVEL_DETAIL, "Grouping EMP [%s]'s EMP Count is [%d], return.",
                    strGroup.c_str(), it->second);
        return false;
    }
    EXECUTE_LOG(LEVEL_ERROR, "Grouping EMP [%s]'s EMP Count is 0, continue to kill and umount",
                strGroup.c_str());
    strToStop = strGroup;
    bGrouping = true;
    return true;
}

void CCommand::LaunchStop(const std::string& strToStop, bool bGrouping, const ProcessId& process) {
    auto pBlock = std::make_unique<ExitEmpBlock>();
    pBlock->strEmp = strToStop;
    pBlock->strPort = m_strArg4;
    pBlock->bGrouping = bGrouping;
    pBlock->process = process;
    pBlock->pBroker = &m_Broker;
    pBlock->spBrokerInUse = m_Broker.HoldInUse();
    EXECUTE_LOG(LEVEL_DETAIL, "EMP proc name:[%s], pid:[%d].", strToStop.c_str(), process.nPid);
    EXECUTE_LOG(LEVEL_DETAIL, "Create thread to Stop and unmount emp.");

    // A thread of its own: whoever reports the stop may be the one that is stopped.
    if (!ThreadMaker::CreateThread("StopEMPServer", &CBroker::ExitEmpProc, pBlock.get(),
                                   kThreadStack, true)) {
        EXECUTE_LOG(LEVEL_ERROR, "Error occured during StopEMPServer");
        return;
    }
    (void)pBlock.release();  // the thread's now
}

void CCommand::CloseAllEmpWithAppId() {
    EXECUTE_LOG(LEVEL_DETAIL, "Port/Path:[%s] , strCmd:[%s]", m_strArg3.c_str(), m_strCmd.c_str());
    CloseAll();
}

void CCommand::PrepareToClose() {
    EXECUTE_LOG(LEVEL_DETAIL, "Port/Path:[%s], strCmd:[%s]", m_strArg1.c_str(), m_strCmd.c_str());
    CloseAll();
}

void CCommand::CloseAll() {
    if (m_strArg3.empty()) {
        EXECUTE_LOG(LEVEL_ERROR, "Broker got wrong parametres from Port/Path:[%s]",
                    m_strArg1.c_str());
        return;
    }
    NameThread("CloseAllEm");
    (void)m_Broker.CloseAllEmpWithAppID(m_strArg3, m_strArg4);
}

}  // namespace vok
