#include <gtest/gtest.h>

#include <string>

#include "open/ServerChoice.h"

namespace vok {
namespace {

struct Case {
    const char* szName;
    std::string strOption;
    bool bLive;
    eServerChoice eChoice;
};
void PrintTo(const Case& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class ChooseServerTest : public ::testing::TestWithParam<Case> {};

TEST_P(ChooseServerTest, GoesByOptionAndConnection) {
    EXPECT_EQ(ChooseServer(GetParam().strOption, GetParam().bLive), GetParam().eChoice);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ChooseServerTest,
    ::testing::Values(Case{"LiveSingleton", "0001", true, eServerChoice::Reuse},
                      Case{"LostSingleton", "0001", false, eServerChoice::StartLostServer},
                      Case{"LiveNotSingleton", "0002", true, eServerChoice::StartAnother},
                      Case{"LostNotSingleton", "0002", false, eServerChoice::StartAnother},
                      Case{"TakenOneConnection", "0003", true, eServerChoice::Refuse},
                      Case{"FreeOneConnection", "0003", false, eServerChoice::StartOneConnection},
                      Case{"Default", "0000", true, eServerChoice::StartUnknown},
                      Case{"Empty", "", false, eServerChoice::StartUnknown},
                      Case{"Longer", "00010", true, eServerChoice::StartUnknown}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
