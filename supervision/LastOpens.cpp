// The opens that ended last, for those who look after the set.
#include "broker/CBroker.h"
#include "supervision/StateText.h"
#include "vok_admin_types.h"

namespace vok {

namespace {

std::int64_t MicrosecondsTo(OpenTrace::Moment moment, OpenTrace::Moment begin) {
    if (moment == OpenTrace::Moment::zero()) return -1;
    return std::chrono::duration_cast<std::chrono::microseconds>(moment - begin).count();
}

void Describe(const OpenRecord& record, OpenTrace::Moment now, admin::OpenTimes& times) {
    const OpenTrace& trace = record.trace;
    times.serial = trace.nSerial;
    times.empName = Text(record.emp.Get());
    times.clientPort = Text(record.clientPort.Get());
    times.location = trace.location;
    times.outcome = trace.eOutcome;
    times.agoMs = std::chrono::duration_cast<std::chrono::milliseconds>(now - trace.begin).count();
    times.locatedUs = MicrosecondsTo(trace.located, trace.begin);
    times.mountedUs = MicrosecondsTo(trace.mounted, trace.begin);
    times.startedUs = MicrosecondsTo(trace.started, trace.begin);
    times.reportedUs = MicrosecondsTo(trace.reported, trace.begin);
    times.answeredUs = MicrosecondsTo(trace.answered, trace.begin);
}

}  // namespace

void CBroker::GetOpens(std::vector<admin::OpenTimes>& opens) {
    std::vector<OpenRecord> records;
    records.reserve(kKeptOpens);  // not under the lock, for which opens wait
    {
        const CLock lock{m_mtxTicket};
        m_OpenHistory.CopyNewestFirst(records);
    }
    const OpenTrace::Moment now = OpenTrace::Now();
    opens.clear();
    opens.reserve(records.size());
    for (const OpenRecord& record : records) Describe(record, now, opens.emplace_back());
}

}  // namespace vok
