#include <string>
#include <vector>

#include "tests/support/BrokerLocks.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CFakeLauncher.h"
#include "tests/support/LogLines.h"
#include "tests/support/RpcLibraryFault.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

// ---- SendOpenToEmpLauncher ----

class SendOpenTest : public BrokerTest {
protected:
    bool Send(const std::string& strPort) {
        return m_Broker.SendOpenToEmpLauncher("Weather", 42, "40001", strPort);
    }

    static std::string Line(int nLevel, const std::string& strMessage) {
        return std::to_string(nLevel) + " SendOpenToEmpLauncher: " + strMessage;
    }
    static std::string CallLine(const std::string& strPort) {
        return Line(4,
                    "Call EmpLauncher to start emp with name:Weather, cbSrvPath:40001, "
                    "launcherPort:" +
                        strPort);
    }
    const std::string m_strBefore = Line(4, "Before send open to launcher");
    const std::string m_strAfter = Line(4, "after send open to launcher");
    const std::string m_strEnd = Line(4, "Open call end");
    const std::string m_strError = Line(0, "Transport Error : \\[.+\\]");

    CFakeLauncher m_Launcher;
};

class SendOpenAnswerTest : public SendOpenTest, public ::testing::WithParamInterface<int> {};

TEST_P(SendOpenAnswerTest, IsTheResult) {
    m_Launcher.Answer(GetParam());

    EXPECT_EQ(Send(m_Launcher.PortText()), GetParam() != 0);

    EXPECT_THAT(m_Launcher.Opens(), ElementsAre(LauncherOpen{"Weather", 42, "40001"}));
    EXPECT_THAT(LogLines(m_Log),
                ElementsAre(CallLine(m_Launcher.PortText()), m_strBefore, m_strAfter, m_strEnd));
}

INSTANTIATE_TEST_SUITE_P(Answer, SendOpenAnswerTest, ::testing::Values(0, 1, -1, 256, 65536));

TEST_F(SendOpenTest, PathOfAClientArrivesAsItIs) {
    EXPECT_TRUE(m_Broker.SendOpenToEmpLauncher("", -1, "/tmp/client", m_Launcher.PortText()));

    EXPECT_THAT(m_Launcher.Opens(), ElementsAre(LauncherOpen{"", -1, "/tmp/client"}));
}

TEST_F(SendOpenTest, LauncherThatIsNotThereIsAnError) {
    const CRefusedPort port;
    for (const std::string& strPort : {port.PortText(), std::string("N/A"), std::string("")}) {
        SCOPED_TRACE(strPort);
        m_Log.Clear();
        EXPECT_FALSE(Send(strPort));
        EXPECT_THAT(LogLines(m_Log), ElementsAre(CallLine(strPort), MatchesRegex(m_strError)));
    }
}

TEST_F(SendOpenTest, TextAfterThePortIsIgnored) {
    EXPECT_TRUE(Send(m_Launcher.PortText() + "|x"));
}

TEST_F(SendOpenTest, LauncherThatFailsIsAnErrorWithItsText) {
    m_Launcher.FailCalls("no room");

    EXPECT_FALSE(Send(m_Launcher.PortText()));

    EXPECT_THAT(LogLines(m_Log), ElementsAre(CallLine(m_Launcher.PortText()), m_strBefore,
                                             Line(0, "Transport Error : [no room]")));
}

TEST_F(SendOpenTest, AnswerThatIsNoneIsAnError) {
    for (const std::string& strAnswer : {std::string(), HalfAnAnswer(), Garbage()}) {
        SCOPED_TRACE(strAnswer);
        const CRawPeer peer{strAnswer};
        m_Log.Clear();
        EXPECT_FALSE(Send(peer.PortText()));
        EXPECT_THAT(LogLines(m_Log),
                    ElementsAre(CallLine(peer.PortText()), m_strBefore, MatchesRegex(m_strError)));
    }
}

TEST_F(SendOpenTest, NoLockIsHeldDuringTheCall) {
    bool bDone = false;
    m_Launcher.OnOpen([&](const LauncherOpen&) {
        TakeEveryLock(m_Broker);
        bDone = true;
    });

    EXPECT_TRUE(Send(m_Launcher.PortText()));

    EXPECT_TRUE(bDone);
}

// ---- IsLauncherServerRunning ----

class LauncherRunningTest : public BrokerTest {};

TEST_F(LauncherRunningTest, LauncherThatAcceptsAConnectionRuns) {
    const CFakeLauncher launcher;

    EXPECT_TRUE(m_Broker.IsLauncherServerRunning("127.0.0.1", launcher.PortText()));

    EXPECT_THAT(launcher.Opens(), IsEmpty());
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(LauncherRunningTest, WhatCannotBeConnectedToDoesNotRun) {
    const CFakeLauncher launcher;
    const CRefusedPort port;
    const std::pair<std::string, std::string> cases[] = {{"127.0.0.1", port.PortText()},
                                                         {"127.0.0.2", launcher.PortText()},
                                                         {"127.0.0.1", "N/A"},
                                                         {"127.0.0.1", ""}};
    for (const auto& [strIp, strPort] : cases) {
        SCOPED_TRACE(strIp + ' ' + strPort);
        m_Log.Clear();
        EXPECT_FALSE(m_Broker.IsLauncherServerRunning(strIp, strPort));
        EXPECT_THAT(LogLines(m_Log),
                    ElementsAre(MatchesRegex("3 IsLauncherServerRunning: It seems something wrong "
                                             "with Server:\\[" +
                                             strIp + "," + strPort + "\\], ErrCode:\\[.+\\]")));
    }
}

TEST_F(LauncherRunningTest, OtherExceptionsAreToldWithoutAText) {
    const CRefusedPort port;
    for (const auto thrown :
         {CRpcLibraryFault::STD_EXCEPTION, CRpcLibraryFault::NO_EXCEPTION_CLASS}) {
        const CRpcLibraryFault fault{thrown};
        m_Log.Clear();
        EXPECT_FALSE(m_Broker.IsLauncherServerRunning("127.0.0.1", port.PortText()));
        EXPECT_THAT(LogLines(m_Log),
                    ElementsAre("3 IsLauncherServerRunning: It seems something wrong with "
                                "Server:[127.0.0.1," +
                                port.PortText() + "]."));
    }
}

// ---- ConfirmGroupingEmpServer ----

struct ConfirmCase {
    const char* szName;
    LauncherTable before;
    const char* szGroup;
    const char* szPort;
    LauncherTable after;
    std::vector<std::string> lines;  // after the first
};
void PrintTo(const ConfirmCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class ConfirmGroupingTest : public BrokerTest, public ::testing::WithParamInterface<ConfirmCase> {};

TEST_P(ConfirmGroupingTest, MovesTheGroupToItsPort) {
    const ConfirmCase& c = GetParam();
    for (const auto& [key, setEmp] : c.before)
        BrokerProbe::SetGroup(m_Broker, key.first, key.second, setEmp);

    m_Broker.ConfirmGroupingEmpServer(c.szGroup, c.szPort);

    EXPECT_EQ(BrokerProbe::Groups(m_Broker), c.after);
    std::vector<std::string> expected{">>>>>>>>Enter ConfirmGroupingEmpServer[" +
                                      std::string(c.szGroup) + "] [" + c.szPort +
                                      "], map size is [" + std::to_string(c.before.size()) + "]"};
    expected.insert(expected.end(), c.lines.begin(), c.lines.end());
    for (std::string& strLine : expected) strLine.insert(0, "4 ConfirmGroupingEmpServer: ");
    EXPECT_EQ(LogLines(m_Log), expected);
}

const LauncherTable kTwoGroups{{{"Group", "N/A"}, {"Clock", "Weather"}}, {{"Other", "N/A"}, {"X"}}};

INSTANTIATE_TEST_SUITE_P(
    Table, ConfirmGroupingTest,
    ::testing::Values(
        ConfirmCase{"EmptyTable", {}, "Group", "5000", {}, {}},
        ConfirmCase{"UnknownGroupIsNotAdded", kTwoGroups, "Third", "5000", kTwoGroups, {}},
        ConfirmCase{"BeginningOfANameIsUnknown", kTwoGroups, "Grou", "5000", kTwoGroups, {}},
        ConfirmCase{"LongerNameIsUnknown", kTwoGroups, "Group1", "5000", kTwoGroups, {}},
        ConfirmCase{"OtherCaseIsUnknown", kTwoGroups, "group", "5000", kTwoGroups, {}},
        ConfirmCase{"NameOfAnEmpIsUnknown", kTwoGroups, "Weather", "5000", kTwoGroups, {}},
        ConfirmCase{"FirstPort",
                    kTwoGroups,
                    "Group",
                    "5000",
                    {{{"Group", "5000"}, {"Clock", "Weather"}}, {{"Other", "N/A"}, {"X"}}},
                    {"After confirm Grouping EMP port, map size is[2] "}},
        ConfirmCase{"Stopped",
                    {{{"Group", "5000"}, {"Clock"}}},
                    "Group",
                    "N/A",
                    {{{"Group", "N/A"}, {"Clock"}}},
                    {"After confirm Grouping EMP port, map size is[1] "}},
        ConfirmCase{"EmptyPortIsAsGoodAsAny",
                    {{{"Group", "5000"}, {"Clock"}}},
                    "Group",
                    "",
                    {{{"Group", ""}, {"Clock"}}},
                    {"After confirm Grouping EMP port, map size is[1] "}},
        ConfirmCase{"SamePort",
                    {{{"Group", "5000"}, {"Clock"}}},
                    "Group",
                    "5000",
                    {{{"Group", "5000"}, {"Clock"}}},
                    {"grouping emp[Group]'s port already is [5000]"}},
        ConfirmCase{"SamePortNotRunning",
                    kTwoGroups,
                    "Group",
                    "N/A",
                    kTwoGroups,
                    {"grouping emp[Group]'s port already is [N/A]"}},
        ConfirmCase{"FirstOfTwoMovesAlone",
                    {{{"Group", "5000"}, {"Clock"}}, {{"Group", "6000"}, {"Weather"}}},
                    "Group",
                    "7000",
                    {{{"Group", "6000"}, {"Weather"}}, {{"Group", "7000"}, {"Clock"}}},
                    {"After confirm Grouping EMP port, map size is[2] "}},
        ConfirmCase{"EntryOfThatPortKeepsItsEmps",
                    {{{"Group", "5000"}, {"Clock"}}, {{"Group", "6000"}, {"Weather"}}},
                    "Group",
                    "6000",
                    {{{"Group", "6000"}, {"Weather"}}},
                    {"After confirm Grouping EMP port, map size is[1] "}},
        ConfirmCase{"OnlyTheFirstIsLookedAt",
                    {{{"Group", "5000"}, {"Clock"}}, {{"Group", "6000"}, {"Weather"}}},
                    "Group",
                    "5000",
                    {{{"Group", "5000"}, {"Clock"}}, {{"Group", "6000"}, {"Weather"}}},
                    {"grouping emp[Group]'s port already is [5000]"}},
        ConfirmCase{"GroupWithoutEmps",
                    {{{"Group", "N/A"}, {}}},
                    "Group",
                    "5000",
                    {{{"Group", "5000"}, {}}},
                    {"After confirm Grouping EMP port, map size is[1] "}}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
