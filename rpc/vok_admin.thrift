// What those who look after a set may ask of its broker, over the Unix domain socket
// /run/vok-broker/admin.sock, which only root reaches.

namespace cpp vok.admin
namespace py vokadmin

// A known EMP.
struct EmpState {
  1: string name
  2: i32 status    // 1 added, 2 opened, 3 closed (its start has failed)
  3: string option // "0000" none reported, "0001" singleton, "0002" not, "0003" one connection only
  4: i32 pid       // of its server; 0: not known
  5: i32 location  // 0 unknown, 2 files of its own, 4 grouping process, 5 register launcher
}

// A running EMP server and its clients.
struct ConnectionState {
  1: string empName
  2: string empPort
  3: list<string> clientPorts
  4: i32 pendingCount // pings in a row that were not answered
  5: list<i64> clientAgesMs // how long each of clientPorts has been connected, in their order
}

// An image that opens have been counted for.
struct MountState {
  1: string image // name of the EMP, or of the grouping process
  2: i32 count    // opens that rely on it
  3: bool mounted
}

// A register launcher, or a grouping process.
struct LauncherState {
  1: string name
  2: string port       // "N/A": a grouping process that does not run
  3: list<string> emps
}

// Since the broker was made.
struct Counters {
  1: i64 opens    // requests; what is neither refused nor failed has been connected, or is under way
  2: i64 reuses   // connected to a server that ran already
  3: i64 refusals // answered "no" without a start
  4: i64 failures // a start that failed and was undone
  5: i64 closes   // close requests, those of sweeps included
  6: i64 sweeps   // for clients that no longer answer
}

// Each table as it was at one moment; what happens between two of them may show in one only.
struct BrokerState {
  1: string version
  2: i64 uptimeMs
  3: i32 debugLevel
  4: bool pingEnabled
  5: list<EmpState> emps
  6: list<ConnectionState> connections
  7: list<MountState> mounts
  8: list<LauncherState> launchers
  9: list<LauncherState> groups
  10: list<i64> waitingTickets // serials of opens that wait for their EMP's report
  11: Counters counters
  12: i32 pid // of the process that the broker runs in
}

// An open that has ended, and where its time went. The times, in microseconds, count from its begin and
// never go back; -1: it did not come to that.
struct OpenTimes {
  1: i64 serial      // its ticket's; -1: refused before it got one
  2: string empName    // its first 63 bytes
  3: string clientPort // its first 127 bytes
  4: i32 location    // as in EmpState
  5: i32 outcome     // 0 refused, 1 failed, 2 connected to a server that ran, 3 its server was started
  6: i64 agoMs       // since it began
  7: i64 locatedUs   // its place is known, other opens of it have been waited for, and a server must
                     // start; -1, too, when it was connected to a server that ran and was not waited for
  8: i64 mountedUs   // its image is mounted (only where this open mounted one)
  9: i64 startedUs   // the start is under way: in the hands of the thread that forks, or of the launcher
  10: i64 reportedUs // the EMP has reported its port. With outcome 2: somebody else's open was starting
                     // its server, and has been waited for, from locatedUs on
  11: i64 answeredUs // the answer is ready, whatever it says; a failure has been undone by then
}

// A file that decides where an EMP lives, or is needed for its start.
struct FileState {
  1: string path
  2: string role  // "image", "preinstalled program", "downloaded program" (what an image has when it is
                  // mounted), "configuration" (which the broker reads when it starts)
  3: bool exists
}

// A process that serves an EMP.
struct ServerState {
  1: string port
  2: i32 pid          // that it has reported; 0: not known
  3: string program   // what the kernel says it runs (/proc/PID/exe); empty: not known, or it has ended
  4: list<string> clientPorts
  5: list<i64> clientAgesMs
}

// Where an EMP lives, and why. Each table and file as it was at one moment, one after the other.
struct Whereabouts {
  1: string empName
  2: i32 location                    // what an open would find, as in EmpState
  3: list<FileState> files           // in the order in which an open looks at them: the EMP's, then those
                                     // of the grouping process that hosts it; none for a name that is no
                                     // file name. Configurations come last.
  4: list<LauncherState> launchers   // the register launchers that list it
  5: list<LauncherState> groups      // the grouping processes that list it
  6: i32 status                      // as in EmpState; 0: not known
  7: string option
  8: list<ServerState> servers
  9: MountState mount                // of its image, or its group's; count 0 and not mounted: none
  10: string mountPoint              // empty: it has no image
  11: string mountSource             // what the kernel has mounted there (device or image), empty: nothing
  12: string fileSystem              // squashfs, ext4, ...; empty: nothing
  13: i32 mounts                     // on the mount point, one over the other; the two above are the topmost
  14: list<LauncherState> ownGroups    // the grouping processes that have this name themselves
  15: list<LauncherState> ownLaunchers // the register launchers that have it
}

// What was asked makes no sense.
exception BadRequest {
  1: string message
}

service VokBrokerAdmin {
  // Sets the level of the broker's log, 0 to 65535, and passes it on to everybody who is connected.
  void SetDebugLevel(1: i32 level) throws (1: BadRequest error)

  // Switches the pinging of EMPs on and off.
  void EnablePing(1: bool enable)

  // Closes the connections of clients that no longer answer; answers how many.
  i32 SweepZombies()

  // Closes every connection of an application; answers how many.
  i32 CloseAll(1: string appId, 2: string widgetId) throws (1: BadRequest error)

  BrokerState GetState()

  // Where an EMP lives, why, and what serves it now. For any name, known or not, but the empty one.
  Whereabouts Where(1: string empName) throws (1: BadRequest error)

  // The last 256 opens that have ended, the newest first, by when they ended.
  list<OpenTimes> GetOpens()
}
