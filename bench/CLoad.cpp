#include "bench/CLoad.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "bench/Clock.h"

namespace vok::bench {

CLoad::CLoad(int nClients, int nPort, Call call) : m_Call(std::move(call)) {
    for (int n = 0; n < nClients; ++n)
        m_Clients.push_back(
            std::make_unique<test::CBrokerClient>(test::CBrokerClient::kPatience, nPort));
}

/// Runs `work(client, nClient)` for all at the same time, once they stand and `prepare()` has
/// returned: seconds until all have returned.
template <typename Prepare, typename Work>
double CLoad::Run(Prepare&& prepare, Work&& work) {
    std::promise<void> go;
    const std::shared_future<void> gone{go.get_future()};
    std::atomic<std::size_t> nWaiting{0};
    std::vector<std::future<void>> clients;
    for (std::size_t n = 0; n < m_Clients.size(); ++n) {
        clients.push_back(std::async(std::launch::async, [&, n] {
            ++nWaiting;
            gone.wait();
            work(*m_Clients[n], static_cast<int>(n));
        }));
    }
    while (nWaiting < m_Clients.size()) std::this_thread::yield();
    prepare();
    const Clock::time_point begin = Clock::now();
    go.set_value();
    for (std::future<void>& client : clients) client.wait();
    const double seconds = SecondsBetween(begin, Clock::now());
    for (std::future<void>& client : clients) client.get();  // throws what the client has thrown
    return seconds;
}

double CLoad::SecondsPerCall(std::chrono::milliseconds duration) {
    std::atomic<long> nCalls{0};
    const Clock::time_point end = Clock::now() + duration;
    const double seconds = Run([] {},
                               [&](test::CBrokerClient& client, int nClient) {
                                   long nOwn = 0;
                                   for (; Clock::now() < end; ++nOwn) m_Call(client, nClient);
                                   nCalls += nOwn;
                               });
    return seconds / static_cast<double>(std::max(nCalls.load(), 1L));
}

double CLoad::SecondsOfOneEach() {
    return Run(&Settle, m_Call);
}

}  // namespace vok::bench
