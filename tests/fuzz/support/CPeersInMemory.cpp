#include "tests/fuzz/support/CPeersInMemory.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include <memory>
#include <utility>

#include "tests/fuzz/support/Target.h"

namespace vok::test {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;

CPeersInMemory::Script s_Script;

/// Writes what a peer answers to the call of an operation: a number, a text, or nothing.
void WriteResult(TBinaryProtocol& protocol, const std::string& strOperation,
                 const PeerAnswer& answer) {
    using namespace apache::thrift::protocol;
    protocol.writeStructBegin("result");
    if (strOperation == "Open" || strOperation == "Close") {
        protocol.writeFieldBegin("success", T_I32, 0);
        protocol.writeI32(answer.nNumber);
        protocol.writeFieldEnd();
    } else if (strOperation != "Callback") {
        protocol.writeFieldBegin("success", T_STRING, 0);
        protocol.writeString(answer.strText);
        protocol.writeFieldEnd();
    }
    protocol.writeFieldStop();
    protocol.writeStructEnd();
}

/// One end of a connection to a peer, which answers the one message that it gets.
class CPeerSocket : public TSocket {
public:
    bool isOpen() const override { return m_bOpen; }

    void open() override {
        m_Answer = s_Script();
        if (m_Answer.kind == PeerAnswer::REFUSES)
            throw TTransportException(TTransportException::NOT_OPEN, "refused");
        m_bOpen = true;
    }

    void close() override { m_bOpen = false; }

    void write(const std::uint8_t* pData, std::uint32_t nSize) override {
        m_pRequest->write(pData, nSize);
    }

    std::uint32_t read(std::uint8_t* pData, std::uint32_t nSize) override {
        if (!m_bAnswered) Answer();
        return m_pReply->read(pData, nSize);
    }

private:
    void Answer() {
        m_bAnswered = true;
        if (m_Answer.kind == PeerAnswer::HANGS_UP) return;
        if (m_Answer.kind == PeerAnswer::GARBAGE) {
            const std::string& strText = m_Answer.strText;
            m_pReply->write(reinterpret_cast<const std::uint8_t*>(strText.data()),
                            static_cast<std::uint32_t>(strText.size()));
            return;
        }
        std::string strOperation;
        apache::thrift::protocol::TMessageType type{};
        std::int32_t nSequence = 0;
        TBinaryProtocol request{m_pRequest};
        request.readMessageBegin(strOperation, type, nSequence);

        TBinaryProtocol reply{m_pReply};
        reply.writeMessageBegin(strOperation, apache::thrift::protocol::T_REPLY, nSequence);
        WriteResult(reply, strOperation, m_Answer);
        reply.writeMessageEnd();
    }

    bool m_bOpen = false;
    bool m_bAnswered = false;
    PeerAnswer m_Answer;
    const std::shared_ptr<TMemoryBuffer> m_pRequest = std::make_shared<TMemoryBuffer>();
    const std::shared_ptr<TMemoryBuffer> m_pReply = std::make_shared<TMemoryBuffer>();
};

}  // namespace

/// Takes the place of MakeRpcSocket in everything that is linked with it.
std::shared_ptr<TSocket> MakePeerSocket(const RpcAddress& address) asm(
    "__wrap__ZN3vok13MakeRpcSocketERKNS_10RpcAddressE");

std::shared_ptr<TSocket> MakePeerSocket(const RpcAddress& /*address*/) {
    Require(static_cast<bool>(s_Script), "a call of the broker outside of an input");
    return std::make_shared<CPeerSocket>();
}

CPeersInMemory::CPeersInMemory(Script script) {
    s_Script = std::move(script);
}

CPeersInMemory::~CPeersInMemory() {
    s_Script = nullptr;
}

}  // namespace vok::test
