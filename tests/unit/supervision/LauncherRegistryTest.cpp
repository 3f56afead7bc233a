#include <string>

#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;

/// Register launchers come, serve and go.
class LauncherRegistryTest : public BrokerTest {
protected:
    auto Launchers() { return BrokerProbe::Launchers(m_Broker); }
};

TEST_F(LauncherRegistryTest, RegisterEmpGoesToTheFirstLauncherWithThatPort) {
    BrokerProbe::SetLauncher(m_Broker, "B", "4000", {});
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Clock"});

    EXPECT_TRUE(m_Broker.RegisterEMP("Weather", "4000"));

    EXPECT_THAT(Launchers(), ElementsAre(Pair(Pair("A", "4000"), ElementsAre("Clock", "Weather")),
                                         Pair(Pair("B", "4000"), IsEmpty())));
    EXPECT_THAT(LinesOf(m_Log, "RegisterEMP"),
                ElementsAre("1 [RegisterEMP] Emp[Weather], Launcher port[4000]",
                            "4 [before] RegisterEMP, size:[1].",
                            "4 Add a new registeren emp:[Weather] into Launcher:[A|4000]",
                            "4 [after] RegisterEMP, size:[2]."));
}

TEST_F(LauncherRegistryTest, RegisterEmpTwiceKeepsOne) {
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Weather"});

    EXPECT_TRUE(m_Broker.RegisterEMP("Weather", "4000"));

    EXPECT_THAT(Launchers(), ElementsAre(Pair(Pair("A", "4000"), ElementsAre("Weather"))));
}

TEST_F(LauncherRegistryTest, RegisterEmpWithoutALauncherFailsQuietly) {
    BrokerProbe::SetLauncher(m_Broker, "4000", "4001", {});

    EXPECT_FALSE(m_Broker.RegisterEMP("Weather", "4000"));

    EXPECT_THAT(LinesOf(m_Log, "RegisterEMP"),
                ElementsAre("1 [RegisterEMP] Emp[Weather], Launcher port[4000]"));
}

TEST_F(LauncherRegistryTest, UnRegisterEmpTakesItAway) {
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Clock", "Weather"});

    EXPECT_TRUE(m_Broker.UnRegisterEMP("Weather", "4000"));

    EXPECT_THAT(Launchers(), ElementsAre(Pair(Pair("A", "4000"), ElementsAre("Clock"))));
    EXPECT_THAT(LinesOf(m_Log, "UnRegisterEMP"),
                ElementsAre("1 [UnRegisterEMP] Emp[Weather], Launcher port[4000].",
                            "4 UnRegisterEMP m_mtxRegisterEmp size:[1].",
                            "4 [before] UnRegisterEMP, size:[2].",
                            "4 Remove Emp:[Weather] from Launcher:[A|4000].",
                            "4 [after] UnRegisterEMP, size:[1]."));
}

TEST_F(LauncherRegistryTest, UnRegisterEmpThatIsInUseFails) {
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Weather"});
    AddKnown("Weather", "0001", EMP_OPENED);

    EXPECT_FALSE(m_Broker.UnRegisterEMP("Weather", "4000"));

    EXPECT_THAT(Launchers(), ElementsAre(Pair(Pair("A", "4000"), ElementsAre("Weather"))));
    EXPECT_THAT(LinesOf(m_Log, "UnRegisterEMP"),
                ElementsAre("1 [UnRegisterEMP] Emp[Weather], Launcher port[4000].",
                            "0 UnRegisterEMP failed, EMP:[Weather] is in use now."));
}

TEST_F(LauncherRegistryTest, UnRegisterEmpWithoutALauncherFailsQuietly) {
    EXPECT_FALSE(m_Broker.UnRegisterEMP("Weather", "4000"));

    EXPECT_THAT(LinesOf(m_Log, "UnRegisterEMP"),
                ElementsAre("1 [UnRegisterEMP] Emp[Weather], Launcher port[4000].",
                            "4 UnRegisterEMP m_mtxRegisterEmp size:[0]."));
}

TEST_F(LauncherRegistryTest, LauncherThatComesAgainStartsWithoutEmps) {
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Weather"});
    BrokerProbe::SetLauncher(m_Broker, "AA", "4001", {"Clock"});

    EXPECT_TRUE(m_Broker.UpdateLauncherInfo(LAU_OPTION_REGISTER, "A", "4002"));

    EXPECT_THAT(Launchers(), ElementsAre(Pair(Pair("A", "4002"), IsEmpty()),
                                         Pair(Pair("AA", "4001"), ElementsAre("Clock"))));
    EXPECT_THAT(LinesOf(m_Log, "AddLauncherInfo"),
                ElementsAre("4 Old Register-Launcher:[A,4000] to be updated.",
                            "1 Add a new Register-Launcher:[A,4002]."));
}

TEST_F(LauncherRegistryTest, UnknownOptionIsTrueAllTheSame) {
    EXPECT_TRUE(m_Broker.UpdateLauncherInfo(static_cast<LauOption_E>(7), "A", "4000"));

    EXPECT_THAT(Launchers(), IsEmpty());
    EXPECT_THAT(LinesOf(m_Log, "UpdateLauncherInfo"), ElementsAre("0 Unknown option:[7]."));
}

TEST_F(LauncherRegistryTest, EmptyTextsAreRefusedWhateverTheOption) {
    EXPECT_FALSE(m_Broker.UpdateLauncherInfo(LAU_OPTION_REGISTER, "", "4000"));
    EXPECT_FALSE(m_Broker.UpdateLauncherInfo(static_cast<LauOption_E>(7), "A", ""));
    m_Broker.RemoveLauncherInfo("A", "");

    EXPECT_THAT(LinesOf(m_Log, "UpdateLauncherInfo"),
                ElementsAre("0 [Launcher] Name or Port maybe empty.",
                            "0 [Launcher] Name or Port maybe empty."));
    EXPECT_THAT(LinesOf(m_Log, "RemoveLauncherInfo"),
                ElementsAre("0 [Launcher] Name or Port maybe empty."));
}

TEST_F(LauncherRegistryTest, RemoveOfAnUnknownLauncherIsTold) {
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {});

    m_Broker.RemoveLauncherInfo("A", "4001");

    EXPECT_THAT(Launchers(), ElementsAre(Key(Pair("A", "4000"))));
    EXPECT_THAT(LinesOf(m_Log, "RemoveLauncherInfo"),
                ElementsAre("0 The Register-Launcher:[A,4001] does not exist in DB."));
}

TEST_F(LauncherRegistryTest, RemoveForgetsAnEmpWithoutConnections) {
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Weather"});
    AddKnown("Weather", "0001", EMP_OPENED);

    EXPECT_TRUE(m_Broker.UpdateLauncherInfo(LAU_OPTION_UNREGISTER, "A", "4000"));

    EXPECT_THAT(Launchers(), IsEmpty());
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(
        LinesOf(m_Log, "RemoveLauncherInfo"),
        ElementsAre("4 EMP Count:[1] <-> Launcher:[A|4000].",
                    "0 Failed to get port of EMP:[Weather].", "4 [0] emp needs to be closed.",
                    "1 Remove the Register-Launcher:[A,4000]."));
}

TEST_F(LauncherRegistryTest, RemoveClosesEveryClientFirst) {
    CFakeEmp emp;
    const std::string strPort = emp.PortText();
    BrokerProbe::SetLauncher(m_Broker, "A", "4000", {"Weather"});
    AddKnown("Weather", "0001", EMP_OPENED);
    ConnectionDB().AddConnectionData({"Weather", strPort}, "40001");
    ConnectionDB().AddConnectionData({"Weather", strPort}, "40002");
    emp.AnswerClose(1);

    m_Broker.RemoveLauncherInfo("A", "4000");

    EXPECT_THAT(Launchers(), IsEmpty());
    EXPECT_THAT(ConnectionDB().GetClientPortNumList({"Weather", strPort}), IsEmpty());
    const std::string strFirst = "[Weather|40001|" + strPort + "].";
    const std::string strSecond = "[Weather|40002|" + strPort + "].";
    EXPECT_THAT(LinesOf(m_Log, "RemoveLauncherInfo"),
                ElementsAre("4 EMP Count:[1] <-> Launcher:[A|4000].",
                            "4 [RemoveLauncherInfo] emp:[Weather], port:[" + strPort + "].",
                            "4 ClientPortList size:[2].", "4 [TODO] EmpInfo:" + strFirst,
                            "4 [TODO] EmpInfo:" + strSecond, "4 [2] emp needs to be closed.",
                            "4 [StopVokLauncherServer] -> Close EMP:" + strFirst,
                            "4 [StopVokLauncherServer] -> Close EMP, Result:[1].",
                            "4 [StopVokLauncherServer] -> Close EMP:" + strSecond,
                            "4 [StopVokLauncherServer] -> Close EMP, Result:[1].",
                            "1 Remove the Register-Launcher:[A,4000]."));
}

// ---- Grouping processes ----

TEST_F(LauncherRegistryTest, GroupIsInsertedWithItsEmps) {
    m_Broker.InsertGroupingEMP("Home", kGroupNotRunning, {"Weather", "Clock"});

    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Home", "N/A"), ElementsAre("Clock", "Weather"))));
    EXPECT_THAT(LinesOf(m_Log, "InsertGroupingEMP"),
                ElementsAre("1 Grouping EMP [Home|N/A] hosts [2] EMPs."));
}

TEST_F(LauncherRegistryTest, GroupThatIsKnownKeepsItsEmps) {
    m_Broker.InsertGroupingEMP("Home", "40123", {"Weather"});
    m_Broker.InsertGroupingEMP("Home", "40123", {"Clock", "Weather"});
    m_Broker.InsertGroupingEMP("Home", "40123", {});

    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Home", "40123"), ElementsAre("Clock", "Weather"))));
    EXPECT_THAT(LinesOf(m_Log, "InsertGroupingEMP"),
                ElementsAre("1 Grouping EMP [Home|40123] hosts [1] EMPs.",
                            "1 Grouping EMP [Home|40123] hosts [2] EMPs.",
                            "1 Grouping EMP [Home|40123] hosts [2] EMPs."));
}

TEST_F(LauncherRegistryTest, GroupThatIsKnownKeepsItsPortWhenNoneIsTold) {
    BrokerProbe::SetGroup(m_Broker, "Homes", "40124", {"Radio"});
    m_Broker.InsertGroupingEMP("Home", "40123", {"Weather"});

    m_Broker.InsertGroupingEMP("Home", kGroupNotRunning, {"Clock"});

    EXPECT_THAT(BrokerProbe::Groups(m_Broker),
                ElementsAre(Pair(Pair("Home", "40123"), ElementsAre("Clock", "Weather")),
                            Pair(Pair("Homes", "40124"), ElementsAre("Radio"))));
}

TEST_F(LauncherRegistryTest, InsertedGroupHostsItsEmps) {
    m_Broker.InsertGroupingEMP("Home", "40123", {"Weather"});
    std::string strGroup;
    std::string strPort;

    EXPECT_TRUE(m_Broker.GetGroupingEMPInfo(strGroup, strPort, "Weather"));

    EXPECT_EQ(strGroup, "Home");
    EXPECT_EQ(strPort, "40123");
    EXPECT_EQ(m_Broker.WhereIsEMP("Weather"), EMPLOCATION_GROUPING);
}

}  // namespace
}  // namespace vok
