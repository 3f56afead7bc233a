// What is asked for, and what is no question at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/CommandLine.h"
#include "ctl/Failure.h"

namespace vok::ctl {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

ParseResult Parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "vokctl");
    return ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

Options Parsed(const std::vector<const char*>& arguments) {
    const ParseResult result = Parse(arguments);
    EXPECT_TRUE(result.options) << result.strText;
    return result.options.value_or(Options());
}

struct WordCase {
    const char* szName;
    std::vector<const char*> arguments;
    eCommand command;
};

class CommandWord : public ::testing::TestWithParam<WordCase> {};

TEST_P(CommandWord, IsUnderstood) {
    EXPECT_EQ(Parsed(GetParam().arguments).command, GetParam().command);
}

INSTANTIATE_TEST_SUITE_P(
    All, CommandWord,
    ::testing::Values(
        WordCase{"open", {"open", "X"}, eCommand::Open},
        WordCase{"close", {"close", "X", "1", "2"}, eCommand::Close},
        WordCase{"call", {"call", "X", "Y"}, eCommand::Call},
        WordCase{"version", {"version"}, eCommand::Version},
        WordCase{"execute", {"execute", "X"}, eCommand::Execute},
        WordCase{"register", {"launcher", "register", "L", "1"}, eCommand::LauncherRegister},
        WordCase{"unregister", {"launcher", "unregister", "L", "1"}, eCommand::LauncherUnregister},
        WordCase{"add_emp", {"launcher", "add-emp", "X", "1"}, eCommand::LauncherAddEmp},
        WordCase{"remove_emp", {"launcher", "remove-emp", "X", "1"}, eCommand::LauncherRemoveEmp},
        WordCase{"status", {"status"}, eCommand::Status},
        WordCase{"list", {"list"}, eCommand::List}, WordCase{"show", {"show", "X"}, eCommand::Show},
        WordCase{"where", {"where", "X"}, eCommand::Where},
        WordCase{"blame", {"blame"}, eCommand::Blame},
        WordCase{"watch", {"watch"}, eCommand::Watch},
        WordCase{"doctor", {"doctor"}, eCommand::Doctor},
        WordCase{"debug_level", {"debug-level", "3"}, eCommand::DebugLevel},
        WordCase{"ping", {"ping", "on"}, eCommand::Ping},
        WordCase{"sweep", {"sweep"}, eCommand::Sweep},
        WordCase{"close_all", {"close-all", "A"}, eCommand::CloseAll}),
    [](const auto& info) { return info.param.szName; });

struct UsageCase {
    const char* szName;
    std::vector<const char*> arguments;
};

class WrongUsage : public ::testing::TestWithParam<UsageCase> {};

TEST_P(WrongUsage, IsToldWithStatusTwo) {
    const ParseResult result = Parse(GetParam().arguments);
    EXPECT_FALSE(result.options);
    EXPECT_EQ(result.nExit, 2);
    EXPECT_THAT(result.strText, HasSubstr("--help"));
    EXPECT_EQ(result.strText.find('\n'), std::string::npos) << "one line: " << result.strText;
}

INSTANTIATE_TEST_SUITE_P(
    Of, WrongUsage,
    ::testing::Values(
        UsageCase{"Nothing", {}}, UsageCase{"UnknownCommand", {"opne", "X"}},
        UsageCase{"UnknownOption", {"status", "--jsno"}}, UsageCase{"MissingName", {"open"}},
        UsageCase{"TooMuch", {"open", "X", "Y"}}, UsageCase{"TwoCommands", {"list", "status"}},
        UsageCase{"LauncherAlone", {"launcher"}},
        UsageCase{"MissingPort", {"launcher", "register", "L"}},
        UsageCase{"PortOfLetters", {"launcher", "register", "L", "notaport"}},
        UsageCase{"PortZero", {"launcher", "register", "L", "0"}},
        UsageCase{"PortTooLarge", {"launcher", "register", "L", "65536"}},
        UsageCase{"PortTooLong", {"launcher", "register", "L", "4294967297"}},
        UsageCase{"PortInHex", {"launcher", "register", "L", "0x1F90"}},
        UsageCase{"NoSwitch", {"ping", "maybe"}},
        UsageCase{"LevelOfWords", {"debug-level", "much"}},
        UsageCase{"LevelTooHigh", {"debug-level", "65536"}},
        UsageCase{"TimeoutOfNothing", {"status", "--timeout", "0"}},
        UsageCase{"TimeoutBackwards", {"status", "--timeout=-1"}},
        UsageCase{"UntilEofWithoutHold", {"open", "X", "--until-eof"}},
        UsageCase{"FiveArguments", {"execute", "C", "3", "4", "5", "6", "7"}},
        UsageCase{"NoFrames", {"watch", "--count", "0"}},
        UsageCase{"OptionBeforeTheCommandWord", {"call", "X", "--jsno", "Y"}},
        UsageCase{"WhereOfNoName", {"where", ""}}, UsageCase{"ShowOfNoName", {"show", ""}},
        UsageCase{"BlameOfNoName", {"blame", ""}}, UsageCase{"OpenOfNoName", {"open", ""}},
        UsageCase{"NoApplication", {"open", "X", "--app", ""}},
        UsageCase{"NoVersion", {"open", "X", "--version", ""}},
        UsageCase{"CallOfNoName", {"call", "", "Y"}},
        UsageCase{"CallOfNoCommand", {"call", "X", ""}},
        UsageCase{"ExecuteOfNoCommand", {"execute", ""}},
        UsageCase{"CloseOfNoName", {"close", "", "1", "2"}},
        UsageCase{"CloseOfNoPort", {"close", "X", "", "2"}},
        UsageCase{"LauncherOfNoName", {"launcher", "register", "", "1"}},
        UsageCase{"LauncherOfNoPort", {"launcher", "register", "L", ""}},
        UsageCase{"CloseAllOfNoApplication", {"close-all", ""}},
        UsageCase{"TwoForTheOutput", {"blame", "--json", "--svg", "-"}}),
    [](const auto& info) { return info.param.szName; });

TEST(WrongWord, IsNamedAndTheNearestCommandWithIt) {
    EXPECT_EQ(Parse({"bogus"}).strText,
              "there is no command \"bogus\" (vokctl --help tells what there is)");
    EXPECT_EQ(Parse({"opne", "X"}).strText,
              "there is no command \"opne\": did you mean \"open\"? (vokctl --help tells what "
              "there is)");
    EXPECT_EQ(Parse({"launcher", "foo"}).strText,
              "there is no command \"foo\" (vokctl launcher --help tells more)");
    EXPECT_THAT(Parse({"launcher", "regster", "L", "1"}).strText,
                HasSubstr("did you mean \"register\"?"));
    EXPECT_THAT(Parse({"--bogus"}).strText, HasSubstr("there is no option \"--bogus\""));
    EXPECT_THAT(Parse({"[bogus"}).strText, HasSubstr("no command \"[bogus\""));
    EXPECT_THAT(Parse({""}).strText, HasSubstr("no command \"\""));
    EXPECT_THAT(Parse({}).strText, HasSubstr("which command?"));
    EXPECT_THAT(Parse({"--", "status"}).strText, HasSubstr("which command?"));
}

TEST(WrongUsageText, NamesTheHelpOfTheCommandAtHand) {
    EXPECT_THAT(Parse({"open"}).strText, HasSubstr("(vokctl open --help tells more)"));
    EXPECT_THAT(Parse({"launcher", "register", "L"}).strText,
                HasSubstr("(vokctl launcher register --help tells more)"));
}

TEST(WrongUsageText, OfANumberIsShort) {
    EXPECT_EQ(Parse({"blame", "--most", "0"}).strText,
              "--most: 0 is no number from 1 to 2147483647 (vokctl blame --help tells more)");
    for (const char* const szCount : {"-3", "x", "", "1.5", "010", "99999999999"})
        EXPECT_THAT(Parse({"watch", "--count", szCount}).strText,
                    HasSubstr(std::string(szCount) + " is no number from 1 to 2147483647"));
}

TEST(Help, TellsWhatOptionsTakeAndTheirDefaults) {
    const std::string strOpen = Parse({"open", "--help"}).strText;
    EXPECT_THAT(strOpen, HasSubstr("  --version V                 The version to ask for; 1.0 "));
    EXPECT_THAT(strOpen, HasSubstr("  --app INFO                  The application that opens it; "
                                   "vokctl "));
    EXPECT_THAT(strOpen, HasSubstr("  --until-eof                 With --hold"));
    const std::string strCall = Parse({"call", "--help"}).strText;
    EXPECT_THAT(strCall, HasSubstr("[OPTIONS] NAME CMD [ARGS...]\n"));
    EXPECT_THAT(strCall, HasSubstr("  ARGS                        Its arguments"));
    EXPECT_THAT(Parse({"execute", "--help"}).strText, HasSubstr("[OPTIONS] CMD [ARGS...]\n"));
    EXPECT_THAT(Parse({"debug-level", "--help"}).strText,
                HasSubstr("  LEVEL                       0 errors"));
    EXPECT_THAT(Parse({"watch", "--help"}).strText, HasSubstr("  --count N                   End"));
}

TEST(CommandLine, HelpIsDoneAndNamesEveryExitStatus) {
    const ParseResult result = Parse({"--help"});
    EXPECT_EQ(result.nExit, 0);
    for (const char* const szStatus : {"0 done", "1 refused or failed", "2 wrong usage",
                                       "3 no broker", "4 takes root", "5 no answer"})
        EXPECT_THAT(result.strText, HasSubstr(szStatus));
    EXPECT_THAT(Parse({"open", "--help"}).strText, HasSubstr("--hold"));
    EXPECT_THAT(result.strText, Not(HasSubstr("docs/"))) << "a file of the sources only";
}

TEST(CommandLine, TellsItsOwnVersion) {
    const ParseResult result = Parse({"--version"});
    EXPECT_EQ(result.nExit, 0);
    EXPECT_EQ(result.strText, "vokctl 5.100\n");
}

TEST(CommandLine, OptionsOfAllCommandsStandAnywhere) {
    EXPECT_TRUE(Parsed({"--json", "status"}).bJson);
    EXPECT_TRUE(Parsed({"status", "--json"}).bJson);
    EXPECT_TRUE(Parsed({"launcher", "register", "L", "1", "--json"}).bJson);
    EXPECT_FALSE(Parsed({"status"}).bJson);
    EXPECT_EQ(Parsed({"open", "X", "--timeout", "0.25"}).timeout, 250ms);
    EXPECT_FALSE(Parsed({"open", "X"}).timeout);
}

TEST(CommandLine, OpenHasDefaults) {
    const Options plain = Parsed({"open", "Weather"});
    EXPECT_EQ(plain.strName, "Weather");
    EXPECT_EQ(plain.strVersion, "1.0");
    EXPECT_EQ(plain.strApp, "vokctl");
    EXPECT_FALSE(plain.bHold);

    const Options full =
        Parsed({"open", "--version", "2.0", "--app", "me", "--hold", "--until-eof", "Weather"});
    EXPECT_EQ(full.strVersion, "2.0");
    EXPECT_EQ(full.strApp, "me");
    EXPECT_TRUE(full.bHold);
    EXPECT_TRUE(full.bUntilEof);
}

TEST(CommandLine, CallPassesOnWhateverFollows) {
    const Options options = Parsed({"call", "--list", "X", "Seek", "-5", "--json", "open"});
    EXPECT_EQ(options.strName, "X");
    EXPECT_EQ(options.strCmd, "Seek");
    EXPECT_THAT(options.arguments, ElementsAre("-5", "--json", "open"));
    EXPECT_TRUE(options.bAsList);
    EXPECT_FALSE(options.bJson);
    EXPECT_TRUE(Parsed({"--json", "call", "X", "Seek"}).bJson);
}

TEST(CommandLine, OptionsBeforeTheCommandWordAreVokctlsOwn) {
    const Options call = Parsed({"call", "X", "--json", "--app", "me", "Seek", "--app", "--list"});
    EXPECT_TRUE(call.bJson);
    EXPECT_FALSE(call.bAsList);
    EXPECT_EQ(call.strApp, "me");
    EXPECT_EQ(call.strCmd, "Seek");
    EXPECT_THAT(call.arguments, ElementsAre("--app", "--list"));

    const Options late = Parsed({"call", "X", "Seek", "--json", "--", "--help", "-h"});
    EXPECT_FALSE(late.bJson);
    EXPECT_THAT(late.arguments, ElementsAre("--json", "--", "--help", "-h"));

    const Options execute = Parsed({"--timeout", "3", "execute", "--json", "C", "--json", "-1"});
    EXPECT_TRUE(execute.bJson);
    EXPECT_EQ(execute.strCmd, "C");
    EXPECT_THAT(execute.arguments, ElementsAre("--json", "-1"));

    const Options dashes = Parsed({"call", "--", "-X", "--json", "--list"});
    EXPECT_EQ(dashes.strName, "-X");
    EXPECT_EQ(dashes.strCmd, "--json");
    EXPECT_THAT(dashes.arguments, ElementsAre("--list"));
}

TEST(CommandLine, CloseMayBeForced) {
    EXPECT_FALSE(Parsed({"close", "X", "1", "2"}).bForce);
    EXPECT_TRUE(Parsed({"close", "X", "1", "2", "--force"}).bForce);
}

TEST(CommandLine, WhatLooksLikeAListIsOneArgument) {
    const Options options = Parsed({"call", "[X]", "Y", "[1,2]", "[\"a\",\"b\"]", "[]", "{}", ""});
    EXPECT_EQ(options.strName, "[X]");
    EXPECT_THAT(options.arguments, ElementsAre("[1,2]", "[\"a\",\"b\"]", "[]", "{}", ""));
    EXPECT_THAT(Parsed({"execute", "X", "[1,2]"}).arguments, ElementsAre("[1,2]"));
}

TEST(CommandLine, ExecutePassesOnFourArguments) {
    const Options options = Parsed({"execute", "--arg1", "1", "C", "a", "", "c", "d"});
    EXPECT_EQ(options.strArg1, "1");
    EXPECT_EQ(options.strCmd, "C");
    EXPECT_THAT(options.arguments, ElementsAre("a", "", "c", "d"));
}

TEST(CommandLine, AnEmpMayBeCalledLikeACommand) {
    EXPECT_EQ(Parsed({"open", "list"}).strName, "list");
    EXPECT_EQ(Parsed({"launcher", "add-emp", "register", "1"}).strName, "register");
    EXPECT_EQ(Parsed({"open", "--", "-X"}).strName, "-X");
}

TEST(CommandLine, SwitchesAndNumbersGetTheirTypes) {
    EXPECT_TRUE(Parsed({"ping", "on"}).bEnable);
    EXPECT_FALSE(Parsed({"ping", "off"}).bEnable);
    EXPECT_EQ(Parsed({"debug-level", "3"}).nLevel, 3);
    EXPECT_EQ(Parsed({"watch", "--interval", "0.5", "--count", "2"}).interval, 500ms);
    EXPECT_EQ(Parsed({"watch", "--count", "2"}).nFrames, 2);
    EXPECT_EQ(Parsed({"blame", "X", "--most", "3", "--svg", "f"}).nMost, 3);
    EXPECT_EQ(Parsed({"close-all", "A", "W"}).strWidget, "W");
}

}  // namespace
}  // namespace vok::ctl
