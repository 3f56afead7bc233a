#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/Move.h"
#include "tests/support/CLogCapture.h"
#include "tests/support/LogLines.h"

namespace vok {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Two file systems: the source's with room enough, the target's with half a mebibyte.
class MoveAcross : public ::testing::Test {
protected:
    void SetUp() override {
        for (const auto& [strFolder, szOptions] :
             {std::pair(m_strSource, "size=16m"), std::pair(m_strTarget, "size=512k")}) {
            fs::create_directories(strFolder);
            ASSERT_EQ(::mount("tmpfs", strFolder.c_str(), "tmpfs", 0, szOptions), 0);
        }
    }
    void TearDown() override {
        EXPECT_EQ(::umount(m_strSource.c_str()), 0);
        EXPECT_EQ(::umount(m_strTarget.c_str()), 0);
    }

    static void WriteFile(const std::string& strPath, const std::string& strText) {
        std::ofstream(strPath) << strText;
    }
    static std::string ReadFile(const std::string& strPath) {
        std::ifstream file(strPath);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void ExpectFailure(const std::string& strReason) {
        EXPECT_THAT(test::LogLines(m_Log), ElementsAre("0 Move: Moving [" + m_strFrom + "] to [" +
                                                       m_strTo + "] failed: [" + strReason + "]."));
    }
    std::vector<std::string> TargetFiles() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_strTarget)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const std::string m_strSource = "/tmp/source";
    const std::string m_strTarget = "/tmp/target";
    const std::string m_strFrom = m_strSource + "/from";
    const std::string m_strTo = m_strTarget + "/to";
    test::CLogCapture m_Log;
};

TEST_F(MoveAcross, TakesContentModeAndOwnerAlong) {
    const std::string strText(300'001, 'x');
    WriteFile(m_strFrom, strText);
    ASSERT_EQ(::chmod(m_strFrom.c_str(), 04751), 0);
    struct stat before {};
    ASSERT_EQ(::stat(m_strFrom.c_str(), &before), 0);
    EXPECT_TRUE(Move(m_strFrom, m_strTo)) << m_Log.Text();
    EXPECT_EQ(ReadFile(m_strTo), strText);
    struct stat after {};
    ASSERT_EQ(::stat(m_strTo.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_FALSE(fs::exists(m_strFrom));
    EXPECT_THAT(TargetFiles(), ElementsAre("to"));
    EXPECT_THAT(m_Log.Messages(), IsEmpty());
}

TEST_F(MoveAcross, ReplacesTheTargetAndWhatAStoppedMoveHasLeft) {
    WriteFile(m_strFrom, "new");
    WriteFile(m_strTo, "old");
    WriteFile(m_strTo + ".moving", "half of");
    EXPECT_TRUE(Move(m_strFrom, m_strTo)) << m_Log.Text();
    EXPECT_EQ(ReadFile(m_strTo), "new");
    EXPECT_THAT(TargetFiles(), ElementsAre("to"));
}

TEST_F(MoveAcross, FullDiskLeavesBothAsTheyWere) {
    const std::string strText(1 << 20, 'x');
    WriteFile(m_strFrom, strText);
    WriteFile(m_strTo, "old");
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    EXPECT_EQ(ReadFile(m_strFrom), strText);
    EXPECT_EQ(ReadFile(m_strTo), "old");
    EXPECT_THAT(TargetFiles(), ElementsAre("to"));
    ExpectFailure("No space left on device");
}

TEST_F(MoveAcross, SourceThatCannotGoIsNotCopied) {
    WriteFile(m_strFrom, "new");
    WriteFile(m_strTo, "old");
    ASSERT_EQ(::mount(nullptr, m_strSource.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    EXPECT_EQ(ReadFile(m_strTo), "old");
    EXPECT_EQ(ReadFile(m_strFrom), "new");
    ExpectFailure("Read-only file system");
}

TEST_F(MoveAcross, SourceThatIsBusyStaysBesideItsCopy) {
    WriteFile(m_strFrom, "new");
    WriteFile(m_strTo, "old");
    ASSERT_EQ(::mount(m_strFrom.c_str(), m_strFrom.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_TRUE(Move(m_strFrom, m_strTo)) << "the target is what callers go on with";
    EXPECT_EQ(::umount(m_strFrom.c_str()), 0);
    EXPECT_EQ(ReadFile(m_strTo), "new");
    EXPECT_EQ(ReadFile(m_strFrom), "new");
    EXPECT_THAT(test::LogLines(m_Log), ElementsAre("1 Move: [" + m_strFrom +
                                                   "] stays beside its copy: [Device or resource "
                                                   "busy]."));
}

TEST_F(MoveAcross, FolderIsNoTarget) {
    WriteFile(m_strFrom, "new");
    fs::create_directory(m_strTo);
    EXPECT_FALSE(Move(m_strFrom, m_strTo));
    EXPECT_EQ(ReadFile(m_strFrom), "new");
    EXPECT_THAT(TargetFiles(), ElementsAre("to"));
}

}  // namespace
}  // namespace vok
