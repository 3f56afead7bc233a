/// Many clients at once.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "tests/support/CBrokerClient.h"

namespace vok::bench {

/// Clients that stay connected, with a thread each while they call. Throws
/// apache::thrift::TException when they cannot connect.
class CLoad {
public:
    /// One call of client number `nClient`.
    using Call = std::function<void(test::CBrokerClient& client, int nClient)>;

    CLoad(int nClients, int nPort, Call call);

    /// Calls without a pause until the time is over; seconds of it for each call. Throws what a
    /// call has thrown.
    double SecondsPerCall(std::chrono::milliseconds duration);
    /// One call each, at the same time: seconds until all are answered.
    double SecondsOfOneEach();

private:
    template <typename Prepare, typename Work>
    double Run(Prepare&& prepare, Work&& work);

    const Call m_Call;
    std::vector<std::unique_ptr<test::CBrokerClient>> m_Clients;
};

}  // namespace vok::bench
