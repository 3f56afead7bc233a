// The contract between the broker and its peers.
//
// Everything travels in the binary protocol over buffered sockets on the loopback interface; no
// peer is trusted to send a well-formed text. Every number that a text carries is decimal.

namespace cpp vok
namespace py vokrpc

// One connection of one client to one EMP.
struct ConnectionInfo {
  1: string empName
  2: string clientPort  // port or socket path of the client's callback server
  3: string empPort     // port or socket path of the EMP's server; "-1" or empty: the open failed
  4: i32 serial         // of the start ticket that served the open
  5: string ip          // address of the EMP's server
}

// The kind of EMP that a client leaves.
enum EmpType {
  PROCESS = 0
  GROUPING = 1
  REGISTER = 2
}

// Parameters of a call that takes more of them than Execute; passed through unread.
struct ParamList {
  1: list<string> params
}

// Served by the broker, on 127.0.0.1:50000.
service VokBroker {
  ConnectionInfo OpenEmp(1: string clientPort, 2: string empName, 3: string empVersion, 4: string appInfo)

  // `cmd` is the command word; the meaning of the others depends on it.
  string Execute(1: string arg1, 2: string cmd, 3: string arg3, 4: string arg4, 5: string arg5, 6: string arg6)

  bool CloseEmp(1: ConnectionInfo info)
}

// Served by every EMP.
service VokEmp {
  i32 Open(1: string clientID, 2: string name, 3: string version, 4: string credential)

  // Answers how many clients the EMP still serves after this one left.
  i32 Close(1: string clientID, 2: EmpType type)

  string Execute(1: string clientID, 2: string cmd, 3: string arg3, 4: string arg4, 5: string arg5, 6: string arg6)

  string ExecuteWithParamList(1: string clientID, 2: string cmd, 3: ParamList params)
}

// Served by a launcher: a grouping process, or a register launcher.
service VOKEmpLauncher {
  // Non-zero when the launcher took the request. The EMP reports to the broker with the serial.
  i32 Open(1: string name, 2: i32 ticketSerial, 3: string cbSrvPath)
}

// Served by a client, for events.
service VokEmpEvent {
  void Callback(1: i32 evtType, 2: string arg1, 3: string arg2)
}
