// The function interface of the broker.
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <new>

#include "broker/CBroker.h"
#include "broker/Globals.h"
#include "broker/vok.h"
#include "platform/CUniqueFd.h"
#include "platform/Limits.h"

namespace {

/// Serves as soon as the loopback interface is up.
void StartWhenLoopbackIsUp(vok::CBroker& broker) {
    for (int nTry = 0; nTry < vok::kLoopbackTries; ++nTry) {
        if (vok_CheckLoopback()) {
            (void)broker.StartServer();  // it has logged why, when it failed
            return;
        }
        vok::LinuxPlatform().pClock->Sleep(vok::kLoopbackPause);
    }
}

}  // namespace

int vok_BrokerStart() {
    const vok::CLock lock{vok::vok_mutex};
    if (g_bBrokerCreated) return 0;

    g_pBroker = new vok::CBroker;
    g_bBrokerCreated = true;
    if (vok::g_pfnBrokerCreated != nullptr) vok::g_pfnBrokerCreated();
    StartWhenLoopbackIsUp(*g_pBroker);
    return 0;
}

bool vok_CheckLoopback() {
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);

    const vok::CUniqueFd fd{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd.IsOpen()) return false;
    return ::ioctl(fd.Get(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
}

bool vok_IsBrokerServerRunning() {
    vok::CBroker* const pBroker = g_pBroker;
    return pBroker != nullptr && pBroker->GetIsBrokerServerRunning();
}

std::string vok_GetVersion() {
    return vok::CVokWrapper::GetVokVersion();
}

void vok_PingTest_For_Webkit() {
    try {
        if (vok::CBroker* const pBroker = g_pBroker; pBroker != nullptr)
            pBroker->PingTest_For_Webkit();
    } catch (...) {
        // The browser's side is not built for exceptions.
    }
}

void vok_CloseAllEmpWithAppID(const std::string& strAppId, const std::string& strWidgetId) {
    if (vok::CBroker* const pBroker = g_pBroker; pBroker != nullptr)
        pBroker->CloseAllEmpWithAppID(strAppId, strWidgetId);
}

vok::CBroker* vok_GetBroker() {
    return g_bBrokerCreated ? g_pBroker.load() : nullptr;
}

void vok_BrokerEnablePingTest() {
    if (vok::CBroker* const pBroker = g_pBroker; pBroker != nullptr) pBroker->EnablePingTest(true);
}

void vok_BrokerDisablePingTest() {
    if (vok::CBroker* const pBroker = g_pBroker; pBroker != nullptr) pBroker->EnablePingTest(false);
}
