// How much memory the daemon takes at rest, and what a connection costs that says nothing.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/CBrokerClient.h"
#include "tests/support/CDaemon.h"

namespace vok::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kSlack = 20;
#else
constexpr long kSlack = 1;
#endif

/// In KiB.
struct Memory {
    long nResident = 0;  // of the whole process
    long nPrivate = 0;   // that no other process shares
    long nGuest = 0;     // of both, what belongs to the program that an emulator runs
    long nGuestPrivate = 0;
};

/// How many threads serve a client that has given a command.
int CountServing(const CDaemon& daemon) {
    int nServing = 0;
    for (const DaemonThread& thread : daemon.Threads())
        if (thread.strName.rfind("B-E-", 0) == 0) ++nServing;
    return nServing;
}

/// Where an emulated program's 4 GiB of addresses begin; 0: no emulator.
std::uint64_t GuestBase() {
    const char* const szBase = std::getenv("VOK_GUEST_BASE");
    return szBase == nullptr ? 0 : std::strtoull(szBase, nullptr, 0);
}

bool IsOfGuest(std::uint64_t nAddress) {
    const std::uint64_t nBase = GuestBase();
    return nBase != 0 && nAddress >= nBase && nAddress - nBase < std::uint64_t{1} << 32;
}

Memory MemoryOf(pid_t nPid) {
    Memory memory;
    std::ifstream maps{"/proc/" + std::to_string(nPid) + "/smaps"};
    bool bGuest = false;
    for (std::string strLine; std::getline(maps, strLine);) {
        unsigned long long nBegin = 0;
        unsigned long long nEnd = 0;
        long nKiB = 0;
        if (std::sscanf(strLine.c_str(), "%llx-%llx ", &nBegin, &nEnd) == 2) {
            bGuest = IsOfGuest(nBegin);
        } else if (std::sscanf(strLine.c_str(), "Rss: %ld", &nKiB) == 1) {
            memory.nResident += nKiB;
            if (bGuest) memory.nGuest += nKiB;
        } else if (std::sscanf(strLine.c_str(), "Private_Clean: %ld", &nKiB) == 1 ||
                   std::sscanf(strLine.c_str(), "Private_Dirty: %ld", &nKiB) == 1) {
            memory.nPrivate += nKiB;
            if (bGuest) memory.nGuestPrivate += nKiB;
        }
    }
    return memory;
}

void Print(const char* szWhat, double resident, double ownOnly, double guest, double guestOwn) {
    std::printf("MEMORY %-20s %8.1f KiB resident, %8.1f KiB of it private", szWhat, resident,
                ownOnly);
    if (GuestBase() != 0)
        std::printf("; without the emulator %8.1f KiB, %8.1f KiB", guest, guestOwn);
    std::printf("\n");
}

TEST(Memory, IsSmallAtRestAndPerIdleConnection) {
    constexpr int kConnections = 200;
    CDaemon daemon;
    ASSERT_TRUE(daemon.Start()) << daemon.Log();
    {
        CBrokerClient first;  // what is made once, by the first call, is no cost of a connection
        ASSERT_EQ(first.Version(), "5.100");
    }
    ASSERT_TRUE(CDaemon::Await([&] { return CountServing(daemon) == 0; }));
    const Memory idle = MemoryOf(daemon.Pid());
    ASSERT_GT(idle.nResident, 0);

    std::vector<std::unique_ptr<CBrokerClient>> clients;
    for (int n = 0; n < kConnections; ++n) {
        clients.push_back(std::make_unique<CBrokerClient>());
        ASSERT_EQ(clients.back()->Version(), "5.100");  // its connection has been taken up
    }
    EXPECT_EQ(CountServing(daemon), kConnections);
    const Memory busy = MemoryOf(daemon.Pid());

    const auto each = [](long nBusy, long nIdle) {
        return static_cast<double>(nBusy - nIdle) / kConnections;
    };
    Print("idle:", static_cast<double>(idle.nResident), static_cast<double>(idle.nPrivate),
          static_cast<double>(idle.nGuest), static_cast<double>(idle.nGuestPrivate));
    Print("per idle connection:", each(busy.nResident, idle.nResident),
          each(busy.nPrivate, idle.nPrivate), each(busy.nGuest, idle.nGuest),
          each(busy.nGuestPrivate, idle.nGuestPrivate));

    // Without an emulator's own memory, where there is one.
    const bool bEmulated = GuestBase() != 0;
    const long nIdle = bEmulated ? idle.nGuest : idle.nResident;
    const long nEach = bEmulated ? busy.nGuest - idle.nGuest : busy.nResident - idle.nResident;
    EXPECT_LT(nIdle, 16 * 1024 * kSlack);
    EXPECT_LT(nEach / kConnections, 64 * kSlack);
}

}  // namespace
}  // namespace vok::test
