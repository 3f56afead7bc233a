/// Clients that want nothing but what is theirs, while others misbehave.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vok::test {

/// Each on a thread of its own, without pause: asks for the version, opens an EMP, asks it, closes
/// it, opens one that is nowhere; half of it on a connection that it keeps, half on new ones. The
/// EMP has to be an orderly singleton.
class CSideClients {
public:
    CSideClients(int nClients, const std::string& strEmp);
    /// Stops them.
    ~CSideClients();
    CSideClients(const CSideClients&) = delete;
    CSideClients& operator=(const CSideClients&) = delete;

    /// How many rounds the slowest of them has made.
    int FewestRounds() const;
    /// Waits until each has made so many more; false when that takes too long, or an answer was
    /// wrong.
    bool AwaitMoreRounds(int nRounds) const;
    /// The wrong answers; empty when all were right.
    std::vector<std::string> Mistakes() const;
    /// The slowest round so far, in milliseconds.
    long SlowestRoundMs() const { return m_nSlowestMs; }
    void Stop();

private:
    void Run(int nClient);
    void Round(class CBrokerClient& kept, int nClient);
    void Expect(bool bRight, const std::string& strWhat);

    const std::string m_strEmp;
    std::atomic<bool> m_bStop{false};
    std::atomic<long> m_nSlowestMs{0};
    std::vector<std::atomic<int>> m_Rounds;
    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Mistakes;  // guarded by m_Mutex
    std::vector<std::thread> m_Threads;
};

}  // namespace vok::test
