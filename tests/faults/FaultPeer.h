/// Where a test and its faulty peers meet; see fault_peer.cpp. Everybody in the test's world may
/// write there.
#pragma once

namespace vok::test {

inline constexpr char kPeerFolder[] = "/run/fault-peer";
inline constexpr char kScript[] = "/run/fault-peer/script";
inline constexpr char kReached[] = "/run/fault-peer/reached";
inline constexpr char kPids[] = "/run/fault-peer/pids";

}  // namespace vok::test
