// Whether the broker's own port answers: in a world of its own, nobody else has that port.
#include <memory>
#include <string>
#include <vector>

#include "VokEmp.h"
#include "platform/Limits.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/FakeServer.h"
#include "tests/support/LogLines.h"
#include "tests/support/RpcLibraryFault.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

/// Accepts connections on the broker's port, and could not answer a call.
class CPortOwner {
private:
    CFakeServer m_Server{std::make_shared<VokEmpProcessor>(nullptr), kBrokerPort};
};

class BrokerPortTest : public BrokerTest {
protected:
    void Work() { EXPECT_EQ(CBroker::PingTestWorker(&m_Broker), nullptr); }
    std::vector<std::string> WorkerLines() const { return LinesOf(m_Log, "PingTestWorker"); }
    std::size_t CountTries() const { return LinesOf(m_Log, "IsBrokerServerRunning").size(); }
};

TEST_F(BrokerPortTest, PortThatAcceptsConnectionsRuns) {
    const CPortOwner owner;

    EXPECT_TRUE(m_Broker.IsBrokerServerRunning());
    EXPECT_TRUE(m_Broker.IsBrokerServerRunning());

    EXPECT_THAT(LogLines(m_Log), IsEmpty());
    EXPECT_FALSE(m_Broker.GetIsBrokerServerRunning());  // to notice is not to note
}

TEST_F(BrokerPortTest, PortThatRefusesDoesNotRun) {
    EXPECT_FALSE(m_Broker.IsBrokerServerRunning());

    EXPECT_THAT(LogLines(m_Log),
                ElementsAre(MatchesRegex("3 IsBrokerServerRunning: Broker is not running now. "
                                         "Maybe, Server is preparing to run. \\[.+\\]")));
}

TEST_F(BrokerPortTest, OtherExceptionsAreToldWithoutAText) {
    for (const auto thrown :
         {CRpcLibraryFault::STD_EXCEPTION, CRpcLibraryFault::NO_EXCEPTION_CLASS}) {
        const CRpcLibraryFault fault{thrown};
        m_Log.Clear();
        EXPECT_FALSE(m_Broker.IsBrokerServerRunning());
        EXPECT_THAT(LogLines(m_Log),
                    ElementsAre("3 IsBrokerServerRunning: Broker is not running now. Maybe, Server "
                                "is preparing to run. "));
    }
}

TEST_F(BrokerPortTest, WorkerNotesThatTheServerAnswers) {
    const CPortOwner owner;

    Work();

    EXPECT_TRUE(m_Broker.GetIsBrokerServerRunning());
    EXPECT_THAT(WorkerLines(),
                ElementsAre("4 PingTestWoker starts", "4 Broker-Server is running well.",
                            "4 PingTest is disable"));
    EXPECT_EQ(CountTries(), 0u);  // that failed
    EXPECT_EQ(ThreadName(), "VOK-B-PingTest");
}

TEST_F(BrokerPortTest, WorkerGivesUpAfter255FailuresWithoutAPause) {
    Work();

    EXPECT_FALSE(m_Broker.GetIsBrokerServerRunning());
    EXPECT_THAT(WorkerLines(), ElementsAre("4 PingTestWoker starts",
                                           "0 Broker-Server is not runnning now. Check your system",
                                           "4 PingTest is disable"));
    EXPECT_EQ(CountTries(), 255u);
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
    EXPECT_EQ(ThreadName(), "VOK-B-PingTest");
}

TEST_F(BrokerPortTest, WorkerBelievesWhoSawTheServerBefore) {
    {
        const CPortOwner owner;
        Work();
    }
    ASSERT_TRUE(m_Broker.GetIsBrokerServerRunning());
    m_Log.Clear();

    Work();

    EXPECT_TRUE(m_Broker.GetIsBrokerServerRunning());
    EXPECT_EQ(CountTries(), 255u);
    EXPECT_THAT(WorkerLines(),
                ElementsAre("4 PingTestWoker starts", "4 Broker-Server is running well.",
                            "4 PingTest is disable"));
}

TEST_F(BrokerPortTest, WorkerNeverPings) {
    const CPortOwner owner;
    m_Broker.EnablePingTest(true);

    Work();

    EXPECT_FALSE(HasLinesOf(m_Log, "PingTest"));
    EXPECT_THAT(m_Fake.clock.Sleeps(), IsEmpty());
}

}  // namespace
}  // namespace vok
