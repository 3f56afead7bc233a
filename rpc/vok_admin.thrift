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
}
