#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/BrokerLocks.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CTemporaryFolder.h"
#include "tests/support/TheBroker.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

EmpCall SetLevelCall(const std::string& strLevel) {
    return {"Execute", {"100", "SetDebugLevel", strLevel, "", "", ""}};
}

ClientEvent LevelEvent(const std::string& strLevel) {
    return {-30001, "LEVEL_ON_PARAM2", strLevel};
}

/// The log capture of the fixture puts the level back.
class DebugFanOutTest : public BrokerTest {
protected:
    void Connect(const std::string& strEmp, const std::string& strEmpPort,
                 const std::string& strClientPort) {
        ConnectionDB().AddConnectionData({strEmp, strEmpPort}, strClientPort);
        m_Log.Clear();
    }
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "OnSetDebugLevel"); }
    static std::string EmpLine(const std::string& strEmp, const std::string& strPort,
                               const std::string& strLevel) {
        return "4 [" + strEmp + "] ip:[127.0.0.1] port[" + strPort + "] - SetDebugLevel[" +
               strLevel + "]";
    }
    static std::string ClientLine(const std::string& strPort, const std::string& strLevel) {
        return "4 SET DEBUGGING ClientPort[" + strPort + "], cmd:[LEVEL_ON_PARAM2] loglevel:[" +
               strLevel + "]";
    }

    CFakeEmp m_Emp;
    CFakeClient m_Client;
    std::unique_ptr<CTheBroker> m_pTheBroker = std::make_unique<CTheBroker>(m_Broker);
};

TEST_F(DebugFanOutTest, WithoutConnectionsOnlyTheOwnLevelChanges) {
    m_Broker.OnSetDebugLevel(4);
    EXPECT_EQ(CVOKDebug::GetLogLevel(), 4);
    m_Broker.OnSetDebugLevel(1);
    EXPECT_EQ(CVOKDebug::GetLogLevel(), 1);

    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(DebugFanOutTest, LevelReachesEmpAndClient) {
    m_Fake.AddPreinstalled("Weather");
    Connect("Weather", m_Emp.PortText(), m_Client.Address());

    m_Broker.OnSetDebugLevel(4);

    EXPECT_EQ(CVOKDebug::GetLogLevel(), 4);
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(SetLevelCall("4")));
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent("4")));
    EXPECT_THAT(Lines(), ElementsAre(EmpLine("Weather", m_Emp.PortText(), "4"),
                                     ClientLine(m_Client.Address(), "4")));
}

TEST_F(DebugFanOutTest, OwnLevelHoldsForTheLinesOfTheFanOutItself) {
    Connect("Weather", m_Emp.PortText(), m_Client.Address());

    m_Broker.OnSetDebugLevel(2);

    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(SetLevelCall("2")));
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent("2")));
}

TEST_F(DebugFanOutTest, EmpsComeInKeyOrderAndBeforeTheClients) {
    const CFakeEmp other;
    const bool bOtherIsFirst = other.PortText() < m_Emp.PortText();
    const std::string strFirst = bOtherIsFirst ? other.PortText() : m_Emp.PortText();
    const std::string strSecond = bOtherIsFirst ? m_Emp.PortText() : other.PortText();
    const CFakeEmp clock;
    Connect("Weather", strSecond, m_Client.Address());
    Connect("Weather", strFirst, m_Client.Address());
    Connect("Clock", clock.PortText(), m_Client.Address());

    m_Broker.OnSetDebugLevel(4);

    EXPECT_THAT(
        Lines(),
        ElementsAre(EmpLine("Clock", clock.PortText(), "4"), EmpLine("Weather", strFirst, "4"),
                    EmpLine("Weather", strSecond, "4"), ClientLine(m_Client.Address(), "4"),
                    ClientLine(m_Client.Address(), "4"), ClientLine(m_Client.Address(), "4")));
    for (const CFakeEmp* const pEmp :
         std::initializer_list<const CFakeEmp*>{&m_Emp, &other, &clock})
        EXPECT_THAT(pEmp->Calls(), ElementsAre(SetLevelCall("4")));
    // Once for each of its connections.
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent("4"), LevelEvent("4"), LevelEvent("4")));
}

TEST_F(DebugFanOutTest, ClientWithAPathIsReachedThere) {
    const CTemporaryFolder folder;
    const CFakeClient local{folder.Path("client")};
    Connect("Weather", m_Emp.PortText(), m_Client.Address());
    Connect("Weather", m_Emp.PortText(), local.Address());

    m_Broker.OnSetDebugLevel(4);

    EXPECT_THAT(local.Events(), ElementsAre(LevelEvent("4")));
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent("4")));
    EXPECT_THAT(Lines(),
                ElementsAre(EmpLine("Weather", m_Emp.PortText(), "4"),
                            ClientLine(local.Address(), "4"), ClientLine(m_Client.Address(), "4")));
}

TEST_F(DebugFanOutTest, EmpWithoutClientsIsTold) {
    Connect("Weather", m_Emp.PortText(), "40001");
    ConnectionDB().RemoveClientPortFromConnDB({"Weather", m_Emp.PortText()}, "40001");
    m_Log.Clear();

    m_Broker.OnSetDebugLevel(4);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(SetLevelCall("4")));
    EXPECT_THAT(Lines(), ElementsAre(EmpLine("Weather", m_Emp.PortText(), "4")));
}

TEST_F(DebugFanOutTest, PeersThatFailDoNotStopIt) {
    const CRefusedPort deadEmp;
    CFakeEmp failingEmp;
    failingEmp.FailCalls("busy");
    const CRefusedPort deadClient;
    CFakeClient failingClient;
    failingClient.FailCalls("busy");
    Connect("A", deadEmp.PortText(), deadClient.PortText());
    Connect("B", failingEmp.PortText(), failingClient.Address());
    Connect("C", m_Emp.PortText(), m_Client.Address());

    m_Broker.OnSetDebugLevel(4);

    EXPECT_THAT(failingEmp.Calls(), SizeIs(1));
    EXPECT_THAT(failingClient.Events(), SizeIs(1));
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(SetLevelCall("4")));
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent("4")));
    EXPECT_THAT(Lines(), SizeIs(6));  // failures are told by the proxies alone
}

struct LevelCase {
    const char* szName;
    unsigned int nLevel;
    int nOwn;
    const char* szText;
};
void PrintTo(const LevelCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class DebugLevelTest : public DebugFanOutTest, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(DebugLevelTest, IsNarrowedForTheBrokerAndTextForTheOthers) {
    Connect("Weather", m_Emp.PortText(), m_Client.Address());

    m_Broker.OnSetDebugLevel(GetParam().nLevel);

    EXPECT_EQ(CVOKDebug::GetLogLevel(), GetParam().nOwn);
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(SetLevelCall(GetParam().szText)));
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent(GetParam().szText)));
}

INSTANTIATE_TEST_SUITE_P(
    Table, DebugLevelTest,
    ::testing::Values(LevelCase{"Zero", 0, 0, "0"}, LevelCase{"SixteenBits", 65535, 65535, "65535"},
                      LevelCase{"SeventeenBits", 65536 + 3, 3, "65539"},
                      LevelCase{"NineDigits", 123456789, 52501, "123456789"},
                      LevelCase{"TenDigitsAreCut", 1234567890, 722, "123456789"},
                      LevelCase{"PastAnInt", 4294967295, 65535, "-1"}),
    [](const auto& info) { return info.param.szName; });

TEST_F(DebugFanOutTest, WithAFailedServerOnlyTheOwnLevelChanges) {
    Connect("Weather", m_Emp.PortText(), m_Client.Address());
    const CServerFailed failed;

    m_Broker.OnSetDebugLevel(3);

    EXPECT_EQ(CVOKDebug::GetLogLevel(), 3);
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(m_Client.Events(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(DebugFanOutTest, WithoutTheOneBrokerOnlyTheOwnLevelChanges) {
    Connect("Weather", m_Emp.PortText(), m_Client.Address());
    m_pTheBroker.reset();

    m_Broker.OnSetDebugLevel(3);

    EXPECT_EQ(CVOKDebug::GetLogLevel(), 3);
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(m_Client.Events(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(DebugFanOutTest, NoLockIsHeldDuringTheCalls) {
    int nEmp = 0;
    int nClient = 0;
    m_Emp.OnCall([&](const EmpCall&) {
        TakeEveryLock(m_Broker);
        ++nEmp;
    });
    m_Client.OnEvent([&](const ClientEvent&) {
        TakeEveryLock(m_Broker);
        ++nClient;
    });
    Connect("Weather", m_Emp.PortText(), m_Client.Address());

    m_Broker.OnSetDebugLevel(4);

    EXPECT_EQ(nEmp, 1);
    EXPECT_EQ(nClient, 1);
}

TEST_F(DebugFanOutTest, WhoLeavesMeanwhileIsStillTold) {
    Connect("Weather", m_Emp.PortText(), "/no/such/socket");
    Connect("Weather", m_Emp.PortText(), m_Client.Address());
    const ConnectionKey key{"Weather", m_Emp.PortText()};
    m_Log.Once(ClientLine("/no/such/socket", "4").substr(2),
               [&] { ConnectionDB().RemoveEmpInfoFromConnDB(key); });

    m_Broker.OnSetDebugLevel(4);

    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), IsEmpty());
    EXPECT_THAT(m_Client.Events(), ElementsAre(LevelEvent("4")));
}

TEST_F(DebugFanOutTest, ModuleHookDoesNothing) {
    Connect("Weather", m_Emp.PortText(), m_Client.Address());
    const unsigned short nLevel = CVOKDebug::GetLogLevel();

    m_Broker.OnSetDebugModule(1, true);

    EXPECT_EQ(CVOKDebug::GetLogLevel(), nLevel);
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

}  // namespace
}  // namespace vok
