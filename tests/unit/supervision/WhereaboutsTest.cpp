#include <boost/make_shared.hpp>

#include <chrono>
#include <future>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/EmpPaths.h"
#include "tests/support/BrokerLocks.h"
#include "tests/support/BrokerTest.h"
#include "tests/support/LogLines.h"
#include "vok_admin_types.h"

namespace vok {
namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// "<role> <path>", with a "+" before what exists.
std::vector<std::string> Files(const admin::Whereabouts& whereabouts) {
    std::vector<std::string> files;
    for (const admin::FileState& file : whereabouts.files)
        files.push_back((file.exists ? "+" : "") + file.role + ' ' + file.path);
    return files;
}

std::vector<std::string> Names(const std::vector<admin::LauncherState>& launchers) {
    std::vector<std::string> names;
    for (const admin::LauncherState& launcher : launchers)
        names.push_back(launcher.name + '|' + launcher.port);
    return names;
}

MATCHER_P4(IsServer, strPort, nPid, strProgram, clients, "") {
    *result_listener << arg.port << ' ' << arg.pid << ' ' << arg.program << ' '
                     << arg.clientPorts.size();
    return arg.port == strPort && arg.pid == nPid && arg.program == strProgram &&
           arg.clientPorts == std::vector<std::string>(clients) &&
           arg.clientAgesMs.size() == arg.clientPorts.size();
}

using Clients = std::vector<std::string>;

class WhereaboutsTest : public BrokerTest {
protected:
    admin::Whereabouts Where(const std::string& strEmp) {
        admin::Whereabouts whereabouts;
        m_Broker.GetWhereabouts(strEmp, whereabouts);
        return whereabouts;
    }

    /// A report that is kept.
    void AddReported(unsigned int nSerial, const std::string& strPort, const ProcessId& process,
                     const std::string& strEmp = "Weather") {
        const auto spTicket = boost::make_shared<Ticket>("-1");
        spTicket->m_strEmp = strEmp;
        spTicket->m_strPort = strPort;
        spTicket->m_nPid = process.nPid;
        spTicket->m_Process = process;
        BrokerProbe::SetTicket(m_Broker, nSerial, spTicket);
    }

    void Connect(const std::string& strEmp, const std::string& strPort,
                 const std::string& strClientPort) {
        ASSERT_TRUE(ConnectionDB().AddConnectionData({strEmp, strPort}, strClientPort));
    }
};

TEST_F(WhereaboutsTest, ItIsToldWhileAnImageIsBeingMounted) {
    std::future<admin::Whereabouts> whereabouts;
    m_Fake.AddImage("Weather");
    m_Fake.mounter.OnMount([&] {
        whereabouts = std::async(std::launch::async, [this] { return Where("Weather"); });
        EXPECT_EQ(whereabouts.wait_for(std::chrono::seconds{30}), std::future_status::ready);
        throw std::runtime_error("enough");
    });
    ConnectionInfo info;
    m_Broker.OpenEmp(info, "40001", "Weather", "1.0", "app");
    EXPECT_EQ(whereabouts.get().mount.image, "Weather");
}

// ---- Files ----

TEST_F(WhereaboutsTest, UnknownEmpHasFilesThatAreMissing) {
    const admin::Whereabouts whereabouts = Where("Nowhere");

    EXPECT_EQ(whereabouts.empName, "Nowhere");
    EXPECT_EQ(whereabouts.location, EMPLOCATION_UNKNOWN);
    EXPECT_THAT(Files(whereabouts),
                ElementsAre("image /opt/down/emps/empNowhere_img/empNowhere.img",
                            "preinstalled program /usr/bin/emps/empNowhere/empNowhere",
                            "downloaded program /opt/down/emps/empNowhere/empNowhere",
                            "configuration /usr/bin/emps/empNowhere/empNowhere.xml",
                            "configuration /opt/down/emps/empNowhere/empNowhere.xml"));
    EXPECT_THAT(whereabouts.launchers, IsEmpty());
    EXPECT_THAT(whereabouts.groups, IsEmpty());
    EXPECT_EQ(whereabouts.status, 0);
    EXPECT_EQ(whereabouts.option, "");
    EXPECT_THAT(whereabouts.servers, IsEmpty());
    EXPECT_EQ(whereabouts.mount.count, 0);
    EXPECT_FALSE(whereabouts.mount.mounted);
    EXPECT_EQ(whereabouts.mountPoint, "");
    EXPECT_EQ(whereabouts.mountSource, "");
    EXPECT_EQ(whereabouts.fileSystem, "");
}

TEST_F(WhereaboutsTest, FilesAreToldInTheOrderOfAnOpen) {
    m_Fake.AddPreinstalled("Weather");
    m_Fake.files.Add(paths::DownloadedConfig("Weather"));

    EXPECT_THAT(Files(Where("Weather")),
                ElementsAre("image /opt/down/emps/empWeather_img/empWeather.img",
                            "+preinstalled program /usr/bin/emps/empWeather/empWeather",
                            "downloaded program /opt/down/emps/empWeather/empWeather",
                            "configuration /usr/bin/emps/empWeather/empWeather.xml",
                            "+configuration /opt/down/emps/empWeather/empWeather.xml"));
    EXPECT_EQ(Where("Weather").location, EMPLOCATION_EXTERNAL);
}

TEST_F(WhereaboutsTest, OfAHostedEmpTheFilesOfItsGroupFollow) {
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Clock"});
    m_Fake.AddMounted("Home");

    EXPECT_THAT(Files(Where("Clock")),
                ElementsAre("image /opt/down/emps/empClock_img/empClock.img",
                            "preinstalled program /usr/bin/emps/empClock/empClock",
                            "+downloaded program /opt/down/emps/empHome/empHome",
                            "+image /opt/down/emps/empHome_img/empHome.img",
                            "preinstalled program /usr/bin/emps/empHome/empHome",
                            "configuration /usr/bin/emps/empHome/empHome.xml",
                            "configuration /opt/down/emps/empHome/empHome.xml"));
}

TEST_F(WhereaboutsTest, NameThatIsNoFileNameHasNoFiles) {
    for (const std::string& strEmp :
         {std::string("../Weather"), std::string(".."), std::string("a\0b", 3)}) {
        BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {strEmp});
        EXPECT_THAT(Where(strEmp).files, IsEmpty());
        EXPECT_EQ(Where(strEmp).location, EMPLOCATION_REGISTER);
        EXPECT_EQ(Where(strEmp).mountPoint, "");
    }
    EXPECT_THAT(m_Fake.files.Calls(), IsEmpty());
}

TEST_F(WhereaboutsTest, HostWhoseNameIsNoFileNameHasNoFiles) {
    BrokerProbe::SetGroup(m_Broker, "../Home", "N/A", {"Clock"});

    EXPECT_THAT(Files(Where("Clock")),
                ElementsAre("image /opt/down/emps/empClock_img/empClock.img",
                            "preinstalled program /usr/bin/emps/empClock/empClock"));
    EXPECT_EQ(Where("Clock").mountPoint, "");
}

// ---- Place ----

struct PlaceCase {
    const char* szName;
    bool bImage;
    bool bProgram;
    bool bGrouped;
    bool bRegistered;
};
void PrintTo(const PlaceCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class WhereaboutsPlaceTest : public WhereaboutsTest,
                             public ::testing::WithParamInterface<PlaceCase> {};

TEST_P(WhereaboutsPlaceTest, IsThatOfAnOpen) {
    const PlaceCase& c = GetParam();
    if (c.bImage) m_Fake.AddImage("Weather");
    if (c.bProgram) m_Fake.AddPreinstalled("Weather");
    if (c.bGrouped) BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Weather"});
    if (c.bRegistered) BrokerProbe::SetLauncher(m_Broker, "Launcher", "5000", {"Weather"});

    const admin::Whereabouts whereabouts = Where("Weather");

    EXPECT_EQ(whereabouts.location, m_Broker.WhereIsEMP("Weather"));
    // Whoever lists it is told, also when that is not what decides.
    EXPECT_EQ(whereabouts.groups.size(), c.bGrouped ? 1u : 0u);
    EXPECT_EQ(whereabouts.launchers.size(), c.bRegistered ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Table, WhereaboutsPlaceTest,
                         ::testing::Values(PlaceCase{"Nowhere", false, false, false, false},
                                           PlaceCase{"Image", true, false, true, true},
                                           PlaceCase{"Program", false, true, true, true},
                                           PlaceCase{"Group", false, false, true, true},
                                           PlaceCase{"Launcher", false, false, false, true}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(WhereaboutsTest, EveryOneThatListsItIsToldAndNobodyElse) {
    BrokerProbe::SetGroup(m_Broker, "B", "1", {"Weather", "Clock"});
    BrokerProbe::SetGroup(m_Broker, "A", "9", {"Weather"});
    BrokerProbe::SetGroup(m_Broker, "C", "2", {"Clock"});
    BrokerProbe::SetLauncher(m_Broker, "L", "3", {"Weather"});
    BrokerProbe::SetLauncher(m_Broker, "M", "4", {});

    const admin::Whereabouts whereabouts = Where("Weather");

    EXPECT_THAT(Names(whereabouts.groups), ElementsAre("A|9", "B|1"));
    EXPECT_THAT(whereabouts.groups.at(1).emps, ElementsAre("Clock", "Weather"));
    EXPECT_THAT(Names(whereabouts.launchers), ElementsAre("L|3"));
}

// ---- Record and servers ----

TEST_F(WhereaboutsTest, RecordIsTold) {
    AddKnown("Weather", "0003", EMP_CLOSED);
    AddKnown("Clock", "0001", EMP_OPENED);

    EXPECT_EQ(Where("Weather").status, EMP_CLOSED);
    EXPECT_EQ(Where("Weather").option, "0003");
    EXPECT_THAT(Where("Weather").servers, IsEmpty());
}

TEST_F(WhereaboutsTest, ServerIsToldWithItsProcessAndClients) {
    m_Fake.AddPreinstalled("Weather");
    m_Fake.processes.SetProgram(777, "/usr/bin/emps/empWeather/empWeather");
    LetEmpsReport("40123|777", "0001");
    for (const char* szClient : {"40002", "40001"}) {
        ConnectionInfo info;
        m_Broker.OpenEmp(info, szClient, "Weather", "1.0", "app");
        ASSERT_EQ(info.empPort, "40123");
    }
    Connect("Clock", "40124", "40003");

    EXPECT_THAT(Where("Weather").servers,
                ElementsAre(IsServer("40123", 777, "/usr/bin/emps/empWeather/empWeather",
                                     Clients{"40001", "40002"})));
    EXPECT_EQ(Where("Weather").status, EMP_OPENED);
    EXPECT_EQ(Where("Weather").option, "0001");
}

TEST_F(WhereaboutsTest, ServerWithoutClientsIsTold) {
    Connect("Weather", "40123", "40001");
    ASSERT_TRUE(ConnectionDB().RemoveClientPortFromConnDB({"Weather", "40123"}, "40001"));

    EXPECT_THAT(Where("Weather").servers, ElementsAre(IsServer("40123", 0, "", Clients{})));
}

TEST_F(WhereaboutsTest, EachServerHasTheProcessThatReportedItsPort) {
    AddKnown("Weather", "0002", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, 4711});  // the first one's
    for (const char* szPort : {"40123", "40124", "40125"}) Connect("Weather", szPort, "40001");
    AddReported(5, "40123", {777, 4711, 0});
    AddReported(6, "40124", {600, 4711, 0});
    AddReported(7, "40124", {778, 4711, 0});  // the port has been given anew
    AddReported(8, "40124", {-1, 0, 0});      // a reuse
    AddReported(9, "40999", {779, 4711, 0});
    BrokerProbe::SetTicket(m_Broker, 10, nullptr);

    const auto servers = Where("Weather").servers;

    EXPECT_THAT(servers, ElementsAre(IsServer("40123", 777, "", Clients{"40001"}),
                                     IsServer("40124", 778, "", Clients{"40001"}),
                                     IsServer("40125", 0, "", Clients{"40001"})));
}

TEST_F(WhereaboutsTest, ProcessOfAnotherEmpAtThePortIsNotTold) {
    // Weather has ended without a word; Clock has been given its port since, and Radio had it
    // before.
    AddKnown("Weather", "0002", EMP_OPENED);
    for (const char* szPort : {"40123", "40124"}) Connect("Weather", szPort, "40001");
    Connect("Clock", "40123", "40002");
    AddReported(4, "40124", {600, 4711, 0}, "Radio");
    AddReported(5, "40123", {777, 4711, 0}, "Weather");
    AddReported(6, "40123", {778, 4711, 0}, "Clock");

    EXPECT_THAT(Where("Weather").servers, ElementsAre(IsServer("40123", 777, "", Clients{"40001"}),
                                                      IsServer("40124", 0, "", Clients{"40001"})));
    EXPECT_THAT(Where("Clock").servers, ElementsAre(IsServer("40123", 778, "", Clients{"40002"})));
}

TEST_F(WhereaboutsTest, OpensTellTheirServersApartByTheirEmps) {
    m_Fake.AddPreinstalled("Weather");
    m_Fake.AddPreinstalled("Clock");
    LetEmpsReport("40123|777", "0001");
    ConnectionInfo info;
    m_Broker.OpenEmp(info, "40001", "Weather", "1.0", "app");
    ASSERT_EQ(info.empPort, "40123");
    LetEmpsReport("40123|778", "0001");
    m_Broker.OpenEmp(info, "40001", "Clock", "1.0", "app");
    ASSERT_EQ(info.empPort, "40123");

    EXPECT_THAT(Where("Weather").servers,
                ElementsAre(IsServer("40123", 777, "", Clients{"40001"})));
    EXPECT_THAT(Where("Clock").servers, ElementsAre(IsServer("40123", 778, "", Clients{"40001"})));
}

struct OnlyServerCase {
    const char* szName;
    unsigned long long nReporterStart;  // 0: nobody has reported the port; 4711 runs
    unsigned long long nRecordedStart;
    pid_t nTold;
};
void PrintTo(const OnlyServerCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class WhereaboutsOnlyServerTest : public WhereaboutsTest,
                                  public ::testing::WithParamInterface<OnlyServerCase> {};

/// 778 has reported the port, and 777 is on record.
TEST_P(WhereaboutsOnlyServerTest, IsTheReporterUnlessOnlyTheProcessOnRecordRuns) {
    const OnlyServerCase& c = GetParam();
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, c.nRecordedStart});
    Connect("Weather", "40123", "40001");
    if (c.nReporterStart != 0) AddReported(5, "40123", {778, c.nReporterStart, 0});

    EXPECT_THAT(Where("Weather").servers,
                ElementsAre(IsServer("40123", c.nTold, "", Clients{"40001"})));
}

INSTANTIATE_TEST_SUITE_P(Table, WhereaboutsOnlyServerTest,
                         ::testing::Values(OnlyServerCase{"BothRun", 4711, 4711, 778},
                                           OnlyServerCase{"ReporterRuns", 4711, 4710, 778},
                                           OnlyServerCase{"RecordedRuns", 4710, 4711, 777},
                                           OnlyServerCase{"BothHaveEnded", 4710, 4709, 778},
                                           OnlyServerCase{"NobodyHasReported", 0, 4709, 777}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(WhereaboutsTest, OnlyServerWhoseTicketHasGoneHasTheProcessOnRecord) {
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, 4711});
    m_Fake.processes.SetProgram(777, "/usr/bin/emps/empWeather/empWeather");
    Connect("Weather", "40123", "40001");

    EXPECT_THAT(Where("Weather").servers,
                ElementsAre(IsServer("40123", 777, "/usr/bin/emps/empWeather/empWeather",
                                     Clients{"40001"})));
}

TEST_F(WhereaboutsTest, ProgramOfAnotherProcessWithThePidIsNotTold) {
    AddKnown("Weather", "0001", EMP_OPENED);
    EmpInfo().SetEmpProcess("Weather", {777, 4711});
    m_Fake.processes.SetProgram(777, "/bin/true");
    m_Fake.processes.SetStartTime(4712);
    Connect("Weather", "40123", "40001");

    EXPECT_THAT(Where("Weather").servers,
                ElementsAre(IsServer("40123", 777, "", Clients{"40001"})));
}

// ---- What is a host itself ----

TEST_F(WhereaboutsTest, HostIsToldByItsOwnName) {
    BrokerProbe::SetGroup(m_Broker, "Home", "40200", {"Clock", "Mail"});
    BrokerProbe::SetLauncher(m_Broker, "Tuner", "40100", {"Radio"});

    EXPECT_THAT(Names(Where("Home").ownGroups), ElementsAre("Home|40200"));
    EXPECT_THAT(Where("Home").groups, IsEmpty());
    EXPECT_THAT(Names(Where("Tuner").ownLaunchers), ElementsAre("Tuner|40100"));
    EXPECT_THAT(Where("Clock").ownGroups, IsEmpty());
    EXPECT_THAT(Where("Radio").ownLaunchers, IsEmpty());
}

// ---- Mount ----

MATCHER_P3(IsMount, strImage, nCount, bMounted, "") {
    *result_listener << arg.image << ' ' << arg.count << ' ' << arg.mounted;
    return arg.image == strImage && arg.count == nCount && arg.mounted == bMounted;
}

TEST_F(WhereaboutsTest, MountedImageIsToldAsTheKernelHasIt) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 2);
    m_Fake.mounter.SetMountedOn("/opt/down/emps/empWeather", {"/dev/loop3", "squashfs"});

    const admin::Whereabouts whereabouts = Where("Weather");

    EXPECT_THAT(whereabouts.mount, IsMount("Weather", 2, true));
    EXPECT_EQ(whereabouts.mountPoint, "/opt/down/emps/empWeather");
    EXPECT_EQ(whereabouts.mountSource, "/dev/loop3");
    EXPECT_EQ(whereabouts.fileSystem, "squashfs");
    EXPECT_EQ(whereabouts.mounts, 1);
}

TEST_F(WhereaboutsTest, MountsOneOverTheOtherAreCounted) {
    m_Fake.AddMounted("Weather");
    MountEntry topmost{"/dev/loop4", "squashfs"};
    topmost.nStacked = 2;
    m_Fake.mounter.SetMountedOn("/opt/down/emps/empWeather", topmost);

    EXPECT_EQ(Where("Weather").mounts, 2);
    EXPECT_EQ(Where("Weather").mountSource, "/dev/loop4");
    EXPECT_EQ(Where("Clock").mounts, 0);
}

TEST_F(WhereaboutsTest, OfAHostedEmpItIsTheGroupsImage) {
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Clock"});
    m_Fake.AddMounted("Home");
    BrokerProbe::SetMountCount(m_Broker, "Home", 1);
    BrokerProbe::SetMountCount(m_Broker, "Clock", 7);

    EXPECT_THAT(Where("Clock").mount, IsMount("Home", 1, true));
    EXPECT_EQ(Where("Clock").mountPoint, "/opt/down/emps/empHome");
}

TEST_F(WhereaboutsTest, ImageThatIsNotMountedHasItsMountPoint) {
    m_Fake.AddImage("Weather");

    EXPECT_THAT(Where("Weather").mount, IsMount("Weather", 0, false));
    EXPECT_EQ(Where("Weather").mountPoint, "/opt/down/emps/empWeather");
    EXPECT_EQ(Where("Weather").mountSource, "");
}

TEST_F(WhereaboutsTest, MountWithoutAnImageIsTold) {
    m_Fake.mounter.SetMountedOn("/opt/down/emps/empWeather", {"tmpfs", "tmpfs"});
    EXPECT_EQ(Where("Weather").mountPoint, "/opt/down/emps/empWeather");
    EXPECT_EQ(Where("Weather").fileSystem, "tmpfs");

    BrokerProbe::SetMountCount(m_Broker, "Clock", 1);  // its image has gone
    EXPECT_THAT(Where("Clock").mount, IsMount("Clock", 1, false));
    EXPECT_EQ(Where("Clock").mountPoint, "/opt/down/emps/empClock");
}

// ---- How it is told ----

TEST_F(WhereaboutsTest, WhatPeersSendAsBytesLeavesAsText) {
    const std::string strOdd = "a\xff\xc3\xa4";
    const std::string strText = "a\xef\xbf\xbd\xc3\xa4";
    EmpInfo().Add(strOdd, "1.0");
    EmpInfo().SetTypeOption(strOdd, strOdd);
    Connect(strOdd, strOdd, strOdd);
    EmpInfo().SetEmpProcess(strOdd, {777, 4711});
    m_Fake.processes.SetProgram(777, strOdd);
    BrokerProbe::SetLauncher(m_Broker, strOdd, strOdd, {strOdd});
    m_Fake.mounter.SetMountedOn(paths::MountPoint(strOdd), {strOdd, strOdd});

    const admin::Whereabouts whereabouts = Where(strOdd);

    EXPECT_EQ(whereabouts.empName, strText);
    EXPECT_EQ(whereabouts.option, strText);
    EXPECT_EQ(whereabouts.files.at(1).path, "/usr/bin/emps/emp" + strText + "/emp" + strText);
    EXPECT_THAT(Names(whereabouts.launchers), ElementsAre(strText + '|' + strText));
    EXPECT_THAT(whereabouts.servers,
                ElementsAre(IsServer(strText, 777, strText, Clients{strText})));
    EXPECT_EQ(whereabouts.mount.image, strText);
    EXPECT_EQ(whereabouts.mountPoint, "/opt/down/emps/emp" + strText);
    EXPECT_EQ(whereabouts.mountSource, strText);
    EXPECT_EQ(whereabouts.fileSystem, strText);
}

TEST_F(WhereaboutsTest, NothingIsLoggedButWhatARecordTraces) {
    BrokerProbe::SetGroup(m_Broker, "Home", "N/A", {"Clock"});
    AddKnown("Clock", "0001", EMP_OPENED);
    Connect("Clock", "40123", "40001");
    m_Log.Clear();

    for (const char* szEmp : {"Clock", "Nowhere", "../Weather"}) Where(szEmp);

    EXPECT_THAT(LogLines(m_Log), ElementsAre("4 CEmpDataInfo::GetOption: member option [0001] "));
}

TEST_F(WhereaboutsTest, NothingIsAdded) {
    Where("Nowhere");

    EXPECT_FALSE(EmpInfo().IsAdded("Nowhere"));
    EXPECT_THAT(ConnectionDB().GetConnectionDB(), IsEmpty());
    EXPECT_THAT(BrokerProbe::MountCounts(m_Broker), IsEmpty());
    EXPECT_THAT(BrokerProbe::Tickets(m_Broker), IsEmpty());
}

TEST_F(WhereaboutsTest, NoLockIsHeldOverALookAtFiles) {
    m_Fake.AddMounted("Weather");
    BrokerProbe::SetMountCount(m_Broker, "Weather", 1);
    int nLooks = 0;
    m_Fake.files.OnExists([&](const std::string&) {
        ++nLooks;
        TakeEveryLock(m_Broker);  // blocks for ever when one is held
    });

    Where("Weather");

    EXPECT_GT(nLooks, 4);
}

}  // namespace
}  // namespace vok
