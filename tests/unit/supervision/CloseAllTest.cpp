#include <functional>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
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
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Key;
using ::testing::Pair;
using ::testing::SizeIs;

const ClientEvent kPing{99, "Broker", "Ping"};

EmpCall CompareCall(const std::string& strClient) {
    return {"Execute", {strClient, "CompareAppID", "app", "widget", "", ""}};
}
EmpCall CloseCall(const std::string& strClient) {
    return {"Close", {strClient, "0"}};
}
EmpCall StopCall(const std::string& strClient) {
    return {"Execute", {strClient, "Stop", "", "", "", ""}};
}

ConnectionInfo Connection(const std::string& strEmp, const std::string& strClientPort,
                          const std::string& strEmpPort) {
    ConnectionInfo info;
    info.empName = strEmp;
    info.clientPort = strClientPort;
    info.empPort = strEmpPort;
    return info;
}

/// A broker whose connections can be made, on EMPs that have a process of their own.
class SweepTest : public BrokerTest {
protected:
    void Connect(const std::string& strEmp, const std::string& strEmpPort,
                 const std::string& strClientPort) {
        m_Fake.AddPreinstalled(strEmp);
        AddKnown(strEmp, "0002", EMP_OPENED);
        ConnectionDB().AddConnectionData({strEmp, strEmpPort}, strClientPort);
        m_Log.Clear();
    }
    /// An entry that has outlived its last client.
    void AddEmptyEntry(const std::string& strEmp, const std::string& strEmpPort) {
        Connect(strEmp, strEmpPort, "40001");
        ConnectionDB().RemoveClientPortFromConnDB({strEmp, strEmpPort}, "40001");
        m_Log.Clear();
    }
    std::set<std::string> Clients(const std::string& strEmp, const std::string& strEmpPort) {
        return ConnectionDB().GetClientPortNumList({strEmp, strEmpPort});
    }
};

/// Writes down what it is asked to close instead of closing it.
class CRecordingBroker : public CBroker {
public:
    using CBroker::CBroker;

    bool CloseEmp(const ConnectionInfo& info) override {
        closed.push_back(info);
        return !onClose || onClose();
    }

    std::vector<ConnectionInfo> closed;
    std::function<bool()> onClose;
};

class RecordingSweepTest : public ::testing::Test {
protected:
    void Connect(const std::string& strEmp, const std::string& strEmpPort,
                 const std::string& strClientPort) {
        BrokerProbe::ConnectionDB(m_Broker).AddConnectionData({strEmp, strEmpPort}, strClientPort);
    }
    /// The first closes end in exceptions, of two kinds.
    void LetTwoClosesThrow() {
        m_Broker.onClose = [this]() -> bool {
            if (m_Broker.closed.size() == 1) throw std::runtime_error("no memory");
            if (m_Broker.closed.size() == 2) throw 42;
            return true;
        };
    }

    FakePlatform m_Fake;
    CRecordingBroker m_Broker{m_Fake.Get()};
    CLogCapture m_Log;
    CFakeEmp m_Emp;
};

// ---- CloseAllEmpWithAppID ----

class CloseAllTest : public SweepTest {
protected:
    CloseAllTest() { m_Emp.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID"); }

    int CloseAll() { return m_Broker.CloseAllEmpWithAppID("app", "widget"); }

    /// The application has this client of `m_Emp` only.
    void LetOnlyBelong(const std::string& strClientPort) {
        m_Emp.OnCall([this, strClientPort](const EmpCall& call) {
            m_Emp.AnswerExecute("CompareAppID",
                                call.arguments[0] == strClientPort ? "EMP_OWNS_APP_ID" : "no");
        });
    }

    /// Between the first two lines and the last.
    static std::vector<std::string> Expected(std::vector<std::string> lines, int nClosed) {
        lines.insert(lines.begin(),
                     {"4 appId_[app] widgetID_[widget]", "4 CloseAllEmpWithAppID begins"});
        lines.push_back("4 End with retCnt:[" + std::to_string(nClosed) + "]");
        return lines;
    }
    static std::string DoneLine(const std::string& strEmp, const std::string& strEmpPort,
                                const std::string& strClient) {
        return "4 => Close call to Emp successfully. " + Who(strEmp, strEmpPort, strClient);
    }
    static std::string FailedLine(const std::string& strEmp, const std::string& strEmpPort,
                                  const std::string& strClient) {
        return "0 => Close call to Emp failed. " + Who(strEmp, strEmpPort, strClient);
    }
    static std::string Who(const std::string& strEmp, const std::string& strEmpPort,
                           const std::string& strClient) {
        return "Name[" + strEmp + "] EmpPort[" + strEmpPort + "] ClientPort[" + strClient +
               "], appID:[app]";
    }
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "CloseAllEmpWithAppID"); }

    CFakeEmp m_Emp;
    const std::string m_strPort = m_Emp.PortText();
};

TEST_F(CloseAllTest, EmptyTableClosesNothing) {
    EXPECT_EQ(CloseAll(), 0);

    EXPECT_EQ(Lines(), Expected({}, 0));
}

TEST_F(CloseAllTest, EntryWithoutClientsClosesNothing) {
    AddEmptyEntry("Weather", m_strPort);

    EXPECT_EQ(CloseAll(), 0);

    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_EQ(Lines(), Expected({}, 0));
}

TEST_F(CloseAllTest, ClientOfTheApplicationIsClosed) {
    Connect("Weather", m_strPort, "40001");

    EXPECT_EQ(CloseAll(), 1);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CompareCall("40001"), CloseCall("40001")));
    EXPECT_THAT(Clients("Weather", m_strPort), IsEmpty());
    EXPECT_EQ(Lines(), Expected({DoneLine("Weather", m_strPort, "40001")}, 1));
}

TEST_F(CloseAllTest, ClientsOfOtherApplicationsStay) {
    Connect("Weather", m_strPort, "40001");
    Connect("Weather", m_strPort, "40002");
    Connect("Weather", m_strPort, "40003");
    LetOnlyBelong("40002");

    EXPECT_EQ(CloseAll(), 1);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CompareCall("40001"), CompareCall("40002"),
                                           CloseCall("40002"), CompareCall("40003")));
    EXPECT_THAT(Clients("Weather", m_strPort), ElementsAre("40001", "40003"));
    EXPECT_EQ(Lines(), Expected({DoneLine("Weather", m_strPort, "40002")}, 1));
}

TEST_F(CloseAllTest, OneClientOnTwoEmpsIsTwo) {
    CFakeEmp clock;
    clock.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
    Connect("Weather", m_strPort, "40001");
    Connect("Clock", clock.PortText(), "40001");

    EXPECT_EQ(CloseAll(), 2);

    EXPECT_THAT(Clients("Weather", m_strPort), IsEmpty());
    EXPECT_THAT(Clients("Clock", clock.PortText()), IsEmpty());
    EXPECT_EQ(Lines(), Expected({DoneLine("Clock", clock.PortText(), "40001"),
                                 DoneLine("Weather", m_strPort, "40001")},
                                2));
}

TEST_F(CloseAllTest, SocketPathOfAClientIsPassedOn) {
    Connect("Weather", m_strPort, "/tmp/client");

    EXPECT_EQ(CloseAll(), 1);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CompareCall("/tmp/client"), CloseCall("/tmp/client")));
}

TEST_F(CloseAllTest, CloseThatIsRefusedIsToldAndNotCounted) {
    Connect("Weather", m_strPort, "40001");
    AddKnown("Weather", "0002", EMP_CLOSED);

    EXPECT_EQ(CloseAll(), 0);

    EXPECT_EQ(Lines(), Expected({FailedLine("Weather", m_strPort, "40001")}, 0));
    EXPECT_THAT(Clients("Weather", m_strPort), ElementsAre("40001"));
}

TEST_F(CloseAllTest, DeadAndFailingPeersDoNotStopIt) {
    const CRefusedPort dead;
    CFakeEmp failing;
    failing.FailCalls("busy");
    CFakeEmp refused;
    refused.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
    Connect("A", dead.PortText(), "40001");
    Connect("B", failing.PortText(), "40001");
    Connect("C", refused.PortText(), "40001");
    AddKnown("C", "0002", EMP_CLOSED);
    Connect("D", m_strPort, "40001");
    Connect("D", m_strPort, "40002");

    EXPECT_EQ(CloseAll(), 2);

    EXPECT_EQ(Lines(),
              Expected({FailedLine("C", refused.PortText(), "40001"),
                        DoneLine("D", m_strPort, "40001"), DoneLine("D", m_strPort, "40002")},
                       2));
    EXPECT_THAT(Clients("A", dead.PortText()), ElementsAre("40001"));
    EXPECT_THAT(Clients("B", failing.PortText()), ElementsAre("40001"));
}

TEST_F(CloseAllTest, EmpThatDiesBetweenQuestionAndCloseIsAFailure) {
    Connect("Weather", m_strPort, "40001");
    m_Emp.OnCall([this](const EmpCall& call) {
        if (call.strMethod == "Close") m_Emp.FailCalls("gone");
    });

    EXPECT_EQ(CloseAll(), 0);

    EXPECT_EQ(Lines(), Expected({FailedLine("Weather", m_strPort, "40001")}, 0));
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), IsEmpty());
}

TEST_F(CloseAllTest, GroupingAndRegisterEmpsAreClosedAsSuch) {
    BrokerProbe::SetGroup(m_Broker, "Group", "5000", {"Clock"});
    BrokerProbe::SetLauncher(m_Broker, "Launcher", "6000", {"Weather"});
    for (const char* szEmp : {"Clock", "Weather"}) {
        AddKnown(szEmp, "0002", EMP_OPENED);
        ConnectionDB().AddConnectionData({szEmp, m_strPort}, "40001");
    }

    EXPECT_EQ(CloseAll(), 2);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CompareCall("40001"), EmpCall{"Close", {"40001", "1"}},
                                           CompareCall("40001"), EmpCall{"Close", {"40001", "2"}}));
}

TEST_F(CloseAllTest, NoLockIsHeldDuringTheCalls) {
    Connect("Weather", m_strPort, "40001");
    int nCalls = 0;
    m_Emp.OnCall([&](const EmpCall&) {
        TakeEveryLock(m_Broker);
        ++nCalls;
    });

    EXPECT_EQ(CloseAll(), 1);

    EXPECT_EQ(nCalls, 2);
}

TEST_F(CloseAllTest, GoesOnWhereNoMemoryIsLeftToLookAnEmpUp) {
    Connect("Clock", m_strPort, "40001");
    Connect("Weather", m_strPort, "40001");
    bool bFailed = false;
    m_Fake.files.OnExists([&](const std::string& strPath) {
        if (strPath.find("Clock") == std::string::npos || std::exchange(bFailed, true)) return;
        throw std::bad_alloc();
    });

    EXPECT_EQ(CloseAll(), 2);

    EXPECT_THAT(m_Log.Messages(LEVEL_ERROR), Contains("[Clock] was not looked at to the end."));
}

TEST_F(CloseAllTest, WhoComesMeanwhileIsNotSeen) {
    Connect("Weather", m_strPort, "40001");
    m_Emp.OnCall([this](const EmpCall&) {
        ConnectionDB().AddConnectionData({"Weather", m_strPort}, "40002");
        ConnectionDB().AddConnectionData({"Zoo", m_strPort}, "40001");
    });

    EXPECT_EQ(CloseAll(), 1);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CompareCall("40001"), CloseCall("40001")));
    EXPECT_THAT(Clients("Weather", m_strPort), ElementsAre("40002"));
}

TEST_F(CloseAllTest, WhoLeavesMeanwhileIsStillLookedAt) {
    Connect("Weather", m_strPort, "40001");
    Connect("Weather", m_strPort, "40002");
    m_Emp.OnCall([this](const EmpCall& call) {
        if (call == CompareCall("40001"))
            ConnectionDB().RemoveClientPortFromConnDB({"Weather", m_strPort}, "40002");
    });

    CloseAll();

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CompareCall("40001"), CloseCall("40001"),
                                           CompareCall("40002"), CloseCall("40002")));
}

TEST_F(RecordingSweepTest, CloseAllClosesThroughTheServiceWithNothingElseFilledIn) {
    m_Emp.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
    Connect("Weather", m_Emp.PortText(), "40001");

    EXPECT_EQ(m_Broker.CloseAllEmpWithAppID("app", "widget"), 1);

    EXPECT_THAT(m_Broker.closed, ElementsAre(Connection("Weather", "40001", m_Emp.PortText())));
}

TEST_F(RecordingSweepTest, CloseAllGoesOnAfterExceptions) {
    m_Emp.AnswerExecute("CompareAppID", "EMP_OWNS_APP_ID");
    Connect("Clock", m_Emp.PortText(), "40001");
    Connect("Clock", m_Emp.PortText(), "40002");
    Connect("Weather", m_Emp.PortText(), "40001");
    LetTwoClosesThrow();

    EXPECT_EQ(m_Broker.CloseAllEmpWithAppID("app", "widget"), 1);

    EXPECT_THAT(m_Broker.closed, SizeIs(3));
    EXPECT_THAT(m_Log.Messages(LEVEL_ERROR),
                IsSupersetOf({"[40001] was not looked at to the end.",
                              "[40002] was not looked at to the end."}));
    EXPECT_EQ(LinesOf(m_Log, "CloseAllEmpWithAppID").back(), "4 End with retCnt:[1]");
}

// ---- PingTest_For_Webkit ----

class ZombieTest : public SweepTest {
protected:
    /// Between the first line and the last.
    static std::vector<std::string> Expected(std::vector<std::string> lines) {
        lines.insert(lines.begin(), "4 PingTest_For_Webkit Begins");
        lines.push_back("4 End");
        return lines;
    }
    static std::string EntryLine(const std::string& strEmp, const std::string& strEmpPort) {
        return "3 test zombie ID[" + strEmp + "] EmpPort/Path:[" + strEmpPort + "]";
    }
    static std::string ClientLine(const std::string& strClient) {
        return "3 \ttest zombie ClientPort[" + strClient + "]";
    }
    static std::string FoundLine(const std::string& strEmp, const std::string& strEmpPort,
                                 const std::string& strClient) {
        return "0 => Found Zombie Client, send Close call to matching Emp. " +
               Who(strEmp, strEmpPort, strClient);
    }
    static std::string FailedLine(const std::string& strEmp, const std::string& strEmpPort,
                                  const std::string& strClient) {
        return "0 => Close call to Emp failed. " + Who(strEmp, strEmpPort, strClient);
    }
    static std::string Who(const std::string& strEmp, const std::string& strEmpPort,
                           const std::string& strClient) {
        return "ID[" + strEmp + "] EmpPort[" + strEmpPort + "] ClientPort[" + strClient + "]";
    }
    std::vector<std::string> Lines() const { return LinesOf(m_Log, "PingTest_For_Webkit"); }

    CFakeEmp m_Emp;
    const std::string m_strPort = m_Emp.PortText();
    const CRefusedPort m_Dead;
    const std::string m_strDead = m_Dead.PortText();
};

TEST_F(ZombieTest, EmptyTableHasNone) {
    m_Broker.PingTest_For_Webkit();

    EXPECT_EQ(Lines(), Expected({}));
}

TEST_F(ZombieTest, EntryWithoutClientsIsVisited) {
    AddEmptyEntry("Weather", m_strPort);

    m_Broker.PingTest_For_Webkit();

    EXPECT_EQ(Lines(), Expected({EntryLine("Weather", m_strPort)}));
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(ConnectionDB().GetConnectionKeyList(), SizeIs(1));
}

TEST_F(ZombieTest, ClientsThatAnswerStay) {
    const CTemporaryFolder folder;
    const CFakeClient remote;
    const CFakeClient local{folder.Path("client")};
    Connect("Weather", m_strPort, remote.Address());
    Connect("Weather", m_strPort, local.Address());

    EXPECT_EQ(m_Broker.SweepZombies(), 0);

    EXPECT_THAT(remote.Events(), ElementsAre(kPing));
    EXPECT_THAT(local.Events(), ElementsAre(kPing));
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(Clients("Weather", m_strPort), ElementsAre(local.Address(), remote.Address()));
    EXPECT_EQ(Lines(), Expected({EntryLine("Weather", m_strPort), ClientLine(local.Address()),
                                 ClientLine(remote.Address())}));
}

TEST_F(ZombieTest, DeadClientIsClosed) {
    Connect("Weather", m_strPort, m_strDead);

    EXPECT_EQ(m_Broker.SweepZombies(), 1);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CloseCall(m_strDead)));
    EXPECT_THAT(Clients("Weather", m_strPort), IsEmpty());
    EXPECT_EQ(Lines(), Expected({EntryLine("Weather", m_strPort), ClientLine(m_strDead),
                                 FoundLine("Weather", m_strPort, m_strDead)}));
    EXPECT_FALSE(HasLinesOf(m_Log, "CBrokerProxyClient::Callback"));
}

TEST_F(ZombieTest, ClientOnTwoEmpsIsPingedAndClosedOnBoth) {
    const CFakeEmp clock;
    CFakeClient client;
    client.FailCalls("busy");
    Connect("Weather", m_strPort, client.Address());
    Connect("Clock", clock.PortText(), client.Address());

    EXPECT_EQ(m_Broker.SweepZombies(), 2);

    EXPECT_THAT(client.Events(), ElementsAre(kPing, kPing));
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CloseCall(client.Address())));
    EXPECT_THAT(clock.Calls(), ElementsAre(CloseCall(client.Address())));
}

TEST_F(ZombieTest, WhatDoesNotAnswerSoundlyIsOne) {
    const CTemporaryFolder folder;
    CFakeClient failing;
    failing.FailCalls("busy");
    const CRawPeer silent{""};
    const CRawPeer half{HalfAnAnswer()};
    const CRawPeer garbage{Garbage()};
    for (const std::string& strClient :
         {failing.Address(), silent.PortText(), half.PortText(), garbage.PortText(),
          folder.Path("nobody"), std::string("-1"), std::string("client")}) {
        SCOPED_TRACE(strClient);
        Connect("Weather", m_strPort, strClient);
        m_Emp.ForgetCalls();

        EXPECT_EQ(m_Broker.SweepZombies(), 1);

        EXPECT_THAT(m_Emp.Calls(), ElementsAre(CloseCall(strClient)));
        EXPECT_THAT(Clients("Weather", m_strPort), IsEmpty());
    }
}

TEST_F(ZombieTest, PlayerIsStoppedBeforeItIsClosed) {
    m_Emp.AnswerExecute("Stop", "stopped");
    Connect("Player", m_strPort, m_strDead);

    m_Broker.PingTest_For_Webkit();

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(StopCall(m_strDead), CloseCall(m_strDead)));
    EXPECT_EQ(Lines(), Expected({EntryLine("Player", m_strPort), ClientLine(m_strDead),
                                 FoundLine("Player", m_strPort, m_strDead),
                                 "0 => Player Plugin:: Call Stop!!\n",
                                 "4 spBrokerProxyEmp->Execute Stop cmd : stopped\n"}));
}

TEST_F(ZombieTest, EveryPlayerIsStoppedAtItsOwnPort) {
    const CFakeEmp other;
    Connect("Player", m_strPort, m_strDead);
    Connect("Player", other.PortText(), m_strDead);

    EXPECT_EQ(m_Broker.SweepZombies(), 2);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(StopCall(m_strDead), CloseCall(m_strDead)));
    EXPECT_THAT(other.Calls(), ElementsAre(StopCall(m_strDead), CloseCall(m_strDead)));
}

TEST_F(ZombieTest, PlayerOfAClientThatAnswersPlaysOn) {
    const CFakeClient client;
    Connect("Player", m_strPort, client.Address());

    m_Broker.PingTest_For_Webkit();

    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
}

TEST_F(ZombieTest, PlayerThatIsDeadItselfIsTold) {
    const CRefusedPort deadEmp;
    Connect("Player", deadEmp.PortText(), m_strDead);

    EXPECT_EQ(m_Broker.SweepZombies(), 0);

    EXPECT_EQ(Lines(), Expected({EntryLine("Player", deadEmp.PortText()), ClientLine(m_strDead),
                                 FoundLine("Player", deadEmp.PortText(), m_strDead),
                                 "0 => Player Plugin:: Call Stop!!\n",
                                 "4 spBrokerProxyEmp->Execute Stop cmd : error\n",
                                 FailedLine("Player", deadEmp.PortText(), m_strDead)}));
}

TEST_F(ZombieTest, NamesThatAreNearlyPlayerAreNotStopped) {
    for (const char* szEmp : {"player", "PLAYER", "Player2", "Playe", "Player "}) {
        SCOPED_TRACE(szEmp);
        Connect(szEmp, m_strPort, m_strDead);
        m_Emp.ForgetCalls();

        EXPECT_EQ(m_Broker.SweepZombies(), 1);

        EXPECT_THAT(m_Emp.Calls(), ElementsAre(CloseCall(m_strDead)));
        EXPECT_FALSE(
            m_Log.HasLine(LEVEL_ERROR, "PingTest_For_Webkit", "=> Player Plugin:: Call Stop!!\n"));
    }
}

TEST_F(ZombieTest, DeadAndFailingPeersDoNotStopIt) {
    const CRefusedPort deadEmp;
    CFakeEmp failingEmp;
    failingEmp.FailCalls("busy");
    CFakeClient failing;
    failing.FailCalls("busy");
    const CFakeClient alive;
    Connect("A", deadEmp.PortText(), m_strDead);
    Connect("B", failingEmp.PortText(), failing.Address());
    Connect("C", m_strPort, m_strDead);
    AddKnown("C", "0002", EMP_CLOSED);
    Connect("D", m_strPort, alive.Address());
    Connect("E", m_strPort, m_strDead);

    EXPECT_EQ(m_Broker.SweepZombies(), 1);

    EXPECT_EQ(
        Lines(),
        Expected({EntryLine("A", deadEmp.PortText()), ClientLine(m_strDead),
                  FoundLine("A", deadEmp.PortText(), m_strDead),
                  FailedLine("A", deadEmp.PortText(), m_strDead),
                  EntryLine("B", failingEmp.PortText()), ClientLine(failing.Address()),
                  FoundLine("B", failingEmp.PortText(), failing.Address()),
                  FailedLine("B", failingEmp.PortText(), failing.Address()),
                  EntryLine("C", m_strPort), ClientLine(m_strDead),
                  FoundLine("C", m_strPort, m_strDead), FailedLine("C", m_strPort, m_strDead),
                  EntryLine("D", m_strPort), ClientLine(alive.Address()), EntryLine("E", m_strPort),
                  ClientLine(m_strDead), FoundLine("E", m_strPort, m_strDead)}));
    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CloseCall(m_strDead)));
    EXPECT_THAT(ConnectionDB().GetConnectionDB(),
                ElementsAre(Key(Pair("C", m_strPort)), Key(Pair("D", m_strPort)),
                            Key(Pair("E", m_strPort))));
    EXPECT_THAT(Clients("D", m_strPort), ElementsAre(alive.Address()));
}

TEST_F(ZombieTest, WithAFailedServerNothingIsLoggedAndNothingChanges) {
    const CFakeClient client;
    Connect("Player", m_strPort, m_strDead);
    Connect("Player", m_strPort, client.Address());
    const CServerFailed failed;

    m_Broker.PingTest_For_Webkit();
    EXPECT_EQ(m_Broker.SweepZombies(), 0);

    EXPECT_THAT(m_Log.Records(), IsEmpty());
    EXPECT_THAT(m_Emp.Calls(), IsEmpty());
    EXPECT_THAT(client.Events(), IsEmpty());
    EXPECT_THAT(Clients("Player", m_strPort), SizeIs(2));
}

TEST_F(ZombieTest, NoLockIsHeldDuringTheCalls) {
    CFakeClient client;
    client.FailCalls("busy");
    int nEvents = 0;
    client.OnEvent([&](const ClientEvent&) {
        TakeEveryLock(m_Broker);
        ++nEvents;
    });
    int nCalls = 0;
    m_Emp.OnCall([&](const EmpCall&) {
        TakeEveryLock(m_Broker);
        ++nCalls;
    });
    Connect("Player", m_strPort, client.Address());

    EXPECT_EQ(m_Broker.SweepZombies(), 1);

    EXPECT_EQ(nEvents, 1);
    EXPECT_EQ(nCalls, 2);
}

TEST_F(ZombieTest, ClientThatClosesItsConnectionsDuringItsPingIsLeftAlone) {
    CFakeClient client;
    Connect("Weather", m_strPort, client.Address());
    const ConnectionInfo info = Connection("Weather", client.Address(), m_strPort);
    client.OnEvent([&](const ClientEvent&) { EXPECT_TRUE(m_Broker.CloseEmp(info)); });

    EXPECT_EQ(m_Broker.SweepZombies(), 0);

    EXPECT_THAT(m_Emp.Calls(), ElementsAre(CloseCall(client.Address())));
    EXPECT_THAT(Clients("Weather", m_strPort), IsEmpty());
}

TEST_F(ZombieTest, WhoComesOrLeavesMeanwhileIsNotSeen) {
    CFakeClient client;
    const CFakeClient late;
    Connect("A", m_strPort, client.Address());
    Connect("B", m_strPort, m_strDead);
    client.OnEvent([&](const ClientEvent&) {
        ConnectionDB().AddConnectionData({"A", m_strPort}, late.Address());
        ConnectionDB().AddConnectionData({"C", m_strPort}, late.Address());
        ConnectionDB().RemoveEmpInfoFromConnDB({"B", m_strPort});
    });

    m_Broker.PingTest_For_Webkit();

    EXPECT_THAT(late.Events(), IsEmpty());
    EXPECT_EQ(Lines(), Expected({EntryLine("A", m_strPort), ClientLine(client.Address()),
                                 EntryLine("B", m_strPort), ClientLine(m_strDead),
                                 FoundLine("B", m_strPort, m_strDead)}));
}

TEST_F(RecordingSweepTest, SweepClosesThroughTheServiceWithNothingElseFilledIn) {
    const CRefusedPort dead;
    Connect("Weather", m_Emp.PortText(), dead.PortText());

    m_Broker.PingTest_For_Webkit();

    EXPECT_THAT(m_Broker.closed,
                ElementsAre(Connection("Weather", dead.PortText(), m_Emp.PortText())));
}

TEST_F(RecordingSweepTest, SweepGoesOnAfterExceptions) {
    Connect("Clock", m_Emp.PortText(), "/no/such/client");
    Connect("Clock", m_Emp.PortText(), "/no/such/other");
    Connect("Weather", m_Emp.PortText(), "/no/such/client");
    LetTwoClosesThrow();

    EXPECT_EQ(m_Broker.SweepZombies(), 1);

    EXPECT_THAT(m_Broker.closed, SizeIs(3));
    EXPECT_THAT(m_Log.Messages(LEVEL_ERROR),
                IsSupersetOf({"[/no/such/client] was not looked at to the end.",
                              "[/no/such/other] was not looked at to the end."}));
    EXPECT_EQ(LinesOf(m_Log, "PingTest_For_Webkit").back(), "4 End");
}

}  // namespace
}  // namespace vok
