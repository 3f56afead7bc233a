/// A network of its own, for what insists on a port that is taken here.
#pragma once

#include "platform/CUniqueFd.h"

namespace vok::bench {

/// A network in which nothing but `lo` is, and that is up. It lasts as long as anything uses it.
class CNetwork {
public:
    /// Throws std::system_error when that is not permitted.
    CNetwork();

    /// Until its end, the calling thread is in the network: what it makes meanwhile (sockets,
    /// threads, processes) stays there. Null: it stays where it is.
    class CVisit {
    public:
        explicit CVisit(const CNetwork* pNetwork);
        ~CVisit();
        CVisit(const CVisit&) = delete;
        CVisit& operator=(const CVisit&) = delete;

    private:
        CUniqueFd m_Home;
    };

private:
    CUniqueFd m_Network;
};

}  // namespace vok::bench
