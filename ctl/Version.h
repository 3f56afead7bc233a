/// vokctl's own version: that of the broker it is built with.
#pragma once

namespace vok::ctl {

inline constexpr char kVersion[] = VOK_VERSION;

}  // namespace vok::ctl
