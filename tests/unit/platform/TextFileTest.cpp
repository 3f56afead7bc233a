#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <ostream>
#include <string>

#include "platform/CUniqueFd.h"
#include "platform/TextFile.h"
#include "tests/support/CTemporaryFolder.h"

namespace vok {
namespace {

struct TextCase {
    const char* szName;
    std::size_t nSize;
    std::size_t nMost;
    std::size_t nRead;
};
void PrintTo(const TextCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

/// Bytes of every kind, in an order that does not repeat within a buffer.
std::string Bytes(std::size_t nSize) {
    std::string strBytes;
    for (std::size_t i = 0; i < nSize; ++i) strBytes += static_cast<char>((i + i / 251) % 256);
    return strBytes;
}

class TextFile : public ::testing::Test {
protected:
    std::optional<std::string> Read(std::size_t nMost) {
        return ReadTextFile(m_strFile.c_str(), nMost);
    }

    const test::CTemporaryFolder m_Folder;
    const std::string m_strFile = m_Folder.Path("file");
};

class TextFileSize : public TextFile, public ::testing::WithParamInterface<TextCase> {};

TEST_P(TextFileSize, IsReadUpToTheBound) {
    const TextCase& c = GetParam();
    std::ofstream(m_strFile, std::ios::binary) << Bytes(c.nSize);

    EXPECT_EQ(Read(c.nMost), Bytes(c.nRead));
}

INSTANTIATE_TEST_SUITE_P(Table, TextFileSize,
                         ::testing::Values(TextCase{"Empty", 0, 10, 0}, TextCase{"Short", 3, 10, 3},
                                           TextCase{"AtTheBound", 10, 10, 10},
                                           TextCase{"Long", 11, 10, 10},
                                           TextCase{"NothingAsked", 11, 0, 0},
                                           TextCase{"OneBuffer", 4096, 9999, 4096},
                                           TextCase{"SeveralBuffers", 9000, 0x100000, 9000},
                                           TextCase{"BoundInALaterBuffer", 9000, 4097, 4097}),
                         [](const auto& info) { return info.param.szName; });

TEST_F(TextFile, WhatCannotBeOpenedHasNoText) {
    EXPECT_EQ(Read(10), std::nullopt);
    EXPECT_EQ(ReadTextFile("", 10), std::nullopt);
    ASSERT_EQ(::symlink("nowhere", m_strFile.c_str()), 0);
    EXPECT_EQ(Read(10), std::nullopt);
}

TEST_F(TextFile, FolderIsEmpty) {
    EXPECT_EQ(ReadTextFile(m_Folder.Path().c_str(), 10), "");
}

TEST_F(TextFile, LinkIsFollowed) {
    std::ofstream(m_Folder.Path("target")) << "text";
    ASSERT_EQ(::symlink("target", m_strFile.c_str()), 0);

    EXPECT_EQ(Read(10), "text");
}

TEST_F(TextFile, FileThatTellsNoSizeIsReadWhole) {
    const auto strText = ReadTextFile("/proc/self/status", 0x10000);

    ASSERT_TRUE(strText);
    EXPECT_NE(strText->find("\nPid:"), std::string::npos);
    EXPECT_EQ(strText->back(), '\n');
}

TEST_F(TextFile, EndlessFileIsCut) {
    EXPECT_EQ(ReadTextFile("/dev/zero", 5000), std::string(5000, '\0'));
}

TEST_F(TextFile, FifoIsNeverWaitedFor) {
    ASSERT_EQ(::mkfifo(m_strFile.c_str(), 0600), 0);
    EXPECT_EQ(Read(10), "");  // nobody writes

    const CUniqueFd fd{::open(m_strFile.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)};
    ASSERT_TRUE(fd.IsOpen());
    EXPECT_EQ(Read(10), "");  // somebody may write
    ASSERT_EQ(::write(fd.Get(), "text", 4), 4);
    EXPECT_EQ(Read(10), "text");
}

}  // namespace
}  // namespace vok
