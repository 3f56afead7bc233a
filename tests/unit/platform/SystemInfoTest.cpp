// This program has the platform's library: a query of its own. What happens without one is tested
// in a program that has none, in tests/world.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <utility>

#include "platform/SystemInfo.h"

namespace {

/// What the platform's query does; without it, the query fails.
std::function<int(const char*, char**)> s_Query;

}  // namespace

extern "C" __attribute__((visibility("default"))) int system_info_get_value_string(
    const char* szKey, char** pszValue) {
    return s_Query ? s_Query(szKey, pszValue) : -1;
}

namespace vok {
namespace {

class GetSystemInfoTest : public ::testing::Test {
protected:
    ~GetSystemInfoTest() override { s_Query = nullptr; }

    std::string m_strValue = "before";
};

TEST_F(GetSystemInfoTest, PlatformIsAskedForTheKeyAndItsTextTaken) {
    std::string strKey;
    s_Query = [&](const char* szKey, char** pszValue) {
        strKey = szKey;
        *pszValue = ::strdup("Model 5");
        return 0;
    };

    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), 0);

    EXPECT_EQ(strKey, "http://tizen.org/system/model_name");
    EXPECT_EQ(m_strValue, "Model 5");
}

TEST_F(GetSystemInfoTest, EveryKeyIsThePlatforms) {
    s_Query = [](const char* szKey, char** pszValue) {
        *pszValue = ::strdup(szKey);
        return 0;
    };

    EXPECT_EQ(GetSystemInfo("another", m_strValue), 0);

    EXPECT_EQ(m_strValue, "another");
}

TEST_F(GetSystemInfoTest, ErrorIsPassedOnAndTheValueStays) {
    s_Query = [](const char*, char**) { return -22; };
    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), -22);

    s_Query = [](const char*, char** pszValue) {
        *pszValue = ::strdup("half a value");
        return -5;
    };
    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), -5);

    EXPECT_EQ(m_strValue, "before");
}

TEST_F(GetSystemInfoTest, SuccessWithoutATextIsAnError) {
    s_Query = [](const char*, char**) { return 0; };

    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), ENODATA);

    EXPECT_EQ(m_strValue, "before");
}

TEST_F(GetSystemInfoTest, EmptyTextIsAValue) {
    s_Query = [](const char*, char** pszValue) {
        *pszValue = ::strdup("");
        return 0;
    };

    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), 0);

    EXPECT_EQ(m_strValue, "");
}

// ---- os-release ----

struct ReleaseCase {
    const char* szName;
    const char* szText;
    const char* szValue;
};
void PrintTo(const ReleaseCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class OsReleaseValueTest : public ::testing::TestWithParam<ReleaseCase> {};

TEST_P(OsReleaseValueTest, ReadsAsAShellDoes) {
    EXPECT_EQ(OsReleaseValue(GetParam().szText, "NAME"), GetParam().szValue);
}

INSTANTIATE_TEST_SUITE_P(
    Table, OsReleaseValueTest,
    ::testing::Values(ReleaseCase{"Empty", "", ""},
                      ReleaseCase{"OtherVariables", "ID=a\nXNAME=b\nNAMEX=c\n", ""},
                      ReleaseCase{"Bare", "ID=a\nNAME=Set\nVERSION=1\n", "Set"},
                      ReleaseCase{"NoLineFeed", "NAME=Set", "Set"},
                      ReleaseCase{"NoValue", "NAME=\n", ""},
                      ReleaseCase{"DoubleQuotes", "NAME=\"A set's own\"\n", "A set's own"},
                      ReleaseCase{"SingleQuotes", "NAME='A \"set\" \\$'\n", "A \"set\" \\$"},
                      ReleaseCase{"NothingInQuotes", "NAME=\"\"\n", ""},
                      ReleaseCase{"EscapesInDoubleQuotes", R"(NAME="\"a\" \$b \`c\` \\d \e")",
                                  R"("a" $b `c` \d \e)"},
                      ReleaseCase{"EscapesInAWord", R"(NAME=a\ b\"c)", "a b\"c"},
                      ReleaseCase{"WordEndsAtABlank", "NAME=Set of mine\n", "Set"},
                      ReleaseCase{"WordEndsAtATab", "NAME=\"A set\"\tmore\n", "A set"},
                      ReleaseCase{"QuotesInAWord", "NAME=A\" set \"B'!'\n", "A set B!"},
                      ReleaseCase{"CarriageReturn", "NAME=Set\r\nID=a\r\n", "Set"},
                      ReleaseCase{"LastAssignmentCounts", "NAME=First\nNAME=Second\n", "Second"},
                      ReleaseCase{"LastAssignmentCountsAlsoEmpty", "NAME=First\nNAME=\n", ""},
                      ReleaseCase{"Comment", "#NAME=x\nNAME=Set\n# NAME=y\n", "Set"},
                      ReleaseCase{"OpenQuotes", "NAME=\"A set\n", "A set"},
                      ReleaseCase{"BackslashAtTheEnd", "NAME=Set\\\n", "Set\\"}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
