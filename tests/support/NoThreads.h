/// What happens when the system gives no more threads.
#pragma once

#include <functional>

namespace vok::test {

/// Runs `run` on a thread of its own, for which every pthread_create fails with EAGAIN. False, and
/// nothing has run, where that cannot be arranged.
bool RunWithoutThreads(const std::function<void()>& run);

}  // namespace vok::test
