#include "rpc/BrokerProcessor.h"

#include "rpc/CRpcServer.h"

namespace vok {

std::shared_ptr<apache::thrift::TProcessor> MakeBrokerProcessor(
    const std::shared_ptr<VokBrokerIf>& pHandler) {
    return std::make_shared<VokBrokerProcessorT<CServerProtocol>>(pHandler);
}

}  // namespace vok
