// Completion, as bash and zsh offer it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "tests/support/CEmpInstaller.h"
#include "tests/support/Command.h"

namespace vok::test {
namespace {

using ::testing::ElementsAre;

std::string Script(const std::string& strName) {
    return CEmpInstaller::BuiltProgram("../completion/" + strName);
}

class Completion : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (OutputOf("command -v " + Shell() + " >/dev/null") != "0\n")
            GTEST_SKIP() << Shell() << " is not installed";
    }

    static std::string Shell() { return GetParam(); }

    /// What is offered at the end of each line: sorted, with a blank after each offer. The exit
    /// status comes last.
    static std::vector<std::string> Offers(const std::vector<std::string>& lines) {
        const std::string strInput = std::filesystem::temp_directory_path() / "lines";
        std::ofstream input(strInput);
        for (const std::string& strLine : lines) input << strLine << '\n';
        input.close();
        const std::string strAsked =
            Shell() == "zsh" ? "zsh -f " + Script("offers.zsh") + " " + Script("")
                             : "bash " + Script("offers.bash") + " " + Script("vokctl.bash");
        std::istringstream output(OutputOf("PATH=" + CEmpInstaller::BuiltProgram("") + ":$PATH " +
                                           strAsked + " <" + strInput + " 2>&1"));
        std::vector<std::string> offers;
        for (std::string strLine; std::getline(output, strLine);) offers.push_back(strLine);
        return offers;
    }

    static void ExpectOffers(
        const std::vector<std::pair<std::string, std::string>>& offersOfLines) {
        std::vector<std::string> lines;
        std::vector<std::string> expected;
        for (const auto& [strLine, strOffers] : offersOfLines) {
            lines.push_back(strLine);
            expected.push_back(strOffers);
        }
        expected.push_back("0");
        EXPECT_EQ(Offers(lines), expected);
    }
};

INSTANTIATE_TEST_SUITE_P(Shells, Completion, ::testing::Values("bash", "zsh"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(Completion, OffersCommandsOptionsAndNames) {
    CEmpInstaller::Preinstall("Weather");
    CEmpInstaller::Preinstall("Clock");
    CEmpInstaller::Preinstall("Cloud");
    ExpectOffers({
        {"vokctl st", "status "},
        {"vokctl clo", "close close-all "},
        {"vokctl open Clo", "Clock Cloud "},
        {"vokctl --timeout 3 open --app x W", "Weather "},
        {"vokctl --v", "--version "},
        {"vokctl blame --s", "--svg "},
        {"vokctl open --h", "--help --hold "},
        {"vokctl close --f", "--force "},
        {"vokctl ping o", "off on "},
        {"vokctl launcher reg", "register "},
        {"vokctl launcher add-emp We", "Weather "},
        {"vokctl show Nob", ""},
    });
}

/// What follows it is passed on.
TEST_P(Completion, OffersNoOptionsBehindTheCommandWord) {
    CEmpInstaller::Preinstall("Weather");
    ExpectOffers({
        {"vokctl call --l", "--list "},
        {"vokctl call Weather --l", "--list "},
        {"vokctl call Weather Pi", "Ping "},
        {"vokctl call Weather Echo --", ""},
        {"vokctl execute --arg", "--arg1 "},
        {"vokctl execute GetVOKVersion --", ""},
        {"vokctl open Weather --ho", "--hold "},
    });
}

/// Every command of the program is offered, and nothing else.
TEST_P(Completion, KnowsTheProgramsCommands) {
    std::istringstream known(OutputOf(
        CEmpInstaller::BuiltProgram("vokctl") +
        " --help | sed -nE \"s/^  ([a-z][a-z-]*) .*/\\1/p\" | sort | tr \"\\n\" \" \"; echo"));
    std::string strKnown;
    std::getline(known, strKnown);
    EXPECT_THAT(strKnown, ::testing::HasSubstr("doctor "));
    EXPECT_THAT(Offers({"vokctl "}), ElementsAre(strKnown, "0"));
}

}  // namespace
}  // namespace vok::test
