/// How long the tests of this folder take.
#pragma once

#include <chrono>

#include "tests/support/Form.h"

namespace vok::test {

/// How long a flood goes on at least.
inline std::chrono::seconds FloodTime() {
    return std::chrono::seconds(IsLongForm() ? 60 : 5);
}

}  // namespace vok::test
