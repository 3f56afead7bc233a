/// The broker's peers (EMPs, launchers, clients), without a socket.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "rpc/CallOnce.h"

namespace vok::test {

/// What a peer does when it is called.
struct PeerAnswer {
    enum eKind { REFUSES, HANGS_UP, ANSWERS, GARBAGE };
    eKind kind = REFUSES;
    std::int32_t nNumber = 0;  // of an answer that is a number
    std::string strText;       // of an answer that is a text; the garbage
};

/// For as long as it lives, no call of the broker leaves the process: every connection to a peer
/// ends here. One at a time. The binary is linked with --wrap of MakeRpcSocket.
class CPeersInMemory {
public:
    /// Asked at every connect, on the thread that connects.
    using Script = std::function<PeerAnswer()>;

    explicit CPeersInMemory(Script script);
    ~CPeersInMemory();
    CPeersInMemory(const CPeersInMemory&) = delete;
    CPeersInMemory& operator=(const CPeersInMemory&) = delete;
};

}  // namespace vok::test
