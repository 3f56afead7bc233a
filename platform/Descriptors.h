/// The process's descriptors and their limit.
#pragma once

#include <sys/resource.h>

#include <functional>
#include <optional>
#include <set>

namespace vok {

/// Sets close-on-exec on every open descriptor above 2 and tells `onOff` of each that lacked it.
/// Costs what the open ones cost (/proc/self/fd), whatever the limit is; next to nothing when
/// `onOff` is empty.
void SetCloseOnExec(const std::function<void(int nFd)>& onOff);

/// Sets close-on-exec on one descriptor; for those that a library has opened.
void SetCloseOnExec(int nFd);

/// The open descriptors above 2 that lack close-on-exec.
std::set<int> InheritableDescriptors();

/// Raises the soft limit of open descriptors to the hard one and remembers what it was.
void RaiseDescriptorLimit();

/// The limit as it was before it was raised; none when it was not.
std::optional<rlimit> OriginalDescriptorLimit();

/// How many descriptors the process may have open now.
rlim_t DescriptorLimit();

}  // namespace vok
