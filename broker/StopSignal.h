/// SIGTERM, which stops the daemon.
#pragma once

namespace vok {

/// Keeps SIGTERM pending in the calling thread and in all that it makes or forks.
void HoldStopSignal();

/// Lets it in again, in the calling thread alone.
void AdmitStopSignal();

/// Makes sigterm_handler the handler of SIGTERM.
void InstallStopHandler();

}  // namespace vok

/// Wakes the broker's main thread, which then stops the server and ends. Does nothing for other
/// signals and before there is a broker. Async-signal-safe.
extern "C" void sigterm_handler(int nSignal);
