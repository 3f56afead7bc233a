/// What stands between a client's bytes and the broker's operations.
#pragma once

#include <thrift/TProcessor.h>

#include <memory>

#include "VokBroker.h"

namespace vok {

/// For connections with the transport and protocol of `CRpcServer.h`, whose classes it calls
/// directly; with any others it works, too, as every processor does.
std::shared_ptr<apache::thrift::TProcessor> MakeBrokerProcessor(
    const std::shared_ptr<VokBrokerIf>& pHandler);

}  // namespace vok
