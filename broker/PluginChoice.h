#pragma once

namespace vok {

/// Which plug-in image is mounted: true for the installed update, false for the built-in one.
/// Versions as read, 0.0 when there is none; `bUpdateHasContent`: the update's file can be opened
/// and is not empty.
bool PrefersUpdate(double dUpdate, double dBuiltIn, bool bUpdateHasContent);

}  // namespace vok
