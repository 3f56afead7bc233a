// A service that the message bus starts on demand: owns its name, answers one method, ends on
// request or with its connection.
#include <dbus/dbus.h>

#include <cstdio>
#include <cstdlib>

#include "bench/activators/BusService.h"

namespace {

using namespace vok::bench;

/// False when the service is to end.
bool Handle(DBusConnection* pBus, DBusMessage* pMessage) {
    if (dbus_message_is_method_call(pMessage, kBusInterface, kBusQuit) != FALSE) return false;
    if (dbus_message_is_method_call(pMessage, kBusInterface, kBusAnswer) != FALSE) {
        DBusMessage* const pReply = dbus_message_new_method_return(pMessage);
        dbus_connection_send(pBus, pReply, nullptr);
        dbus_connection_flush(pBus);
        dbus_message_unref(pReply);
    }
    return true;
}

void Serve(DBusConnection* pBus) {
    do {  // a call may have come together with the name
        while (DBusMessage* const pMessage = dbus_connection_pop_message(pBus)) {
            const bool bGoOn = Handle(pBus, pMessage);
            dbus_message_unref(pMessage);
            if (!bGoOn) return;
        }
    } while (dbus_connection_read_write(pBus, -1) != FALSE);
}

}  // namespace

int main() {
    DBusConnection* const pBus = dbus_bus_get_private(DBUS_BUS_STARTER, nullptr);
    if (pBus == nullptr) {
        std::fprintf(stderr, "This is a service of a message bus: the bus starts it.\n");
        return EXIT_FAILURE;
    }
    dbus_connection_set_exit_on_disconnect(pBus, FALSE);
    const int nResult = dbus_bus_request_name(pBus, kBusName, DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr);
    if (nResult == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) Serve(pBus);
    dbus_connection_close(pBus);
    dbus_connection_unref(pBus);
    return nResult == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER ? EXIT_SUCCESS : EXIT_FAILURE;
}
