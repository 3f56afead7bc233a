#include "tests/fuzz/support/Target.h"

#include <cstdio>
#include <cstdlib>

namespace vok::test {

void Require(bool bHolds, std::string_view strWhat) {
    if (bHolds) return;
    std::fprintf(stderr, "Broken: %.*s\n", static_cast<int>(strWhat.size()), strWhat.data());
    std::abort();
}

}  // namespace vok::test
