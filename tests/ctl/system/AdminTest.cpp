// What vokctl makes of an admin service's answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include <filesystem>
#include <fstream>

#include "tests/ctl/support/CFakeAdmin.h"
#include "tests/ctl/support/CVokctl.h"

namespace vok::test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class AdminCommands : public ::testing::Test {
protected:
    AdminCommands() {
        admin::BrokerState& state = m_pAnswers->state;
        state.version = "5.100";
        state.pid = 812;
        state.uptimeMs = 192'000;
        state.debugLevel = 2;
        admin::EmpState emp;
        emp.name = "Weather";
        emp.status = 2;
        emp.option = "0001";
        emp.pid = 901;
        emp.location = 2;
        state.emps = {emp};
        admin::ConnectionState connection;
        connection.empName = "Weather";
        connection.empPort = "40011";
        connection.clientPorts = {"37001"};
        connection.clientAgesMs = {192'000};
        state.connections = {connection};

        admin::OpenTimes open;
        open.serial = 7;
        open.empName = "Weather";
        open.outcome = 3;
        open.locatedUs = 100;
        open.mountedUs = 10'000;
        open.startedUs = 12'000;
        open.reportedUs = 20'000;
        open.answeredUs = 20'100;
        m_pAnswers->opens = {open};
        open.empName = "Clock";
        open.answeredUs = 90'000;
        m_pAnswers->opens.push_back(open);

        admin::FileState file;
        file.path = "/opt/down/emps/empWeather_img/empWeather.img";
        file.role = "image";
        file.exists = true;
        m_pAnswers->whereabouts.location = 2;
        m_pAnswers->whereabouts.files = {file};
    }

    void Serve() { m_pServer = std::make_unique<CFakeAdmin>(m_pAnswers); }
    VokctlResult Run(const std::vector<std::string>& arguments, const VokctlOptions& options = {}) {
        if (m_pServer == nullptr) Serve();
        return Vokctl(arguments, options);
    }

    const std::shared_ptr<CAdminAnswers> m_pAnswers = std::make_shared<CAdminAnswers>();
    std::unique_ptr<CFakeAdmin> m_pServer;
};

TEST_F(AdminCommands, StatusShowsAgesAndProcess) {
    const VokctlResult result = Run({"status"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_THAT(result.strOut,
                AllOf(StartsWith("vok-broker 5.100, process 812, up 3 min 12 s;"),
                      HasSubstr("Weather  40011   37001   3 min 12 s             0\n")));
    const json state = json::parse(Run({"status", "--json"}).strOut);
    EXPECT_EQ(state["pid"], 812);
    EXPECT_EQ(state["connections"][0]["clients"][0]["ageMs"], 192'000);
}

TEST_F(AdminCommands, ListHasWhatACloseTakes) {
    EXPECT_THAT(Run({"list"}).strOut, HasSubstr("Weather  40011  37001       3 min 12 s  opened"));
    EXPECT_EQ(json::parse(Run({"list", "--json"}).strOut)["emps"][0]["name"], "Weather");
    EXPECT_EQ(Run({"list", "--names"}).strOut, "Weather\n");
}

TEST_F(AdminCommands, WhereTellsADecision) {
    const VokctlResult result = Run({"where", "Weather"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_THAT(
        result.strOut,
        AllOf(StartsWith("An open of Weather starts the program of its image"),
              HasSubstr("\u2713      /opt/down/emps/empWeather_img/empWeather.img  image")));
    const json whereabouts = json::parse(Run({"where", "Weather", "--json"}).strOut);
    EXPECT_EQ(whereabouts["files"][0]["exists"], true);
    EXPECT_THAT(whereabouts["decision"].get<std::string>(), StartsWith("An open of Weather"));
}

TEST_F(AdminCommands, MarksAreWordsWithoutUtf8) {
    VokctlOptions options;
    options.environment["LC_ALL"] = "C";
    EXPECT_THAT(Run({"where", "Weather"}, options).strOut, HasSubstr("yes    /opt/down"));
}

TEST_F(AdminCommands, BlameTellsTheLongestFirst) {
    const VokctlResult result = Run({"blame"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_LT(result.strOut.find("Clock"), result.strOut.find("Weather"));
    EXPECT_THAT(result.strOut, HasSubstr("2 opens, 110 ms: 2 started\n"));
    EXPECT_THAT(Run({"blame", "Weather"}).strOut, HasSubstr("1 open, 20.1 ms"));
    EXPECT_EQ(json::parse(Run({"blame", "--json", "--most", "1"}).strOut)[0]["empName"], "Clock");
}

TEST_F(AdminCommands, BlameDrawsIntoAFile) {
    const VokctlResult result = Run({"blame", "--svg", "/tmp/blame.svg"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_EQ(result.strOut, "/tmp/blame.svg: 2 opens, 110 ms: 2 started\n");
    pugi::xml_document document;
    ASSERT_TRUE(document.load_file("/tmp/blame.svg"));
    EXPECT_EQ(document.select_nodes("/svg/g").size(), 2U);

    const VokctlResult failed = Run({"blame", "--svg", "/nowhere/blame.svg"});
    EXPECT_EQ(failed.nExit, 1);
    EXPECT_THAT(failed.strErr, HasSubstr("cannot write /nowhere/blame.svg: No such file"));
}

TEST_F(AdminCommands, BlameOfAnEmpWithoutOpensSaysSo) {
    EXPECT_EQ(Run({"blame", "Nobody"}).strOut, "No open of Nobody is among the last 2.\n");
    EXPECT_EQ(Run({"blame", "Nobody", "--svg", "/tmp/none.svg"}).strOut,
              "/tmp/none.svg: No open of Nobody is among the last 2.\n");
}

TEST_F(AdminCommands, PictureOnTheStandardOutputIsAlone) {
    for (const char* const szPath : {"-", "/dev/stdout"}) {
        const VokctlResult result = Run({"blame", "--svg", szPath});
        EXPECT_EQ(result.nExit, 0) << result.strErr;
        EXPECT_THAT(result.strErr, ::testing::EndsWith("2 opens, 110 ms: 2 started\n"));
        pugi::xml_document document;
        EXPECT_TRUE(document.load_string(result.strOut.c_str())) << result.strOut;
        EXPECT_THAT(result.strOut, ::testing::EndsWith("</svg>\n"));
    }
    EXPECT_FALSE(std::filesystem::exists("-"));
}

TEST_F(AdminCommands, ChangesAreConfirmed) {
    m_pAnswers->nSwept = 2;
    EXPECT_THAT(Run({"debug-level", "4"}).strOut, StartsWith("log level 4"));
    EXPECT_EQ(m_pAnswers->nToldLevel, 4);
    EXPECT_EQ(Run({"ping", "on"}).strOut, "pings on\n");
    EXPECT_TRUE(m_pAnswers->bToldPing);
    EXPECT_EQ(json::parse(Run({"ping", "off", "--json"}).strOut), json({{"pingEnabled", false}}));
    EXPECT_FALSE(m_pAnswers->bToldPing);
    EXPECT_EQ(Run({"sweep"}).strOut, "closed 2 connections of clients that no longer answer\n");
    EXPECT_EQ(json::parse(Run({"sweep", "--json"}).strOut), json({{"closed", 2}}));
    EXPECT_EQ(Run({"close-all", "app", "w"}).strOut, "closed 4 connections of app\n");
}

TEST_F(AdminCommands, RefusalIsToldOnce) {
    m_pAnswers->strRefusal = "no such \x1B[31m application";
    const VokctlResult result = Run({"close-all", "app"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_EQ(result.strErr, "vokctl: the broker refuses: no such \\x1B[31m application\n");
}

// ---- How it looks -------------------------------------------------------------------------------

TEST_F(AdminCommands, NothingOfAPeerControlsTheTerminal) {
    m_pAnswers->state.emps[0].name = "\x1B]0;mine\x07\u009B2J\n\u202E";
    m_pAnswers->state.connections[0].clientPorts[0] = "\r\x1B[2K";
    VokctlOptions terminal;
    terminal.bTerminal = true;
    terminal.environment["NO_COLOR"] = "1";
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"status"},
                                                      {"list"},
                                                      {"list", "--names"},
                                                      {"status", "--json"}}) {
        std::string strOut = Run(arguments, terminal).strOut;
        // The terminal itself adds carriage returns before line feeds.
        for (std::size_t i = 0; (i = strOut.find("\r\n", i)) != std::string::npos;)
            strOut.erase(i, 1);
        EXPECT_THAT(strOut, HasSubstr("mine"));
        for (const char* const szBad : {"\x1B", "\x07", "\r", "\u009B", "\u202E"})
            EXPECT_THAT(strOut, Not(HasSubstr(szBad))) << arguments[0];
    }
}

TEST_F(AdminCommands, ColoursAreForTerminalsThatWantThem) {
    VokctlOptions options;
    EXPECT_THAT(Run({"status"}, options).strOut, Not(HasSubstr("\x1B")));
    options.bTerminal = true;
    EXPECT_THAT(Run({"status"}, options).strOut, HasSubstr("\x1B[32mopened\x1B[0m"));
    options.environment["NO_COLOR"] = "1";
    EXPECT_THAT(Run({"status"}, options).strOut, Not(HasSubstr("\x1B")));
    options.environment["NO_COLOR"] = "";
    options.environment["TERM"] = "dumb";
    EXPECT_THAT(Run({"status"}, options).strOut, Not(HasSubstr("\x1B")));
}

TEST_F(AdminCommands, TablesFitTheTerminal) {
    m_pAnswers->state.emps[0].name = std::string(200, 'n');
    VokctlOptions options;
    options.bTerminal = true;
    options.nColumns = 60;
    const std::string strOut = Run({"list", "--json"}).strOut + Run({"list"}, options).strOut;
    EXPECT_THAT(strOut, HasSubstr("nnn\u2026"));
    EXPECT_THAT(strOut, HasSubstr(std::string(200, 'n'))) << "but JSON is whole";
}

TEST_F(AdminCommands, OutputThatCannotBeWrittenIsAFailure) {
    VokctlOptions options;
    options.bNoOutput = true;
    const VokctlResult result = Run({"status"}, options);
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, HasSubstr("cannot write to the standard output"));
}

TEST_F(AdminCommands, ReaderThatHasGoneIsNoReasonToShout) {
    std::promise<void> go;
    const std::shared_future<void> gone = go.get_future().share();
    m_pAnswers->hang = [gone] { gone.wait(); };
    Serve();
    CVokctl process{{"status"}};
    process.CloseOutput();
    go.set_value();
    const VokctlResult result = process.Finish();
    EXPECT_EQ(result.nExit, 1);
    EXPECT_EQ(result.strErr, "");
}

// ---- Watch --------------------------------------------------------------------------------------

TEST_F(AdminCommands, WatchEndsAfterItsLooks) {
    const VokctlResult result = Run({"watch", "--count", "2", "--interval", "0.05"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_THAT(result.strOut, Not(HasSubstr("\x1B")));
    EXPECT_NE(result.strOut.find("vok-broker"), result.strOut.rfind("vok-broker"));
}

TEST_F(AdminCommands, WatchRefreshesATerminalInPlaceUntilCtrlC) {
    Serve();
    VokctlOptions options;
    options.bTerminal = true;
    CVokctl process{{"watch", "--interval", "0.05"}, options};
    ASSERT_TRUE(process.AwaitOutput("\x1B[H", 3));
    process.Resize(40, 5);
    ASSERT_TRUE(process.AwaitOutput("\x1B[2J", 2)) << "another size begins anew";
    process.Signal(SIGINT);
    const VokctlResult result = process.Finish();
    EXPECT_EQ(result.nExit, 0);
    EXPECT_EQ(result.strErr, "");
    EXPECT_THAT(result.strOut, Not(HasSubstr("\x1B[?"))) << "nothing that has to be set back";
    // The last frame, in five lines: four of text, and none that would scroll.
    const std::string strLast = result.strOut.substr(result.strOut.rfind("\x1B[H"));
    EXPECT_EQ(std::count(strLast.begin(), strLast.end(), '\n'), 4);
    EXPECT_THAT(strLast, HasSubstr("more lines"));
    EXPECT_THAT(strLast, EndsWith("\r\x1B[K")) << "the terminal's ^C is wiped away";
}

TEST_F(AdminCommands, WatchWaitsForABrokerThatIsRestarted) {
    Serve();
    CVokctl process{{"watch", "--json", "--interval", "0.05"}};
    ASSERT_TRUE(process.AwaitOutput("\"version\""));
    m_pServer.reset();
    ASSERT_TRUE(process.AwaitOutput("\"error\":\"no broker serves"));
    m_pAnswers->state.version = "5.101";
    Serve();
    ASSERT_TRUE(process.AwaitOutput("\"version\":\"5.101\""));
    process.Signal(SIGTERM);
    const VokctlResult result = process.Finish();
    EXPECT_EQ(result.nExit, 0);
    std::istringstream lines(result.strOut);
    std::string strLine;
    while (std::getline(lines, strLine)) EXPECT_TRUE(json::accept(strLine)) << strLine;
}

TEST_F(AdminCommands, WatchEndsWithItsReader) {
    Serve();
    CVokctl process{{"watch", "--interval", "60"}};
    ASSERT_TRUE(process.AwaitOutput("vok-broker"));
    process.CloseOutput();
    EXPECT_THAT(process.Finish().strErr, "");
}

}  // namespace
}  // namespace vok::test
