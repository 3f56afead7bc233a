/// Descriptors for the test itself.
#pragma once

#include <sys/resource.h>

#include <algorithm>

namespace vok::test {

/// True when the calling process may have so many descriptors open, now or before.
inline bool RaiseOwnLimit(rlim_t nDescriptors) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    if (limit.rlim_cur >= nDescriptors) return true;
    limit.rlim_cur = nDescriptors;
    limit.rlim_max = std::max(limit.rlim_max, nDescriptors);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

}  // namespace vok::test
