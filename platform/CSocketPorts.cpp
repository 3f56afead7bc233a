#include "platform/CSocketPorts.h"

#include <cstddef>

namespace vok {

int CSocketPorts::Lease() {
    if (m_Leased.all()) return -1;
    std::size_t nFree = 0;
    while (m_Leased.test(nFree)) ++nFree;
    m_Leased.set(nFree);
    return kFirstPoolPort + static_cast<int>(nFree);
}

int CSocketPorts::Return(int nPort) {
    if (nPort < kFirstPoolPort || nPort > kLastPoolPort) return -1;
    const auto nPlace = static_cast<std::size_t>(nPort - kFirstPoolPort);
    if (!m_Leased.test(nPlace)) return -1;
    m_Leased.reset(nPlace);
    return 0;
}

}  // namespace vok
