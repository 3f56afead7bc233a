// Calls of clients that are connected already, beside a bare server of the same service.
#include <chrono>

#include "bench/Baselines.h"
#include "bench/CLoad.h"
#include "bench/CPin.h"
#include "bench/CStage.h"
#include "bench/Clock.h"
#include "bench/Emps.h"
#include "bench/Rows.h"
#include "bench/activators/CMessageBus.h"
#include "platform/Limits.h"
#include "tests/support/CEmpInstaller.h"

namespace vok::bench {

using test::CBrokerClient;

namespace {

constexpr char kEmp[] = "BenchWarm";
/// Opens of a new daemon that do not count: from then on it forgets an old ticket with each new
/// one.
constexpr std::size_t kWarmUp = kMaxTickets + 100;
constexpr double kMicrosecond = 1e-6;

Measured InMicroseconds(const Comparison& comparison) {
    return AsRatio(comparison, "us", kMicrosecond);
}

CBrokerClient ConnectToBare() {
    return CBrokerClient{CBrokerClient::kPatience, kBarePort};
}

void CallVersion(CBrokerClient& client) {
    if (client.Version() != "5.100") throw std::runtime_error("another version");
}

/// Opens of a running EMP, each for a client that is not connected yet.
class CNewcomers {
public:
    explicit CNewcomers(int nFirst = 0) : m_nNext(10'000'000 + nFirst) {}
    void Open(CBrokerClient& client) {
        (void)CStage::Open(client, kEmp, std::to_string(m_nNext++));
    }

private:
    alignas(64) long m_nNext;  // one for each thread, and none on another one's cache line
};

/// The median call of one client.
template <typename Call>
Measurement Latency(const Effort& effort, CBrokerClient& client, Call call) {
    return [=, &client] {
        return MedianOf(effort.nCalls, [&] { return SecondsOf([&] { call(client); }); });
    };
}

Measurement Throughput(const Effort& effort, CLoad& load) {
    return [=, &load] { return load.SecondsPerCall(effort.slice); };
}

/// The median open of one client on a connection.
double LatencyOfOpens(const Effort& effort, CBrokerClient& client) {
    CNewcomers newcomers;
    return MedianOf(effort.nCalls, [&] { return SecondsOf([&] { newcomers.Open(client); }); });
}

/// Many clients that open without a pause; seconds for each open.
double ThroughputOfOpens(const Effort& effort, int nClients, int nPort) {
    std::vector<CNewcomers> newcomers;
    for (int n = 0; n < nClients; ++n) newcomers.emplace_back(n * 100'000);
    CLoad load{nClients, nPort, [&](CBrokerClient& client, int nClient) {
                   newcomers[static_cast<std::size_t>(nClient)].Open(client);
               }};
    return load.SecondsPerCall(effort.slice);
}

/// A daemon with an EMP that runs. Each round of newcomers has one of its own, lest they become too
/// many.
class CWarmStage : public CStage {
public:
    explicit CWarmStage(int nLogLevel = 2) : CStage(WithLevel(nLogLevel)) {
        m_strEmpPort = KeepRunning(kEmp).empPort;
        const auto pClient = Connect();
        CNewcomers newcomers{-static_cast<int>(kWarmUp)};
        for (std::size_t n = 0; n < kWarmUp; ++n) newcomers.Open(*pClient);
    }
    const std::string& EmpPort() const { return m_strEmpPort; }

private:
    static Options WithLevel(int nLogLevel) {
        Options options;
        options.nLogLevel = nLogLevel;
        return options;
    }
    std::string m_strEmpPort;
};

Measurement WarmOpens(const Effort& effort, int nLogLevel = 2) {
    return [=] {
        const CWarmStage stage{nLogLevel};
        return LatencyOfOpens(effort, *stage.Connect());
    };
}

Measured WarmOpenAtLevel(const Effort& effort, int nLogLevel) {
    const CPin pin;
    InstallEmp(kEmp, eLinkage::Dynamic);
    const CBareServer bare{FilesOfWarmOpen(kEmp)};
    CBrokerClient bareClient = ConnectToBare();
    return InMicroseconds(Compare(
        effort.nRounds, [&] { return LatencyOfOpens(effort, bareClient); },
        WarmOpens(effort, nLogLevel)));
}

/// Each close after an open of its own, whose time does not count. The EMP serves on: one of its
/// clients stays.
Measurement CloseAfterOpen(const Effort& effort, CBrokerClient& client, std::string strEmpPort) {
    return [=, &client] {
        return MedianOf(effort.nCalls, [&] {
            ConnectionInfo info = CStage::Open(client, kEmp);
            info.empPort = strEmpPort;
            return SecondsOf([&] { CStage::Close(client, info); });
        });
    };
}

}  // namespace

Measured VersionLatency(const Effort& effort) {
    const CPin pin;
    const CStage stage;
    const CBareServer bare;
    const auto pBroker = stage.Connect();
    CBrokerClient bareClient = ConnectToBare();
    return InMicroseconds(Compare(effort.nRounds, Latency(effort, bareClient, &CallVersion),
                                  Latency(effort, *pBroker, &CallVersion)));
}

Measured VersionLoad(const Effort& effort, int nClients) {
    const CStage stage;
    const CBareServer bare;
    const auto call = [](CBrokerClient& client, int) { CallVersion(client); };
    CLoad bareLoad{nClients, kBarePort, call};
    CLoad brokerLoad{nClients, kBrokerPort, call};
    return InMicroseconds(
        Compare(effort.nRounds, Throughput(effort, bareLoad), Throughput(effort, brokerLoad)));
}

Measured WarmOpenLatency(const Effort& effort) {
    return WarmOpenAtLevel(effort, 2);
}

Measured WarmOpenLogging(const Effort& effort) {
    return WarmOpenAtLevel(effort, 4);
}

Measured WarmOpenLoad(const Effort& effort, int nClients) {
    InstallEmp(kEmp, eLinkage::Dynamic);
    const CBareServer bare{FilesOfWarmOpen(kEmp)};
    return InMicroseconds(Compare(
        effort.nRounds, [&] { return ThroughputOfOpens(effort, nClients, kBarePort); },
        [&] {
            const CWarmStage stage;
            return ThroughputOfOpens(effort, nClients, kBrokerPort);
        }));
}

Measured WarmOpenBesideBus(const Effort& effort) {
    const CPin pin;
    InstallEmp(kEmp, eLinkage::Dynamic);
    CMessageBus bus{test::CEmpInstaller::BuiltProgram("vok-bench-bus-service")};
    (void)bus.Activate();
    const Measurement resolve = [&] {
        return MedianOf(effort.nCalls,
                        [&] { return std::chrono::duration<double>(bus.ResolveName()).count(); });
    };
    return InMicroseconds(Compare(effort.nRounds, resolve, WarmOpens(effort)));
}

std::vector<Measured> CloseLatency(const Effort& effort) {
    const CPin pin;
    InstallEmp(kEmp, eLinkage::Dynamic);
    const CWarmStage stage;
    const auto pBroker = stage.Connect();
    const Measurement broker = CloseAfterOpen(effort, *pBroker, stage.EmpPort());

    std::vector<Measured> measured;
    for (const char* szVariant : {"--close", "--close-stats"}) {
        std::vector<std::string> arguments = FilesOfWarmOpen(kEmp);
        arguments.insert(arguments.begin(), szVariant);
        const CBareServer bare{arguments};
        CBrokerClient bareClient = ConnectToBare();
        measured.push_back(InMicroseconds(
            Compare(effort.nRounds, CloseAfterOpen(effort, bareClient, stage.EmpPort()), broker)));
    }
    return measured;
}

}  // namespace vok::bench
