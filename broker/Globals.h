/// The state of the process around its one broker.
#pragma once

#include <atomic>

#include "platform/CMutex.h"

namespace vok {

class CBroker;

/// Serialises vok_BrokerStart; held for as long as the broker serves.
extern CMutex vok_mutex;

/// Tells the framework's logging that client log information is set up.
extern bool is_vok_client_log_info_initialized;

/// Called by vok_BrokerStart as soon as the broker exists, when set; null in a host. The daemon
/// lets its stop signal in here, so that one which came earlier finds the broker that it is meant
/// for.
extern void (*g_pfnBrokerCreated)();

}  // namespace vok

/// The one broker, null until vok_BrokerStart has made it. Read by the signal handler.
extern std::atomic<vok::CBroker*> g_pBroker;
static_assert(std::atomic<vok::CBroker*>::is_always_lock_free);

/// True once the broker exists.
extern std::atomic<bool> g_bBrokerCreated;

/// "LD_LIBRARY_PATH=" and the broker's own library path, for the environment of EMPs; null when it
/// was never set or is too long. Allocated with malloc.
extern char* gpVokBrokerLibraryPath;

/// True when the broker's RPC server has stopped serving.
extern std::atomic<bool> gbVokBrokerServerFail;
