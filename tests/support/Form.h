/// How long the tests take that ctest does not run.
#pragma once

#include <cstdlib>
#include <string_view>

namespace vok::test {

/// The long form when VOK_FORM is "long", else the short one.
inline bool IsLongForm() {
    const char* const szForm = std::getenv("VOK_FORM");
    return szForm != nullptr && std::string_view(szForm) == "long";
}

}  // namespace vok::test
