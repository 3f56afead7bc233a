/// Clients that open and close for as long as it takes, and look closely at every answer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/CBrokerClient.h"
#include "tests/support/CFakeClient.h"

namespace vok::test {

/// An EMP that is started and ends again and again, of one client alone.
struct ColdEmp {
    std::string strName;
    std::string strProgram;  // whose process it is
    std::string strMount;    // where its image is mounted while it runs; empty: no image
    bool bFake = true;       // else it reports its stop by itself, after its last client
};

/// What all clients have done, and what was wrong. Thread-safe.
class CSoakRecord {
public:
    /// No serial will come near to `nMost`.
    explicit CSoakRecord(std::size_t nMost) : m_Serials(nMost) {}

    /// Every serial has to come once.
    void TakeOpen(int nSerial, bool bStart);
    void TakeClose() { ++m_nCloses; }
    /// Records a wrong answer.
    void Expect(bool bRight, const std::string& strWhat);

    int Opens() const { return m_nOpens; }
    int Starts() const { return m_nStarts; }
    int Closes() const { return m_nCloses; }
    /// True when the opens got the serials from `nFirst` on, none left out.
    bool HasAllSerials(int nFirst) const;
    std::vector<std::string> Mistakes() const;
    bool HasMistakes() const { return m_bMistakes; }

private:
    std::vector<std::atomic<bool>> m_Serials;
    std::atomic<int> m_nOpens{0};
    std::atomic<int> m_nStarts{0};
    std::atomic<int> m_nCloses{0};
    std::atomic<bool> m_bMistakes{false};
    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Mistakes;  // guarded by m_Mutex
};

/// One client: a callback server, a connection to the broker that it keeps, and an EMP of its own
/// to start. One thread at a time. Its calls throw when a connection breaks.
class CSoakClient {
public:
    CSoakClient(CSoakRecord& record, ColdEmp cold) : m_Record(record), m_Cold(std::move(cold)) {}

    /// Opens an EMP that runs, and leaves it open. The serial.
    int Open(const std::string& strEmp);
    /// Opens an EMP that runs, greets it and closes it; others use it, too.
    void OpenAndClose(const std::string& strEmp);
    /// Opens its own EMP, which starts it, greets it and closes it; then awaits the end of the
    /// process, and of its mount. The serial.
    int Start();

private:
    ConnectionInfo OpenEmp(const std::string& strEmp, bool bStart);
    void Close(const ConnectionInfo& info);
    /// The process that was started for it; -1 when there is another, or it does not serve there.
    int FindProcess(const ConnectionInfo& info);
    void Expect(bool bRight, const std::string& strWhat) { m_Record.Expect(bRight, strWhat); }

    CSoakRecord& m_Record;
    const ColdEmp m_Cold;
    const CFakeClient m_Callbacks;
    CBrokerClient m_Broker;
};

/// Each on a thread of its own.
class CSoakClients {
public:
    CSoakClients(CSoakRecord& record, const std::vector<ColdEmp>& cold);
    ~CSoakClients();
    CSoakClients(const CSoakClients&) = delete;
    CSoakClients& operator=(const CSoakClients&) = delete;

    using Operation = std::function<void(CSoakClient&, long nIndex)>;
    /// Does operations nBegin to nEnd - 1 between them, each client the next one as soon as it is
    /// free; returns when all are done, or one was answered wrong.
    void Do(long nBegin, long nEnd, const Operation& operation);
    /// Each does it once, all at the same time.
    void DoEach(const std::function<void(CSoakClient&)>& operation);
    /// One client; not while others are at work.
    CSoakClient& Client(std::size_t n) { return *m_Clients.at(n); }

private:
    void Run(std::size_t nClient);
    /// Has the job done by every thread.
    void RunJob(const std::function<void(CSoakClient&)>& job);

    CSoakRecord& m_Record;
    std::vector<std::unique_ptr<CSoakClient>> m_Clients;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    const std::function<void(CSoakClient&)>* m_pJob = nullptr;  // guarded by m_Mutex, as all below
    unsigned m_nJob = 0;
    std::size_t m_nBusy = 0;
    bool m_bStop = false;
    std::vector<std::thread> m_Threads;
};

}  // namespace vok::test
