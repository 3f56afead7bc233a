// The completion scripts: shells take them, and bash completes with them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CEmpInstaller.h"
#include "tests/support/Command.h"

namespace vok::test {
namespace {

using ::testing::HasSubstr;

std::string BashScript() {
    return CEmpInstaller::BuiltProgram("../completion/vokctl.bash");
}

std::string ZshScript() {
    return CEmpInstaller::BuiltProgram("../completion/_vokctl");
}

bool Has(const std::string& strProgram) {
    return OutputOf("command -v " + strProgram + " >/dev/null") == "0\n";
}

/// What bash offers after these words, the last of which is being typed; sorted, with a blank after
/// each.
std::string Offers(const std::string& strWords, int nWords) {
    return OutputOf("PATH=" + CEmpInstaller::BuiltProgram("") + ":$PATH bash -c 'source " +
                    BashScript() + "; COMP_WORDS=(" + strWords + "); COMP_CWORD=" +
                    std::to_string(nWords - 1) + "; _vokctl; printf \"%s \" \"${COMPREPLY[@]}\"'");
}

TEST(Completion, BashTakesIt) {
    EXPECT_EQ(OutputOf("bash -n " + BashScript() + " 2>&1"), "0\n");
}

TEST(Completion, ZshTakesIt) {
    if (!Has("zsh")) GTEST_SKIP() << "zsh is not installed";
    EXPECT_EQ(OutputOf("zsh -n " + ZshScript() + " 2>&1"), "0\n");
}

TEST(Completion, OffersCommandsOptionsAndNames) {
    CEmpInstaller::Preinstall("Weather");
    CEmpInstaller::Preinstall("Clock");
    CEmpInstaller::Preinstall("Cloud");
    EXPECT_EQ(Offers("vokctl st", 2), "status 0\n");
    EXPECT_EQ(Offers("vokctl clo", 2), "close close-all 0\n");
    EXPECT_EQ(Offers("vokctl open Clo", 3), "Clock Cloud 0\n");
    EXPECT_EQ(Offers("vokctl --timeout 3 open --app x W", 7), "Weather 0\n");
    EXPECT_EQ(Offers("vokctl blame --s", 3), "--svg 0\n");
    EXPECT_EQ(Offers("vokctl open --h", 3), "--help --hold 0\n");
    EXPECT_EQ(Offers("vokctl close --f", 3), "--force 0\n");
    EXPECT_EQ(Offers("vokctl ping o", 3), "on off 0\n");
    EXPECT_EQ(Offers("vokctl launcher reg", 3), "register 0\n");
    EXPECT_EQ(Offers("vokctl launcher add-emp We", 4), "Weather 0\n");
    EXPECT_EQ(Offers("vokctl show Nob", 3), " 0\n");
}

/// What follows it is passed on.
TEST(Completion, OffersNoOptionsBehindTheCommandWord) {
    EXPECT_EQ(Offers("vokctl call --l", 3), "--list 0\n");
    EXPECT_EQ(Offers("vokctl call Weather --l", 4), "--list 0\n");
    EXPECT_EQ(Offers("vokctl call Weather Echo --", 5), " 0\n");
    EXPECT_EQ(Offers("vokctl execute --arg", 3), "--arg1 0\n");
    EXPECT_EQ(Offers("vokctl execute GetVOKVersion --", 4), " 0\n");
    EXPECT_EQ(Offers("vokctl open Weather --ho", 4), "--hold 0\n");
}

/// Every command of the program is offered, and nothing else.
TEST(Completion, KnowsTheProgramsCommands) {
    const std::string strProgram = CEmpInstaller::BuiltProgram("vokctl");
    const std::string strOffered = Offers("vokctl \"\"", 2);
    const std::string strKnown =
        OutputOf(strProgram +
                 " --help | sed -nE \"s/^  ([a-z][a-z-]*) .*/\\1/p\" | sort | "
                 "tr \"\\n\" \" \"");
    const std::string strSorted =
        OutputOf("printf \"%s\\n\" " + strOffered.substr(0, strOffered.find("0\n")) +
                 " | sort | tr \"\\n\" \" \"");
    EXPECT_EQ(strSorted, strKnown);
    EXPECT_THAT(strKnown, HasSubstr("doctor "));
    for (std::string_view strRest = strKnown; strRest.find(' ') != std::string_view::npos;
         strRest.remove_prefix(strRest.find(' ') + 1)) {
        const std::string strCommand(strRest.substr(0, strRest.find(' ')));
        EXPECT_EQ(
            OutputOf("grep -q \"'" + strCommand + ":\\|\\\"" + strCommand + ":\" " + ZshScript()),
            "0\n")
            << strCommand << " in zsh";
    }
}

}  // namespace
}  // namespace vok::test
