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

TEST(SelfConnection, IsNone) {
    constexpr int kPort = 41000;
    std::ofstream range{"/proc/sys/net/ipv4/ip_local_port_range"};
    ASSERT_TRUE(range << kPort << ' ' << kPort << std::endl);
    const std::set<int> before = InheritableDescriptors();

    bool bAsked = false;
    std::string strWhat;
    EXPECT_FALSE(CallOnce<VokEmpClient>(
        {"127.0.0.1", kPort, {}}, [&](VokEmpClient&) { bAsked = true; },
        [&](const char* szWhat) { strWhat = szWhat; }));

    EXPECT_EQ(strWhat, "connected to itself");
    EXPECT_FALSE(bAsked);
    EXPECT_EQ(InheritableDescriptors(), before);
}

}  // namespace
}  // namespace vok
