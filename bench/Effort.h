/// How much is measured.
#pragma once

#include <chrono>

namespace vok::bench {

struct Effort {
    int nRounds = 21;                      // of what takes microseconds
    int nCalls = 1500;                     // in each of them
    std::chrono::milliseconds slice{250};  // of calls by many clients
    int nStartRounds = 15;                 // of starts of processes
    int nStarts = 10;                      // in each of them
    int nMassRounds = 9;                   // of many starts at once
    int nFreshRounds = 5;                  // with processes of their own
    int nIdleConnections = 500;
    int nMany = 10'000;        // clients, EMPs
    int nGrowthOpens = 2'500;  // in each window
    int nGrowthWindows = 10;
};

inline Effort QuickEffort() {
    using namespace std::chrono_literals;
    return {5, 500, 60ms, 3, 4, 2, 2, 200, 10'000, 1'000, 4};
}

}  // namespace vok::bench
