// What the broker knows, and where an EMP lives, as people and programs read it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/Json.h"
#include "ctl/StateView.h"
#include "ctl/Where.h"

namespace vok::ctl {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

admin::LauncherState Launcher(const std::string& strName, const std::string& strPort,
                              const std::vector<std::string>& emps) {
    admin::LauncherState launcher;
    launcher.name = strName;
    launcher.port = strPort;
    launcher.emps = emps;
    return launcher;
}

admin::EmpState Emp(const std::string& strName, int nStatus, const std::string& strOption, int nPid,
                    int nLocation) {
    admin::EmpState emp;
    emp.name = strName;
    emp.status = nStatus;
    emp.option = strOption;
    emp.pid = nPid;
    emp.location = nLocation;
    return emp;
}

admin::ConnectionState Connection(const std::string& strEmp, const std::string& strPort,
                                  const std::vector<std::string>& clients,
                                  const std::vector<std::int64_t>& ages) {
    admin::ConnectionState connection;
    connection.empName = strEmp;
    connection.empPort = strPort;
    connection.clientPorts = clients;
    connection.clientAgesMs = ages;
    connection.pendingCount = 0;
    return connection;
}

admin::BrokerState SampleState() {
    admin::BrokerState state;
    state.version = "5.100";
    state.pid = 812;
    state.uptimeMs = 192'000;
    state.debugLevel = 2;
    state.pingEnabled = true;
    state.emps = {Emp("Mail", 1, "0000", 0, 4), Emp("Weather", 2, "0001", 901, 2)};
    state.connections = {Connection("Weather", "40011", {"37001", "37002"}, {5'000, 65'000})};
    admin::MountState mount;
    mount.image = "Weather";
    mount.count = 2;
    mount.mounted = true;
    state.mounts = {mount};
    state.launchers = {Launcher("Tuner", "40100", {"Radio"})};
    state.groups = {Launcher("Messages", "N/A", {"Chat", "Mail"})};
    state.waitingTickets = {9};
    state.counters.opens = 12;
    state.counters.reuses = 8;
    state.counters.refusals = 1;
    state.counters.failures = 1;
    state.counters.closes = 9;
    state.counters.sweeps = 0;
    return state;
}

TEST(StatusScreen, TellsAllOfIt) {
    EXPECT_EQ(StatusScreen(SampleState(), Style()),
              "vok-broker 5.100, process 812, up 3 min 12 s; log level 2; pings on\n"
              "12 opens, of them 8 reused, 1 refused, 1 failed, 1 waiting for a report; 9 closes, "
              "0 sweeps\n"
              "\n"
              "EMPs\n"
              "EMP      STATUS  OPTION         PID  SERVER  CLIENTS  LIVES IN\n"
              "Mail     added   none reported    -  -             0  grouping process\n"
              "Weather  opened  singleton      901  40011         2  files of its own\n"
              "\n"
              "Connections\n"
              "EMP      SERVER  CLIENT      SINCE  MISSED PINGS\n"
              "Weather  40011   37001       5.0 s             0\n"
              "Weather  40011   37002   1 min 5 s             0\n"
              "\n"
              "Images\n"
              "IMAGE    OPENS  MOUNTED\n"
              "Weather      2  yes\n"
              "\n"
              "Launchers and groups\n"
              "LAUNCHER  KIND               PORT         EMPS\n"
              "Tuner     register launcher  40100        Radio\n"
              "Messages  grouping process   not running  Chat, Mail\n");
}

TEST(StatusScreen, TellsWhatHasComeSince) {
    const admin::BrokerState earlier = SampleState();
    admin::BrokerState now = earlier;
    now.counters.opens += 3;
    const std::string strScreen = StatusScreen(now, Style(), &earlier);
    EXPECT_THAT(strScreen, HasSubstr("15 (+3) opens, of them 8 reused"));
}

TEST(StatusScreen, OfABrokerWithoutAgesAndPid) {
    admin::BrokerState state = SampleState();
    state.pid = 0;
    state.connections[0].clientAgesMs.clear();
    const std::string strScreen = StatusScreen(state, Style());
    EXPECT_THAT(strScreen, HasSubstr("vok-broker 5.100, up 3 min"));
    EXPECT_THAT(strScreen, HasSubstr("Weather  40011   37001       -             0\n"));
}

TEST(EmpList, HasWhatACloseTakes) {
    EXPECT_EQ(
        EmpList(SampleState(), Style()),
        "NAME     PORT   CLIENTPORT      SINCE  STATUS  OPTION         PID  LIVES IN\n"
        "Mail     -      -                   -  added   none reported    -  grouping process\n"
        "Weather  40011  37001           5.0 s  opened  singleton      901  files of its own\n"
        "Weather  40011  37002       1 min 5 s  opened  singleton      901  files of its own\n");
}

TEST(EmpList, KeepsAConnectionWhoseEmpHasJustGone) {
    admin::BrokerState state;
    state.connections = {Connection("Gone", "40012", {"37001"}, {})};
    EXPECT_THAT(EmpList(state, Style()), HasSubstr("Gone  40012  37001"));
}

TEST(EmpList, OfNoneSaysSo) {
    EXPECT_EQ(EmpList(admin::BrokerState(), Style()), "The broker knows no EMP.\n");
}

TEST(HasConnection, ComparesAllThree) {
    const admin::BrokerState state = SampleState();
    EXPECT_TRUE(HasConnection(state, "Weather", "40011", "37002"));
    EXPECT_FALSE(HasConnection(state, "Clock", "40011", "37002"));
    EXPECT_FALSE(HasConnection(state, "Weather", "40012", "37002"));
    EXPECT_FALSE(HasConnection(state, "Weather", "40011", "37003"));
    EXPECT_FALSE(HasConnection(admin::BrokerState(), "Weather", "40011", "37002"));
}

TEST(EmpReport, ShowsOneEmpWithItsGroupAndImage) {
    admin::BrokerState state = SampleState();
    admin::MountState mount;
    mount.image = "Messages";
    mount.count = 1;
    state.mounts.push_back(mount);
    const auto report = EmpReport(state, "Mail", Style());
    ASSERT_TRUE(report);
    EXPECT_THAT(*report, HasSubstr("Mail  added"));
    EXPECT_THAT(*report, HasSubstr("Messages      1  no"));
    EXPECT_THAT(*report, HasSubstr("Messages  grouping process"));
    EXPECT_THAT(*report, Not(HasSubstr("Weather")));
    EXPECT_FALSE(EmpReport(state, "Nobody", Style()));
}

TEST(EmpReport, ShowsAHostByItsOwnName) {
    const auto group = EmpReport(SampleState(), "Messages", Style());
    ASSERT_TRUE(group);
    EXPECT_EQ(*group,
              "Launchers and groups\n"
              "LAUNCHER  KIND              PORT         EMPS\n"
              "Messages  grouping process  not running  Chat, Mail\n");
    const auto launcher = EmpReport(SampleState(), "Tuner", Style());
    ASSERT_TRUE(launcher);
    EXPECT_THAT(*launcher, HasSubstr("Tuner     register launcher  40100  Radio"));
}

TEST(NamesIn, AreThoseThatCanBeOpened) {
    EXPECT_THAT(NamesIn(SampleState()), ElementsAre("Chat", "Mail", "Radio", "Weather"));
}

TEST(JsonOfState, HasNamesOfTheServiceAndWords) {
    const Json json = ToJson(SampleState());
    EXPECT_EQ(json["version"], "5.100");
    EXPECT_EQ(json["emps"][1]["name"], "Weather");
    EXPECT_EQ(json["emps"][1]["status"], 2);
    EXPECT_EQ(json["emps"][1]["statusText"], "opened");
    EXPECT_EQ(json["connections"][0]["clients"][1]["clientPort"], "37002");
    EXPECT_EQ(json["connections"][0]["clients"][1]["ageMs"], 65'000);
    EXPECT_EQ(json["counters"]["opens"], 12);
    EXPECT_EQ(json["groups"][0]["emps"][1], "Mail");

    admin::BrokerState old = SampleState();
    old.connections[0].clientAgesMs.clear();
    EXPECT_TRUE(ToJson(old)["connections"][0]["clients"][1]["ageMs"].is_null());
}

// ---- Where --------------------------------------------------------------------------------------

admin::FileState File(const std::string& strPath, const std::string& strRole, bool bExists) {
    admin::FileState file;
    file.path = strPath;
    file.role = strRole;
    file.exists = bExists;
    return file;
}

admin::Whereabouts At(int nLocation, bool bImage, bool bPreinstalled, bool bMounted) {
    admin::Whereabouts whereabouts;
    whereabouts.empName = "Weather";
    whereabouts.location = nLocation;
    whereabouts.files = {File("/i.img", "image", bImage),
                         File("/p", "preinstalled program", bPreinstalled),
                         File("/m", "downloaded program", bMounted)};
    return whereabouts;
}

admin::ServerState Server(const std::string& strPort, int nPid, const std::string& strProgram) {
    admin::ServerState server;
    server.port = strPort;
    server.pid = nPid;
    server.program = strProgram;
    return server;
}

struct DecisionCase {
    const char* szName;
    admin::Whereabouts whereabouts;
    std::vector<admin::LauncherState> groups;
    std::vector<admin::LauncherState> launchers;
    const char* szText;
};

class DecisionTest : public ::testing::TestWithParam<DecisionCase> {};

TEST_P(DecisionTest, SaysWhatAnOpenDoesAndWhy) {
    admin::Whereabouts whereabouts = GetParam().whereabouts;
    whereabouts.groups = GetParam().groups;
    whereabouts.launchers = GetParam().launchers;
    EXPECT_EQ(Decision(whereabouts), GetParam().szText);
}

INSTANTIATE_TEST_SUITE_P(
    Of, DecisionTest,
    ::testing::Values(
        DecisionCase{"Image",
                     At(2, true, false, false),
                     {},
                     {},
                     "An open of Weather starts the program of its image, which it mounts first: "
                     "/i.img exists."},
        DecisionCase{"MountedImage",
                     At(2, true, true, true),
                     {},
                     {},
                     "An open of Weather starts /m, the program of its image, which is mounted; /p "
                     "counts only without one."},
        DecisionCase{"Preinstalled",
                     At(2, false, true, false),
                     {},
                     {Launcher("L", "1", {"Weather"})},
                     "An open of Weather starts /p, because it has no image; an EMP with files of "
                     "its own is not asked of a launcher."},
        DecisionCase{
            "RunningGroup",
            At(4, false, false, false),
            {Launcher("G", "40", {"Weather"})},
            {Launcher("L", "1", {"Weather"})},
            "Weather has no files of its own, and the configuration of the grouping process "
            "G lists it: an open is handed to it at port 40; a grouping process comes "
            "before a register launcher."},
        DecisionCase{
            "IdleGroup",
            At(4, false, false, false),
            {Launcher("G", "N/A", {"Weather"})},
            {},
            "Weather has no files of its own, and the configuration of the grouping process "
            "G lists it: an open starts G, which does not run."},
        DecisionCase{"Launcher",
                     At(5, false, false, false),
                     {},
                     {Launcher("L", "1", {"Weather"})},
                     "Weather has no files of its own, and the register launcher L at port 1 lists "
                     "it: an open is handed to it."},
        DecisionCase{"Nowhere",
                     At(0, false, false, true),
                     {},
                     {},
                     "An open of Weather is refused: there is neither an image nor a preinstalled "
                     "program, and no grouping process or launcher lists it. The program below its "
                     "mount point does not count without an image. Install one of the files below, "
                     "or let a launcher serve it: \"vokctl launcher add-emp Weather PORT\"."}),
    [](const auto& info) { return info.param.szName; });

TEST(FurtherOpen, DependsOnTheOption) {
    admin::Whereabouts whereabouts = At(2, true, false, true);
    EXPECT_EQ(FurtherOpen(whereabouts), "");
    whereabouts.servers = {Server("40011", 901, "/m")};
    EXPECT_EQ(FurtherOpen(whereabouts),
              "A server of it runs, but the broker no longer knows it: a further client gets a "
              "server of its own.");
    whereabouts.status = 2;
    whereabouts.option = "0001";
    EXPECT_THAT(FurtherOpen(whereabouts), HasSubstr("gets the server at port 40011"));
    whereabouts.option = "0002";
    EXPECT_THAT(FurtherOpen(whereabouts), HasSubstr("a server of its own"));
    whereabouts.option = "0003";
    EXPECT_THAT(FurtherOpen(whereabouts), HasSubstr("refused"));
}

TEST(WhereReport, TellsFilesTablesServersAndMount) {
    admin::Whereabouts whereabouts = At(2, true, false, true);
    whereabouts.status = 2;
    whereabouts.option = "0001";
    whereabouts.servers = {Server("40011", 901, "/opt/down/emps/empWeather/empWeather")};
    whereabouts.servers[0].clientPorts = {"37001", "37002"};
    whereabouts.servers[0].clientAgesMs = {5'000, 65'000};
    whereabouts.mount.image = "Weather";
    whereabouts.mount.count = 2;
    whereabouts.mount.mounted = true;
    whereabouts.mountPoint = "/opt/down/emps/empWeather";
    whereabouts.mountSource = "/dev/loop3";
    whereabouts.fileSystem = "squashfs";
    EXPECT_EQ(
        WhereReport(whereabouts, Style()),
        "An open of Weather starts /m, the program of its image, which is mounted.\n"
        "It runs already, and is a singleton: a further client gets the server at port 40011.\n"
        "\n"
        "THERE  FILE    ROLE\n"
        "yes    /i.img  image\n"
        "no     /p      preinstalled program\n"
        "yes    /m      downloaded program\n"
        "\n"
        "Listed by no grouping process and no launcher.\n"
        "\n"
        "SERVED AT  PID  PROGRAM                               CLIENTS\n"
        "40011      901  /opt/down/emps/empWeather/empWeather  37001 for 5.0 s, 37002 for 1 "
        "min 5 s\n"
        "\n"
        "Mounted on /opt/down/emps/empWeather: /dev/loop3, squashfs; 2 opens rely on the "
        "image.\n");
    Style style;
    style.bUtf8 = true;
    EXPECT_THAT(WhereReport(whereabouts, style),
                HasSubstr("\u2713      /i.img  image\n\u2717      /p"));
    style.bUtf8 = false;
    style.nWidth = 20;
    EXPECT_EQ(WhereReport(whereabouts, style), WhereReport(whereabouts, Style()))
        << "a path that is cut is none";

    whereabouts.mounts = 2;
    EXPECT_THAT(WhereReport(whereabouts, Style()),
                HasSubstr("/dev/loop3, squashfs, the topmost of 2 mounts there; 2 opens rely"));
}

TEST(WhereReport, TellsWhatAHostServes) {
    admin::Whereabouts whereabouts = At(2, false, true, false);
    whereabouts.ownGroups = {Launcher("Weather", "40200", {"Chat", "Mail"})};
    std::string strReport = WhereReport(whereabouts, Style());
    EXPECT_THAT(strReport, HasSubstr("\n\nIS ITSELF A       PORT   SERVES\n"
                                     "grouping process  40200  Chat, Mail\n"));
    EXPECT_THAT(strReport, Not(HasSubstr("Nothing serves it now")));
    EXPECT_EQ(ToJson(whereabouts)["ownGroups"][0]["port"], "40200");

    whereabouts.ownGroups[0].port = "N/A";
    strReport = WhereReport(whereabouts, Style());
    EXPECT_THAT(strReport, HasSubstr("grouping process  not running  Chat, Mail\n"));
    EXPECT_THAT(strReport, HasSubstr("Nothing serves it now.\n"));

    whereabouts.ownGroups.clear();
    whereabouts.ownLaunchers = {Launcher("Weather", "40100", {"Radio"})};
    EXPECT_THAT(WhereReport(whereabouts, Style()), HasSubstr("register launcher  40100  Radio\n"));
}

TEST(WhereReport, SaysThatNothingServes) {
    const std::string strReport = WhereReport(At(0, false, false, false), Style());
    EXPECT_THAT(strReport, HasSubstr("Nothing serves it now.\n"));
    EXPECT_THAT(strReport, Not(HasSubstr("ounted on")));
}

}  // namespace
}  // namespace vok::ctl
