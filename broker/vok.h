/// The function interface through which a host process drives one broker.
///
///     std::thread broker{[] { vok_BrokerStart(); }};    // blocks until the broker stops
///     while (!vok_IsBrokerServerRunning()) ...
///     vok_GetBroker()->Destory();
///     broker.join();
///
/// All functions may be called from any thread. Before the broker exists, those that need one do
/// nothing and answer false or null.
#pragma once

#include <string>

#include "broker/Export.h"

namespace vok {
class CBroker;
}

// std::string crosses this interface although its functions are C symbols: hosts are C++ and find
// them by plain name.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

extern "C" {

/// Makes the broker and serves until it is stopped (`CBroker::Destory`). At once when it was made
/// before. Returns 0.
VOK_EXPORT int vok_BrokerStart();

/// True when the loopback interface is up.
VOK_EXPORT bool vok_CheckLoopback();

/// True once the broker's server has answered.
VOK_EXPORT bool vok_IsBrokerServerRunning();

/// The framework's version, "5.100".
VOK_EXPORT std::string vok_GetVersion();

/// Closes the connections of clients that no longer answer. Never throws.
VOK_EXPORT void vok_PingTest_For_Webkit();

/// Closes every connection of an application.
VOK_EXPORT void vok_CloseAllEmpWithAppID(const std::string& strAppId,
                                         const std::string& strWidgetId);

}  // extern "C"

#if defined(__clang__)
#pragma clang diagnostic pop
#endif

/// The broker; null before the first vok_BrokerStart. It is the caller's to delete, once it has
/// stopped.
VOK_EXPORT vok::CBroker* vok_GetBroker();

/// Switches the pinging of EMPs on and off.
VOK_EXPORT void vok_BrokerEnablePingTest();
VOK_EXPORT void vok_BrokerDisablePingTest();
