/// Reading small files whole.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace vok {

/// A file's content, at most `nMost` bytes of it; none when it cannot be opened. Never waits,
/// whatever kind of file it is: a FIFO or a terminal gives what there is.
std::optional<std::string> ReadTextFile(const char* szPath, std::size_t nMost);

}  // namespace vok
