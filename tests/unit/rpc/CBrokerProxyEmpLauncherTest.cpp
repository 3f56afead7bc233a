#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include "VOKEmpLauncher.h"
#include "rpc/CBrokerProxyEmpLauncher.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

using apache::thrift::transport::TServerSocket;
using test::CLogCapture;
using test::LogLines;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

/// A launcher that serves on a free loopback port from the constructor to the destructor.
class CLauncher : public VOKEmpLauncherIf {
public:
    explicit CLauncher(int nAnswer) : m_nAnswer(nAnswer) {
        m_Server.setServerEventHandler(m_pTeller);
        m_Thread = std::thread([this] { m_Server.serve(); });
        m_nPort = m_pTeller->port.get_future().get();
    }

    ~CLauncher() override {
        m_Server.stop();
        m_Thread.join();
    }

    std::string PortText() const { return std::to_string(m_nPort); }

    /// Read after the call has been answered.
    std::string m_strName;
    int32_t m_nSerial = 0;
    std::string m_strPath;

    int32_t Open(const std::string& strName, const int32_t nSerial,
                 const std::string& strPath) override {
        m_strName = strName;
        m_nSerial = nSerial;
        m_strPath = strPath;
        return m_nAnswer;
    }

private:
    struct Teller : apache::thrift::server::TServerEventHandler {
        explicit Teller(std::shared_ptr<TServerSocket> p) : pSocket(std::move(p)) {}
        void preServe() override { port.set_value(pSocket->getPort()); }
        std::shared_ptr<TServerSocket> pSocket;
        std::promise<int> port;
    };

    const int m_nAnswer;
    int m_nPort = 0;
    std::shared_ptr<TServerSocket> m_pSocket = std::make_shared<TServerSocket>("127.0.0.1", 0);
    std::shared_ptr<Teller> m_pTeller = std::make_shared<Teller>(m_pSocket);
    apache::thrift::server::TThreadedServer m_Server{
        std::make_shared<VOKEmpLauncherProcessor>(
            std::shared_ptr<VOKEmpLauncherIf>(this, [](VOKEmpLauncherIf*) {})),
        m_pSocket, std::make_shared<apache::thrift::transport::TBufferedTransportFactory>(),
        std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>()};
    std::thread m_Thread;

public:
    CLauncher(const CLauncher&) = delete;
    CLauncher& operator=(const CLauncher&) = delete;
};

class LauncherAnswerTest : public ::testing::TestWithParam<int> {};

TEST_P(LauncherAnswerTest, IsPassedBackUnchanged) {
    CLauncher launcher{GetParam()};
    CBrokerProxyEmpLauncher proxy{launcher.PortText()};

    EXPECT_EQ(proxy.Open("Weather", 42, "10.0.0.1", "6001"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Answer, LauncherAnswerTest,
                         ::testing::Values(0, 1, -1, std::numeric_limits<int>::max(),
                                           std::numeric_limits<int>::min()));

TEST(CBrokerProxyEmpLauncher, OpenPassesNameSerialAndPathAndLogs) {
    CLauncher launcher{1};
    CBrokerProxyEmpLauncher proxy{launcher.PortText()};
    const CLogCapture log;

    EXPECT_EQ(proxy.Open("Weather", 42, "10.0.0.1", "6001"), 1);

    EXPECT_EQ(launcher.m_strName, "Weather");
    EXPECT_EQ(launcher.m_nSerial, 42);
    EXPECT_EQ(launcher.m_strPath, "6001");
    EXPECT_THAT(LogLines(log),
                ElementsAre("4 Open: Open call start with name:Weather, cbSrvPath:6001, "
                            "launcherPort:" +
                                launcher.PortText() + ", ip:10.0.0.1",
                            "4 Open: Before send open to launcher",
                            "4 Open: after send open to launcher", "4 Open: Open call end"));
}

TEST(CBrokerProxyEmpLauncher, WithoutAPortTheCallFailsAtConnect) {
    CBrokerProxyEmpLauncher proxy;
    const CLogCapture log;

    EXPECT_EQ(proxy.Open("Weather", 42, "10.0.0.1", "6001"), 0);

    EXPECT_THAT(LogLines(log),
                ElementsAre("4 Open: Open call start with name:Weather, cbSrvPath:6001, "
                            "launcherPort:, ip:10.0.0.1",
                            MatchesRegex("0 Open: Transport Error : \\[.+\\]")));
}

TEST(CBrokerProxyEmpLauncher, ALauncherThatHangsUpReadsAsZero) {
    test::CRawPeer peer{""};
    CBrokerProxyEmpLauncher proxy{peer.PortText()};
    const CLogCapture log;

    EXPECT_EQ(proxy.Open("Weather", 42, "10.0.0.1", "6001"), 0);

    EXPECT_THAT(LogLines(log),
                ElementsAre("4 Open: Open call start with name:Weather, cbSrvPath:6001, "
                            "launcherPort:" +
                                peer.PortText() + ", ip:10.0.0.1",
                            "4 Open: Before send open to launcher",
                            MatchesRegex("0 Open: Transport Error : \\[.+\\]")));
}

}  // namespace
}  // namespace vok
