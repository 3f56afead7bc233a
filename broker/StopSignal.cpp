#include "broker/StopSignal.h"

#include <cerrno>
#include <csignal>

#include "broker/CBroker.h"
#include "broker/Globals.h"

namespace vok {

namespace {

void ChangeMask(int nHow) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    (void)pthread_sigmask(nHow, &set, nullptr);  // fails for a wrong `how` only
}

}  // namespace

void HoldStopSignal() {
    ChangeMask(SIG_BLOCK);
}

void AdmitStopSignal() {
    ChangeMask(SIG_UNBLOCK);
}

void InstallStopHandler() {
    struct sigaction action {};
    action.sa_handler = &sigterm_handler;
    action.sa_flags = SA_RESTART;  // what it interrupts goes on
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGTERM, &action, nullptr);  // fails for a wrong signal only
}

}  // namespace vok

void sigterm_handler(int nSignal) {
    if (nSignal != SIGTERM) return;
    vok::CBroker* const pBroker = g_pBroker;
    if (pBroker == nullptr) return;

    const int nErrno = errno;  // belongs to the code that was interrupted
    pBroker->RequestStop();
    errno = nErrno;
}
