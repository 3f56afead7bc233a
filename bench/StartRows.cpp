// Opens that start an EMP, beside what else starts programs on demand.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "bench/Baselines.h"
#include "bench/CLoad.h"
#include "bench/CNetwork.h"
#include "bench/CPin.h"
#include "bench/CStage.h"
#include "bench/Clock.h"
#include "bench/Emps.h"
#include "bench/Rows.h"
#include "bench/activators/CMessageBus.h"
#include "bench/activators/CXinetd.h"
#include "platform/Limits.h"
#include "rpc/CBrokerProxyEmp.h"
#include "tests/support/CEmpInstaller.h"

namespace vok::bench {

using test::CBrokerClient;
using test::CEmpInstaller;

namespace {

constexpr double kMillisecond = 1e-3;
constexpr int kXinetdPort = 20002;  // as kBarePort
constexpr int kAtOnce = 64;
constexpr rlim_t kManyDescriptors = 1'048'576;

Measured InMilliseconds(const Comparison& comparison) {
    return AsRatio(comparison, "ms", kMillisecond);
}

double Seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

void CloseAndAwaitEnd(CBrokerClient& client, const ConnectionInfo& info) {
    CStage::Close(client, info);
    if (!test::WaitUntilEnded(CEmpInstaller::ProgramPath(info.empName)))
        throw std::runtime_error(info.empName + " does not end");
}

/// From the call until the address is there. The EMP has ended again when this returns.
double SecondsOfColdOpen(CBrokerClient& client, const std::string& strEmp) {
    ConnectionInfo info;
    Settle();
    const double seconds = SecondsOf([&] { info = CStage::Open(client, strEmp); });
    CloseAndAwaitEnd(client, info);
    return seconds;
}

double ColdOpenUntilAnswer(CBrokerClient& client, const std::string& strEmp) {
    ConnectionInfo info;
    Settle();
    const double seconds = SecondsOf([&] {
        info = CStage::Open(client, strEmp);
        if (!CBrokerProxyEmp{info.empPort}.Ping(kClientPort))
            throw std::runtime_error(strEmp + " does not answer");
    });
    CloseAndAwaitEnd(client, info);
    return seconds;
}

/// Its name.
std::string InstallEmpOf(eLinkage eKind) {
    std::string strEmp = eKind == eLinkage::Static ? "BenchStatic" : "BenchDynamic";
    InstallEmp(strEmp, eKind);
    return strEmp;
}

std::vector<std::string> InstallMany() {
    std::vector<std::string> emps;
    for (int n = 0; n < kAtOnce; ++n) {
        emps.push_back("BenchMany" + std::to_string(n));
        InstallEmp(emps.back(), eLinkage::Static);
    }
    return emps;
}

/// How many descriptors a process may be allowed here, `nWanted` at most. Where nobody may raise
/// the limit that this process was started with, it is that.
rlim_t AllowedDescriptors(rlim_t nWanted) {
    rlimit former{};
    if (::getrlimit(RLIMIT_NOFILE, &former) != 0) throw std::runtime_error("getrlimit");
    const rlimit wanted{nWanted, nWanted};
    if (::setrlimit(RLIMIT_NOFILE, &wanted) != 0) return std::min(former.rlim_max, nWanted);
    (void)::setrlimit(RLIMIT_NOFILE, &former);
    return nWanted;
}

}  // namespace

Measured ColdOpen(const Effort& effort, eLinkage eKind) {
    const std::string strEmp = InstallEmpOf(eKind);
    const CPin pin;
    CStage stage;
    stage.EndAtLast(strEmp);
    CBareStarter starter;
    const auto pClient = stage.Connect();
    return InMilliseconds(Compare(
        effort.nStartRounds,
        [&] { return MedianOf(effort.nStarts, [&] { return starter.Start({strEmp}); }); },
        [&] {
            return MedianOf(effort.nStarts, [&] { return SecondsOfColdOpen(*pClient, strEmp); });
        }));
}

Measured ColdOpenBesideBus(const Effort& effort, eLinkage eKind) {
    const std::string strEmp = InstallEmpOf(eKind);
    const CPin pin;
    CStage stage;
    stage.EndAtLast(strEmp);
    CMessageBus bus{CEmpInstaller::BuiltProgram("vok-bench-bus-service")};
    const auto pClient = stage.Connect();
    const auto activate = [&] {
        Settle();
        const double seconds = Seconds(bus.Activate());
        bus.Release();
        return seconds;
    };
    return InMilliseconds(Compare(
        effort.nStartRounds, [&] { return MedianOf(effort.nStarts, activate); },
        [&] {
            return MedianOf(effort.nStarts, [&] { return SecondsOfColdOpen(*pClient, strEmp); });
        }));
}

Measured FirstAnswerBesideXinetd(const Effort& effort, eLinkage eKind) {
    const std::string strEmp = InstallEmpOf(eKind);
    const char* const szXinetdEmp =
        eKind == eLinkage::Static ? "vok-bench-xinetd-emp-static" : "vok-bench-xinetd-emp";
    const CPin pin;
    CStage stage;
    stage.EndAtLast(strEmp);
    CXinetd xinetd{kXinetdPort, CEmpInstaller::BuiltProgram(szXinetdEmp)};
    const auto pClient = stage.Connect();
    const auto firstAnswer = [&] {
        Settle();
        const double seconds = Seconds(xinetd.FirstAnswer());
        xinetd.Release();
        return seconds;
    };
    return InMilliseconds(Compare(
        effort.nStartRounds, [&] { return MedianOf(effort.nStarts, firstAnswer); },
        [&] {
            return MedianOf(effort.nStarts, [&] { return ColdOpenUntilAnswer(*pClient, strEmp); });
        }));
}

Measured ManyColdOpens(const Effort& effort) {
    const std::vector<std::string> emps = InstallMany();
    CStage stage;
    for (const std::string& strEmp : emps) stage.EndAtLast(strEmp);
    CBareStarter starter;
    std::vector<ConnectionInfo> opened(emps.size());
    CLoad load{kAtOnce, kBrokerPort, [&](CBrokerClient& client, int nClient) {
                   const auto n = static_cast<std::size_t>(nClient);
                   opened[n] = CStage::Open(client, emps[n]);
               }};
    const auto pClient = stage.Connect();
    return InMilliseconds(Compare(
        effort.nMassRounds, [&] { return starter.Start(emps); },
        [&] {
            const double seconds = load.SecondsOfOneEach();
            for (const ConnectionInfo& info : opened) CloseAndAwaitEnd(*pClient, info);
            return seconds;
        }));
}

Measured ColdOpenManyDescriptors(const Effort& effort) {
    const std::string strEmp = InstallEmpOf(eLinkage::Static);
    const CPin pin;
    const CNetwork fewNetwork;
    const CNetwork manyNetwork;
    CStage few{{2, 1'024, &fewNetwork}};
    const rlim_t nMost = AllowedDescriptors(kManyDescriptors);
    CStage many{{2, nMost, &manyNetwork}};
    few.EndAtLast(strEmp);
    const auto pFew = few.Connect();
    const auto pMany = many.Connect();
    const auto coldOpens = [&](CBrokerClient& client) {
        return MedianOf(effort.nStarts, [&] { return SecondsOfColdOpen(client, strEmp); });
    };
    Measured measured = InMilliseconds(Compare(
        effort.nStartRounds, [&] { return coldOpens(*pFew); }, [&] { return coldOpens(*pMany); }));
    if (nMost < kManyDescriptors)
        measured.strNote = "at " + std::to_string(nMost) + ": no more may be had here";
    return measured;
}

}  // namespace vok::bench
