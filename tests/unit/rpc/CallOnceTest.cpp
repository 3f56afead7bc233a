#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "VokEmp.h"
#include "platform/CUniqueFd.h"
#include "platform/Number.h"
#include "rpc/CallOnce.h"
#include "tests/support/CFakeEmp.h"

namespace vok {
namespace {

using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TSocket;
using test::CFakeEmp;
using test::CRefusedPort;
using ::testing::HasSubstr;

struct PortNumberCase {
    const char* szName;
    const char* szPort;
    int nPort;
};

class PortNumberTest : public ::testing::TestWithParam<PortNumberCase> {};

TEST_P(PortNumberTest, IsTheLeadingNumber) {
    EXPECT_EQ(LeadingNumber(GetParam().szPort), GetParam().nPort);
}

INSTANTIATE_TEST_SUITE_P(
    Text, PortNumberTest,
    ::testing::Values(PortNumberCase{"Port", "4000", 4000}, PortNumberCase{"Empty", "", 0},
                      PortNumberCase{"NotANumber", "/tmp/emp", 0}, PortNumberCase{"None", "-1", -1},
                      PortNumberCase{"Tail", "4000|12", 4000},
                      PortNumberCase{"PastAnInt", "4294967297", 2147483647},
                      PortNumberCase{"PastALong", "99999999999999999999", 2147483647},
                      PortNumberCase{"BelowALong", "-99999999999999999999", -2147483648}),
    [](const auto& info) { return info.param.szName; });

TBufferedTransport* TransportOf(VokEmpClient& emp) {
    return dynamic_cast<TBufferedTransport*>(emp.getOutputProtocol()->getTransport().get());
}

RpcAddress AddressOf(const CFakeEmp& emp) {
    return {"127.0.0.1", emp.Port(), {}};
}

/// Takes the text of what went wrong.
struct ErrorText {
    void operator()(const char* szWhat) { *pText = szWhat; }
    std::optional<std::string>* pText;
};

TEST(CallOnce, ConnectionIsCloseOnExecDuringTheCallAndClosedAfterIt) {
    CFakeEmp emp;
    std::optional<std::string> error;
    std::shared_ptr<TSocket> pSocket;

    EXPECT_TRUE(CallOnce<VokEmpClient>(
        AddressOf(emp),
        [&pSocket](VokEmpClient& client) {
            TBufferedTransport* const pTransport = TransportOf(client);
            ASSERT_NE(pTransport, nullptr);
            pSocket = std::dynamic_pointer_cast<TSocket>(pTransport->getUnderlyingTransport());
            ASSERT_NE(pSocket, nullptr);
            const int nFlags = ::fcntl(static_cast<int>(pSocket->getSocketFD()), F_GETFD);
            ASSERT_GE(nFlags, 0);
            EXPECT_TRUE(nFlags & FD_CLOEXEC);
        },
        ErrorText{&error}));

    EXPECT_EQ(error, std::nullopt);
    ASSERT_NE(pSocket, nullptr);
    EXPECT_FALSE(pSocket->isOpen());
}

TEST(CallOnce, EveryCallHasAConnectionOfItsOwn) {
    CFakeEmp emp;
    std::optional<std::string> error;
    std::string strAnswer;

    for (int n = 0; n < 3; ++n) {
        EXPECT_TRUE(CallOnce<VokEmpClient>(
            AddressOf(emp),
            [&strAnswer](VokEmpClient& client) {
                client.Execute(strAnswer, "6001", "Ping", "", "", "", "");
            },
            ErrorText{&error}));
    }

    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(strAnswer, "1");
    EXPECT_EQ(emp.Calls().size(), 3u);
}

TEST(CallOnce, RefusedConnectionIsAnErrorAndNothingIsCalled) {
    const CRefusedPort port;
    std::optional<std::string> error;
    bool bCalled = false;

    EXPECT_FALSE(CallOnce<VokEmpClient>(
        {"127.0.0.1", port.Port(), {}}, [&bCalled](VokEmpClient&) { bCalled = true; },
        ErrorText{&error}));

    EXPECT_FALSE(bCalled);
    ASSERT_TRUE(error);
    EXPECT_THAT(*error, HasSubstr("refused"));
}

class BadPortTest : public ::testing::TestWithParam<int> {};

TEST_P(BadPortTest, IsAnError) {
    std::optional<std::string> error;

    EXPECT_FALSE(CallOnce<VokEmpClient>(
        {"127.0.0.1", GetParam(), {}}, [](VokEmpClient&) { FAIL() << "connected"; },
        ErrorText{&error}));

    EXPECT_TRUE(error);
}

INSTANTIATE_TEST_SUITE_P(Port, BadPortTest, ::testing::Values(0, -1, 65536, 2147483647));

TEST(CallOnce, FailureOfTheCallIsAnErrorWithThePeersText) {
    CFakeEmp emp;
    emp.FailCalls("out of order");
    std::optional<std::string> error;

    EXPECT_FALSE(CallOnce<VokEmpClient>(
        AddressOf(emp), [](VokEmpClient& client) { client.Open("a", "b", "c", "d"); },
        ErrorText{&error}));

    EXPECT_EQ(error, "out of order");
}

TEST(CallOnce, FailureToCloseAfterTheCallIsAnErrorAndTheAnswerIsThere) {
    CFakeEmp emp;
    emp.AnswerClose(3);
    std::optional<std::string> error;
    int nAnswer = -1;

    EXPECT_FALSE(CallOnce<VokEmpClient>(
        AddressOf(emp),
        [&nAnswer](VokEmpClient& client) {
            nAnswer = client.Close("6001", EmpType::PROCESS);
            // Something is left to be sent when the socket is gone: closing cannot flush it.
            TBufferedTransport* const pTransport = TransportOf(client);
            ASSERT_NE(pTransport, nullptr);
            pTransport->write(reinterpret_cast<const uint8_t*>("x"), 1);
            pTransport->getUnderlyingTransport()->close();
        },
        ErrorText{&error}));

    EXPECT_EQ(nAnswer, 3);
    EXPECT_TRUE(error);
}

TEST(CallOnce, OtherExceptionsPass) {
    CFakeEmp emp;
    std::optional<std::string> error;

    EXPECT_THROW(CallOnce<VokEmpClient>(
                     AddressOf(emp), [](VokEmpClient&) { throw std::length_error("too long"); },
                     ErrorText{&error}),
                 std::length_error);

    EXPECT_EQ(error, std::nullopt);
}

TEST(CallOnce, ReachesAPeerAtAPath) {
    // An abstract name: no file is left behind.
    const std::string strPath = std::string(1, '\0') + "vok-call-once-" + std::to_string(getpid());
    const CUniqueFd listener{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    ASSERT_TRUE(listener.IsOpen());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof(address.sun_path));
    const auto nSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strPath.size());
    ASSERT_EQ(::bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), nSize), 0);
    ASSERT_EQ(::listen(listener.Get(), 1), 0);
    std::optional<std::string> error;
    bool bCalled = false;

    EXPECT_TRUE(CallOnce<VokEmpClient>(
        {"", 0, strPath}, [&bCalled](VokEmpClient&) { bCalled = true; }, ErrorText{&error}));

    EXPECT_TRUE(bCalled);
    EXPECT_EQ(error, std::nullopt);
}

}  // namespace
}  // namespace vok
