#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "rpc/CBrokerProxyClient.h"
#include "tests/support/CFakeClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/CTemporaryFolder.h"
#include "tests/support/LogLines.h"
#include "tests/support/RpcLibraryFault.h"

namespace vok {
namespace {

using namespace test;
using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr char kLoopback[] = "127.0.0.1";

/// A sound answer to an event.
const std::string kAnswer =
    "\x80\x01\x00\x02\x00\x00\x00\x08"
    "Callback\x00\x00\x00\x00\x00"s;

/// The event 99, "Broker", "Ping" as it travels: version and kind, name, sequence number, then per
/// argument its type, number and value.
const std::string kPingRequest =
    "\x80\x01\x00\x01\x00\x00\x00\x08"
    "Callback\x00\x00\x00\x00"
    "\x08\x00\x01\x00\x00\x00\x63"
    "\x0b\x00\x02\x00\x00\x00\x06"
    "Broker\x0b\x00\x03\x00\x00\x00\x04"
    "Ping\x00"s;

// ---- Delivery ----

enum eSocket { TCP_SOCKET, UNIX_SOCKET };

class ClientDeliveryTest : public ::testing::TestWithParam<eSocket> {
protected:
    std::unique_ptr<CFakeClient> MakeClient() {
        if (GetParam() == TCP_SOCKET) return std::make_unique<CFakeClient>();
        return std::make_unique<CFakeClient>(m_Folder.Path("client"));
    }
    std::unique_ptr<CBrokerProxyClient> MakeProxy(const CFakeClient& client) {
        if (GetParam() == TCP_SOCKET)
            return std::make_unique<CBrokerProxyClient>(kLoopback, client.Address());
        return std::make_unique<CBrokerProxyClient>(client.Address());
    }

    const CTemporaryFolder m_Folder;
    std::unique_ptr<CFakeClient> m_pClient = MakeClient();
    std::unique_ptr<CBrokerProxyClient> m_pProxy = MakeProxy(*m_pClient);
    const CLogCapture m_Log;
};

TEST_P(ClientDeliveryTest, CallbackSendsTheEventSilently) {
    VokEmpEventIf& receiver = *m_pProxy;

    receiver.Callback(-50000, "E0003", "second");

    EXPECT_THAT(m_pClient->Events(), ElementsAre(ClientEvent{-50000, "E0003", "second"}));
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_P(ClientDeliveryTest, WrapperCallbackSendsTheEventAndIsZero) {
    EXPECT_EQ(m_pProxy->WrapperCallback(99, "Broker", "Ping"), 0);

    EXPECT_THAT(m_pClient->Events(), ElementsAre(ClientEvent{99, "Broker", "Ping"}));
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_P(ClientDeliveryTest, AnyTextsArrive) {
    const std::string strOdd("a\0b\xff\n%s", 7);
    const std::string strLong(1'000'000, 'x');  // far beyond the transport's buffer

    EXPECT_EQ(m_pProxy->WrapperCallback(0, "", strOdd), 0);
    EXPECT_EQ(m_pProxy->WrapperCallback(2147483647, strLong, ""), 0);

    EXPECT_THAT(m_pClient->Events(),
                ElementsAre(ClientEvent{0, "", strOdd}, ClientEvent{2147483647, strLong, ""}));
}

TEST_P(ClientDeliveryTest, SeveralEventsGoThroughOneProxy) {
    m_pProxy->Callback(1, "a", "");
    EXPECT_EQ(m_pProxy->WrapperCallback(2, "b", ""), 0);
    m_pProxy->Callback(3, "c", "");

    EXPECT_THAT(m_pClient->Events(), ElementsAre(ClientEvent{1, "a", ""}, ClientEvent{2, "b", ""},
                                                 ClientEvent{3, "c", ""}));
    EXPECT_THAT(LogLines(m_Log), IsEmpty());
}

TEST_P(ClientDeliveryTest, EventAfterOneThatTheClientFailedArrives) {
    m_pClient->FailCalls("out of order");
    EXPECT_EQ(m_pProxy->WrapperCallback(1, "a", ""), -1);
    m_pProxy->Callback(2, "b", "");
    m_pClient->FailCalls("");

    EXPECT_EQ(m_pProxy->WrapperCallback(3, "c", ""), 0);

    EXPECT_THAT(m_pClient->Events(), ElementsAre(ClientEvent{1, "a", ""}, ClientEvent{2, "b", ""},
                                                 ClientEvent{3, "c", ""}));
    EXPECT_THAT(LogLines(m_Log),
                ElementsAre("3 CBrokerProxyClient::Callback: Callback can't be sent : evtType[2] "
                            "what:[out of order]"));
}

INSTANTIATE_TEST_SUITE_P(Socket, ClientDeliveryTest, ::testing::Values(TCP_SOCKET, UNIX_SOCKET),
                         [](const auto& info) {
                             return info.param == TCP_SOCKET ? "Tcp" : "UnixDomain";
                         });

TEST(CBrokerProxyClient, EventAfterARefusedOneArrives) {
    const CTemporaryFolder folder;
    CBrokerProxyClient proxy{folder.Path("client")};
    EXPECT_EQ(proxy.WrapperCallback(1, "a", ""), -1);
    const CFakeClient client{folder.Path("client")};

    EXPECT_EQ(proxy.WrapperCallback(2, "b", ""), 0);

    EXPECT_THAT(client.Events(), ElementsAre(ClientEvent{2, "b", ""}));
}

// ---- What travels ----

TEST(CBrokerProxyClient, RequestBeginsWithTheVersion) {
    const CRawPeer peer{kAnswer};

    EXPECT_EQ(CBrokerProxyClient(kLoopback, peer.PortText()).WrapperCallback(99, "Broker", "Ping"),
              0);

    EXPECT_THAT(peer.Requests(), ElementsAre(kPingRequest));
}

TEST(CBrokerProxyClient, AnswerWithoutAVersionIsAccepted) {
    const CRawPeer peer{
        "\x00\x00\x00\x08"
        "Callback\x02\x00\x00\x00\x00\x00"s};

    EXPECT_EQ(CBrokerProxyClient(kLoopback, peer.PortText()).WrapperCallback(99, "Broker", "Ping"),
              0);
}

// ---- Which socket a client's address stands for ----

TEST(MakeClientProxy, SlashBeginsAPath) {
    const CTemporaryFolder folder;
    const CFakeClient client{folder.Path("client")};

    EXPECT_EQ(MakeClientProxy(kLoopback, client.Address())->WrapperCallback(1, "a", "b"), 0);

    EXPECT_THAT(client.Events(), ElementsAre(ClientEvent{1, "a", "b"}));
}

TEST(MakeClientProxy, EverythingElseIsAPortOfTheAddress) {
    const CFakeClient client;

    EXPECT_EQ(MakeClientProxy(kLoopback, client.Address())->WrapperCallback(1, "a", "b"), 0);
    EXPECT_EQ(MakeClientProxy(kLoopback, client.Address() + "/tmp")->WrapperCallback(2, "", ""), 0);
    EXPECT_EQ(MakeClientProxy("127.0.0.2", client.Address())->WrapperCallback(3, "", ""), -1);

    EXPECT_THAT(client.Events(), ElementsAre(ClientEvent{1, "a", "b"}, ClientEvent{2, "", ""}));
}

TEST(MakeClientProxy, PathThatDoesNotBeginWithASlashIsNoPath) {
    const CTemporaryFolder folder;
    const CFakeClient client{folder.Path("client")};

    for (const std::string& strAddress : {" " + client.Address(), "." + client.Address(), ""s}) {
        SCOPED_TRACE(strAddress);
        EXPECT_EQ(MakeClientProxy(kLoopback, strAddress)->WrapperCallback(1, "a", "b"), -1);
    }
    EXPECT_THAT(client.Events(), IsEmpty());
}

// ---- Failures ----

/// Both operations meet the failure; then what each has to say is compared.
void ExpectFailure(CBrokerProxyClient& proxy) {
    CLogCapture log;

    EXPECT_EQ(proxy.WrapperCallback(99, "Broker", "Ping"), -1);
    EXPECT_THAT(LogLines(log), IsEmpty());

    proxy.Callback(-50000, "E0003", "E0003");
    const std::vector<LogRecord> records = log.Records();
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_EQ(records[0].nLevel, LEVEL_TRACE);
    EXPECT_THAT(records[0].strPrefix,
                MatchesRegex("\\[VOK\\]\\[CBrokerProxyClient::Callback\\([0-9]+\\)\\] "));
    EXPECT_THAT(records[0].strMessage,
                AllOf(StartsWith("Callback can't be sent : evtType[-50000] what:["),
                      Not(EndsWith("what:[]")), EndsWith("]")));
}

TEST(CBrokerProxyClient, ClientThatIsNotThereIsAFailure) {
    const CRefusedPort port;
    const CTemporaryFolder folder;
    for (const std::string& strAddress :
         {port.PortText(), folder.Path("nobody"), "/tmp/"s + std::string(200, 'x'), "-1"s, ""s,
          "port"s, "65536"s, "99999999999999999999"s}) {
        SCOPED_TRACE(strAddress);
        ExpectFailure(*MakeClientProxy(kLoopback, strAddress));
    }
}

struct BadAnswerCase {
    const char* szName;
    std::string strAnswer;
};
void PrintTo(const BadAnswerCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class BadAnswerTest : public ::testing::TestWithParam<BadAnswerCase> {};

TEST_P(BadAnswerTest, IsAFailure) {
    const CRawPeer peer{GetParam().strAnswer};
    CBrokerProxyClient proxy{kLoopback, peer.PortText()};

    ExpectFailure(proxy);
}

TEST_P(BadAnswerTest, LeavesNothingBehindForTheNextEvent) {
    const CRawPeer peer{std::vector{GetParam().strAnswer, kAnswer}};
    CBrokerProxyClient proxy{kLoopback, peer.PortText()};
    EXPECT_EQ(proxy.WrapperCallback(1, "", ""), -1);

    EXPECT_EQ(proxy.WrapperCallback(99, "Broker", "Ping"), 0);

    ASSERT_THAT(peer.Requests(), SizeIs(2));
    EXPECT_EQ(peer.Requests()[1], kPingRequest);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadAnswerTest,
    ::testing::Values(BadAnswerCase{"HangsUp", ""},
                      BadAnswerCase{"HalfAnAnswer", kAnswer.substr(0, 12)},
                      BadAnswerCase{"AllButTheLastByte", kAnswer.substr(0, kAnswer.size() - 1)},
                      BadAnswerCase{"Garbage", Garbage()},
                      BadAnswerCase{"ToAnotherCall", HalfAnAnswer() + "ute\0\0\0\0\0"s},
                      BadAnswerCase{"AnnouncesTwoGigabytes", "\x80\x01\x00\x02\x7f\xff\xff\xff"s}),
    [](const auto& info) { return info.param.szName; });

TEST(CBrokerProxyClient, EventThatCouldOnlyBeSentInPartLeavesNothingBehind) {
    const CRawPeer peer{std::vector{""s, kAnswer}};
    CBrokerProxyClient proxy{kLoopback, peer.PortText()};
    EXPECT_EQ(proxy.WrapperCallback(1, std::string(16'000'000, 'x'), ""), -1);

    EXPECT_EQ(proxy.WrapperCallback(99, "Broker", "Ping"), 0);

    ASSERT_THAT(peer.Requests(), SizeIs(2));
    EXPECT_EQ(peer.Requests()[1], kPingRequest);
}

// ---- What is no failure of the RPC ----

struct ForeignCase {
    const char* szName;
    CRpcLibraryFault::eThrown thrown;
    const char* szCallbackLine;
};
void PrintTo(const ForeignCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class ForeignExceptionTest : public ::testing::TestWithParam<ForeignCase> {};

TEST_P(ForeignExceptionTest, IsToldAndGoesNoFurther) {
    const CTemporaryFolder folder;
    CBrokerProxyClient proxy{folder.Path("client")};
    CLogCapture log;
    {
        const CRpcLibraryFault fault{GetParam().thrown};

        proxy.Callback(1, "a", "b");
        EXPECT_EQ(proxy.WrapperCallback(1, "a", "b"), -1);
    }

    EXPECT_THAT(LogLines(log),
                ElementsAre(GetParam().szCallbackLine,
                            "0 CBrokerProxyClient::WrapperCallback: thrift error throw.. "));
    const CFakeClient client{folder.Path("client")};
    EXPECT_EQ(proxy.WrapperCallback(2, "c", "d"), 0);
    EXPECT_THAT(client.Events(), ElementsAre(ClientEvent{2, "c", "d"}));
}

INSTANTIATE_TEST_SUITE_P(
    Table, ForeignExceptionTest,
    ::testing::Values(ForeignCase{"Standard", CRpcLibraryFault::STD_EXCEPTION,
                                  "0 CBrokerProxyClient::Callback: std::exception has been "
                                  "caught. strange."},
                      ForeignCase{"AnythingElse", CRpcLibraryFault::NO_EXCEPTION_CLASS,
                                  "0 CBrokerProxyClient::Callback: Unexpected problem occured"}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
