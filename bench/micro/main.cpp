// main() of vok-micro-bench: as Google Benchmark's, in a world where EMPs can be installed.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "tests/support/CPrivateWorld.h"

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return EXIT_FAILURE;
    return vok::test::CPrivateWorld::Run([] {
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        return EXIT_SUCCESS;
    });
}
