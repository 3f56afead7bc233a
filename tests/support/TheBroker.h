/// The state of the process around its one broker, for the time of a test.
#pragma once

#include "broker/Globals.h"

namespace vok::test {

/// Makes a broker the one of the process, which vok_GetBroker answers.
class CTheBroker {
public:
    explicit CTheBroker(CBroker& broker) {
        g_pBroker = &broker;
        g_bBrokerCreated = true;
    }
    ~CTheBroker() {
        g_pBroker = nullptr;
        g_bBrokerCreated = false;
    }
    CTheBroker(const CTheBroker&) = delete;
    CTheBroker& operator=(const CTheBroker&) = delete;
};

/// The broker's RPC server has failed for as long as this lives.
class CServerFailed {
public:
    CServerFailed() { gbVokBrokerServerFail = true; }
    ~CServerFailed() { gbVokBrokerServerFail = false; }
    CServerFailed(const CServerFailed&) = delete;
    CServerFailed& operator=(const CServerFailed&) = delete;
};

}  // namespace vok::test
