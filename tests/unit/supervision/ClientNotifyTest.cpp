#include <string>
#include <vector>

#include "tests/support/BrokerLocks.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/CFakeClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CTemporaryFolder.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

const ConnectionKey kKey{"Weather", "40123"};
const ClientEvent kReset{-50000, "E0003", "E0003"};

// ---- SendCallbackNotification ----

class NotificationTest : public BrokerTest {
protected:
    void Connect(const std::string& strClientPort) {
        ConnectionDB().AddConnectionData(kKey, strClientPort);
        m_Log.Clear();
    }
    static std::string ResetLine(const std::string& strClientPort) {
        return "4 SendCallbackNotification: 1 RESET -> clientPort[" + strClientPort + "]";
    }
};

TEST_F(NotificationTest, OnlyClientIsTold) {
    const CFakeClient client;
    Connect(client.Address());

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_THAT(client.Events(), ElementsAre(kReset));
    EXPECT_THAT(LogLines(m_Log), ElementsAre(ResetLine(client.Address())));
}

TEST_F(NotificationTest, OfTwoPortsTheFirstByBytesIsTold) {
    const CFakeClient one;
    const CFakeClient other;
    const bool bOneIsFirst = one.Address() < other.Address();
    const CFakeClient& first = bOneIsFirst ? one : other;
    const CFakeClient& second = bOneIsFirst ? other : one;
    Connect(second.Address());
    Connect(first.Address());

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_THAT(first.Events(), ElementsAre(kReset));
    EXPECT_THAT(second.Events(), IsEmpty());
    EXPECT_THAT(LogLines(m_Log), ElementsAre(ResetLine(first.Address())));
}

TEST_F(NotificationTest, PathComesBeforeAnyPortAndIsAUnixSocket) {
    const CTemporaryFolder folder;
    const CFakeClient local{folder.Path("client")};
    const CFakeClient remote;
    Connect(remote.Address());
    Connect(local.Address());

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_THAT(local.Events(), ElementsAre(kReset));
    EXPECT_THAT(remote.Events(), IsEmpty());
    EXPECT_THAT(LogLines(m_Log), ElementsAre(ResetLine(local.Address())));
}

TEST_F(NotificationTest, OrderIsThatOfTextsAndNotOfNumbers) {
    Connect("9");
    Connect("10");  // nobody serves either

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_EQ(LogLines(m_Log).at(0), ResetLine("10"));
}

TEST_F(NotificationTest, ClientThatCannotBeReachedIsToldByTheProxyAndNobodyElseIsTried) {
    const CRefusedPort port;
    Connect(port.PortText());
    const CFakeClient client;
    Connect("a" + client.Address());  // sorts after every port

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre(ResetLine(port.PortText()),
                            MatchesRegex("3 CBrokerProxyClient::Callback: Callback can't be sent : "
                                         "evtType\\[-50000\\] what:\\[.+\\]")));
}

TEST_F(NotificationTest, EmpWithoutClientsIsPassedOverInSilence) {
    Connect("40001");
    ConnectionDB().RemoveClientPortFromConnDB(kKey, "40001");  // the entry stays
    m_Log.Clear();

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(NotificationTest, UnknownEmpServerIsPassedOverInSilence) {
    const CFakeClient client;
    Connect(client.Address());

    m_Broker.SendCallbackNotification({"Weather", "40124"});
    m_Broker.SendCallbackNotification({"weather", "40123"});

    EXPECT_THAT(client.Events(), IsEmpty());
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_F(NotificationTest, NoLockIsHeldDuringTheCall) {
    CFakeClient client;
    bool bDone = false;
    client.OnEvent([&](const ClientEvent&) {
        TakeEveryLock(m_Broker);
        bDone = true;
    });
    Connect(client.Address());

    m_Broker.SendCallbackNotification(kKey);

    EXPECT_TRUE(bDone);
}

// ---- SetConnectedClientToEMP ----

class SetConnectedClientTest : public BrokerTest {
protected:
    static std::string ResultLine(const std::string& strResult) {
        return "4 After execute with cmd EMP_CMD_SET_CONNECTTED_CLIENT, _return is " + strResult;
    }
    static std::string ErrorLine(const std::string& strPort) {
        return "0 ERROR! Set connected client to EMP[Weather][" + strPort +
               "] failed, this emp is gone.";
    }
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "SetConnectedClientToEMP"); }

    CFakeEmp m_Emp;
};

TEST_F(SetConnectedClientTest, EmpIsToldWhoIsConnected) {
    EXPECT_TRUE(m_Broker.SetConnectedClientToEMP("Weather", "40001", m_Emp.PortText()));

    EXPECT_THAT(m_Emp.Calls(),
                ElementsAre(EmpCall{"Execute", {"40001", "SetConnecttedClient", "", "", "", ""}}));
    EXPECT_THAT(Lines(), ElementsAre(ResultLine("")));
}

TEST_F(SetConnectedClientTest, EveryAnswerButErrorIsGood) {
    for (const char* szAnswer : {"1", "0", "Error", "error ", "ERROR", "-1"}) {
        SCOPED_TRACE(szAnswer);
        m_Log.Clear();
        m_Emp.AnswerExecute("SetConnecttedClient", szAnswer);
        EXPECT_TRUE(m_Broker.SetConnectedClientToEMP("Weather", "40001", m_Emp.PortText()));
        EXPECT_THAT(Lines(), ElementsAre(ResultLine(szAnswer)));
    }
}

TEST_F(SetConnectedClientTest, AnswerErrorIsAnError) {
    m_Emp.AnswerExecute("SetConnecttedClient", "error");

    EXPECT_FALSE(m_Broker.SetConnectedClientToEMP("Weather", "40001", m_Emp.PortText()));

    EXPECT_THAT(Lines(), ElementsAre(ResultLine("error"), ErrorLine(m_Emp.PortText())));
}

TEST_F(SetConnectedClientTest, EmpThatCannotBeReachedIsAnError) {
    const CRefusedPort port;

    EXPECT_FALSE(m_Broker.SetConnectedClientToEMP("Weather", "40001", port.PortText()));

    EXPECT_THAT(Lines(), ElementsAre(ResultLine("error"), ErrorLine(port.PortText())));
}

TEST_F(SetConnectedClientTest, EmpThatFailsTheCallIsAnError) {
    m_Emp.FailCalls("busy");

    EXPECT_FALSE(m_Broker.SetConnectedClientToEMP("Weather", "40001", m_Emp.PortText()));

    EXPECT_THAT(Lines(), ElementsAre(ResultLine("error"), ErrorLine(m_Emp.PortText())));
}

TEST_F(SetConnectedClientTest, NoLockIsHeldDuringTheCall) {
    bool bDone = false;
    m_Emp.OnCall([&](const EmpCall&) {
        TakeEveryLock(m_Broker);
        bDone = true;
    });

    EXPECT_TRUE(m_Broker.SetConnectedClientToEMP("Weather", "40001", m_Emp.PortText()));

    EXPECT_TRUE(bDone);
}

}  // namespace
}  // namespace vok
