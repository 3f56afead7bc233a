#include "rpc/CTextTransport.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace vok {

using apache::thrift::transport::TTransportException;

std::uint32_t CTextTransport::readEnd() {
    resetConsumedMessageSize();
    // What one long text has taken is not kept for the rest of the connection, also when the next
    // message is on its way. Kept is it only while there is no memory to do without it.
    if (rBufSize_ > DEFAULT_BUFFER_SIZE && rBound_ - rBase_ <= DEFAULT_BUFFER_SIZE)
        (void)Resize(DEFAULT_BUFFER_SIZE);
    return 0;
}

const std::uint8_t* CTextTransport::borrowSlow(std::uint8_t* /*pIgnored*/, std::uint32_t* pLength) {
    auto nHave = static_cast<std::uint32_t>(rBound_ - rBase_);
    while (nHave < *pLength) {
        MakeRoom(nHave, *pLength);
        const std::uint32_t nRead = transport_->read(rBuf_.get() + nHave, rBufSize_ - nHave);
        if (nRead == 0)
            throw TTransportException(TTransportException::END_OF_FILE, "No more data to read.");
        nHave += nRead;
        setReadBuffer(rBuf_.get(), nHave);
    }
    *pLength = nHave;
    return rBase_;
}

/// Afterwards, the unread bytes begin the buffer, and there is room for more behind them.
void CTextTransport::MakeRoom(std::uint32_t nHave, std::uint32_t nNeed) {
    if (rBase_ != rBuf_.get()) {
        std::memmove(rBuf_.get(), rBase_, nHave);
        setReadBuffer(rBuf_.get(), nHave);
    }
    // At most twice of what has come.
    if (nHave == rBufSize_ && !Resize(rBufSize_ > nNeed / 2 ? nNeed : rBufSize_ * 2))
        throw std::bad_alloc();
}

/// The unread bytes stay, and begin the buffer then. False, and nothing changes, without memory.
bool CTextTransport::Resize(std::uint32_t nSize) {
    const auto nHave = static_cast<std::uint32_t>(rBound_ - rBase_);
    boost::scoped_array<std::uint8_t> buffer{new (std::nothrow) std::uint8_t[nSize]};
    if (!buffer) return false;
    std::memcpy(buffer.get(), rBase_, nHave);
    rBuf_.swap(buffer);
    rBufSize_ = nSize;
    setReadBuffer(rBuf_.get(), nHave);
    return true;
}

}  // namespace vok
