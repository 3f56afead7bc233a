// The kernel gives a connection a free port of a range: where nobody listens on one of these, a
// connection to it can come to be its own peer.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "VokEmp.h"
#include "platform/Descriptors.h"
#include "rpc/CallOnce.h"

namespace vok {
namespace {

/// The second is the same address to the kernel, but not to who compares addresses.
struct HostCase {
    const char* szName;
    const char* szHost;
};

class SelfConnectionTest : public ::testing::TestWithParam<HostCase> {};

TEST_P(SelfConnectionTest, IsNone) {
    constexpr int kPort = 41000;
    std::ofstream range{"/proc/sys/net/ipv4/ip_local_port_range"};
    ASSERT_TRUE(range << kPort << ' ' << kPort << std::endl);
    const std::set<int> before = InheritableDescriptors();

    bool bAsked = false;
    std::string strWhat;
    EXPECT_FALSE(CallOnce<VokEmpClient>(
        {GetParam().szHost, kPort, {}}, [&](VokEmpClient&) { bAsked = true; },
        [&](const char* szWhat) { strWhat = szWhat; }));

    EXPECT_EQ(strWhat, "connected to itself");
    EXPECT_FALSE(bAsked);
    EXPECT_EQ(InheritableDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Host, SelfConnectionTest,
                         ::testing::Values(HostCase{"Loopback", "127.0.0.1"},
                                           HostCase{"Any", "0.0.0.0"}),
                         [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
