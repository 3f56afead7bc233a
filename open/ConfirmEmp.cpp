// An EMP's report wakes its opener; a status that is about to change is waited out.
#include <boost/lexical_cast.hpp>

#include <utility>

#include "broker/CBroker.h"
#include "platform/Limits.h"
#include "platform/Log.h"
#include "platform/Number.h"

namespace vok {

namespace {

/// "port|pid". Without a '|' both texts are the whole.
struct Report {
    explicit Report(const std::string& strPortAndPid)
        : strPort(strPortAndPid.substr(0, strPortAndPid.find('|'))),
          // find's "not found" plus one is 0
          strPid(strPortAndPid.substr(strPortAndPid.find('|') + 1)) {}

    std::string strPort;
    std::string strPid;
};

}  // namespace

void CBroker::ConfirmEMPServer(const std::string& strTicketSerial, const std::string& strPortAndPid,
                               const std::string& strStatus, std::string strOption) {
    VOK_LOG(LEVEL_DETAIL,
            "ticketSerial:[%s], EmpServer Path:[%s], EmpServerStatus:[%s], EmpOption:[%s].",
            strTicketSerial.c_str(), strPortAndPid.c_str(), strStatus.c_str(), strOption.c_str());
    Report report{strPortAndPid};
    const auto nSerial = boost::lexical_cast<unsigned int>(strTicketSerial);
    VOK_LOG(LEVEL_DETAIL, "Notify the TicketSerial:[%d] to break waiting.", nSerial);

    // The process is recognised now, while it is certainly the one that reports.
    const ProcessId process = m_Platform.pProcesses->Identify(LeadingNumber(report.strPid));

    const CLock lock{m_mtxTicket};
    boost::shared_ptr<Ticket> spTicket = FindWaitingTicket(m_mapTicket, strTicketSerial, process);
    if (!spTicket) {
        // An unknown serial leaves an empty entry behind.
        spTicket = m_mapTicket[nSerial];
        PruneTickets(m_mapTicket, kMaxTickets);
    }
    if (!spTicket) {
        VOK_LOG(LEVEL_ERROR, "ticket isn't valid. port:[%s]. Broker do not wake condition up",
                report.strPort.c_str());
        return;
    }

    const int nPid = boost::lexical_cast<int>(report.strPid);
    // From here on nothing fails: a ticket is filled and its opener woken, or neither.
    spTicket->m_nPid = nPid;
    spTicket->m_strPort = std::move(report.strPort);
    spTicket->m_strOption = std::move(strOption);
    spTicket->m_Process = process;

    // The opener is woken either way, and judges by option and pid.
    if (strStatus == "__SERVER_SUCCESS_TO_RUN")
        VOK_LOG(LEVEL_DETAIL, "The Emp server has been started with Path [%s], pid[%d]",
                spTicket->m_strPort.c_str(), spTicket->m_nPid);
    else
        VOK_LOG(LEVEL_ERROR, "The server has been run fail [%s]", spTicket->m_strPort.c_str());

    // Tickets are announced before they enter the table, so this ends at once.
    while (!spTicket->m_Condition.GetWaitingStatus()) m_Platform.pClock->Sleep(kWaiterPoll);
    if (const int rc = spTicket->m_Condition.NotifyOne(); rc != 0)
        VOK_LOG(LEVEL_ERROR, "An error occured during notifing . rc : [%d]", rc);
    spTicket->m_bAnswered = true;
}

#define CHECK_LOG(level, ...) VOK_LOG_AS("CheckStatus", level, __VA_ARGS__)

bool CBroker::CheckStatus(std::string strEmp) {
    return AwaitSettledStatus(strEmp, m_EmpInfo.StatusOf(strEmp));
}

bool CBroker::AwaitSettledStatus(const std::string& strEmp, EMP_STATUS eStatus) {
    for (int i = 0;; ++i, eStatus = m_EmpInfo.StatusOf(strEmp)) {
        if (eStatus < EMP_ADDED || eStatus > EMP_RESERVED6) {
            CHECK_LOG(LEVEL_ERROR, "[%s]'s status is EMP_NOT_FOUND - return error", strEmp.c_str());
            return false;
        }
        const bool bTransitional = IsTransitional(eStatus);
        if (bTransitional) m_Platform.pClock->Sleep(kStatusPoll);
        if (i % kStatusLogEvery == 0)
            CHECK_LOG(LEVEL_DETAIL, "[%s] Wait for status[%d] change", strEmp.c_str(), eStatus);
        // Before the next test: a status that settles in this very pass comes too late.
        if (i == kStatusPasses) {
            CHECK_LOG(LEVEL_ERROR, "[%s]'s status[%d] is not changing change", strEmp.c_str(),
                      eStatus);
            return false;
        }
        if (!bTransitional) return true;
    }
}

}  // namespace vok
