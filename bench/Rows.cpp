#include "bench/Rows.h"

#include <exception>
#include <optional>
#include <utility>

namespace vok::bench {

namespace {

using MeasureOne = std::function<Measured(const Effort&)>;

RowGroup One(Spec spec, MeasureOne measure) {
    return {{std::move(spec)}, [measure = std::move(measure)](const Effort& effort) {
                return std::vector<Measured>{measure(effort)};
            }};
}

template <typename Variant>
MeasureOne With(Measured (*pMeasure)(const Effort&, Variant), Variant variant) {
    return [=](const Effort& effort) { return pMeasure(effort, variant); };
}

void AddCalls(std::vector<RowGroup>& rows) {
    rows.push_back(One({"version-latency", "version call, one processor", "bare Thrift", 1.04},
                       &VersionLatency));
    rows.push_back(
        One({"version-8", "version calls, 8 clients", "bare Thrift", 1.05}, With(&VersionLoad, 8)));
    rows.push_back(One({"version-64", "version calls, 64 clients", "bare Thrift", 1.05},
                       With(&VersionLoad, 64)));
    rows.push_back(
        One({"open-latency", "warm open, one processor", "bare call + the same stats", 1.08},
            &WarmOpenLatency));
    rows.push_back(One({"open-8", "warm opens, 8 clients", "bare call + the same stats", 1.15},
                       With(&WarmOpenLoad, 8)));
    rows.push_back(One({"open-64", "warm opens, 64 clients", "bare call + the same stats", 1.15},
                       With(&WarmOpenLoad, 64)));
    rows.push_back(One({"open-bus", "warm open, one processor", "message bus: name's owner", 0.95},
                       &WarmOpenBesideBus));
    rows.push_back({{{"close-latency", "close, one processor", "bare call + call of the EMP", 1.08},
                     {"close-stats", "close, one processor",
                      "bare call + call of the EMP + the same stats", std::nullopt}},
                    &CloseLatency});
    rows.push_back(One({"open-log4", "warm open, one processor, log level 4 to a file",
                        "bare call + the same stats", 2.0},
                       &WarmOpenLogging));
}

void AddStarts(std::vector<RowGroup>& rows) {
    const auto add = [&](const char* szId, const char* szWhat, const char* szBaseline,
                         std::optional<double> target, MeasureOne measure) {
        rows.push_back(One({szId, szWhat, szBaseline, target}, std::move(measure)));
    };
    const char* const szStart = "bare start";
    const char* const szBus = "message bus: activation";
    const char* const szXinetd = "xinetd: first answer";
    add("cold-static", "cold open until the address, static EMP", szStart, 1.30,
        With(&ColdOpen, eLinkage::Static));
    add("cold-dynamic", "cold open until the address, dynamic EMP", szStart, 1.08,
        With(&ColdOpen, eLinkage::Dynamic));
    add("cold-bus-static", "cold open until the address, static EMP", szBus, 0.45,
        With(&ColdOpenBesideBus, eLinkage::Static));
    // The EMP's dynamic linking alone takes longer than all of the bus's small service.
    add("cold-bus-dynamic", "cold open until the address, dynamic EMP", szBus, std::nullopt,
        With(&ColdOpenBesideBus, eLinkage::Dynamic));
    add("cold-xinetd-static", "cold open until the first answer, static EMP", szXinetd, 1.00,
        With(&FirstAnswerBesideXinetd, eLinkage::Static));
    add("cold-xinetd-dynamic", "cold open until the first answer, dynamic EMP", szXinetd, 1.00,
        With(&FirstAnswerBesideXinetd, eLinkage::Dynamic));
    add("cold-64", "64 cold opens of 64 static EMPs at once", "64 bare starts at once", 1.30,
        &ManyColdOpens);
    add("cold-descriptors", "cold open, static EMP, ulimit -n 1,048,576", "itself at 1,024", 1.03,
        &ColdOpenManyDescriptors);
}

void AddScale(std::vector<RowGroup>& rows) {
    const char* const szItself = "itself at 10";
    rows.push_back({{{"open-10000-clients", "open, 10,000 clients of one EMP", szItself, 1.05},
                     {"close-10000-clients", "close, 10,000 clients of one EMP", szItself, 1.05}},
                    &ManyClients});
    rows.push_back({{{"open-10000-emps", "open, 10,000 EMPs in the tables", szItself, 1.05},
                     {"close-10000-emps", "close, 10,000 EMPs in the tables", szItself, 1.05}},
                    &ManyEmps});
}

void AddFootprint(std::vector<RowGroup>& rows) {
    rows.push_back(One({"memory-idle", "private memory, idle", "bare Thrift", 1.25}, &IdleMemory));
    rows.push_back(
        One({"memory-connection", "private memory per idle connection", "bare Thrift", 1.25},
            &ConnectionMemory));
    rows.push_back(One(
        {"memory-growth", "memory growth per open after the first 5,000", "none", 0, eValue::Bytes},
        &GrowthPerOpen));
    rows.push_back(
        One({"threads-emp", "threads per running EMP", "", 1, eValue::Threads}, &ThreadsPerEmp));
    rows.push_back(One({"start-ready", "start to the ready flag, without the stated pauses",
                        "bare Thrift until it answers", 3},
                       &StartUntilReady));
    rows.push_back(One(
        {"end-sigterm", "SIGTERM to the end of the process, idle", "", 20, eValue::Milliseconds},
        &EndAfterSigterm));
}

}  // namespace

std::vector<RowGroup> AllRows() {
    std::vector<RowGroup> rows;
    AddCalls(rows);
    AddStarts(rows);
    AddScale(rows);
    AddFootprint(rows);
    return rows;
}

std::vector<Result> Measure(const RowGroup& group, const Effort& effort) {
    std::vector<Result> results;
    for (const Spec& spec : group.specs) results.push_back({spec, {}, ""});
    try {
        std::vector<Measured> measured = group.measure(effort);
        for (std::size_t n = 0; n < results.size(); ++n)
            results[n].measured = std::move(measured.at(n));
    } catch (const std::exception& error) {
        for (Result& result : results) result.strSkipped = error.what();
    }
    return results;
}

}  // namespace vok::bench
