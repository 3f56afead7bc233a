// This program is not linked with the platform's system information library.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/SystemInfo.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

/// This world's os-release(5) file is the test's.
class OsRelease : public ::testing::Test {
protected:
    void SetUp() override {
        std::ofstream(m_strSource) << "";
        ASSERT_EQ(::mount(m_strSource.c_str(), m_strTarget.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    void TearDown() override { EXPECT_EQ(::umount(m_strTarget.c_str()), 0); }

    const test::CTemporaryFolder m_Folder;
    const std::string m_strSource = m_Folder.Path("os-release");
    const std::string m_strTarget = std::filesystem::canonical("/etc/os-release");
    std::string m_strValue = "before";
};

TEST_F(OsRelease, GivesTheModelNameWhereThereIsNoLibrary) {
    std::ofstream(m_strSource) << "NAME=\"no\"\nPRETTY_NAME=\"A set, 5th edition\"\n";

    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), 0);

    EXPECT_EQ(m_strValue, "A set, 5th edition");
}

TEST_F(OsRelease, WithoutAPrettyNameThereIsNoModelName) {
    std::ofstream(m_strSource) << "NAME=\"no\"\nPRETTY_NAME=\"\"\n";

    EXPECT_EQ(GetSystemInfo(kModelNameKey, m_strValue), ENOENT);

    EXPECT_EQ(m_strValue, "before");
}

TEST_F(OsRelease, KnowsNoOtherKey) {
    std::ofstream(m_strSource) << "PRETTY_NAME=Set\n";

    EXPECT_EQ(GetSystemInfo("http://tizen.org/system/build.version", m_strValue), EINVAL);

    EXPECT_EQ(m_strValue, "before");
}

}  // namespace
}  // namespace vok
