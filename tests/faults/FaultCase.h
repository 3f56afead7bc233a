/// Which faults are tried where, and what the broker makes of each.
#pragma once

#include <string>
#include <vector>

namespace vok::test {

enum class eOperation { Open, Close };

/// How the EMP comes to life when it is opened.
enum class eKind {
    Process,   // a preinstalled program
    Image,     // a program in an image
    Group,     // in a grouping process that does not run yet
    Hosted,    // in a grouping process that runs already
    Register,  // by a register launcher
};

/// Where the broker depends on others.
enum class eStep {
    Mount,      // the image is mounted
    Program,    // the program is executed
    Start,      // it runs, and the broker waits for its report
    Connect,    // the broker connects to it
    Launcher,   // the broker has asked it to open the EMP
    Report,     // it is sending its report
    Close,      // the broker has told the EMP that the client leaves
    Resources,  // what the broker itself needs
};

enum class eFault {
    Killed,
    Stopped,
    Garbage,
    Closes,
    Silent,
    MountFails,
    Truncated,
    NoImage,
    Empty,
    Missing,
    NotExecutable,
    Foreign,
    Script,
    NoThreads,
    NoForks,
    NoDescriptors,
    FullLogDisk,
};

struct FaultCase {
    eOperation operation = eOperation::Open;
    eKind kind = eKind::Process;
    eStep step = eStep::Mount;
    eFault fault = eFault::Killed;
    int nNumber = 0;      // its row in the table
    bool bShort = false;  // one of each fault at each step

    bool IsOpen() const { return operation == eOperation::Open; }
    /// "Open_Process_Report_Killed"
    std::string Name() const;
    /// The first cells of its row.
    std::string Row() const;
};

/// Every combination that makes sense, in the order of the table.
std::vector<FaultCase> AllFaultCases();

/// Why a combination is left out; nullptr: it is tried.
const char* WhyLeftOut(const FaultCase& fault);

/// The rows of a table of what is left out: operation, step, kinds, faults, reason. Faults of other
/// steps are not mentioned.
std::vector<std::string> LeftOutRows();

enum class eWhen {
    AtOnce,
    TenSeconds,  // that the report is awaited
    GoesOn,      // when the peer is continued
    Ends,        // when the peer is killed
};
const char* Text(eWhen when);

/// What has to come of a case.
struct FaultPlan {
    bool bSuccess = false;  // connected; closed
    eWhen when = eWhen::AtOnce;
    bool bUnknown = false;       // the EMP is not even found
    int nPeers = 0;              // processes that still run after the answer
    int nForked = 0;             // those of them that the broker waits for, on a thread each
    int nHeld = 0;               // connections that the peer keeps open, a thread each
    bool bMounted = false;       // the image, after the answer
    bool bStaysMounted = false;  // also after the peer's end
    int nCount = -1;             // opens that the image is counted for; -1: not counted
    bool bGroupRuns = false;     // the broker knows a port of the group
};
FaultPlan PlanOf(const FaultCase& fault);

}  // namespace vok::test
