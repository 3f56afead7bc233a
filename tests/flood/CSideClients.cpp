#include "tests/flood/CSideClients.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "tests/daemon/OpenCloseTest.h"

namespace vok::test {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

CSideClients::CSideClients(int nClients, const std::string& strEmp)
    : m_strEmp(strEmp), m_Rounds(static_cast<std::size_t>(nClients)) {
    for (int n = 0; n < nClients; ++n) m_Threads.emplace_back([this, n] { Run(n); });
}

CSideClients::~CSideClients() {
    Stop();
}

void CSideClients::Stop() {
    m_bStop = true;
    for (std::thread& thread : m_Threads) thread.join();
    m_Threads.clear();
}

void CSideClients::Run(int nClient) {
    try {
        CBrokerClient kept;
        while (!m_bStop) {
            const auto begin = steady_clock::now();
            Round(kept, nClient);
            const auto time = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
            long nSlowest = m_nSlowestMs;
            while (nSlowest < time.count() &&
                   !m_nSlowestMs.compare_exchange_weak(nSlowest, time.count()))
                continue;
            ++m_Rounds[static_cast<std::size_t>(nClient)];
        }
    } catch (const std::exception& e) {
        Expect(false, std::string("an exception: ") + e.what());
    }
}

void CSideClients::Round(CBrokerClient& kept, int nClient) {
    const std::string strClient = std::to_string(41000 + nClient);
    Expect(kept.Version() == "5.100", "version");
    const ConnectionInfo info = OpenEmp(m_strEmp, strClient);
    Expect(info.empName == m_strEmp && info.clientPort == strClient && info.empPort != "-1" &&
               info.serial > 0,
           "open");
    Expect(Ask(info.empPort, "Ping") == "1", "the EMP");
    Expect(kept.Open(strClient, "Nowhere", kVersion, kApp) == ConnectionInfo(), "nowhere");
    Expect(kept.Close(info), "close");
    Expect(CBrokerClient().Version() == "5.100", "version on a new connection");
}

void CSideClients::Expect(bool bRight, const std::string& strWhat) {
    if (bRight) return;
    const std::lock_guard<std::mutex> lock{m_Mutex};
    m_Mistakes.push_back(strWhat);
}

int CSideClients::FewestRounds() const {
    return *std::min_element(m_Rounds.begin(), m_Rounds.end());
}

bool CSideClients::AwaitMoreRounds(int nRounds) const {
    const int nGoal = FewestRounds() + nRounds;
    return CDaemon::Await([&] { return FewestRounds() >= nGoal || !Mistakes().empty(); }) &&
           Mistakes().empty();
}

std::vector<std::string> CSideClients::Mistakes() const {
    const std::lock_guard<std::mutex> lock{m_Mutex};
    return m_Mistakes;
}

}  // namespace vok::test
