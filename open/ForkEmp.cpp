// One thread for each EMP process: it starts the process and reaps it.
#include <cstring>
#include <memory>

#include "broker/CBroker.h"
#include "open/ExecImage.h"
#include "open/StartEmp.h"
#include "platform/Log.h"
#include "platform/ThreadMaker.h"

namespace vok {

namespace {

#define FORK_LOG(level, ...) VOK_LOG_AS("ForkEmp", level, __VA_ARGS__)

/// How much of a program's first line is looked at.
constexpr std::size_t kFirstLineBytes = 15;

void LogStart(const OwnedForkEmpParams& owned) {
    FORK_LOG(LEVEL_DETAIL, "[%s] , ARGV: [%s, %d, %d]", owned.params.ARGV_path,
             owned.params.ARGV_empName, owned.params.ARGV_ticketSerial, owned.params.ARGV_reserved);
}

void LogExecution(const ExecImage& image) {
    FORK_LOG(LEVEL_DETAIL,
             "execution : [%s] ARGV[0]:[%s] ARGV[1]:[%s] ARGV[2]:[%s] ARGV[3]:[%s] ARGV[4]:[%s] "
             "ARGV[5]:[%s] envp[%p] \n",
             image.szPath, image.argv[0], image.argv[1], image.argv[2], image.argv[3],
             image.argv[4], image.argv[5], static_cast<const void*>(image.envp));
}

/// Only binaries may run as EMPs. A program that cannot be read passes: execve will say why.
bool PassesScriptFilter(IFiles& files, const char* szPath) {
    const auto line = files.FirstLine(szPath, kFirstLineBytes);
    if (!line) VOK_LOG_AS("get_first_line", LEVEL_ERROR, "Failed to open file:[%s].", szPath);
    if (line && line->compare(0, 2, "#!") == 0) {
        FORK_LOG(LEVEL_ERROR, "[ERROR] Invalid EMP format:[%s]", line->c_str());
        return false;
    }
    FORK_LOG(LEVEL_DETAIL, "[PASSED] filtering script file.");
    return true;
}

void LogFailedExecution(const char* szPath, int nErrno) {
    char szBuffer[256] = {};
    const char* szText = strerror_r(nErrno, szBuffer, sizeof szBuffer);
    // The GNU variant answers with a text of its own and leaves the buffer alone.
    if (szText != szBuffer) CopyBounded(szBuffer, szText);
    constexpr int kError = 777;  // whatever it once told, readers of the log expect it
    FORK_LOG(LEVEL_ERROR, "execution:[%s] is fail,error[%d],errno[%d]-[%s]-[%s]", szPath, kError,
             nErrno, szBuffer, szText);
}

void LogEnd(pid_t nReaped, int nStatus) {
    FORK_LOG(LEVEL_DETAIL, "WAITPID returns : [%d].status : [%d], execve return :[%d] ", nReaped,
             nStatus, 0);
    FORK_LOG(LEVEL_DETAIL,
             "WIFEXITED : [%d] <- Non_zero is a normal termination. WEXITSTATUS : [%d]",
             (nStatus & 0x7f) == 0, (nStatus & 0xffff) >> 8);
}

void StartAndReap(OwnedForkEmpParams& owned) {
    IProcesses& processes = *owned.m_Platform.pProcesses;

    // All that allocates, reads or logs comes before the fork, whose child borrows our memory.
    ExecImage image;
    FillExecImage(image, owned.params,
                  owned.bHasLibraryPath ? owned.strLibraryPath.data() : nullptr);
    LogExecution(image);

    ExecRequest request;
    request.szPath = image.szPath;
    request.argv = image.argv;
    request.envp = image.envp;
    // A refused file costs a child that ends at once: whoever reads the trace finds the same lines
    // as for every other program that came to nothing.
    request.bExecute = PassesScriptFilter(*owned.m_Platform.pFiles, image.szPath);
    if (owned.params.spTicket) request.pPid = &owned.params.spTicket->m_nForkedPid;

    const ForkResult result = processes.ForkAndExec(request);
    if (result.nPid < 0) {
        FORK_LOG(LEVEL_ERROR, "fork error.");
        return;
    }
    if (result.nExecErrno != 0) LogFailedExecution(image.szPath, result.nExecErrno);

    // The EMP may run for months; its opener's ticket need not be kept for it.
    owned.params.spTicket.reset();
    int nStatus = 0;
    const pid_t nReaped = processes.AwaitChild(result.nPid, &nStatus);
    LogEnd(nReaped, nStatus);
}

}  // namespace

void* CBroker::ForkEmp(void* pParams) {
    const std::unique_ptr<OwnedForkEmpParams> pOwned{static_cast<OwnedForkEmpParams*>(pParams)};
    LogStart(*pOwned);
    ThreadMaker::NameThisThread("VOK-B-ForkEmp");
    try {
        StartAndReap(*pOwned);
    } catch (...) {
        // No EMP is worth the broker.
        FORK_LOG(LEVEL_ERROR, "The start of an EMP was not completed.");
    }
    return nullptr;
}

}  // namespace vok
