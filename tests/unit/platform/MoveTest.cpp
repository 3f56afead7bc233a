#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/Move.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/CTemporaryFolder.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

void WriteFile(const std::string& strPath, const std::string& strText) {
    std::ofstream(strPath) << strText;
}

std::string ReadFile(const std::string& strPath) {
    std::ifstream file(strPath);
    return {std::istreambuf_iterator<char>(file), {}};
}

class MoveTest : public ::testing::Test {
protected:
    void ExpectFailure(const std::string& strTo, const std::string& strReason) {
        EXPECT_THAT(test::LogLines(m_Log), ElementsAre("0 Move: Moving [" + m_strFrom + "] to [" +
                                                       strTo + "] failed: [" + strReason + "]."));
    }

    const test::CTemporaryFolder m_Folder;
    const std::string m_strFrom = m_Folder.Path("from");
    const std::string m_strTo = m_Folder.Path("to");
    test::CLogCapture m_Log;
};

TEST_F(MoveTest, TakesContentAndModeAlong) {
    WriteFile(m_strFrom, "new");
    ASSERT_EQ(::chmod(m_strFrom.c_str(), 0750), 0);
    EXPECT_TRUE(Move(m_strFrom, m_strTo)) << m_Log.Text();
    EXPECT_EQ(ReadFile(m_strTo), "new");
    EXPECT_EQ(fs::status(m_strTo).permissions(), fs::perms(0750));
    EXPECT_FALSE(fs::exists(m_strFrom));
}

TEST_F(MoveTest, ReplacesTheTarget) {
    WriteFile(m_strFrom, "new");
    WriteFile(m_strTo, "old");
    EXPECT_TRUE(Move(m_strFrom, m_strTo)) << m_Log.Text();
    EXPECT_EQ(ReadFile(m_strTo), "new");
}

TEST_F(MoveTest, MakesTheTargetsFolder) {
    WriteFile(m_strFrom, "new");
    EXPECT_TRUE(Move(m_strFrom, m_Folder.Path("a/b/to"))) << m_Log.Text();
    EXPECT_EQ(ReadFile(m_Folder.Path("a/b/to")), "new");
}

TEST_F(MoveTest, MissingSourceFailsAndChangesNothing) {
    WriteFile(m_strTo, "old");
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    ExpectFailure(m_strTo, "No such file or directory");
    EXPECT_EQ(ReadFile(m_strTo), "old");
}

TEST_F(MoveTest, MissingSourceMakesNoFolder) {
    EXPECT_FALSE(Move(m_strFrom, m_Folder.Path("a/to")));
    EXPECT_FALSE(fs::exists(m_Folder.Path("a")));
}

TEST_F(MoveTest, FolderIsNoSource) {
    fs::create_directory(m_strFrom);
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    ExpectFailure(m_strTo, "Is a directory");
    EXPECT_TRUE(fs::is_directory(m_strFrom));
    EXPECT_FALSE(fs::exists(m_strTo));
}

TEST_F(MoveTest, FifoIsNoSource) {
    ASSERT_EQ(::mkfifo(m_strFrom.c_str(), 0600), 0);
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    EXPECT_TRUE(fs::exists(m_strFrom));
}

TEST_F(MoveTest, FolderIsNoTarget) {
    WriteFile(m_strFrom, "new");
    fs::create_directory(m_strTo);
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    ExpectFailure(m_strTo, "Is a directory");
    EXPECT_EQ(ReadFile(m_strFrom), "new");
}

TEST_F(MoveTest, FileIsNoTargetsFolder) {
    WriteFile(m_strFrom, "new");
    WriteFile(m_Folder.Path("file"), "");
    EXPECT_FALSE(Move(m_strFrom, m_Folder.Path("file/to")));
    ExpectFailure(m_Folder.Path("file/to"), "Not a directory");
    EXPECT_EQ(ReadFile(m_strFrom), "new");
}

}  // namespace
}  // namespace vok
