// The tables: how a look-up and a change grow with the entries. All of them are ordered maps, so
// each should grow with the logarithm of their number.
#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "registry/CConnectionDB.h"
#include "registry/CEmpInfo.h"
#include "registry/Ticket.h"

namespace vok::bench {
namespace {

std::string EmpName(int nNumber) {
    char szName[16];
    (void)std::snprintf(szName, sizeof szName, "Emp%05d", nNumber);
    return szName;
}

std::string Port(int nNumber) {
    return std::to_string(20000 + nNumber);
}

/// The names that a benchmark asks for, one after the other: all that there are, in no order.
std::vector<std::string> Names(const benchmark::State& state) {
    const int nEntries = static_cast<int>(state.range(0));
    constexpr int kStride = 7919;  // a prime: comes to each once
    std::vector<std::string> names;
    for (int n = 0; n < nEntries; ++n)
        names.push_back(EmpName(static_cast<int>(1LL * n * kStride % nEntries)));
    return names;
}

/// Of a vector, for ever.
template <typename Item>
class CRound {
public:
    explicit CRound(std::vector<Item> items) : m_Items(std::move(items)) {}
    const Item& Next() { return m_Items[m_nNext++ % m_Items.size()]; }

private:
    const std::vector<Item> m_Items;
    std::size_t m_nNext = 0;
};

void Sizes(benchmark::internal::Benchmark* pBenchmark) {
    pBenchmark->Arg(10)->Arg(200)->Arg(10'000)->Complexity(benchmark::oLogN);
}

void Fill(CEmpInfo& table, const benchmark::State& state) {
    for (int n = 0; n < state.range(0); ++n) {
        (void)table.Add(EmpName(n), "1.0");
        (void)table.SetTypeOption(EmpName(n), "0001");
        (void)table.SetTypeStatus(EmpName(n), EMP_OPENED);
    }
}

void EmpInfoGetTypeStatus(benchmark::State& state) {
    CEmpInfo table;
    Fill(table, state);
    CRound<std::string> names{Names(state)};
    for (auto _ : state) benchmark::DoNotOptimize(table.GetTypeStatus(names.Next()));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(EmpInfoGetTypeStatus)->Apply(Sizes);

void EmpInfoGetTypeOption(benchmark::State& state) {
    CEmpInfo table;
    Fill(table, state);
    CRound<std::string> names{Names(state)};
    for (auto _ : state) benchmark::DoNotOptimize(table.GetTypeOption(names.Next()));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(EmpInfoGetTypeOption)->Apply(Sizes);

void EmpInfoAddAndRemove(benchmark::State& state) {
    CEmpInfo table;
    Fill(table, state);
    const std::string strName = EmpName(static_cast<int>(state.range(0) / 2)) + "New";
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.Add(strName, "1.0"));
        benchmark::DoNotOptimize(table.Remove(strName));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(EmpInfoAddAndRemove)->Apply(Sizes);

/// One client each.
void Fill(CConnectionDB& table, const benchmark::State& state) {
    for (int n = 0; n < state.range(0); ++n)
        (void)table.AddConnectionData({EmpName(n), Port(n)}, Port(0));
}

void ConnectionDbGetEmpPort(benchmark::State& state) {
    CConnectionDB table;
    Fill(table, state);
    CRound<std::string> names{Names(state)};
    for (auto _ : state) benchmark::DoNotOptimize(table.GetEmpPort(names.Next()));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ConnectionDbGetEmpPort)->Apply(Sizes);

void ConnectionDbAddAndRemoveInManyEmps(benchmark::State& state) {
    CConnectionDB table;
    Fill(table, state);
    const int nEmp = static_cast<int>(state.range(0) / 2);
    const ConnectionKey key{EmpName(nEmp), Port(nEmp)};
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.AddConnectionData(key, "50001"));
        benchmark::DoNotOptimize(table.RemoveClientPortFromConnDB(key, "50001"));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ConnectionDbAddAndRemoveInManyEmps)->Apply(Sizes);

void ConnectionDbAddAndRemoveAmongManyClients(benchmark::State& state) {
    CConnectionDB table;
    const ConnectionKey key{EmpName(0), Port(0)};
    for (int n = 0; n < state.range(0); ++n) (void)table.AddConnectionData(key, Port(n));
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.AddConnectionData(key, "25001x"));
        benchmark::DoNotOptimize(table.RemoveClientPortFromConnDB(key, "25001x"));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ConnectionDbAddAndRemoveAmongManyClients)->Apply(Sizes);

/// What a sweep or a debug fan-out begins with: a copy of everything.
void ConnectionDbCopy(benchmark::State& state) {
    CConnectionDB table;
    Fill(table, state);
    for (auto _ : state) benchmark::DoNotOptimize(table.GetConnectionDB());
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ConnectionDbCopy)->Arg(10)->Arg(200)->Arg(10'000)->Complexity(benchmark::oN);

/// An open's share of the tickets: one in, and the oldest out.
void TicketsIssueAndPrune(benchmark::State& state) {
    TicketMap tickets;
    const auto nMost = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        const auto spTicket = boost::make_shared<Ticket>("-1");
        spTicket->m_bInProgress = false;
        tickets[spTicket->GetSerial()] = spTicket;
        PruneTickets(tickets, nMost);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(TicketsIssueAndPrune)->Apply(Sizes);

void TicketsFind(benchmark::State& state) {
    TicketMap tickets;
    for (int n = 0; n < state.range(0); ++n) {
        const auto spTicket = boost::make_shared<Ticket>("-1");
        tickets[spTicket->GetSerial()] = spTicket;
    }
    unsigned int nSerial = tickets.begin()->first;
    const unsigned int nLast = tickets.rbegin()->first;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tickets.find(nSerial));
        nSerial = nSerial == nLast ? tickets.begin()->first : nSerial + 1;
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(TicketsFind)->Apply(Sizes);

}  // namespace
}  // namespace vok::bench
