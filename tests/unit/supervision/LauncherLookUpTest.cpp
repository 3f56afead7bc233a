#include <string>

#include "tests/support/BrokerTest.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;

class LauncherLookUpTest : public BrokerTest {
protected:
    std::string m_strName = "name before";
    std::string m_strPort = "port before";
};

TEST_F(LauncherLookUpTest, GroupIsFoundInKeyOrder) {
    BrokerProbe::SetGroup(m_Broker, "B", "1", {"Weather"});
    BrokerProbe::SetGroup(m_Broker, "A", "9", {"Clock", "Weather"});
    BrokerProbe::SetGroup(m_Broker, "A", "10", {"Clock", "Weather"});
    BrokerProbe::SetGroup(m_Broker, "A", "1", {"Clock"});

    EXPECT_TRUE(m_Broker.GetGroupingEMPInfo(m_strName, m_strPort, "Weather"));

    EXPECT_EQ(m_strName, "A");
    EXPECT_EQ(m_strPort, "10");  // before "9": texts
    EXPECT_THAT(LinesOf(m_Log, "GetGroupingEMPInfo"),
                ElementsAre("4 >>>>>>>>Find [Weather]'s group name, Current Map size:[4].",
                            "4 >>Found it, it's group name:[A], port:[10]."));
}

TEST_F(LauncherLookUpTest, GroupThatIsNotFoundLeavesTheOutputsAlone) {
    BrokerProbe::SetGroup(m_Broker, "Weather", "1", {"Clock"});
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "1", {"Weather"});

    EXPECT_FALSE(m_Broker.GetGroupingEMPInfo(m_strName, m_strPort, "Weather"));

    EXPECT_EQ(m_strName, "name before");
    EXPECT_EQ(m_strPort, "port before");
    EXPECT_THAT(LinesOf(m_Log, "GetGroupingEMPInfo"),
                ElementsAre("4 >>>>>>>>Find [Weather]'s group name, Current Map size:[1]."));
}

TEST_F(LauncherLookUpTest, RegisterLauncherIsFoundInKeyOrder) {
    BrokerProbe::SetLauncher(m_Broker, "B", "1", {"Weather"});
    BrokerProbe::SetLauncher(m_Broker, "A", "9", {"Weather"});
    BrokerProbe::SetLauncher(m_Broker, "A", "10", {"Clock"});

    EXPECT_TRUE(m_Broker.GetRegisterEMPInfo(m_strName, m_strPort, "Weather"));

    EXPECT_EQ(m_strName, "A");
    EXPECT_EQ(m_strPort, "9");
    EXPECT_THAT(LinesOf(m_Log, "GetRegisterEMPInfo"),
                ElementsAre("4 >>Find [Weather]'s Service name, Current Map size:[3].",
                            "4 >> Found it, it's Register Service name:[A], port:[9]."));
}

TEST_F(LauncherLookUpTest, RegisterLauncherThatIsNotFoundLeavesTheOutputsAlone) {
    BrokerProbe::SetGroup(m_Broker, "Group", "1", {"Weather"});

    EXPECT_FALSE(m_Broker.GetRegisterEMPInfo(m_strName, m_strPort, "Weather"));

    EXPECT_EQ(m_strName, "name before");
    EXPECT_EQ(m_strPort, "port before");
    EXPECT_THAT(LinesOf(m_Log, "GetRegisterEMPInfo"),
                ElementsAre("4 >>Find [Weather]'s Service name, Current Map size:[0]."));
}

TEST_F(LauncherLookUpTest, NamesMayHoldAnyBytes) {
    const std::string strOdd("a\0b/..", 6);
    BrokerProbe::SetGroup(m_Broker, "Group", "1", {strOdd});

    EXPECT_TRUE(m_Broker.GetGroupingEMPInfo(m_strName, m_strPort, strOdd));
    EXPECT_FALSE(m_Broker.GetGroupingEMPInfo(m_strName, m_strPort, "a"));
}

}  // namespace
}  // namespace vok
