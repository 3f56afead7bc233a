/// Whether the broker holds a lock.
#pragma once

#include "tests/support/BrokerProbe.h"

namespace vok::test {

/// Takes the broker's locks one after the other. Called by a peer that serves a call of the broker,
/// it returns only when the broker holds none meanwhile.
inline void TakeEveryLock(CBroker& broker) {
    (void)BrokerProbe::MountCounts(broker);
    BrokerProbe::TakeCountUpdateLock(broker);
    (void)BrokerProbe::Tickets(broker);
    BrokerProbe::TakeSerialLock();
    (void)BrokerProbe::Launchers(broker);
    (void)BrokerProbe::Groups(broker);
    (void)BrokerProbe::EmpInfo(broker).IsAdded("");
    (void)BrokerProbe::ConnectionDB(broker).GetConnectionKeyList();
}

}  // namespace vok::test
