#include "broker/Globals.h"

namespace vok {

CMutex vok_mutex;
bool is_vok_client_log_info_initialized = false;
void (*g_pfnBrokerCreated)() = nullptr;

}  // namespace vok

std::atomic<vok::CBroker*> g_pBroker{nullptr};
std::atomic<bool> g_bBrokerCreated{false};
char* gpVokBrokerLibraryPath = nullptr;
std::atomic<bool> gbVokBrokerServerFail{false};
