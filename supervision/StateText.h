/// How what the tables hold is told to those who look after the set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "broker/CBroker.h"
#include "registry/CConnectionDB.h"
#include "vok_admin_types.h"

namespace vok {

/// Names and ports come from peers as any bytes; what leaves as text is UTF-8, as readers expect:
/// with U+FFFD for each byte that is none.
std::string Text(std::string_view strBytes);

std::vector<admin::LauncherState> Describe(const LauncherTable& table);

/// Clients by callback port, and for how long they have been connected, in milliseconds.
/// `clients` is a copy that has been made before.
void Describe(const ClientMap& clients, std::vector<std::string>& ports,
              std::vector<std::int64_t>& agesMs);

}  // namespace vok
