// What always holds, whatever the broker's peers do.
#include <boost/locale/encoding_utf.hpp>

#include <algorithm>

#include "platform/Limits.h"
#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"
#include "tests/support/BrokerLocks.h"
#include "tests/support/BrokerProbe.h"

namespace vok::test {
namespace {

/// An open adds a record, a connection and a mount count; no other call adds more entries.
constexpr std::size_t kEntriesPerCall = 3;

bool IsUtf8(const std::string& strText) {
    try {
        (void)boost::locale::conv::utf_to_utf<char32_t>(strText, boost::locale::conv::stop);
        return true;
    } catch (const boost::locale::conv::conversion_error&) {
        return false;
    }
}

void RequireTexts(const std::vector<std::string>& texts) {
    for (const std::string& strText : texts) Require(IsUtf8(strText), "a state is told in UTF-8");
}

void RequireCounted(std::int64_t nBefore, std::int64_t nNow) {
    Require(nBefore <= nNow, "a counter never goes back");
}

}  // namespace

/// Inside of other calls, opens are under way, so that only what they keep to is looked at.
void CStage::Check() {
    TakeEveryLock(m_Broker);  // blocks for ever when one is held
    CheckState();
    CheckTables();
    CheckTickets();
}

void CStage::CheckTables() {
    std::size_t nEntries = 0;
    for (const auto& [strEmp, info] : BrokerProbe::EmpInfo(m_Broker).GetEmpInfo()) {
        const EMP_STATUS eStatus = info.GetStatus();
        Require(m_nDepth > 0 || (eStatus != EMP_ADDED && eStatus != EMP_PENDING),
                "no record waits for an open that has ended");
        ++nEntries;
    }
    for (const auto& [key, data] : BrokerProbe::ConnectionDB(m_Broker).GetConnectionDB()) {
        Require(data.m_nPendingCount >= 0, "no EMP misses less than no ping");
        ++nEntries;
    }
    for (const auto& [strImage, nCount] : BrokerProbe::MountCounts(m_Broker)) {
        // A close lowers the count of an open that is under way; when that one fails, once more.
        Require(nCount >= -m_Counters.failures, "closes never lower a count below zero");
        ++nEntries;
    }
    nEntries += BrokerProbe::Groups(m_Broker).size() + BrokerProbe::Launchers(m_Broker).size();
    if (m_nAtFirst == 0) m_nAtFirst = nEntries;
    Require(nEntries <= m_nAtFirst + m_nCalls * kEntriesPerCall, "tables grow with calls only");
}

void CStage::CheckTickets() {
    const TicketMap mapTicket = BrokerProbe::Tickets(m_Broker);
    Require(mapTicket.size() <= m_setWaiting.size() + m_nCalls, "a call leaves one ticket at most");
    Require(mapTicket.size() <= kMaxTickets, "tickets are pruned");
    for (const unsigned int nSerial : m_setWaiting)
        Require(mapTicket.count(nSerial) != 0, "a ticket stays until its open has ended");
    for (const auto& [nSerial, spTicket] : mapTicket) {
        if (!spTicket || m_nDepth > 0 || m_setWaiting.count(nSerial) != 0) continue;
        Require(!spTicket->m_bAwaitsReport && !spTicket->m_bInProgress,
                "no ticket waits for an open that has ended");
    }
}

void CStage::CheckState() {
    admin::BrokerState state;
    m_Broker.GetState(state);
    for (const auto& emp : state.emps) RequireTexts({emp.name, emp.option});
    for (const auto& connection : state.connections) {
        RequireTexts({connection.empName, connection.empPort});
        RequireTexts(connection.clientPorts);
        Require(connection.clientAgesMs.size() == connection.clientPorts.size(),
                "each client has its age");
    }
    for (const auto& mount : state.mounts) RequireTexts({mount.image});
    for (const auto* pTable : {&state.launchers, &state.groups}) {
        for (const auto& launcher : *pTable) {
            RequireTexts({launcher.name, launcher.port});
            RequireTexts(launcher.emps);
        }
    }
    Require(m_nDepth > 0 || state.waitingTickets.size() == m_setWaiting.size(),
            "nobody waits for a report after the answer");

    const admin::Counters& now = state.counters;
    RequireCounted(m_Counters.opens, now.opens);
    RequireCounted(m_Counters.reuses, now.reuses);
    RequireCounted(m_Counters.refusals, now.refusals);
    RequireCounted(m_Counters.failures, now.failures);
    RequireCounted(m_Counters.closes, now.closes);
    RequireCounted(m_Counters.sweeps, now.sweeps);
    Require(now.reuses + now.refusals + now.failures <= now.opens, "every open ends in one way");
    m_Counters = now;
    CheckOpens(now.opens);
}

void CStage::CheckOpens(std::int64_t nOpens) {
    std::vector<admin::OpenTimes> opens;
    m_Broker.GetOpens(opens);
    Require(opens.size() <= kKeptOpens, "so many opens are remembered");
    const auto nEnded = static_cast<std::int64_t>(opens.size());
    Require(m_nDepth > 0 || nEnded == std::min<std::int64_t>(nOpens, kKeptOpens),
            "every open is remembered");
    for (const admin::OpenTimes& open : opens) {
        RequireTexts({open.empName, open.clientPort});
        std::int64_t nLast = 0;
        for (const std::int64_t nTime :
             {open.locatedUs, open.mountedUs, open.startedUs, open.reportedUs, open.answeredUs}) {
            Require(nTime == -1 || nTime >= nLast, "the times of an open never go back");
            nLast = std::max(nLast, nTime);
        }
        Require(open.answeredUs >= 0 && open.agoMs >= open.answeredUs / 1000,
                "an open that is remembered has been answered");
        Require(open.outcome >= 0 && open.outcome <= 3, "an open ends in one of four ways");
        Require(open.outcome < 2 || open.serial > 0, "who is connected had a ticket");
    }
}

void CStage::CheckWhereabouts(const admin::Whereabouts& whereabouts) {
    RequireTexts({whereabouts.empName, whereabouts.option, whereabouts.mount.image,
                  whereabouts.mountPoint, whereabouts.mountSource, whereabouts.fileSystem});
    for (const admin::FileState& file : whereabouts.files) RequireTexts({file.path, file.role});
    for (const auto* pTable : {&whereabouts.launchers, &whereabouts.groups,
                               &whereabouts.ownLaunchers, &whereabouts.ownGroups}) {
        for (const auto& launcher : *pTable) {
            RequireTexts({launcher.name, launcher.port});
            RequireTexts(launcher.emps);
        }
    }
    for (const admin::ServerState& server : whereabouts.servers) {
        RequireTexts({server.port, server.program});
        RequireTexts(server.clientPorts);
        Require(server.clientAgesMs.size() == server.clientPorts.size(), "each client has its age");
    }
}

}  // namespace vok::test
