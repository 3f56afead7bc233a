/// A pool of port numbers.
#pragma once

#include <bitset>

#include "platform/Limits.h"

namespace vok {

/// Hands out the ports kFirstPoolPort to kLastPoolPort. Not thread-safe: its owner locks.
class CSocketPorts {
public:
    /// A free port, the lowest first; -1 when none is left.
    int Lease();

    /// Gives a leased port back. 0, or -1 when it is not out.
    int Return(int nPort);

private:
    std::bitset<kLastPoolPort - kFirstPoolPort + 1> m_Leased;
};

}  // namespace vok
