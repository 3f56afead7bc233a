// vokctl as a client of the real daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <thrift/transport/TSocket.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <sstream>

#include "tests/ctl/support/CVokctl.h"
#include "tests/daemon/OpenCloseTest.h"
#include "tests/support/CAdminClient.h"
#include "tests/support/CFakeEmp.h"
#include "tests/support/CPrivateWorld.h"
#include "tests/support/HostedEmp.h"

namespace vok::test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

class ClientCommands : public OpenCloseTest {
protected:
    void SetUp() override {
        OpenCloseTest::SetUp();
        CEmpInstaller::PreinstallCopy("Weather", "example-emp");
    }

    /// An EMP that has lost its last client tells the broker, which has to be there.
    void TearDown() override { AwaitEnd("Weather"); }

    static json Lines(const std::string& strText) {
        json lines = json::array();
        std::istringstream stream(strText);
        std::string strLine;
        while (std::getline(stream, strLine)) lines.push_back(json::parse(strLine));
        return lines;
    }

    /// Who is connected to what.
    static std::vector<std::string> Clients() {
        std::vector<std::string> clients;
        for (const admin::ConnectionState& connection : CAdminClient().GetState().connections)
            clients.insert(clients.end(), connection.clientPorts.begin(),
                           connection.clientPorts.end());
        return clients;
    }
    void AwaitEnd(const std::string& strEmp) {
        EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath(strEmp)));
    }
};

TEST_F(ClientCommands, OpenTellsWhereAndClosesAgain) {
    const VokctlResult result = Vokctl({"open", "Weather"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_THAT(result.strOut,
                MatchesRegex("opened Weather at 127.0.0.1:[0-9]+, client port [0-9]+, serial 2, in "
                             "[0-9.]+ (us|ms|s); closed again \\(--hold keeps it open\\)\n"));
    AwaitEnd("Weather");
    EXPECT_THAT(Clients(), IsEmpty());

    const json record = json::parse(Vokctl({"open", "--json", "Weather"}).strOut);
    EXPECT_EQ(record["empName"], "Weather");
    EXPECT_EQ(record["serial"], 3);
    EXPECT_EQ(record["closed"], true);
    EXPECT_GT(record["elapsedUs"], 0);
}

TEST_F(ClientCommands, OpenOfNobodyTellsWhatToDo) {
    const VokctlResult result = Vokctl({"open", "Nowhere"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_EQ(result.strOut, "");
    EXPECT_EQ(
        result.strErr,
        "vokctl: the broker did not open Nowhere: it is not installed, and no launcher serves "
        "it; \"vokctl where Nowhere\" tells where it looks\n");
}

TEST_F(ClientCommands, OpenOfTheBrokerBlamesTheName) {
    const VokctlResult result = Vokctl({"open", "Broker"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, HasSubstr("that is its own name"));
}

TEST_F(ClientCommands, OpenThatIsRefusedIsAFailure) {
    CEmpInstaller::Preinstall("Exclusive", CEmpBehaviour().Option("0003"));
    CVokctl first{{"open", "--hold", "Exclusive"}};
    ASSERT_TRUE(first.AwaitOutput("opened Exclusive"));
    const VokctlResult result = Vokctl({"open", "Exclusive"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, ContainsRegex("Exclusive: refused after [0-9.]+ (us|ms): it takes "
                                             "one connection only"));
    first.Signal(SIGTERM);
    EXPECT_EQ(first.Finish().nExit, 0);
}

TEST_F(ClientCommands, HeldEmpSurvivesASweepAndIsClosedByASignal) {
    for (const int nSignal : {SIGINT, SIGTERM, SIGHUP}) {
        CVokctl process{{"open", "--hold", "Weather"}};
        ASSERT_TRUE(process.AwaitOutput("held until Ctrl-C\n"));
        EXPECT_THAT(Clients(), SizeIs(1));

        EXPECT_EQ(Vokctl({"sweep"}).strOut,
                  "closed 0 connections of clients that no longer answer\n");
        ASSERT_TRUE(process.AwaitOutput("Z event 99 \"Broker\" \"Ping\": the broker asks"));
        EXPECT_THAT(Clients(), SizeIs(1));

        process.Signal(nSignal);
        const VokctlResult result = process.Finish();
        EXPECT_EQ(result.nExit, 0) << result.strErr;
        EXPECT_THAT(result.strOut, ::testing::EndsWith("closed Weather\n"));
        EXPECT_THAT(Clients(), IsEmpty());
        AwaitEnd("Weather");
    }
}

TEST_F(ClientCommands, HeldEmpOutlivesItsTerminalUnderNohup) {
    const auto pFormer = std::signal(SIGHUP, SIG_IGN);
    CVokctl process{{"open", "--hold", "Weather"}};
    (void)std::signal(SIGHUP, pFormer);
    ASSERT_TRUE(process.AwaitOutput("opened"));
    process.Signal(SIGHUP);
    EXPECT_EQ(Vokctl({"sweep"}).strOut, "closed 0 connections of clients that no longer answer\n");
    ASSERT_TRUE(process.AwaitOutput("event 99")) << "it is still there";
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Finish().nExit, 0);
}

/// Somebody who is connected to its callback server and says nothing.
TEST_F(ClientCommands, HeldEmpIsClosedAtOnceWhateverItsPeersDo) {
    CVokctl process{{"open", "--hold", "--json", "Weather"}};
    ASSERT_TRUE(process.AwaitOutput("}\n"));
    const json opened = json::parse(process.Output());
    apache::thrift::transport::TSocket idle("127.0.0.1",
                                            LeadingNumber(opened["clientPort"].get<std::string>()));
    idle.open();
    ASSERT_EQ(Vokctl({"sweep"}).nExit, 0);
    ASSERT_TRUE(process.AwaitOutput("callback"));
    const auto begin = std::chrono::steady_clock::now();
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Finish().nExit, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST_F(ClientCommands, HeldEmpTellsItsEventsAsJsonLines) {
    CVokctl process{{"open", "--hold", "--json", "Weather"}};
    ASSERT_TRUE(process.AwaitOutput("\"opened\""));
    EXPECT_EQ(Vokctl({"debug-level", "4"}).nExit, 0);
    ASSERT_TRUE(process.AwaitOutput("\"callback\""));
    process.Signal(SIGTERM);
    json lines = Lines(process.Finish().strOut);
    ASSERT_EQ(lines.size(), 3U);
    for (json& line : lines) {
        EXPECT_THAT(line.value("at", ""),
                    MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z"));
        line.erase("at");
    }
    EXPECT_EQ(lines[0]["event"], "opened");
    EXPECT_EQ(lines[0]["empName"], "Weather");
    EXPECT_EQ(
        lines[1],
        json(
            {{"event", "callback"}, {"type", -30001}, {"arg1", "LEVEL_ON_PARAM2"}, {"arg2", "4"}}));
    EXPECT_EQ(lines[2], json({{"event", "closed"}, {"closed", true}}));
}

TEST_F(ClientCommands, HeldEmpIsClosedWhenTheInputEndsIfThatIsAskedFor) {
    CVokctl plain{{"open", "--hold", "Weather"}};
    ASSERT_TRUE(plain.AwaitOutput("opened"));
    plain.CloseInput();
    CVokctl ending{{"open", "--hold", "--until-eof", "Weather"}};
    ASSERT_TRUE(ending.AwaitOutput("held until the input ends\n"));
    EXPECT_THAT(Clients(), SizeIs(2));

    ending.CloseInput();
    EXPECT_EQ(ending.Finish().nExit, 0);
    EXPECT_THAT(Clients(), SizeIs(1)) << "the other one is held on";
    plain.Signal(SIGTERM);
    EXPECT_EQ(plain.Finish().nExit, 0);
}

TEST_F(ClientCommands, HeldEmpIsClosedWhenNobodyReadsItsEvents) {
    CVokctl process{{"open", "--hold", "Weather"}};
    ASSERT_TRUE(process.AwaitOutput("opened"));
    process.CloseOutput();
    EXPECT_EQ(process.Finish().strErr, "");
    EXPECT_THAT(Clients(), IsEmpty());
}

TEST_F(ClientCommands, CloseTakesTheRecordThatListShows) {
    CVokctl process{{"open", "--hold", "--json", "Weather"}};
    ASSERT_TRUE(process.AwaitOutput("\"opened\""));
    const json list = json::parse(Vokctl({"list", "--json"}).strOut);
    const json& connection = list["connections"][0];
    const VokctlResult closed = Vokctl({"close", connection["empName"], connection["empPort"],
                                        connection["clients"][0]["clientPort"]});
    EXPECT_EQ(closed.nExit, 0) << closed.strErr;
    EXPECT_EQ(closed.strOut, "closed Weather\n");
    EXPECT_THAT(Clients(), IsEmpty());

    CEmpInstaller::Preinstall("Dead");
    const ConnectionInfo info = OpenEmp("Dead");
    for (const int nPid : ProcessesOf(CEmpInstaller::ProgramPath("Dead"))) ::kill(nPid, SIGKILL);
    ASSERT_TRUE(WaitUntilEnded(CEmpInstaller::ProgramPath("Dead")));
    const VokctlResult failed = Vokctl({"close", "Dead", info.empPort, kClient});
    EXPECT_EQ(failed.nExit, 1);
    EXPECT_THAT(failed.strErr, StartsWith("vokctl: the broker has not closed Dead"));
}

/// A broker that is told to close what it does not have forgets the singleton that runs on.
TEST_F(ClientCommands, CloseOfWhatIsNotConnectedIsRefusedAndChangesNothing) {
    CVokctl holder{{"open", "--hold", "--json", "Weather"}};
    ASSERT_TRUE(holder.AwaitOutput("}\n"));
    const json opened = json::parse(holder.Output());
    const std::string strPort = opened["empPort"];
    const std::string strClientPort = opened["clientPort"];
    for (const auto& [strWrongPort, strWrongClient] :
         {std::pair<std::string, std::string>{"1", strClientPort}, {strPort, "2"}, {"1", "2"}}) {
        const VokctlResult result = Vokctl({"close", "Weather", strWrongPort, strWrongClient});
        EXPECT_EQ(result.nExit, 1);
        EXPECT_EQ(result.strErr, "vokctl: the broker has no connection of " + strWrongClient +
                                     " to Weather at port " + strWrongPort +
                                     ": \"vokctl list\" shows what there is\n");
    }
    EXPECT_EQ(CAdminClient().GetState().counters.closes, 0) << "the broker was not even asked";
    EXPECT_EQ(json::parse(Vokctl({"open", "--json", "Weather"}).strOut)["empPort"], strPort)
        << "the same server still";
    holder.Signal(SIGTERM);
    EXPECT_EQ(holder.Finish().nExit, 0);
}

TEST_F(ClientCommands, CloseThatCannotBeLookedUpTakesForce) {
    CVokctl holder{{"open", "--hold", "--json", "Weather"}};
    ASSERT_TRUE(holder.AwaitOutput("}\n"));
    const json opened = json::parse(holder.Output());
    const std::vector<std::string> close{"close", "Weather", opened["empPort"],
                                         opened["clientPort"]};
    std::filesystem::remove(paths::kAdminSocket);
    const VokctlResult refused = Vokctl(close);
    EXPECT_EQ(refused.nExit, 1);
    EXPECT_THAT(refused.strErr, AllOf(HasSubstr("cannot be looked up"), HasSubstr("--force")));

    std::vector<std::string> forced = close;
    forced.emplace_back("--force");
    const VokctlResult closed = Vokctl(forced);
    EXPECT_EQ(closed.nExit, 0) << closed.strErr;
    EXPECT_EQ(closed.strOut, "closed Weather\n");
    AwaitEnd("Weather");
    holder.Signal(SIGTERM);
    EXPECT_EQ(holder.Finish().nExit, 0);
}

/// What a broker does about such a close is to say that it is done.
TEST_F(ClientCommands, CloseOfAForgottenEmpIsNotCalledDone) {
    CVokctl holder{{"open", "--hold", "--json", "Weather"}};
    ASSERT_TRUE(holder.AwaitOutput("}\n"));
    const json opened = json::parse(holder.Output());
    EXPECT_EQ(Vokctl({"close", "--force", "Weather", "1", "2"}).nExit, 1);

    const VokctlResult result =
        Vokctl({"close", "Weather", opened["empPort"], opened["clientPort"]});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, HasSubstr("has forgotten Weather"));
    EXPECT_EQ(result.strOut, "");
    // Nobody else does.
    for (const int nPid : ProcessesOf(CEmpInstaller::ProgramPath("Weather")))
        EXPECT_EQ(::kill(nPid, SIGTERM), 0);
}

TEST_F(ClientCommands, CallGivesTheAnswerAndCloses) {
    const VokctlResult result = Vokctl({"call", "Weather", "Echo", "gr\u00FC\u00DF\nGott\x1B"});
    EXPECT_EQ(result.nExit, 0) << result.strErr;
    EXPECT_EQ(result.strOut, "gr\u00FC\u00DF\nGott\x1B\n") << "into a pipe it goes as it is";
    AwaitEnd("Weather");
    EXPECT_THAT(Clients(), IsEmpty());

    VokctlOptions terminal;
    terminal.bTerminal = true;
    EXPECT_EQ(Vokctl({"call", "Weather", "Echo", "gr\u00FC\u00DF\nGott\x1B"}, terminal).strOut,
              "gr\u00FC\u00DF\r\nGott\\x1B\r\n");
    AwaitEnd("Weather");
    const json answer = json::parse(Vokctl({"--json", "call", "Weather", "CountClients"}).strOut);
    EXPECT_EQ(answer["answer"], "1");
}

TEST_F(ClientCommands, CallPassesOnItsArguments) {
    // Held, so that the calls meet an EMP that stays.
    CVokctl holder{{"open", "--hold", "Weather"}};
    ASSERT_TRUE(holder.AwaitOutput("opened"));
    EXPECT_EQ(Vokctl({"call", "Weather", "Echo", "a", "b", "c", "d"}).strOut, "a\n");
    EXPECT_EQ(Vokctl({"call", "Weather", "Echo", "a", "b", "c", "d", "e"}).strOut, "abcde\n");
    EXPECT_EQ(Vokctl({"call", "--list", "Weather", "Echo", "a", "b"}).strOut, "ab\n");
    EXPECT_EQ(Vokctl({"call", "Weather", "Echo", "--json"}).strOut, "--json\n");
    holder.Signal(SIGTERM);
    EXPECT_EQ(holder.Finish().nExit, 0);
}

TEST_F(ClientCommands, EmpThatHasJustGoneIsOpenedOnceMore) {
    const CRefusedPort port;
    CEmpInstaller::Preinstall(
        "Gone",
        CEmpBehaviour().With("portandpid", port.PortText() + "|" + std::to_string(::getpid())));
    const VokctlResult result = Vokctl({"open", "Gone"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, HasSubstr("did not answer Open: Connection refused"));
    EXPECT_EQ(CAdminClient().GetState().counters.opens, 2);
    EXPECT_EQ(CAdminClient().GetState().counters.closes, 2);
    EXPECT_THAT(Clients(), IsEmpty());
}

TEST_F(ClientCommands, CallOfAnEmpThatHangsEndsInTimeAndCloses) {
    CFakeEmp emp;
    PreinstallHosted("Slow", emp);
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    emp.OnCall([ended](const EmpCall& call) {
        if (call.strMethod == "Execute") ended.wait();
    });
    // Long enough for the calls that are answered, on a machine that has much else to do.
    const VokctlResult result = Vokctl({"--timeout", "3", "call", "Slow", "Think"});
    EXPECT_EQ(result.nExit, 5);
    EXPECT_THAT(result.strErr, AllOf(HasSubstr("the EMP Slow at 127.0.0.1:"),
                                     HasSubstr("has not answered \"Think\" within 3.0 s")));
    EXPECT_THAT(Clients(), IsEmpty());
    end.set_value();
}

TEST_F(ClientCommands, OpenOfAnEmpThatDoesNotGreetCloses) {
    CFakeEmp emp;
    PreinstallHosted("Rude", emp);
    emp.FailCalls("not today");
    const VokctlResult result = Vokctl({"open", "--hold", "Rude"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, AllOf(HasSubstr("did not answer Open"), HasSubstr("not today")));
    EXPECT_THAT(Clients(), IsEmpty());
}

TEST_F(ClientCommands, VersionAndExecute) {
    EXPECT_EQ(Vokctl({"version"}).strOut, "vok-broker 5.100 (vokctl 5.100)\n");
    EXPECT_EQ(json::parse(Vokctl({"version", "--json"}).strOut)["broker"], "5.100");
    EXPECT_EQ(Vokctl({"execute", "GetVOKVersion"}).strOut, "5.100\n");
    EXPECT_EQ(json::parse(Vokctl({"execute", "--json", "Nonsense"}).strOut)["answer"], "");
    EXPECT_EQ(Vokctl({"execute", "Nonsense"}).strOut, "\n") << "a pipe gets what was answered";
    VokctlOptions terminal;
    terminal.bTerminal = true;
    EXPECT_THAT(Vokctl({"execute", "Nonsense"}, terminal).strOut, HasSubstr("(an empty answer"));
    EXPECT_EQ(
        Vokctl({"execute", "--arg1", "1", "__BROKER_CMD_NOTIFY_REGISTEREMP_SERVER", "L", "40"})
            .strOut,
        "Done\n");
}

TEST_F(ClientCommands, LaunchersComeAndGo) {
    EXPECT_EQ(Vokctl({"launcher", "register", "Tuner", "40100"}).strOut,
              "registered the launcher Tuner at port 40100\n");
    EXPECT_EQ(Vokctl({"launcher", "add-emp", "Radio", "40100"}).nExit, 0);
    const VokctlResult refused = Vokctl({"launcher", "add-emp", "Radio", "40101"});
    EXPECT_EQ(refused.nExit, 1);
    EXPECT_THAT(refused.strErr, HasSubstr("no launcher has that port"));
    EXPECT_THAT(Vokctl({"status"}).strOut,
                HasSubstr("Tuner     register launcher  40100  Radio\n"));
    EXPECT_THAT(Vokctl({"show", "Radio"}).strOut, HasSubstr("Tuner"));
    EXPECT_EQ(Vokctl({"list", "--names"}).strOut, "Radio\nWeather\n");

    EXPECT_EQ(Vokctl({"launcher", "remove-emp", "Radio", "40100"}).nExit, 0);
    EXPECT_EQ(Vokctl({"launcher", "unregister", "Tuner", "40100", "--json"}).nExit, 0);
    EXPECT_THAT(CAdminClient().GetState().launchers, IsEmpty());
}

TEST_F(ClientCommands, StatusAndShowFollowAnOpen) {
    CVokctl process{{"open", "--hold", "--app", "browser", "Weather"}};
    ASSERT_TRUE(process.AwaitOutput("opened"));
    EXPECT_THAT(Vokctl({"status"}).strOut, AllOf(HasSubstr("1 opens, of them 0 reused"),
                                                 HasSubstr("Weather  opened  singleton")));
    EXPECT_THAT(Vokctl({"show", "Weather"}).strOut, HasSubstr("Weather  opened  singleton"));
    const VokctlResult unknown = Vokctl({"show", "Nobody"});
    EXPECT_EQ(unknown.nExit, 1);
    EXPECT_THAT(unknown.strErr, HasSubstr("\"vokctl where Nobody\""));

    EXPECT_EQ(Vokctl({"close-all", "browser"}).strOut, "closed 1 connection of browser\n");
    EXPECT_THAT(Clients(), IsEmpty());
    AwaitEnd("Weather");  // then closing it once more finds nothing to do
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Finish().nExit, 0);
}

TEST_F(ClientCommands, AdminServiceThatIsMissingIsNotAMissingBroker) {
    std::filesystem::remove(paths::kAdminSocket);
    const VokctlResult result = Vokctl({"status"});
    EXPECT_EQ(result.nExit, 1);
    EXPECT_THAT(result.strErr, HasSubstr("the broker serves, but without its admin service"));
    EXPECT_EQ(Vokctl({"version"}).nExit, 0);
    EXPECT_THAT(Vokctl({"doctor"}).strOut, HasSubstr("problem  admin socket"));
}

TEST_F(ClientCommands, WatchFollows) {
    CVokctl watch{{"watch", "--interval", "0.05"}};
    ASSERT_TRUE(watch.AwaitOutput("0 opens"));
    EXPECT_EQ(Vokctl({"open", "Weather"}).nExit, 0);
    EXPECT_TRUE(watch.AwaitOutput("1 (+1) opens"));
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Finish().nExit, 0);
}

TEST_F(ClientCommands, ImageIsMountedForAnOpen) {
    std::string strReason;
    if (!CPrivateWorld::MayLoopMount(&strReason)) GTEST_SKIP() << strReason;
    CEmpInstaller::InstallImageCopy("Clock", "example-emp");
    CVokctl process{{"open", "--hold", "Clock"}};
    ASSERT_TRUE(process.AwaitOutput("opened Clock"));
    EXPECT_THAT(Vokctl({"show", "Clock"}).strOut, HasSubstr("Clock      1  yes"));
    EXPECT_THAT(Vokctl({"doctor"}).strOut,
                HasSubstr("/opt/down/emps/empClock_img/empClock.img is squashfs"));
    process.Signal(SIGINT);
    EXPECT_EQ(process.Finish().nExit, 0);
    EXPECT_TRUE(WaitUntilEnded(CEmpInstaller::MountPoint("Clock") + "/empClock"));
}

}  // namespace
}  // namespace vok::test
