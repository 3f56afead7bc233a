/// Where an opener and the report of the EMP that it starts meet.
#pragma once

#include <boost/shared_ptr.hpp>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <string>

#include "platform/CMutex.h"
#include "platform/CVokCondition.h"
#include "platform/Process.h"

namespace vok {

/// One start of an EMP. The opener publishes it under its serial, hands the serial to the new
/// process and waits on the condition; the report fills the ticket and notifies.
///
/// The lock of the table that it is published in guards its fields, the condition and the atomic
/// excepted. Shared: a report may still use it after the opener has dropped it.
class Ticket {
public:
    /// Issues the next serial. Atomic once the broker has made `m_pTicketScopedMutex`; until then
    /// only one thread may make tickets.
    explicit Ticket(std::string strName);
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

    unsigned int GetSerial() const { return m_nSerial; }

    /// The serial issued last; wraps around like every unsigned number.
    static unsigned int m_nCurSerial;
    /// Guards `m_nCurSerial`. Made by the broker's constructor and never freed; null until then.
    static CMutex* m_pTicketScopedMutex;

    const unsigned int m_nSerial;
    int m_nPid = -1;          // as reported
    std::string m_strPort;    // as reported: a port or a socket path
    std::string m_strSpare;   // not written by the broker
    std::string m_strOption;  // as reported; empty when the report had none
    std::string m_strName;
    std::string m_strEmp;      // that it was used to start; empty: none, a server runs already
    bool m_bAnswered = false;  // a report has notified the opener
    CVokCondition m_Condition;

    /// The reported process, identified while it reported.
    ProcessId m_Process;
    /// The process that was forked for this ticket; 0 until there is one.
    std::atomic<pid_t> m_nForkedPid{0};
    /// An opener waits for the report.
    bool m_bAwaitsReport = false;
    /// True until the open that issued the ticket has ended.
    bool m_bInProgress = true;
};

/// Tickets by serial. A null entry is left by a report with an unknown serial.
using TicketMap = std::map<unsigned int, boost::shared_ptr<Ticket>>;

/// Erases entries until at most `nMost` are left: empty ones at the end of the table, then the
/// lowest serials. Tickets whose open is in progress always stay. The caller holds the table's
/// lock.
void PruneTickets(TicketMap& mapTicket, std::size_t nMost);

/// The ticket that a report with a cut serial belongs to. EMPs receive the first five characters of
/// their serial only, so five digits may stand for every longer serial that begins with them.
///
/// Null when the serial is meant as it stands (it is not cut, or its own ticket awaits a report)
/// and when no ticket matches: one that awaits a report and whose serial begins with these five
/// digits. Of several such, the one for which the reported process was forked; a single one not,
/// when the caller's process forked the reporter for something else. Changes nothing. The caller
/// holds the table's lock.
boost::shared_ptr<Ticket> FindWaitingTicket(const TicketMap& mapTicket,
                                            const std::string& strSerial,
                                            const ProcessId& reporter);

}  // namespace vok
