#include <gtest/gtest.h>

#include "platform/MountInfo.h"

namespace vok {
namespace {

constexpr char kLine[] = "36 35 7:3 / /opt/down/emps/empA ro,nosuid - squashfs /dev/loop3 ro\n";

TEST(FindMount, ReadsALine) {
    const auto entry = FindMount(std::string_view(kLine), "/opt/down/emps/empA");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->strSource, "/dev/loop3");
    EXPECT_EQ(entry->strFileSystem, "squashfs");
    EXPECT_EQ(entry->nMajor, 7u);
    EXPECT_EQ(entry->nMinor, 3u);
    EXPECT_EQ(entry->nStacked, 1u);
}

TEST(FindMount, TakesTheLastOfSeveral) {
    const std::string strText = std::string(kLine) +
                                "37 36 259:70000 / /opt/down/emps/empA rw - ext4 /dev/top rw\n" +
                                "38 35 7:5 / /opt/down/emps/empB ro - erofs /dev/loop5 ro\n";
    const auto entry = FindMount(std::string_view(strText), "/opt/down/emps/empA");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->strSource, "/dev/top");
    EXPECT_EQ(entry->nMinor, 70000u);
    EXPECT_EQ(entry->nStacked, 2u);
}

struct FoundCase {
    const char* szName;
    const char* szText;
    const char* szSource;
};

class FoundMount : public ::testing::TestWithParam<FoundCase> {};

/// The mount point is always "/a b".
TEST_P(FoundMount, HasItsSource) {
    const auto entry = FindMount(std::string_view(GetParam().szText), "/a b");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->strSource, GetParam().szSource);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, FoundMount,
    ::testing::Values(
        FoundCase{"NoLineFeedAtTheEnd", "1 2 7:0 / /a\\040b ro - ext4 /dev/x ro", "/dev/x"},
        FoundCase{"OptionalFields",
                  "1 2 7:0 / /a\\040b ro shared:1 master:2 unbindable - ext4 /dev/x ro\n",
                  "/dev/x"},
        FoundCase{"EscapedSource", "1 2 7:0 / /a\\040b ro - ext4 /dev/x\\134y\\011z ro\n",
                  "/dev/x\\y\tz"},
        FoundCase{"EmptySource", "1 2 0:9 / /a\\040b ro - tmpfs  rw\n", ""},
        FoundCase{"NoSuperOptions", "1 2 7:0 / /a\\040b ro - ext4 /dev/x\n", "/dev/x"},
        FoundCase{"AfterGarbage",
                  "\n \n- - -\n1 2 x:y / /a\\040b ro - ext4 /dev/z ro\n"
                  "1 2 7:0 / /a\\040b ro - ext4 /dev/x ro\n",
                  "/dev/x"},
        FoundCase{"BeforeGarbage", "1 2 7:0 / /a\\040b ro - ext4 /dev/x ro\n1 2 7:0 / /a\\040b",
                  "/dev/x"}),
    [](const auto& info) { return info.param.szName; });

class NoMount : public ::testing::TestWithParam<const char*> {};

TEST_P(NoMount, IsPassedOver) {
    EXPECT_FALSE(FindMount(std::string_view(GetParam()), "/a").has_value());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, NoMount,
    ::testing::Values("", "\n\n\n", " ", "garbage", "1 2 7:0 / /a", "1 2 7:0 / /a ro", "\\",
                      "1 2 7:0 / /a ro -", "1 2 7:0 / /a ro - ", "1 2 7:0 / /a ro ext4 /dev/x ro",
                      "1 2 7 / /a ro - ext4 /dev/x ro", "1 2 7: / /a ro - ext4 /dev/x ro",
                      "1 2 :7 / /a ro - ext4 /dev/x ro", "1 2 7:0x / /a ro - ext4 /dev/x ro",
                      "1 2 99999999999999:0 / /a ro - ext4 /dev/x ro",
                      "1 2 7:0 /a /b ro - ext4 /a ro", "1 2 7:0 / /a/ ro - ext4 /dev/x ro",
                      "1 2 7:0 / /a\\04 ro - ext4 /dev/x ro", "1 2 7:0 / /ab ro - ext4 /dev/x ro"));

TEST(FindMount, KnowsTheMountsOfThisProcess) {
    const auto entry = FindMount(std::string("/proc"));
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->strFileSystem, "proc");
    EXPECT_FALSE(FindMount(std::string("/proc/self")).has_value());
}

}  // namespace
}  // namespace vok
