/// Looks for what keeps a broker from serving, or an EMP from opening.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "ctl/Format.h"

namespace vok::ctl {

enum class eFinding { Ok, Warning, Problem };

/// What came of one check.
struct Finding {
    eFinding level = eFinding::Ok;
    std::string strCheck;
    std::string strText;
    std::string strCure = {};  // what to do about it; empty when there is nothing to do
};
using Findings = std::vector<Finding>;

/// Who holds the broker's port.
struct PortLook {
    enum eHolder { Free, Broker, Other, Silent, Connection } holder = Free;
    std::string strVersion = {};  // of a broker
};

/// Who serves the admin socket.
struct AdminLook {
    enum eState { Missing, Refused, Forbidden, Served, Silent, NoSocket } state = Missing;
    int nPid = 0;  // of the broker; 0: not known
};

/// What the checks look at. A test replaces any of it.
struct Patient {
    std::string strRoot;  // stands before every path; "" is the machine's own
    uid_t nOwner = 0;     // as whom the broker runs: its folders are to belong to nobody else
    std::function<bool()> loopbackUp;
    std::function<PortLook()> port;
    std::function<AdminLook()> admin;
    std::string strKernelRelease;
};

/// The machine itself. The broker, if there is one, gets so long for each answer.
Patient ThisMachine(std::chrono::milliseconds patience);

/// All checks, in the order in which they are to be read.
Findings Examine(const Patient& patient);

/// A line each.
std::string DoctorReport(const Findings& findings, const Style& style);
bool HasProblem(const Findings& findings);

// ---- The parts of Examine, which see the looks at port and admin socket
// ----------------------------

struct Looks {
    PortLook port;
    AdminLook admin;
    std::string strStarting;  // id of a broker's process, though none serves; empty: none
    bool HasBroker() const { return port.holder == PortLook::Broker; }
    /// Somebody holds the port, or the socket, and says nothing: it may be a broker that is busy.
    bool MayHaveBroker() const {
        return HasBroker() || port.holder == PortLook::Silent || admin.state == AdminLook::Served ||
               admin.state == AdminLook::Silent;
    }
};

void CheckSystem(const Patient& patient, const Looks& looks, Findings& findings);
void CheckBroker(const Patient& patient, const Looks& looks, Findings& findings);
void CheckFiles(const Patient& patient, const Looks& looks, Findings& findings);

/// A small file whole; empty when it cannot be read.
std::string ReadSmallFile(const std::string& strPath);

/// Whether something is there: only root may know, or look into it, when it, or a folder on the way
/// to it, is closed to others.
enum class ePresence { Missing, There, OnlyRootMayLook };
ePresence LookFor(const std::string& strPath);

}  // namespace vok::ctl
