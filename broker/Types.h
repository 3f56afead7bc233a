/// Values and records that the broker's operations share.
#pragma once

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Platform.h"
#include "registry/Ticket.h"

namespace vok {

class CBroker;

/// Where an EMP lives.
enum eEmpLocation : int {
    EMPLOCATION_UNKNOWN = 0,
    EMPLOCATION_BROKER = 1,    // where GetEmpIP sends what it does not know; never found
    EMPLOCATION_EXTERNAL = 2,  // files of its own: a process of its own
    EMPLOCATION_INTERNAL = 3,  // told apart by GetEmpIP only; never found
    EMPLOCATION_GROUPING = 4,  // inside a grouping process
    EMPLOCATION_REGISTER = 5,  // served by a register launcher
};

/// Whose address GetProcessIP is asked for.
enum eProcessType : int {
    PROCESSTYPE_BROKER = 0,
    PROCESSTYPE_CLIENT = 1,
};

/// Which file of an EMP decides how it is started (GetEmpLocationType).
enum eEmpFile : int {
    EMPFILE_NONE = 0,
    EMPFILE_MOUNTED = 1,       // the program inside the mounted image
    EMPFILE_IMAGE = 2,         // the image, not mounted
    EMPFILE_PREINSTALLED = 3,  // the program that came with the set
};

/// What UpdateLauncherInfo is to do.
enum LauOption_E : int {
    LAU_OPTION_UNREGISTER = 0,
    LAU_OPTION_REGISTER = 1,
};

/// Option codes of EMPs: whether a running server is shared.
inline constexpr char kOptionSingleton[] = "0001";
inline constexpr char kOptionNotSingleton[] = "0002";
inline constexpr char kOptionOneConnection[] = "0003";

/// The port of a grouping process that does not run.
inline constexpr char kGroupNotRunning[] = "N/A";

/// What a start needs to know. Filled by the opener, who owns it; `StartEmp` copies what outlives
/// the call.
struct ForkEmpParams {
    const char* ARGV_path = nullptr;
    char ARGV_empName[48] = {};
    char ARGV_groupingEmpName[48] = {};  // grouping EMPs only
    int ARGV_ticketSerial = 0;
    int ARGV_reserved = 0;
    std::string CbSrvPort;
    boost::shared_ptr<Ticket> spTicket;  // told the pid of the forked process; may be null
};

/// A request to stop an EMP. Owned and freed by the thread that carries it out.
struct ExitEmpBlock {
    std::string strEmp;  // the EMP, or the grouping process
    std::string strPort;
    bool bGrouping = false;
    ProcessId process;
    CBroker* pBroker = nullptr;
    std::shared_ptr<void> spBrokerInUse;  // the broker is not destroyed before this goes
};

/// A failed open, on its way to the log server. Owned and freed by the thread that reports it.
struct FaultReport {
    std::string strErrType;
    std::string strEmp;
    std::string strEmpVersion;
    std::string strBrokerVersion;
    Platform platform;
    std::shared_ptr<void> spBrokerInUse;  // the platform may end with the broker
};

/// What has happened since the broker was made.
struct BrokerCounters {
    std::atomic<std::int64_t> nOpens{0};     // requests
    std::atomic<std::int64_t> nReuses{0};    // connected to a server that ran already
    std::atomic<std::int64_t> nRefusals{0};  // answered without a start
    std::atomic<std::int64_t> nFailures{0};  // a start that was undone
    std::atomic<std::int64_t> nCloses{0};    // requests
    std::atomic<std::int64_t> nSweeps{0};    // for clients that no longer answer
};

}  // namespace vok
