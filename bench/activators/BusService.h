/// What the bus's service and its clients agree about.
#pragma once

namespace vok::bench {

inline constexpr char kBusName[] = "vok.bench.Service";
inline constexpr char kBusPath[] = "/vok/bench/Service";
inline constexpr char kBusInterface[] = "vok.bench.Service";
/// Answers an empty message.
inline constexpr char kBusAnswer[] = "Answer";
/// The service ends; no answer.
inline constexpr char kBusQuit[] = "Quit";

}  // namespace vok::bench
