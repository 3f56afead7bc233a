// The daemon: into the background, and serve until SIGTERM.
#include <fcntl.h>
#include <malloc.h>
#include <thrift/Thrift.h>
#include <unistd.h>

#include <csignal>

#include "broker/Globals.h"
#include "broker/StopSignal.h"
#include "broker/vok.h"
#include "platform/Descriptors.h"
#include "platform/Log.h"
#include "platform/Process.h"

namespace {

void LogRpcLibrary(const char* szMessage) {
    VOK_LOG_AS("RpcLibrary", vok::LEVEL_DETAIL, "%s", szMessage);
}

/// A library's socket that became standard output would be written to, by us and by every EMP.
void FillStandardDescriptors() {
    int nFd = 0;
    do {
        nFd = ::open("/dev/null", O_RDWR);  // EMPs shall inherit it: not close-on-exec
    } while (nFd >= 0 && nFd <= STDERR_FILENO);
    if (nFd > STDERR_FILENO) (void)::close(nFd);
}

/// The C library would give the first threads a heap of their own each, which costs pages that are
/// never given back. Threads that allocate three times in a call do not get into each other's way.
void UseOneHeap() {
    (void)::mallopt(M_ARENA_MAX, 1);
}

}  // namespace

int main() {
    // From before the fork until there is a broker to stop, a stop signal is kept pending: whenever
    // it comes, it is not lost and it never kills.
    vok::HoldStopSignal();
    const pid_t nPid = ::fork();
    if (nPid < 0) ::_exit(1);
    if (nPid > 0) ::_exit(0);

    vok::InstallStopHandler();
    vok::g_pfnBrokerCreated = &vok::AdmitStopSignal;
    UseOneHeap();
    // A peer, or a log, that is gone is told by an error of the call.
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGCHLD, SIG_DFL);  // ignored, EMPs would be reaped by nobody
    vok::RememberSignalActions();
    FillStandardDescriptors();
    apache::thrift::GlobalOutput.setOutputFunction(&LogRpcLibrary);
    vok::RaiseDescriptorLimit();

    (void)vok_BrokerStart();
    return 1;
}
