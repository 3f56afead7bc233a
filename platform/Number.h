/// Numbers in texts that peers send.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

namespace vok {

/// The decimal number that a text begins with (strtol(3)); 0 when it begins with none, and the
/// nearest int when it is too large: 4294967297 is no port, least of all port 1.
inline int LeadingNumber(const std::string& strText) {
    const long nNumber = std::strtol(strText.c_str(), nullptr, 10);
    return static_cast<int>(std::clamp<long>(nNumber, std::numeric_limits<int>::min(),
                                             std::numeric_limits<int>::max()));
}

}  // namespace vok
