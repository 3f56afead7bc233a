// What the daemon takes: memory, threads, and the time of its own start and end.
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Baselines.h"
#include "bench/CStage.h"
#include "bench/Clock.h"
#include "bench/Emps.h"
#include "bench/Rows.h"
#include "platform/CUniqueFd.h"
#include "platform/EmpPaths.h"

namespace vok::bench {

using test::CBrokerClient;
using test::CDaemon;

namespace {

constexpr char kEmp[] = "BenchWarm";
constexpr double kKiB = 1024;
constexpr int kOpensBefore = 5'000;
constexpr int kRunningEmps = 16;

/// Memory that a process has for itself, in bytes: what it has written. Pages as they are in a file
/// are not counted: the kernel drops them when it needs room, and they are private only as long as
/// nobody else has mapped the file (and "dirty" until a new program has reached the disk).
double PrivateMemory(pid_t nPid) {
    std::ifstream rollup{"/proc/" + std::to_string(nPid) + "/smaps_rollup"};
    long nAll = 0;
    for (std::string strLine; std::getline(rollup, strLine);) {
        long nKiB = 0;
        if (std::sscanf(strLine.c_str(), "Anonymous: %ld", &nKiB) == 1) nAll += nKiB;
    }
    if (nAll == 0) throw std::runtime_error("no memory of a process is known");
    return static_cast<double>(nAll) * 1024;
}

/// Makes what a first call makes once.
void CallOnceFrom(CBrokerClient& client) {
    if (client.Version() != "5.100") throw std::runtime_error("another version");
}

/// What so many connections, each of which has made a call, add to a process; for each of them.
double MemoryOfConnections(pid_t nPid, int nConnections,
                           const std::function<std::unique_ptr<CBrokerClient>()>& connect) {
    CallOnceFrom(*connect());
    const double before = PrivateMemory(nPid);
    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int n = 0; n < nConnections; ++n) {
        clients.push_back(connect());
        CallOnceFrom(*clients.back());
    }
    return (PrivateMemory(nPid) - before) / nConnections;
}

std::unique_ptr<CBrokerClient> ConnectToBare() {
    return std::make_unique<CBrokerClient>(CBrokerClient::kPatience, kBarePort);
}

/// When the ready flag is written next. The watch stands when this returns.
std::future<Clock::time_point> WatchReadyFlag() {
    auto pWatch = std::make_shared<CUniqueFd>(::inotify_init1(IN_CLOEXEC));
    if (::inotify_add_watch(pWatch->Get(), "/tmp", IN_CLOSE_WRITE) < 0)
        throw std::runtime_error("no watch of /tmp");
    return std::async(std::launch::async, [pWatch] {
        const std::string strFlag = std::string(paths::kReadyFlag).substr(sizeof "/tmp/" - 1);
        pollfd event{pWatch->Get(), POLLIN, 0};
        while (::poll(&event, 1, 60'000) > 0) {
            const Clock::time_point now = Clock::now();
            alignas(inotify_event) char buffer[4096];
            const ssize_t nRead = ::read(pWatch->Get(), buffer, sizeof buffer);
            for (ssize_t n = 0; n < nRead;) {
                const auto* const pEvent = reinterpret_cast<const inotify_event*>(buffer + n);
                if (pEvent->len > 0 && strFlag == pEvent->name) return now;
                n += static_cast<ssize_t>(sizeof(inotify_event) + pEvent->len);
            }
        }
        throw std::runtime_error("the daemon does not become ready");
    });
}

/// Nothing is to be mounted, so that no pause is due.
double StartOfDaemon() {
    CDaemon::LayOutPlugins();
    CDaemon daemon;
    CDaemon::Options options;
    options.bLayOutPlugins = false;
    options.nLogLevel = 2;
    std::future<Clock::time_point> ready = WatchReadyFlag();
    const Clock::time_point begin = Clock::now();
    if (!daemon.Start(options)) throw std::runtime_error("the daemon does not start");
    return SecondsBetween(begin, ready.get());
}

double StartOfBareServer() {
    const Clock::time_point begin = Clock::now();
    const CBareServer bare;
    CallOnceFrom(*ConnectToBare());
    return SecondsBetween(begin, Clock::now());
}

Measured Plain(const std::vector<double>& values) {
    Measured measured;
    measured.value = Summarise(values);
    return measured;
}

}  // namespace

Measured IdleMemory(const Effort& effort) {
    const Comparison comparison = Compare(
        effort.nFreshRounds,
        [] {
            const CBareServer bare;
            CallOnceFrom(*ConnectToBare());
            return PrivateMemory(bare.Pid());
        },
        [] {
            const CStage stage;
            CallOnceFrom(*stage.Connect());
            return PrivateMemory(stage.Daemon().Pid());
        });
    return AsRatio(comparison, "KiB", kKiB);
}

Measured ConnectionMemory(const Effort& effort) {
    const Comparison comparison = Compare(
        effort.nFreshRounds,
        [&] {
            const CBareServer bare;
            return MemoryOfConnections(bare.Pid(), effort.nIdleConnections, &ConnectToBare);
        },
        [&] {
            const CStage stage;
            return MemoryOfConnections(stage.Daemon().Pid(), effort.nIdleConnections,
                                       [&] { return stage.Connect(); });
        });
    return AsRatio(comparison, "KiB", kKiB);
}

Measured GrowthPerOpen(const Effort& effort) {
    InstallEmp(kEmp, eLinkage::Dynamic);
    CStage stage;
    (void)stage.KeepRunning(kEmp);
    const auto pClient = stage.Connect();
    const auto openAndClose = [&](int nTimes) {
        for (int n = 0; n < nTimes; ++n)
            CStage::Close(*pClient, CStage::Open(*pClient, kEmp, std::to_string(41'000 + n % 500)));
    };
    openAndClose(kOpensBefore);
    std::vector<double> growth;
    double before = PrivateMemory(stage.Daemon().Pid());
    for (int n = 0; n < effort.nGrowthWindows; ++n) {
        openAndClose(effort.nGrowthOpens);
        const double after = PrivateMemory(stage.Daemon().Pid());
        growth.push_back((after - before) / effort.nGrowthOpens);
        before = after;
    }
    return Plain(growth);
}

Measured ThreadsPerEmp(const Effort& /*effort*/) {
    CStage stage;
    const auto pClient = stage.Connect();
    CallOnceFrom(*pClient);
    const auto nBefore = static_cast<double>(stage.Daemon().Threads().size());
    for (int n = 0; n < kRunningEmps; ++n) {
        const std::string strEmp = "BenchRuns" + std::to_string(n);
        InstallEmp(strEmp, eLinkage::Static);
        stage.EndAtLast(strEmp);
        (void)CStage::Open(*pClient, strEmp);
    }
    // The connections on which the EMPs have reported end by themselves.
    const auto each = [&] {
        return (static_cast<double>(stage.Daemon().Threads().size()) - nBefore) / kRunningEmps;
    };
    (void)CDaemon::Await([&] { return each() <= 1; }, std::chrono::seconds(2));
    return Plain({each()});
}

Measured StartUntilReady(const Effort& effort) {
    return AsRatio(Compare(effort.nStartRounds, &StartOfBareServer, &StartOfDaemon), "ms", 1e-3);
}

Measured EndAfterSigterm(const Effort& effort) {
    std::vector<double> milliseconds;
    for (int n = 0; n < effort.nStartRounds; ++n) {
        CStage stage;
        CallOnceFrom(*stage.Connect());
        milliseconds.push_back(stage.Stop() * 1e3);
    }
    return Plain(milliseconds);
}

}  // namespace vok::bench
