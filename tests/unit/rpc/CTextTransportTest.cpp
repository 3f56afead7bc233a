#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "rpc/CTextTransport.h"
#include "rpc/CallOnce.h"

namespace vok::test {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TTransportException;
using namespace std::string_literals;

/// A connection that brings some bytes, a few at a time, and remembers how much was asked for.
class CPeer : public apache::thrift::transport::TTransport {
public:
    CPeer(std::string strBytes, std::uint32_t nEach)
        : m_strBytes(std::move(strBytes)), m_nEach(nEach) {}
    bool isOpen() const override { return true; }
    std::uint32_t read_virt(std::uint8_t* pBytes, std::uint32_t nMost) override {
        m_nMost = std::max(m_nMost, nMost);
        m_nLast = nMost;
        const std::size_t nRead =
            m_strBytes.copy(reinterpret_cast<char*>(pBytes), std::min(nMost, m_nEach), m_nRead);
        m_nRead += nRead;
        return static_cast<std::uint32_t>(nRead);
    }
    std::uint32_t Most() const { return m_nMost; }
    std::uint32_t Last() const { return m_nLast; }

private:
    const std::string m_strBytes;
    const std::uint32_t m_nEach;
    std::size_t m_nRead = 0;
    std::uint32_t m_nMost = 0;
    std::uint32_t m_nLast = 0;
};

std::string Length(std::uint32_t nLength) {
    const char bytes[] = {static_cast<char>(nLength >> 24), static_cast<char>(nLength >> 16),
                          static_cast<char>(nLength >> 8), static_cast<char>(nLength)};
    return {bytes, sizeof bytes};
}

class CTextTransportTest : public ::testing::Test {
protected:
    void Connect(const std::string& strBytes, std::uint32_t nEach = 4096) {
        m_pPeer = std::make_shared<CPeer>(strBytes, nEach);
        m_pTransport = std::make_shared<CTextTransport>(m_pPeer);
        m_pProtocol = std::make_unique<TBinaryProtocol>(m_pTransport, kLongestText, 0, false, true);
    }
    std::string ReadText() {
        std::string strText;
        m_pProtocol->readString(strText);
        return strText;
    }

    std::shared_ptr<CPeer> m_pPeer;
    std::shared_ptr<CTextTransport> m_pTransport;
    std::unique_ptr<TBinaryProtocol> m_pProtocol;
};

TEST_F(CTextTransportTest, TextsOfEveryLengthArriveInWhateverPieces) {
    for (const std::uint32_t nEach : {1U, 7U, 512U, 100'000U}) {
        std::string strBytes;
        for (const std::uint32_t nLength : {0U, 1U, 508U, 511U, 512U, 513U, 1024U, 5000U, 3U})
            strBytes +=
                Length(nLength) + std::string(nLength, static_cast<char>('a' + nLength % 26));
        Connect(strBytes, nEach);
        for (const std::uint32_t nLength : {0U, 1U, 508U, 511U, 512U, 513U, 1024U, 5000U, 3U})
            ASSERT_EQ(ReadText(), std::string(nLength, static_cast<char>('a' + nLength % 26)))
                << nLength << " in pieces of " << nEach;
    }
}

TEST_F(CTextTransportTest, MakesNoRoomForWhatIsOnlyAnnounced) {
    Connect(Length(99'000'000) + std::string(3000, 'x'));
    EXPECT_THROW(ReadText(), TTransportException);
    EXPECT_LE(m_pPeer->Most(), 6000U) << "twice of what has come";
}

TEST_F(CTextTransportTest, LongTextIsNotPaidForUntilTheConnectionEnds) {
    Connect(Length(50'000) + std::string(50'000, 'x') + Length(3) + "abc", 50'004);
    EXPECT_EQ(ReadText().size(), 50'000U);
    EXPECT_GT(m_pPeer->Last(), 10'000U);
    m_pTransport->readEnd();
    EXPECT_EQ(ReadText(), "abc");
    EXPECT_LE(m_pPeer->Last(), 512U);
}

TEST_F(CTextTransportTest, LongTextIsNotPaidForByAClientThatIsAlwaysAhead) {
    // The first byte of the next text comes along with the long one.
    Connect(Length(50'000) + std::string(50'000, 'x') + Length(3) + "abc", 50'005);
    EXPECT_EQ(ReadText().size(), 50'000U);
    m_pTransport->readEnd();
    EXPECT_EQ(ReadText(), "abc");
    EXPECT_LE(m_pPeer->Last(), 512U);
}

// The RPC library counts what a connection has brought, and would end it after 100 MiB in all.
TEST_F(CTextTransportTest, ServesAConnectionForEver) {
    const std::string strText(1'000'000, 'x');
    std::string strBytes;
    for (int n = 0; n < 110; ++n) strBytes += Length(1'000'000) + strText;
    Connect(strBytes, 1'000'000);
    for (int n = 0; n < 110; ++n) {
        ASSERT_EQ(ReadText().size(), strText.size()) << n;
        m_pTransport->readEnd();
    }
}

}  // namespace
}  // namespace vok::test
