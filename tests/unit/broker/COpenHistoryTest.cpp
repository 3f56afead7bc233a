#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "broker/COpenHistory.h"

namespace vok {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

OpenTrace Trace(std::int64_t nSerial) {
    OpenTrace trace{};
    trace.nSerial = nSerial;
    return trace;
}

class COpenHistoryTest : public ::testing::Test {
protected:
    std::vector<OpenRecord> Records() const {
        std::vector<OpenRecord> records;
        m_History.CopyNewestFirst(records);
        return records;
    }
    std::vector<std::int64_t> Serials() const {
        std::vector<std::int64_t> serials;
        for (const OpenRecord& record : Records()) serials.push_back(record.trace.nSerial);
        return serials;
    }

    COpenHistory m_History;
};

TEST_F(COpenHistoryTest, StartsEmpty) {
    EXPECT_THAT(Records(), IsEmpty());
}

TEST_F(COpenHistoryTest, KeepsWhatItIsGiven) {
    const OpenTrace trace{1s, 2s, 3s, 4s, 5s, 6s, 7, EMPLOCATION_GROUPING, OPEN_STARTED};
    m_History.Add(trace, "Weather", "/run/client.sock");

    const std::vector<OpenRecord> records = Records();

    ASSERT_EQ(records.size(), 1u);
    const OpenTrace& kept = records[0].trace;
    EXPECT_THAT((std::vector{kept.begin, kept.located, kept.mounted, kept.started, kept.reported,
                             kept.answered}),
                ElementsAre(1s, 2s, 3s, 4s, 5s, 6s));
    EXPECT_EQ(kept.nSerial, 7);
    EXPECT_EQ(kept.location, EMPLOCATION_GROUPING);
    EXPECT_EQ(kept.eOutcome, OPEN_STARTED);
    EXPECT_EQ(records[0].emp.Get(), "Weather");
    EXPECT_EQ(records[0].clientPort.Get(), "/run/client.sock");
}

TEST_F(COpenHistoryTest, TellsTheNewestFirst) {
    for (const int nSerial : {3, 1, 2}) m_History.Add(Trace(nSerial), "Weather", "40001");

    EXPECT_THAT(Serials(), ElementsAre(2, 1, 3));
}

TEST_F(COpenHistoryTest, ForgetsTheOldest) {
    constexpr std::int64_t kMost = kKeptOpens;
    for (std::int64_t n = 0; n < kMost; ++n) m_History.Add(Trace(n), "Weather", "40001");
    EXPECT_EQ(Serials().size(), kKeptOpens);
    EXPECT_EQ(Serials().back(), 0);

    for (std::int64_t n = kMost; n < 3 * kMost + 7; ++n) m_History.Add(Trace(n), "", "");

    const std::vector<std::int64_t> serials = Serials();
    ASSERT_EQ(serials.size(), kKeptOpens);
    for (std::int64_t n = 0; n < kMost; ++n)
        EXPECT_EQ(serials[static_cast<std::size_t>(n)], 3 * kMost + 6 - n);
    EXPECT_EQ(Records().back().emp.Get(), "");
}

TEST_F(COpenHistoryTest, CopiesBehindWhatIsThere) {
    m_History.Add(Trace(1), "Weather", "40001");
    std::vector<OpenRecord> records(1);
    records[0].trace.nSerial = 77;

    m_History.CopyNewestFirst(records);

    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].trace.nSerial, 77);
    EXPECT_EQ(records[1].trace.nSerial, 1);
}

struct CutCase {
    const char* szName;
    std::string strText;
    std::string strKept;  // of 7 bytes
};
void PrintTo(const CutCase& c, std::ostream* pStream) {
    *pStream << c.szName;
}

class CutTextTest : public ::testing::TestWithParam<CutCase> {};

TEST_P(CutTextTest, KeepsTheBeginning) {
    CutText<7> text{};
    text.Set("before");
    text.Set(GetParam().strText);

    EXPECT_EQ(text.Get(), GetParam().strKept);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CutTextTest,
    ::testing::Values(
        CutCase{"Nothing", "", ""}, CutCase{"Short", "abc", "abc"},
        CutCase{"Full", "abcdefg", "abcdefg"}, CutCase{"OneTooMany", "abcdefgh", "abcdefg"},
        CutCase{"Zeros", "\0a\0b"s, "\0a\0b"s},
        CutCase{"LongZeros", std::string(300, '\0'), std::string(7, '\0')},
        CutCase{"CharacterOf2AtTheEnd", "abcde\xc3\xa4-", "abcde\xc3\xa4"},
        CutCase{"CharacterOf2Beyond", "abcdef\xc3\xa4", "abcdef"},
        CutCase{"CharacterOf3Half", "abcde\xe2\x82\xac", "abcde"},
        CutCase{"CharacterOf4Half", "abcd\xf0\x9f\x93\xba", "abcd"},
        CutCase{"CharacterOf4AtTheEnd", "abc\xf0\x9f\x93\xba-", "abc\xf0\x9f\x93\xba"},
        CutCase{"NoText", "\x80\x80\x80\x80\x80\x80\x80\x80\x80", "\x80\x80\x80\x80\x80\x80\x80"},
        CutCase{"FullWithHalfACharacter", "abcdef\xc3", "abcdef\xc3"}),
    [](const auto& info) { return info.param.szName; });

}  // namespace
}  // namespace vok
