// A host that uses the broker's class. It starts none here: that takes root and the port.
#include <broker/CBroker.h>
#include <broker/vok.h>

#include <cstdio>

#include "vok_admin_types.h"

int main() {
    vok::admin::BrokerState state;
    vok::ConnectionInfo info;
    if (vok::CBroker* const pBroker = vok_GetBroker(); pBroker != nullptr) {
        pBroker->GetState(state);
        pBroker->OpenEmp(info, "40001", "NotInstalled", "1.0", "consumer");
    }
    std::printf("%s %d.%d %zu\n", vok::CBroker::GetFullVersion().c_str(),
                vok::CBroker::GetMajorVersion(), vok::CBroker::GetMinorVersion(),
                state.emps.size());
}
