/// Names for the threads of connections: what a call did last.
#pragma once

#include <cstring>

#include "platform/Log.h"
#include "platform/ThreadMaker.h"

namespace vok {

/// Names the calling thread on behalf of `szOperation`. The name stays for later calls on the same
/// connection.
inline void NameConnectionThread(const char* szOperation, const char* szName) {
    VOK_LOG_AS(szOperation, LEVEL_DETAIL, "ThreadName:[%s] len:[%d]", szName,
               static_cast<int>(std::strlen(szName)));
    ThreadMaker::NameThisThread(szName);
}

}  // namespace vok
