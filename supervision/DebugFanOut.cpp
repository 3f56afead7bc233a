// A change of the debug level reaches everybody who is connected.
#include "broker/CBroker.h"
#include "platform/Log.h"

namespace vok {

void CBroker::OnSetDebugLevel(unsigned int nLevel) {
    VOK_LOG(LEVEL_DETAIL, "The debug level [%u] is not passed on yet.", nLevel);
}

}  // namespace vok
