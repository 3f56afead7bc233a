/// main() of the test binaries that need a world of their own.
#include <gtest/gtest.h>

#include "tests/support/CPrivateWorld.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();  // lists them; runs none
    return vok::test::CPrivateWorld::Run([] { return RUN_ALL_TESTS(); });
}
