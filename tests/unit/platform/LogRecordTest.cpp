#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>

#include "platform/LogRecord.h"

namespace vok {
namespace {

using ::testing::MatchesRegex;

struct Formatted {
    int nLength = 0;
    std::string strText;  // up to its end, when there was room for one
};

bool operator==(const Formatted& one, const Formatted& other) {
    return one.nLength == other.nLength && one.strText == other.strText;
}

void PrintTo(const Formatted& formatted, std::ostream* pStream) {
    *pStream << formatted.nLength << " [" << formatted.strText << ']';
}

using Formatter = int (*)(char*, std::size_t, const char*, va_list);

Formatted FormatWith(Formatter pFormatter, std::size_t nSize, const char* szFormat, ...) {
    std::string strRoom(nSize + 1, '#');  // one more than may be written to
    va_list args;
    va_start(args, szFormat);
    Formatted formatted;
    formatted.nLength = pFormatter(strRoom.data(), nSize, szFormat, args);
    va_end(args);
    formatted.strText = nSize == 0 ? strRoom : strRoom.c_str();
    EXPECT_EQ(strRoom[nSize], '#');
    return formatted;
}

/// Both of a format and its arguments: what is under test, and the C library.
#define EXPECT_AS_VSNPRINTF(size, ...)                       \
    EXPECT_EQ(FormatWith(&FormatMessage, size, __VA_ARGS__), \
              FormatWith(&std::vsnprintf, size, __VA_ARGS__))

class FormatMessageOfSize : public ::testing::TestWithParam<std::size_t> {};

TEST_P(FormatMessageOfSize, IsWhatTheCLibraryMakes) {
    const std::size_t nSize = GetParam();
    const char* const szNone = nullptr;
    EXPECT_AS_VSNPRINTF(nSize, "%s", "");
    EXPECT_AS_VSNPRINTF(nSize, "plain, without any");
    EXPECT_AS_VSNPRINTF(nSize, "%s", "text");
    EXPECT_AS_VSNPRINTF(nSize, "%s%s", "one", "two");
    EXPECT_AS_VSNPRINTF(nSize, "[VOK][%s::%s(%d)] ", "CEmpInfo", "Add", 124);
    EXPECT_AS_VSNPRINTF(nSize, "%d %d %d %d", 0, -1, INT_MAX, INT_MIN);
    EXPECT_AS_VSNPRINTF(nSize, "name:[%s], at the end %d", "Weather", 7);
    EXPECT_AS_VSNPRINTF(nSize, "[%s]", szNone);
    EXPECT_AS_VSNPRINTF(nSize, "100%% of %s", "it");
    EXPECT_AS_VSNPRINTF(nSize, "%s at %p with %5d and %u, %c", "a", "b", 42, 4711U, 'x');
    EXPECT_AS_VSNPRINTF(nSize, "%.3s|%-6s|%ld", "abcdef", "ab", 123456789L);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FormatMessageOfSize, ::testing::Values(0, 1, 2, 5, 12, 64, 1024));

TEST(PutRecordHead, HasTimeIdsAndLevel) {
    char szHead[kMostOfRecordHead + 1] = {};
    const std::size_t nLength = PutRecordHead(szHead, -2147483647);
    EXPECT_EQ(nLength, std::strlen(szHead));
    EXPECT_THAT(szHead, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.]"
                                     "[0-9]{6} [0-9]+ [0-9]+ -2147483647 "));
}

}  // namespace
}  // namespace vok
