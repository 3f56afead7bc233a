// Where an EMP lives. By its files: some system calls, whatever is in the tables. By the launchers'
// tables: they are ordered by launcher, not by EMP, so the search passes every launcher until one
// has the EMP, and grows with their number (and with the logarithm of what each has).
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "bench/support/CBrokerStage.h"
#include "platform/EmpPaths.h"

namespace vok::bench {
namespace {

namespace fs = std::filesystem;

constexpr int kEmpsOfLauncher = 5;

void Locate(benchmark::State& state, CBroker& broker, const std::string& strEmp,
            eEmpLocation expected) {
    if (broker.WhereIsEMP(strEmp) != expected) {
        state.SkipWithError("the EMP is not where it should be");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(broker.WhereIsEMP(strEmp));
}

/// One of so many EMPs, by files that cost nothing: the broker's own share.
void LocatePreinstalledFaked(benchmark::State& state) {
    CBrokerStage stage;
    stage.AddRunning(static_cast<int>(state.range(0)), 1);
    Locate(state, stage.broker, "Emp0000", EMPLOCATION_EXTERNAL);
}
BENCHMARK(LocatePreinstalledFaked)->Arg(10)->Arg(200)->Arg(10'000);

void LauncherSizes(benchmark::internal::Benchmark* pBenchmark) {
    pBenchmark->Arg(1)->Arg(20)->Arg(200)->Complexity(benchmark::oN);
}

/// The EMP of the last of so many launchers, or of none.
void LocateInTables(benchmark::State& state, const char* szEmp, eEmpLocation expected) {
    CBrokerStage stage;
    const int nLaunchers = static_cast<int>(state.range(0));
    stage.AddLaunchers(nLaunchers, kEmpsOfLauncher);
    const std::string strLast = std::to_string(10'000 + nLaunchers * kEmpsOfLauncher - 1).substr(1);
    Locate(state, stage.broker, szEmp + strLast, expected);
    state.SetComplexityN(state.range(0));
}
void LocateInLastGroup(benchmark::State& state) {
    LocateInTables(state, "Grouped", EMPLOCATION_GROUPING);
}
BENCHMARK(LocateInLastGroup)->Apply(LauncherSizes);

/// Passes all grouping processes first.
void LocateAtLastLauncher(benchmark::State& state) {
    LocateInTables(state, "Registered", EMPLOCATION_REGISTER);
}
BENCHMARK(LocateAtLastLauncher)->Apply(LauncherSizes);

void LocateNowhere(benchmark::State& state) {
    LocateInTables(state, "Nobody", EMPLOCATION_UNKNOWN);
}
BENCHMARK(LocateNowhere)->Apply(LauncherSizes);

/// A file where the broker looks for it.
void Install(const std::string& strFile) {
    fs::create_directories(fs::path(strFile).parent_path());
    std::ofstream{strFile} << "EMP";
}

/// With the system calls: one `stat` for an image, two for a program.
void LocateReal(benchmark::State& state, const std::string& strFile) {
    const CForgetfulLog log;
    CBroker broker;
    try {
        Install(strFile);
    } catch (const fs::filesystem_error&) {
        state.SkipWithError("EMPs can be installed in a private world only");
        return;
    }
    Locate(state, broker, "Weather", EMPLOCATION_EXTERNAL);
    fs::remove_all(fs::path(strFile).parent_path());
}
void LocateImage(benchmark::State& state) {
    LocateReal(state, paths::ImageFile("Weather"));
}
BENCHMARK(LocateImage);

void LocatePreinstalled(benchmark::State& state) {
    LocateReal(state, paths::PreinstalledProgram("Weather"));
}
BENCHMARK(LocatePreinstalled);

/// What an open asks after the location: the file that decides, three `stat`s for a program that
/// came with the set.
void FileOfPreinstalled(benchmark::State& state) {
    CBrokerStage stage;
    stage.AddRunning(1, 1);
    for (auto _ : state) benchmark::DoNotOptimize(stage.broker.GetEmpLocationType("Emp0000"));
}
BENCHMARK(FileOfPreinstalled);

}  // namespace
}  // namespace vok::bench
