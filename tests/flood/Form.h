/// How long the tests of this folder take.
#pragma once

#include <chrono>
#include <cstdlib>
#include <string_view>

namespace vok::test {

/// The long form when VOK_FLOOD is "long", else the short one.
inline bool IsLongForm() {
    const char* const szForm = std::getenv("VOK_FLOOD");
    return szForm != nullptr && std::string_view(szForm) == "long";
}

/// How long a flood goes on at least.
inline std::chrono::seconds FloodTime() {
    return std::chrono::seconds(IsLongForm() ? 60 : 5);
}

}  // namespace vok::test
