/// What the broker and its peers take of the machine, to be given back in the end.
#pragma once

#include <string>

#include "tests/support/CDaemon.h"

namespace vok::test {

struct Footprint {
    int nProcesses = 0;    // of the test's world, those that have ended left out
    int nThreads = 0;      // the daemon's
    int nDescriptors = 0;  // the daemon's
    int nMounts = 0;       // of the test's world
    int nLoopDevices = 0;  // that serve the image

    bool operator==(const Footprint& other) const;
    Footprint operator-(const Footprint& other) const;
    /// "1 process, 1 thread"; "nothing" when all are 0.
    std::string Text() const;
};

Footprint Measure(const CDaemon& daemon, const std::string& strImage);

/// True for a process that runs, is stopped or sleeps; false when it has ended, waited for or not.
bool IsAlive(int nPid);
/// The process's state as /proc shows it: 'T' is stopped; 'X' when there is none.
char ProcessState(int nPid);

/// How many threads of all processes run as the user.
int CountTasksOf(unsigned int nUser);

}  // namespace vok::test
