// A long text arrives while memory is short: its connection ends, and nothing is kept.
#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>
#include <new>
#include <string>

#include "rpc/CTextTransport.h"
#include "tests/alloc/Allocations.h"

namespace vok::test {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;

/// A connection that has brought one long text, and its protocol.
struct Connection {
    explicit Connection(const std::string& strText) {
        TBinaryProtocol{pBytes}.writeString(strText);
    }

    const std::shared_ptr<TMemoryBuffer> pBytes = std::make_shared<TMemoryBuffer>();
    const std::shared_ptr<CTextTransport> pTransport = std::make_shared<CTextTransport>(pBytes);
    TBinaryProtocol protocol{pTransport};
};

TEST(TextTransportAllocation, TextArrivesOrItsConnectionEnds) {
    const std::string strSent(20'000, 'x');
    const long nBlocks = CFailingAllocations::LiveBlocks();
    bool bArrived = false;
    for (long nFirst = 1; !bArrived; ++nFirst) {
        Connection connection{strSent};
        std::string strText;
        bool bFailed = false;
        {
            const CFailingAllocations failing{nFirst, CFailingAllocations::ONCE};
            try {
                (void)connection.protocol.readString(strText);
                connection.pTransport->readEnd();
                bArrived = true;
            } catch (const std::bad_alloc&) {
            }
            bFailed = CFailingAllocations::HasFailed();
        }
        ASSERT_EQ(strText, bArrived ? strSent : "") << nFirst;
        ASSERT_TRUE(bArrived || bFailed) << nFirst;
    }
    EXPECT_EQ(CFailingAllocations::LiveBlocks(), nBlocks);
}

}  // namespace
}  // namespace vok::test
