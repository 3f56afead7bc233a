#include <gtest/gtest.h>

#include "platform/CSocketPorts.h"
#include "platform/Limits.h"

namespace vok {
namespace {

TEST(Lease, GivesEveryPortOnceThenNone) {
    CSocketPorts ports;
    for (int nPort = kFirstPoolPort; nPort <= kLastPoolPort; ++nPort) {
        EXPECT_EQ(ports.Lease(), nPort);
    }
    EXPECT_EQ(ports.Lease(), -1);
}

TEST(Return, MakesThePortTheNextLowest) {
    CSocketPorts ports;
    const int nFirst = ports.Lease();
    const int nSecond = ports.Lease();
    EXPECT_EQ(ports.Return(nFirst), 0);
    EXPECT_EQ(ports.Lease(), nFirst);
    EXPECT_EQ(ports.Lease(), nSecond + 1);
}

TEST(Return, RefusesWhatIsNotOut) {
    CSocketPorts ports;
    const int nPort = ports.Lease();
    EXPECT_EQ(ports.Return(nPort + 1), -1);
    EXPECT_EQ(ports.Return(nPort), 0);
    EXPECT_EQ(ports.Return(nPort), -1);
}

TEST(Return, RefusesPortsThatAreNotOfThePool) {
    CSocketPorts ports;
    for (const int nPort : {-1, 0, kFirstPoolPort - 1, kLastPoolPort + 1}) {
        EXPECT_EQ(ports.Return(nPort), -1) << nPort;
    }
    EXPECT_EQ(ports.Lease(), kFirstPoolPort);
}

}  // namespace
}  // namespace vok
