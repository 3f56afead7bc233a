#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "broker/StopSignal.h"
#include "broker/vok.h"
#include "rpc/CRpcServer.h"
#include "tests/support/BrokerTest.h"

namespace vok {
namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Brokers come and go here; what they leave in the process is put back.
class LifetimeTest : public ::testing::Test {
protected:
    LifetimeTest() {
        if (const char* szPath = std::getenv("LD_LIBRARY_PATH")) m_strFormerPath = szPath;
    }
    ~LifetimeTest() override {
        if (m_strFormerPath)
            ::setenv("LD_LIBRARY_PATH", m_strFormerPath->c_str(), 1);
        else
            ::unsetenv("LD_LIBRARY_PATH");
        if (Ticket::m_pTicketScopedMutex != m_pFormerMutex) {
            delete Ticket::m_pTicketScopedMutex;
            Ticket::m_pTicketScopedMutex = m_pFormerMutex;
        }
    }

    /// As if no broker had been there before.
    static void ForgetTicketMutex() { Ticket::m_pTicketScopedMutex = nullptr; }

    std::vector<std::string> Lines() const { return LinesOf(m_Log, "CBroker"); }

    CLogCapture m_Log;
    FakePlatform m_Fake;

private:
    std::optional<std::string> m_strFormerPath;
    CMutex* const m_pFormerMutex = Ticket::m_pTicketScopedMutex;
};

TEST_F(LifetimeTest, FirstBrokerSetsUpTheProcess) {
    ::setenv("LD_LIBRARY_PATH", "/opt/lib", 1);
    ForgetTicketMutex();
    is_vok_client_log_info_initialized = false;
    {
        const CBroker broker{m_Fake.Get()};

        EXPECT_EQ(CSingleton<CBroker>::m_hInstance, &broker);
        EXPECT_TRUE(is_vok_client_log_info_initialized);
        EXPECT_STREQ(gpVokBrokerLibraryPath, "LD_LIBRARY_PATH=/opt/lib");
        EXPECT_NE(Ticket::m_pTicketScopedMutex, nullptr);
        EXPECT_FALSE(broker.GetIsBrokerServerRunning());
        EXPECT_FALSE(BrokerProbe::IsPingTestEnabled(broker));
        EXPECT_THAT(Lines(),
                    ElementsAre("4 LibraryPath[LD_LIBRARY_PATH=/opt/lib]", "4 Creator started."));
        m_Log.Clear();
    }
    EXPECT_EQ(CSingleton<CBroker>::m_hInstance, nullptr);
    EXPECT_EQ(gpVokBrokerLibraryPath, nullptr);
    EXPECT_NE(Ticket::m_pTicketScopedMutex, nullptr);  // never freed
    EXPECT_THAT(LinesOf(m_Log, "~CBroker"), ElementsAre("4 Destory"));
}

TEST_F(LifetimeTest, WithoutALibraryPathTheBarePrefixIsKept) {
    ::unsetenv("LD_LIBRARY_PATH");
    ForgetTicketMutex();

    const CBroker broker{m_Fake.Get()};

    EXPECT_STREQ(gpVokBrokerLibraryPath, "LD_LIBRARY_PATH=");
    EXPECT_THAT(Lines(), ElementsAre("4 INFO: getenv(LD_LIBRARY_PATH) is Null, extern EMP will "
                                     "not be able to run.",
                                     "4 LibraryPath[LD_LIBRARY_PATH=]", "4 Creator started."));
}

TEST_F(LifetimeTest, LongestLibraryPathIsKept) {
    const std::string strPath(1203 - std::string("LD_LIBRARY_PATH=").size(), 'x');
    ::setenv("LD_LIBRARY_PATH", strPath.c_str(), 1);

    const CBroker broker{m_Fake.Get()};

    EXPECT_EQ(gpVokBrokerLibraryPath, "LD_LIBRARY_PATH=" + strPath);
}

TEST_F(LifetimeTest, LongerLibraryPathIsRefusedAndTheBrokerStarts) {
    const std::string strPath(1204 - std::string("LD_LIBRARY_PATH=").size(), 'x');
    ::setenv("LD_LIBRARY_PATH", strPath.c_str(), 1);
    ForgetTicketMutex();

    const CBroker broker{m_Fake.Get()};

    EXPECT_EQ(gpVokBrokerLibraryPath, nullptr);
    EXPECT_THAT(Lines(), ElementsAre("0 Error: stringSize is out of bounds",
                                     "4 LibraryPath[(null)]", "4 Creator started."));
}

TEST_F(LifetimeTest, SecondBrokerKeepsTheTicketMutex) {
    ::setenv("LD_LIBRARY_PATH", "/opt/lib", 1);
    ForgetTicketMutex();
    { const CBroker first{m_Fake.Get()}; }
    CMutex* const pMutex = Ticket::m_pTicketScopedMutex;
    m_Log.Clear();

    const CBroker second{m_Fake.Get()};

    EXPECT_EQ(Ticket::m_pTicketScopedMutex, pMutex);
    char szLine[100];
    std::snprintf(szLine, sizeof szLine, "0 m_pTicketScopedMutex must be null at first time[%p]",
                  static_cast<void*>(pMutex));
    ASSERT_EQ(Lines().size(), 3u);
    EXPECT_EQ(Lines()[1], szLine);
    EXPECT_EQ(Lines()[2], "4 Creator started.");
}

TEST_F(LifetimeTest, StopBeforeTheStartIsKept) {
    CBroker broker{m_Fake.Get()};

    broker.Destory();
    broker.Destory();

    EXPECT_TRUE(BrokerProbe::IsStopRequested(broker));
    BrokerProbe::AwaitStop(broker);  // at once
}

TEST_F(LifetimeTest, StopWakesTheOneWhoWaits) {
    CBroker broker{m_Fake.Get()};
    std::thread waiting{[&] { BrokerProbe::AwaitStop(broker); }};

    broker.Destory();

    waiting.join();
    EXPECT_TRUE(BrokerProbe::IsStopRequested(broker));
}

TEST_F(LifetimeTest, InvalidRecordKeepsSerialAndAddress) {
    ConnectionInfo info;
    info.empName = "Weather";
    info.clientPort = "1";
    info.empPort = "2";
    info.serial = 3;
    info.ip = "4";

    CBroker::SetInvalidConnectionInfo(info);

    EXPECT_EQ(info.empName, "");
    EXPECT_EQ(info.clientPort, "-1");
    EXPECT_EQ(info.empPort, "-1");
    EXPECT_EQ(info.serial, 3);
    EXPECT_EQ(info.ip, "4");
}

TEST_F(LifetimeTest, HooksOfTheFrameworkDoNothing) {
    CBroker broker{m_Fake.Get()};
    m_Log.Clear();

    broker.Initialize();
    broker.OnSetDebugModule(1, true);
    CCDebugVOK debug;
    debug.t_InitModule();
    debug.t_SetDebugLevel(4);
    debug.t_SetDebugModule(1, true);

    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(LifetimeTest, HooksOfTheFrameworkChangeNothing) {
    CBroker broker{m_Fake.Get()};
    m_Log.Clear();
    broker.Initialize();
    broker.OnSetDebugModule(1, true);
    CCDebugVOK hooks;
    hooks.t_InitModule();
    hooks.t_SetDebugLevel(4);
    hooks.t_SetDebugModule(1, true);
    EXPECT_THAT(m_Log.Records(), IsEmpty());
    EXPECT_EQ(CVOKDebug::GetLogLevel(), LEVEL_DETAIL);
}

// ---- Exported functions ----

TEST_F(LifetimeTest, ExportsBeforeTheBrokerExistsAreHarmless) {
    ASSERT_EQ(g_pBroker, nullptr);

    EXPECT_EQ(vok_GetBroker(), nullptr);
    EXPECT_FALSE(vok_IsBrokerServerRunning());
    vok_BrokerEnablePingTest();
    vok_BrokerDisablePingTest();
    vok_PingTest_For_Webkit();
    vok_CloseAllEmpWithAppID("app", "widget");
    EXPECT_THAT(m_Log.Records(), IsEmpty());
    EXPECT_EQ(vok_GetVersion(), "5.100");
}

/// Makes a broker the one of the process.
class CTheBroker {
public:
    explicit CTheBroker(CBroker& broker) { g_pBroker = &broker; }
    ~CTheBroker() {
        g_pBroker = nullptr;
        g_bBrokerCreated = false;
    }
};

TEST_F(LifetimeTest, ExportsReachTheBroker) {
    CBroker broker{m_Fake.Get()};
    const CTheBroker theBroker{broker};

    EXPECT_EQ(vok_GetBroker(), nullptr);  // until it is said to exist
    g_bBrokerCreated = true;
    EXPECT_EQ(vok_GetBroker(), &broker);
    EXPECT_FALSE(vok_IsBrokerServerRunning());
    vok_BrokerEnablePingTest();
    EXPECT_TRUE(BrokerProbe::IsPingTestEnabled(broker));
    vok_BrokerDisablePingTest();
    EXPECT_FALSE(BrokerProbe::IsPingTestEnabled(broker));
    vok_CloseAllEmpWithAppID("app", "widget");
    EXPECT_TRUE(HasLinesOf(m_Log, "CloseAllEmpWithAppID"));
    vok_PingTest_For_Webkit();
    EXPECT_TRUE(HasLinesOf(m_Log, "PingTest_For_Webkit"));
}

TEST_F(LifetimeTest, StartOfABrokerThatWasMadeBeforeDoesNothing) {
    g_bBrokerCreated = true;

    EXPECT_EQ(vok_BrokerStart(), 0);

    g_bBrokerCreated = false;
    EXPECT_EQ(g_pBroker, nullptr);
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

// ---- The stop signal ----

TEST_F(LifetimeTest, StopSignalWithoutABrokerIsIgnored) {
    ASSERT_EQ(g_pBroker, nullptr);
    sigterm_handler(SIGTERM);
    EXPECT_THAT(m_Log.Records(), IsEmpty());
}

TEST_F(LifetimeTest, OtherSignalsDoNotStopTheBroker) {
    CBroker broker{m_Fake.Get()};
    const CTheBroker theBroker{broker};

    for (const int nSignal : {0, SIGINT, SIGHUP, SIGUSR1, SIGKILL}) sigterm_handler(nSignal);

    EXPECT_FALSE(BrokerProbe::IsStopRequested(broker));
}

TEST_F(LifetimeTest, StopSignalStopsTheBrokerAndKeepsErrno) {
    CBroker broker{m_Fake.Get()};
    const CTheBroker theBroker{broker};

    errno = ENOTTY;
    sigterm_handler(SIGTERM);

    EXPECT_EQ(errno, ENOTTY);
    EXPECT_TRUE(BrokerProbe::IsStopRequested(broker));
    BrokerProbe::AwaitStop(broker);
}

// ---- How many clients are served at once ----

struct LimitCase {
    unsigned long nDescriptors;
    long nClients;
};

TEST(ConnectionLimit, LeavesDescriptorsForEverythingElse) {
    const LimitCase cases[] = {
        {0, 1},
        {1, 1},
        {64, 1},
        {65, 1},
        {66, 2},
        {128, 64},
        {256, 192},
        {257, 193},
        {260, 195},
        {1024, 768},
        {4096, 3072},
        {1'048'576, 786'432},
        {2'147'483'647, 1'610'612'736},
    };
    for (const LimitCase& c : cases) {
        SCOPED_TRACE(c.nDescriptors);
        EXPECT_EQ(ConnectionLimit(c.nDescriptors), c.nClients);
    }
}

}  // namespace
}  // namespace vok
