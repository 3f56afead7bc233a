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
    ::testing::Values(UsageCase{"Nothing", {}}, UsageCase{"UnknownCommand", {"opne", "X"}},
                      UsageCase{"UnknownOption", {"status", "--jsno"}},
                      UsageCase{"MissingName", {"open"}}, UsageCase{"TooMuch", {"open", "X", "Y"}},
                      UsageCase{"TwoCommands", {"list", "status"}},
                      UsageCase{"LauncherAlone", {"launcher"}},
                      UsageCase{"MissingPort", {"launcher", "register", "L"}},
                      UsageCase{"NoSwitch", {"ping", "maybe"}},
                      UsageCase{"LevelOfWords", {"debug-level", "much"}},
                      UsageCase{"LevelTooHigh", {"debug-level", "65536"}},
                      UsageCase{"TimeoutOfNothing", {"status", "--timeout", "0"}},
                      UsageCase{"TimeoutBackwards", {"status", "--timeout=-1"}},
                      UsageCase{"UntilEofWithoutHold", {"open", "X", "--until-eof"}},
                      UsageCase{"FiveArguments", {"execute", "C", "3", "4", "5", "6", "7"}},
                      UsageCase{"NoFrames", {"watch", "--count", "0"}}),
    [](const auto& info) { return info.param.szName; });

TEST(CommandLine, HelpIsDoneAndNamesEveryExitStatus) {
    const ParseResult result = Parse({"--help"});
    EXPECT_EQ(result.nExit, 0);
    for (const char* const szStatus : {"0 done", "1 refused or failed", "2 wrong usage",
                                       "3 no broker", "4 takes root", "5 no answer"})
        EXPECT_THAT(result.strText, HasSubstr(szStatus));
    EXPECT_THAT(Parse({"open", "--help"}).strText, HasSubstr("--hold"));
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
