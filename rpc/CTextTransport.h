/// What every connection of the broker is read and written through.
#pragma once

#include <thrift/transport/TBufferTransports.h>

#include <cstdint>
#include <memory>

namespace vok {

/// The RPC library's buffered transport, which takes memory for a text only as its bytes come. The
/// library itself would first make room for as much as a peer announces: a few bytes on each of
/// many connections, and the set has no memory left.
///
/// Connections may live for ever: the library's count of bytes begins anew with every message.
class CTextTransport : public apache::thrift::transport::TBufferedTransport {
public:
    using TBufferedTransport::TBufferedTransport;

    std::uint32_t readEnd() override;
    /// Never null: the protocol takes all its texts from here. Throws TTransportException when the
    /// peer ends the connection first.
    const std::uint8_t* borrowSlow(std::uint8_t* pIgnored, std::uint32_t* pLength) override;

private:
    void MakeRoom(std::uint32_t nHave, std::uint32_t nNeed);
    [[nodiscard]] bool Resize(std::uint32_t nSize);
};

class CTextTransportFactory : public apache::thrift::transport::TTransportFactory {
public:
    std::shared_ptr<apache::thrift::transport::TTransport> getTransport(
        std::shared_ptr<apache::thrift::transport::TTransport> pTransport) override {
        return std::make_shared<CTextTransport>(pTransport);
    }
};

}  // namespace vok
