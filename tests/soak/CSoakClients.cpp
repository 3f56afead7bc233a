#include "tests/soak/CSoakClients.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "platform/CUniqueFd.h"
#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {

namespace {

/// Beyond it, one more mistake says nothing new.
constexpr std::size_t kMostMistakes = 20;

/// Waits until the process has ended: an event, which needs no child.
bool AwaitEnd(const CUniqueFd& process) {
    pollfd event{process.Get(), POLLIN, 0};
    const auto nPatienceMs =
        static_cast<int>(std::chrono::milliseconds{CDaemon::kPatience}.count());
    int nReady = 0;
    do {
        nReady = ::poll(&event, 1, nPatienceMs);
    } while (nReady < 0 && errno == EINTR);
    return nReady > 0;
}

}  // namespace

// ---- What was done -----------------------------------------------------------------------------

void CSoakRecord::TakeOpen(int nSerial, bool bStart) {
    ++m_nOpens;
    if (bStart) ++m_nStarts;
    const bool bKnown = nSerial > 0 && static_cast<std::size_t>(nSerial) < m_Serials.size();
    Expect(bKnown && !m_Serials[static_cast<std::size_t>(nSerial)].exchange(true),
           "serial " + std::to_string(nSerial) + " again, or of no open");
}

void CSoakRecord::Expect(bool bRight, const std::string& strWhat) {
    if (bRight) return;
    m_bMistakes = true;
    const std::lock_guard<std::mutex> lock{m_Mutex};
    if (m_Mistakes.size() < kMostMistakes) m_Mistakes.push_back(strWhat);
}

bool CSoakRecord::HasAllSerials(int nFirst) const {
    const auto itFirst = m_Serials.begin() + nFirst;
    return std::all_of(itFirst, itFirst + m_nOpens,
                       [](const std::atomic<bool>& bGiven) { return bGiven.load(); });
}

std::vector<std::string> CSoakRecord::Mistakes() const {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    return m_Mistakes;
}

// ---- One client --------------------------------------------------------------------------------

ConnectionInfo CSoakClient::OpenEmp(const std::string& strEmp, bool bStart) {
    const ConnectionInfo info = m_Broker.Open(m_Callbacks.Address(), strEmp, kVersion, kApp);
    m_Record.TakeOpen(info.serial, bStart);
    Expect(info.empName == strEmp && info.clientPort == m_Callbacks.Address() &&
               info.ip == "127.0.0.1" && LeadingNumber(info.empPort) > 0,
           "the open of " + strEmp + ": port " + info.empPort);
    return info;
}

void CSoakClient::Close(const ConnectionInfo& info) {
    m_Record.TakeClose();
    Expect(m_Broker.Close(info), "the close of " + info.empName);
}

int CSoakClient::Open(const std::string& strEmp) {
    return OpenEmp(strEmp, false).serial;
}

void CSoakClient::OpenAndClose(const std::string& strEmp) {
    const ConnectionInfo info = OpenEmp(strEmp, false);
    Expect(Greet(info) > 1, strEmp + " has others");
    Close(info);
}

int CSoakClient::FindProcess(const ConnectionInfo& info) {
    const std::string strWhere = info.empName + ", serial " + std::to_string(info.serial);
    const std::vector<int> pids = ProcessesOf(m_Cold.strProgram);
    Expect(pids.size() == 1, strWhere + ": " + std::to_string(pids.size()) + " processes");
    if (pids.size() != 1) return -1;
    if (!m_Cold.bFake) return pids[0];
    // It is its own port that came back, found by what it got of the serial.
    const bool bOwn = Ask(info.empPort, "Pid") == std::to_string(pids[0]);
    Expect(bOwn, strWhere + ": another's port");
    Expect(Ask(info.empPort, "Serial") == std::to_string(info.serial).substr(0, 5),
           strWhere + ": the serial that it was started with");
    return bOwn ? pids[0] : -1;
}

int CSoakClient::Start() {
    const ConnectionInfo info = OpenEmp(m_Cold.strName, true);
    const int nPid = FindProcess(info);
    if (nPid == -1) return info.serial;
    const CUniqueFd process{static_cast<int>(::syscall(SYS_pidfd_open, nPid, 0))};
    Expect(process.IsOpen(), "a process that can be watched");
    Expect(Greet(info) == 1, m_Cold.strName + " has one client");
    Close(info);
    if (m_Cold.bFake)
        m_Broker.Execute(m_Callbacks.Address(), kReportStop, m_Cold.strName, info.empPort, "0");
    Expect(AwaitEnd(process), m_Cold.strName + " ends");
    if (!m_Cold.strMount.empty())
        Expect(CDaemon::Await([&] { return !IsMounted(m_Cold.strMount); }),
               m_Cold.strMount + " is unmounted");
    return info.serial;
}

// ---- All clients -------------------------------------------------------------------------------

CSoakClients::CSoakClients(CSoakRecord& record, const std::vector<ColdEmp>& cold)
    : m_Record(record) {
    for (const ColdEmp& one : cold) m_Clients.push_back(std::make_unique<CSoakClient>(record, one));
    for (std::size_t n = 0; n < m_Clients.size(); ++n)
        m_Threads.emplace_back([this, n] { Run(n); });
}

CSoakClients::~CSoakClients() {
    {
        const std::lock_guard<std::mutex> lock{m_Mutex};
        m_bStop = true;
        m_Changed.notify_all();
    }
    for (std::thread& thread : m_Threads) thread.join();
}

void CSoakClients::Do(long nBegin, long nEnd, const Operation& operation) {
    std::atomic<long> nNext{nBegin};
    RunJob([&](CSoakClient& client) {
        for (long n = nNext++; n < nEnd && !m_Record.HasMistakes(); n = nNext++)
            operation(client, n);
    });
}

void CSoakClients::DoEach(const std::function<void(CSoakClient&)>& operation) {
    RunJob(operation);
}

void CSoakClients::RunJob(const std::function<void(CSoakClient&)>& job) {
    std::unique_lock<std::mutex> lock{m_Mutex};
    m_pJob = &job;
    m_nBusy = m_Threads.size();
    ++m_nJob;
    m_Changed.notify_all();
    m_Changed.wait(lock, [this] { return m_nBusy == 0; });
}

void CSoakClients::Run(std::size_t nClient) {
    std::unique_lock<std::mutex> lock{m_Mutex};
    for (unsigned nDone = 0;;) {
        m_Changed.wait(lock, [&] { return m_bStop || m_nJob != nDone; });
        if (m_bStop) return;
        nDone = m_nJob;
        const auto* const pJob = m_pJob;
        lock.unlock();
        try {
            (*pJob)(*m_Clients[nClient]);
        } catch (const std::exception& e) {
            m_Record.Expect(false, std::string("an exception: ") + e.what());
        }
        lock.lock();
        if (--m_nBusy == 0) m_Changed.notify_all();
    }
}

}  // namespace vok::test
