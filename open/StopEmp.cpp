// The other end of an EMP's life: its process ends and its image goes.
#include <csignal>
#include <memory>

#include "broker/CBroker.h"
#include "platform/Limits.h"
#include "platform/Log.h"

namespace vok {

#define EXIT_LOG(level, ...) VOK_LOG_AS("ExitEmpProc", level, __VA_ARGS__)

void* CBroker::ExitEmpProc(void* pBlock) {
    const std::unique_ptr<ExitEmpBlock> pExit{static_cast<ExitEmpBlock*>(pBlock)};
    try {
        StopEmp(pExit.get());
    } catch (...) {
        EXIT_LOG(LEVEL_ERROR, "The stop of an EMP was not completed.");
    }
    return nullptr;
}

void CBroker::StopEmp(const ExitEmpBlock* pExit) {
    EXIT_LOG(LEVEL_DETAIL, "==Enter ExitEmpProc==. ");
    if (pExit == nullptr || pExit->pBroker == nullptr) {
        EXIT_LOG(LEVEL_ERROR, "NULL Param for [ExitEmpProc].");
        return;
    }
    CBroker& broker = *pExit->pBroker;
    IProcesses& processes = *broker.m_Platform.pProcesses;
    const std::string& strEmp = pExit->strEmp;

    if (pExit->bGrouping) {
        EXIT_LOG(LEVEL_DETAIL, "Reset Grouping EMP Port.");
        broker.ConfirmGroupingEmpServer(strEmp, kGroupNotRunning);
    }

    const bool bSent = processes.Signal(pExit->process, SIGTERM);
    EXIT_LOG(LEVEL_ERROR, "### Emit SIGTERM to EMP:[%s] pid:[%d] ###", strEmp.c_str(),
             pExit->process.nPid);
    if (!bSent)
        EXIT_LOG(
            LEVEL_ERROR,
            "No signal was sent: [%d] is not known to be the process that reported as EMP:[%s].",
            pExit->process.nPid, strEmp.c_str());

    // While the process lives, its image is busy.
    if (bSent) (void)processes.AwaitEnd(pExit->process, kEmpExitWait);
    if (broker.GetEmpLocationType(strEmp) == EMPFILE_MOUNTED && !broker.UnmoutEMP(strEmp))
        EXIT_LOG(LEVEL_ERROR, "Umount EMP:[%s] failed.", strEmp.c_str());

    EXIT_LOG(LEVEL_DETAIL, "==Leave ExitEmpProc==. ");
}

}  // namespace vok
