// What EMPs report when their server is up, against tickets of opens that wait.
//
// Input: lines, each a report: serial, port and pid, status, option. "@" is the serial of the open
// that is under way.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/support/CStage.h"
#include "tests/fuzz/support/Target.h"
#include "tests/support/BrokerProbe.h"

namespace vok::test {
namespace {

/// Serials that are reported as they are and cut to five characters, two of them to the same.
constexpr unsigned int kWaiting[] = {7, 99'999, 123'456, 123'457, 4'294'967'295};

std::vector<ScriptLine> AsReports(std::vector<ScriptLine> lines) {
    for (ScriptLine& line : lines) {
        // Only as a serial, "@" stands for something else.
        const std::string strPortAndPid = line.Text(1) == "@" ? "" : line.Text(1);
        line.texts = {"Execute",
                      "",
                      "__BROKER_CMD_NOTIFY_EMP_SERVER_INFO",
                      line.Text(0),
                      strPortAndPid,
                      line.Text(2),
                      line.Text(3)};
    }
    return lines;
}

bool IsReportedPort(const std::vector<ScriptLine>& reports, const std::string& strPort) {
    return std::any_of(reports.begin(), reports.end(), [&](const ScriptLine& report) {
        const std::string& strPortAndPid = report.Text(4);
        return strPortAndPid.substr(0, strPortAndPid.find('|')) == strPort;
    });
}

/// A ticket is filled and its opener woken, or neither.
void RequireWholeReports(CBroker& broker, const std::vector<ScriptLine>& reports) {
    const TicketMap mapTicket = BrokerProbe::Tickets(broker);
    for (const unsigned int nSerial : kWaiting) {
        const Ticket& ticket = *mapTicket.at(nSerial);
        const bool bNotified = mapTicket.at(nSerial)->m_Condition.Wait(1) == 0;
        Require(bNotified == ticket.m_bAnswered, "whose ticket is filled is woken");
        if (bNotified)
            Require(IsReportedPort(reports, ticket.m_strPort), "a ticket is filled by a report");
        else
            Require(ticket.m_strPort.empty() && ticket.m_nPid == -1, "others stay as they are");
    }
}

void ReportToWaiting(const std::vector<ScriptLine>& reports) {
    CStage stage;
    pid_t nForkedPid = 700'001;
    for (const unsigned int nSerial : kWaiting) stage.AddWaitingTicket(nSerial, nForkedPid++);
    stage.Perform(reports);
    RequireWholeReports(stage.Broker(), reports);
}

void ReportToOpener(const std::vector<ScriptLine>& reports) {
    CStage stage;
    stage.SetMeanwhile(reports);
    ConnectionInfo info;
    stage.Service()->OpenEmp(info, "50700", "Weather", "1.0", "App");
    if (info.empPort == kNoPort) return;
    Require(IsReportedPort(reports, info.empPort), "an open answers a port that was reported");
}

}  // namespace
}  // namespace vok::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    const auto reports =
        vok::test::AsReports(vok::test::ParseScript({reinterpret_cast<const char*>(pData), nSize}));
    vok::test::ReportToWaiting(reports);
    vok::test::ReportToOpener(reports);
    return 0;
}
