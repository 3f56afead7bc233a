#include "platform/CSocketPorts.h"

#include "platform/Limits.h"

namespace vok {

CSocketPorts::CSocketPorts() {
    for (int nPort = kFirstPoolPort; nPort <= kLastPoolPort; ++nPort) {
        m_setFree.insert(m_setFree.end(), nPort);
    }
}

int CSocketPorts::Lease() {
    if (m_setFree.empty()) return -1;
    const int nPort = *m_setFree.begin();
    m_setFree.erase(m_setFree.begin());
    return nPort;
}

int CSocketPorts::Return(int nPort) {
    if (nPort < kFirstPoolPort || nPort > kLastPoolPort) return -1;
    return m_setFree.insert(nPort).second ? 0 : -1;
}

}  // namespace vok
