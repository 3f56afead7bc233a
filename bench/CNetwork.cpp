#include "bench/CNetwork.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace vok::bench {

namespace {

void Check(bool bOk, const char* szStep) {
    if (!bOk) throw std::system_error(errno, std::generic_category(), szStep);
}

CUniqueFd OwnNetwork() {
    CUniqueFd fd{::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)};
    Check(fd.IsOpen(), "/proc/thread-self/ns/net");
    return fd;
}

void RaiseLoopback() {
    const CUniqueFd fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    Check(fd.IsOpen() && ::ioctl(fd.Get(), SIOCSIFFLAGS, &request) == 0, "raising lo");
}

}  // namespace

CNetwork::CNetwork() : m_Network(OwnNetwork()) {
    const CVisit comeBack{this};  // which is home so far
    Check(::unshare(CLONE_NEWNET) == 0, "a new network");
    RaiseLoopback();
    m_Network = OwnNetwork();
}

CNetwork::CVisit::CVisit(const CNetwork* pNetwork) {
    if (pNetwork == nullptr) return;
    m_Home = OwnNetwork();
    Check(::setns(pNetwork->m_Network.Get(), CLONE_NEWNET) == 0, "entering a network");
}

CNetwork::CVisit::~CVisit() {
    if (m_Home.IsOpen()) (void)::setns(m_Home.Get(), CLONE_NEWNET);
}

}  // namespace vok::bench
