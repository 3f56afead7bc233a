/// Every port, wait and bound of the broker. The type carries the unit.
#pragma once

#include <chrono>
#include <cstddef>

namespace vok {

using namespace std::chrono_literals;

/// Where the broker serves.
inline constexpr char kBrokerAddress[] = "127.0.0.1";
inline constexpr int kBrokerPort = 50000;

/// Connect, send and receive time-out of every outbound call; 0: none.
#ifndef VOK_RPC_TIMEOUT_MS
#define VOK_RPC_TIMEOUT_MS 0
#endif
inline constexpr int kRpcTimeoutMs = VOK_RPC_TIMEOUT_MS;

/// Stack of every thread that the broker makes.
inline constexpr unsigned int kThreadStack = 0x100000;
/// Stack of a client's connection thread, which the RPC library makes. 5,000 of them must fit into
/// the address space of a 32-bit set.
inline constexpr std::size_t kConnectionStack = 0x40000;

/// Start-up: how often and how long the loopback interface, then the broker's own port, is awaited.
inline constexpr int kLoopbackTries = 10;
inline constexpr std::chrono::milliseconds kLoopbackPause{100};
inline constexpr int kServerTries = 255;
inline constexpr std::chrono::milliseconds kServerPause{100};

/// How long a broker that finds its port taken waits for the other one's answer. That one may be
/// busy.
inline constexpr int kBrokerQuestionMs = 5000;

/// How long accepting pauses when descriptors or memory are short.
inline constexpr std::chrono::milliseconds kAcceptPause{20};

/// How long a stop waits for calls that are being answered.
inline constexpr std::chrono::milliseconds kStopGrace{1000};

/// Mounting an image at start-up. The pause comes before every attempt, the first one included.
inline constexpr int kMountAttempts = 5;
inline constexpr std::chrono::seconds kMountPause{1};

/// How often the end of the broker looks whether threads of its own are still at work.
inline constexpr std::chrono::milliseconds kStopPoll{1};

/// How long an opener waits for the EMP's report.
inline constexpr int kReportWaitMs = 10'000;
/// How often a report looks whether its opener has announced itself.
inline constexpr std::chrono::milliseconds kWaiterPoll{10};

/// The wait for a transitional status to settle: pass 0 to pass kStatusPasses, a line every
/// kStatusLogEvery.
inline constexpr std::chrono::milliseconds kStatusPoll{10};
inline constexpr int kStatusPasses = 1000;
inline constexpr int kStatusLogEvery = 200;

/// Tickets kept at most, waiting ones excepted.
inline constexpr std::size_t kMaxTickets = 4096;

/// How many opens that have ended are remembered: a power of two, by which each is numbered.
inline constexpr std::size_t kKeptOpens = 256;

/// How long a stop of an EMP waits for its process to end before the image is unmounted.
inline constexpr std::chrono::milliseconds kEmpExitWait{2000};

/// Waiting for an EMP's server to answer pings.
inline constexpr int kLastEmpPing = 20;  // the first one is numbered 2
inline constexpr int kEmpPingDiagnosis = 10;
inline constexpr std::chrono::milliseconds kEmpPingPause{10};

/// Pinging EMPs: the pause before each round, and how many failed pings in a row an EMP is allowed
/// before its clients are told.
inline constexpr std::chrono::seconds kPingPause{5};
inline constexpr int EMP_MAX_PENDING_COUNT = 3;

/// What a failed open leaves to its fault report for a head start.
inline constexpr std::chrono::milliseconds kFaultReportHeadStart{100};

/// Clients of the admin service at once.
inline constexpr int kMaxAdminClients = 16;

/// The most that is read of a configuration file or of fault information, in bytes.
inline constexpr std::size_t kMaxTextFile = 0x100000;

/// The pool of `CSocketPorts`.
inline constexpr int kFirstPoolPort = 50100;
inline constexpr int kLastPoolPort = 50999;

/// The longest library path entry that is handed to EMPs, "LD_LIBRARY_PATH=" included.
inline constexpr std::size_t kMaxLibraryPath = 1203;

}  // namespace vok
