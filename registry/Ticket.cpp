#include "registry/Ticket.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "platform/Log.h"

namespace vok {
namespace {

/// How many characters of its serial an EMP is handed.
constexpr std::size_t kHandedSerial = 5;

unsigned int IssueSerial() {
    if (!Ticket::m_pTicketScopedMutex) return ++Ticket::m_nCurSerial;
    const CLock lock{*Ticket::m_pTicketScopedMutex};
    return ++Ticket::m_nCurSerial;
}

bool AwaitsReport(const boost::shared_ptr<Ticket>& pTicket) {
    return pTicket && pTicket->m_bAwaitsReport;
}

/// The number that a cut serial spells; 0 when the text cannot be the beginning of a longer serial.
unsigned int CutSerial(const std::string& strSerial) {
    if (strSerial.size() != kHandedSerial || strSerial.front() == '0') return 0;
    unsigned int nSerial = 0;
    for (const char c : strSerial) {
        if (c < '0' || c > '9') return 0;
        nSerial = nSerial * 10 + static_cast<unsigned int>(c - '0');
    }
    return nSerial;
}

/// True when the reporter is a child of ours that was not forked for this ticket: it reports late,
/// for an open that has given up.
bool IsForAnother(const Ticket& ticket, const ProcessId& reporter) {
    const pid_t nForkedPid = ticket.m_nForkedPid;
    return nForkedPid != 0 && nForkedPid != reporter.nPid && reporter.nParentPid == ::getpid();
}

}  // namespace

unsigned int Ticket::m_nCurSerial = 1;
CMutex* Ticket::m_pTicketScopedMutex = nullptr;

Ticket::Ticket(std::string strName) : m_nSerial(IssueSerial()), m_strName(std::move(strName)) {
    VOK_CLASS_LOG("Ticket", LEVEL_DETAIL, "Ticket issued m_nSerial:[%d]",
                  static_cast<int>(m_nSerial));
}

void PruneTickets(TicketMap& mapTicket, std::size_t nMost) {
    // Serials that were never issued sort last, and would otherwise push out all that were.
    while (mapTicket.size() > nMost && !mapTicket.rbegin()->second)
        mapTicket.erase(std::prev(mapTicket.end()));
    auto it = mapTicket.begin();
    while (mapTicket.size() > nMost && it != mapTicket.end()) {
        const bool bStays = it->second && it->second->m_bInProgress;
        it = bStays ? std::next(it) : mapTicket.erase(it);
    }
}

boost::shared_ptr<Ticket> FindWaitingTicket(const TicketMap& mapTicket,
                                            const std::string& strSerial,
                                            const ProcessId& reporter) {
    const unsigned int nCut = CutSerial(strSerial);
    if (nCut == 0) return nullptr;
    const auto itExact = mapTicket.find(nCut);
    if (itExact != mapTicket.end() && AwaitsReport(itExact->second)) return nullptr;

    boost::shared_ptr<Ticket> pOnly;
    boost::shared_ptr<Ticket> pForked;
    int nWaiting = 0;
    // The serials with one more digit, with two more and so on: [12345'0, 12345'9], ...
    constexpr unsigned long long kLargest = std::numeric_limits<unsigned int>::max();
    for (unsigned long long nScale = 10; nCut * nScale <= kLargest; nScale *= 10) {
        const auto nFirst = static_cast<unsigned int>(nCut * nScale);
        const auto nLast =
            static_cast<unsigned int>(std::min(nCut * nScale + nScale - 1, kLargest));
        for (auto it = mapTicket.lower_bound(nFirst); it != mapTicket.end() && it->first <= nLast;
             ++it) {
            if (!AwaitsReport(it->second)) continue;
            ++nWaiting;
            pOnly = it->second;
            if (reporter.nPid > 0 && it->second->m_nForkedPid == reporter.nPid)
                pForked = it->second;
        }
    }
    return nWaiting == 1 && !IsForAnother(*pOnly, reporter) ? pOnly : pForked;
}

}  // namespace vok
