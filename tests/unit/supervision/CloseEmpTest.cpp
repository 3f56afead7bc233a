#include <ostream>
#include <string>
#include <vector>

#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeEmp.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

ConnectionInfo Connection(const std::string& strEmp, const std::string& strClientPort,
                          const std::string& strEmpPort) {
    ConnectionInfo info;
    info.empName = strEmp;
    info.clientPort = strClientPort;
    info.empPort = strEmpPort;
    return info;
}

// ---- The name of the thread ----

struct NameCase {
    const char* szName;
    const char* szEmp;
    const char* szClientPort;
    const char* szEmpPort;
    const char* szThread;
};
void PrintTo(const NameCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class CloseEmpNameTest : public BrokerTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(CloseEmpNameTest, IsMadeOfEmpAndPorts) {
    const NameCase& c = GetParam();

    EXPECT_FALSE(m_Broker.CloseEmp(Connection(c.szEmp, c.szClientPort, c.szEmpPort)));

    const std::string strThread = c.szThread;
    EXPECT_EQ(ThreadName(), strThread);
    EXPECT_EQ(LinesOf(m_Log, "CloseEmp")[0],
              "4 ThreadName:[" + strThread + "] len:[" + std::to_string(strThread.size()) + "]");
}

INSTANTIATE_TEST_SUITE_P(
    Table, CloseEmpNameTest,
    ::testing::Values(NameCase{"FiveDigits", "abc", "40001", "40123", "B-C-abc0123"},
                      NameCase{"LongName", "abcdefghij", "40012", "40134", "B-C-abcdefg1234"},
                      NameCase{"SevenCharacters", "abcdefg", "40012", "40134", "B-C-abcdefg1234"},
                      NameCase{"NoName", "", "40012", "40134", "B-C-1234"},
                      NameCase{"ShortClientPortEndsIt", "abc", "4001", "40123", "B-C-abc1"},
                      NameCase{"ShorterClientPortEndsIt", "abc", "400", "40123", "B-C-abc"},
                      NameCase{"NoClientPortEndsIt", "abc", "", "40123", "B-C-abc"},
                      NameCase{"ShortEmpPort", "abc", "40012", "4013", "B-C-abc123"},
                      NameCase{"FailedOpen", "abc", "-1", "-1", "B-C-abc"},
                      NameCase{"SocketPaths", "abc", "/tmp/a-long-path", "/tmp/b-long-path",
                               "B-C-abcp/p/"}),
    [](const auto& info) { return info.param.szName; });

// ---- Closing ----

/// An EMP that serves, whose record says so and that has two clients, 40001 and 40002.
class CloseEmpTest : public BrokerTest {
protected:
    CloseEmpTest() { AddRunning("Weather", "0001"); }

    void AddRunning(const std::string& strEmp, const std::string& strOption) {
        AddKnown(strEmp, strOption, EMP_RESERVED6);  // so that setting the status can be seen
        ConnectionDB().AddConnectionData({strEmp, Port()}, "40001");
        ConnectionDB().AddConnectionData({strEmp, Port()}, "40002");
        m_Log.Clear();
    }

    std::string Port() const { return m_Emp.PortText(); }
    bool Close(const std::string& strClientPort = "40001") {
        return m_Broker.CloseEmp(Connection("Weather", strClientPort, Port()));
    }

    /// Without the first, which names the thread.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines = LinesOf(m_Log, "CloseEmp");
        lines.erase(lines.begin());
        return lines;
    }
    std::string RequestLine(const std::string& strClientPort = "40001") const {
        return "4 RPC Request:[CEmpAppBase::Close], empPort:[" + Port() + "], clientport[" +
               strClientPort + "]";
    }
    std::set<std::string> Clients() {
        return ConnectionDB().GetClientPortNumList({"Weather", Port()});
    }
    bool HasEntry() { return !ConnectionDB().GetConnectionKeyList().empty(); }

    CFakeEmp m_Emp;
};

TEST_F(CloseEmpTest, EmpThatLivesNowhereIsNotClosed) {
    EXPECT_FALSE(Close());

    EXPECT_THAT(Lines(),
                ElementsAre("0 [Weather] Unknown-type EMP, Maybe it had already been closed."));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_RESERVED6);
    EXPECT_THAT(Clients(), ElementsAre("40001", "40002"));
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
}

TEST_F(CloseEmpTest, OtherClientsKeepTheEmp) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.AnswerClose(1);

    EXPECT_TRUE(Close());

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(EmpCall{"Close", {"40001", "0"}}));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_THAT(Clients(), ElementsAre("40002"));
    EXPECT_THAT(Lines(), ElementsAre(RequestLine(), "1 EMP:[Weather] ReferenceCounter:[1]"));
}

TEST_F(CloseEmpTest, LastClientLeavesAnEmptyEntry) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.AnswerClose(1);
    EXPECT_TRUE(Close("40001"));
    m_Emp.AnswerClose(0);
    m_Log.Clear();

    EXPECT_TRUE(Close("40002"));

    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_OPENED);
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", Port())));
    EXPECT_THAT(Clients(), IsEmpty());
    EXPECT_THAT(Lines(), ElementsAre(RequestLine("40002")));
}

TEST_F(CloseEmpTest, LastClientOfARegisterEmpEndsIt) {
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Weather"});
    BrokerProbe::SetMountCount(m_Broker, "Weather", 1);
    m_Emp.AnswerClose(1);
    EXPECT_TRUE(Close("40001"));
    EXPECT_THAT(Lines(), ElementsAre("4 [Weather] Register EMP.", RequestLine(),
                                     "1 EMP:[Weather] ReferenceCounter:[1]"));
    EXPECT_TRUE(EmpInfo().IsAdded("Weather"));
    m_Emp.AnswerClose(0);
    m_Log.Clear();

    EXPECT_TRUE(Close("40002"));

    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_FALSE(HasEntry());
    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Close", {"40001", "2"}}, EmpCall{"Close", {"40002", "2"}}));
    EXPECT_THAT(Lines(), ElementsAre("4 [Weather] Register EMP.", RequestLine("40002"),
                                     "1 RegisterEMP[Weather] ReferenceCounter[0]"));
    EXPECT_FALSE(HasLinesOf(m_Log, "GetEmpLocationType"));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", 1)));
}

TEST_F(CloseEmpTest, RegisterEmpThatCountsNobodyKeepsTheEntryOfOtherClients) {
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Weather"});
    m_Emp.AnswerClose(0);

    EXPECT_TRUE(Close());

    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(Clients(), ElementsAre("40002"));
}

// ---- Closes that fail ----

TEST_F(CloseEmpTest, EmpThatDoesNotAnswerLosesASingletonsRecord) {
    m_Fake.AddPreinstalled("Weather");
    const CRefusedPort port;
    ConnectionDB().AddConnectionData({"Weather", port.PortText()}, "40001");

    EXPECT_FALSE(m_Broker.CloseEmp(Connection("Weather", "40001", port.PortText())));

    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), ElementsAre(Pair("Weather", Port())));
    EXPECT_EQ(Lines().back(), "0 Error!! EMP[Weather] ReferenceCounter[-1] ");
}

TEST_F(CloseEmpTest, EmpThatDoesNotAnswerKeepsOtherRecords) {
    for (const char* szOption : {"0000", "0002", "0003"}) {
        SCOPED_TRACE(szOption);
        EmpInfo().Remove("Weather");
        m_Fake.AddPreinstalled("Weather");
        AddRunning("Weather", szOption);
        m_Emp.FailCalls("broken");

        EXPECT_FALSE(Close());

        EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_RESERVED6);
        EXPECT_THAT(Clients(), ElementsAre("40002"));
    }
}

TEST_F(CloseEmpTest, AnyNegativeAnswerIsAFailure) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.AnswerClose(-7);

    EXPECT_FALSE(Close());

    EXPECT_THAT(Lines(),
                ElementsAre(RequestLine(), "0 Error!! EMP[Weather] ReferenceCounter[-7] "));
    EXPECT_FALSE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(Clients(), ElementsAre("40002"));
}

TEST_F(CloseEmpTest, FailedCloseDropsTheEntryWithItsLastClient) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.AnswerClose(-1);
    Close("40001");
    AddKnown("Weather", "0001", EMP_OPENED);

    EXPECT_FALSE(Close("40002"));

    EXPECT_FALSE(HasEntry());
}

TEST_F(CloseEmpTest, ClientThatIsNotConnectedIsClosedAllTheSame) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.AnswerClose(2);

    EXPECT_TRUE(Close("49999"));

    EXPECT_THAT(Clients(), ElementsAre("40001", "40002"));
    EXPECT_TRUE(m_Log.HasLine(LEVEL_ERROR, "RemoveClientPortFromConnDB",
                              "the client:[49999] to be removed isn't in the DB."));
}

// ---- Status ----

TEST_F(CloseEmpTest, EmpThatHasGoneIsClosed) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 2);
    EmpInfo().Remove("Weather");

    EXPECT_TRUE(Close());

    EXPECT_EQ(Lines().back(),
              "4 emp:Weather status: EMP_NOT_FOUND, Maybe it was closed by other client.");
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", 1)));
    EXPECT_THAT(Clients(), ElementsAre("40001", "40002"));
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
}

TEST_F(CloseEmpTest, StatusThatNeverSettlesCountsAsGone) {
    m_Fake.AddPreinstalled("Weather");
    EmpInfo().SetTypeStatus("Weather", EMP_ADDED);

    EXPECT_TRUE(Close());

    EXPECT_EQ(Lines().back(),
              "4 emp:Weather status: EMP_NOT_FOUND, Maybe it was closed by other client.");
    EXPECT_THAT(m_Fake.clock.Sleeps(), SizeIs(1001));
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
}

TEST_F(CloseEmpTest, StatusDecidesWhetherTheEmpIsAsked) {
    m_Fake.AddPreinstalled("Weather");
    m_Emp.AnswerClose(1);
    // Statuses 0, 1 and 4 only come up between the wait and the test.
    for (const int nStatus : {0, 1, 2, 3, 4, 5, 6}) {
        SCOPED_TRACE(nStatus);
        const bool bRefused = nStatus == 0 || nStatus == 1 || nStatus == 3 || nStatus == 4;
        AddKnown("Weather", "0001", EMP_RESERVED5);
        m_Log.Once("[Weather] Wait for status[5] change",
                   [&] { EmpInfo().SetTypeStatus("Weather", static_cast<EMP_STATUS>(nStatus)); });
        m_Emp.ForgetCalls();

        EXPECT_EQ(Close(), !bRefused);

        EXPECT_EQ(m_Emp.Calls().empty(), bRefused);
        if (bRefused) {
            EXPECT_THAT(Lines(), ElementsAre("0 [Weather] status[" + std::to_string(nStatus) +
                                             "] is incorrect"));
            EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), static_cast<EMP_STATUS>(nStatus));
        }
    }
}

TEST_F(CloseEmpTest, RefusedCloseLowersTheCountAllTheSame) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 2);
    EmpInfo().SetTypeStatus("Weather", EMP_CLOSED);

    EXPECT_FALSE(Close());

    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", 1)));
    EXPECT_THAT(Clients(), ElementsAre("40001", "40002"));
    EXPECT_EQ(EmpInfo().GetTypeStatus("Weather"), EMP_CLOSED);
    EXPECT_THAT(Lines(), ElementsAre("4 [Umount]: Found EMP [Weather] in the map. ",
                                     "3 [Before-Umount] Count Reduce 1, Emp=[Weather], count=[2].",
                                     "3 [After-Umount] Count Reduce 1, Emp=[Weather], count=[1].",
                                     "0 [Weather] status[3] is incorrect"));
}

// ---- Mount counts ----

struct CountCase {
    const char* szName;
    bool bMounted;
    int nBefore;  // -99: no entry
    int nAfter;
    std::vector<std::string> lines;
};
void PrintTo(const CountCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class CloseEmpCountTest : public CloseEmpTest, public ::testing::WithParamInterface<CountCase> {};

TEST_P(CloseEmpCountTest, IsLoweredButNeverBelowZero) {
    const CountCase& c = GetParam();
    if (c.bMounted)
        m_Fake.AddMounted("Weather");
    else
        m_Fake.AddImage("Weather");
    if (c.nBefore != -99) BrokerProbe::SetMountCount(m_Broker, "Weather", c.nBefore);

    EXPECT_TRUE(Close());

    std::vector<std::string> expected = c.lines;
    expected.push_back(RequestLine());
    EXPECT_EQ(Lines(), expected);
    std::map<std::string, int> counts;
    if (c.nBefore != -99) counts["Weather"] = c.nAfter;
    EXPECT_EQ(BrokerProbe::MountCounts(m_Broker), counts);
    EXPECT_THAT(m_Fake.mounter.Calls(), IsEmpty());
}

const std::string kFound = "4 [Umount]: Found EMP [Weather] in the map. ";

INSTANTIATE_TEST_SUITE_P(
    Table, CloseEmpCountTest,
    ::testing::Values(
        CountCase{"Two",
                  true,
                  2,
                  1,
                  {kFound, "3 [Before-Umount] Count Reduce 1, Emp=[Weather], count=[2].",
                   "3 [After-Umount] Count Reduce 1, Emp=[Weather], count=[1]."}},
        CountCase{"One",
                  true,
                  1,
                  0,
                  {kFound, "3 [Before-Umount] Count Reduce 1, Emp=[Weather], count=[1].",
                   "3 [After-Umount] Count Reduce 1, Emp=[Weather], count=[0]."}},
        CountCase{"Zero", true, 0, 0, {kFound}}, CountCase{"Negative", true, -1, -1, {kFound}},
        CountCase{"Uncounted", true, -99, -99, {"0 [Umount]: EMP [Weather] is not in the map. "}},
        CountCase{"NotMounted", false, 2, 2, {}}),
    [](const auto& info) { return info.param.szName; });

TEST_F(CloseEmpTest, FailedCloseLowersTheCountAsWell) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 2);
    m_Emp.AnswerClose(-1);

    EXPECT_FALSE(Close());

    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Weather", 1)));
}

// ---- Grouping EMPs ----

TEST_F(CloseEmpTest, GroupingEmpLowersTheCountOfItsGroup) {
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});
    m_Fake.AddMounted("Group");
    BrokerProbe::SetMountCount(m_Broker, "Group", 3);
    m_Emp.AnswerClose(0);

    EXPECT_TRUE(Close());

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(EmpCall{"Close", {"40001", "1"}}));
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), ElementsAre(Pair("Group", 2)));
    EXPECT_TRUE(EmpInfo().IsAdded("Weather"));
    EXPECT_THAT(Clients(), ElementsAre("40002"));
    EXPECT_THAT(Lines(), ElementsAre("4  EMP[Weather] belongs to group [Group].",
                                     "4 [Umount]: Found EMP [Group] in the map. ",
                                     "3 [Before-Umount] Count Reduce 1, Emp=[Group], count=[3].",
                                     "3 [After-Umount] Count Reduce 1, Emp=[Group], count=[2].",
                                     RequestLine()));
}

TEST_F(CloseEmpTest, GroupThatIsLostIsLookedUpByAnEmptyName) {
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Weather"});
    m_Fake.AddMounted("");
    m_Log.Once("[Weather] belongs to [4]", [&] { BrokerProbe::ForgetGroups(m_Broker); });

    EXPECT_TRUE(Close());

    EXPECT_THAT(Lines(), ElementsAre("0 [Umount]: EMP [] is not in the map. ", RequestLine()));
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(EmpCall{"Close", {"40001", "1"}}));
}

}  // namespace
}  // namespace vok
