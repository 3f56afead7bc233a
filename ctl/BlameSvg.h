/// Where the time of opens went, as a picture.
#pragma once

#include <string>
#include <vector>

#include "ctl/Blame.h"

namespace vok::ctl {

/// A self-contained SVG: a lane for each open, in the order given, over an axis of time that begins
/// with each open's begin; a legend; what a lane shows in words where the pointer rests on it.
/// Without any open, `strNone` stands there.
std::string BlameSvg(const std::vector<OpenSpans>& opens,
                     const std::string& strNone = NoOpens("", 0));

/// Whether a path is a file that WriteFileAtOnce would replace, or nothing yet: not a device, a
/// pipe or a link, of which /dev/stdout is one.
bool IsFileOrMissing(const std::string& strPath);

/// Replaces a file by this content, at once: whoever reads it meanwhile sees the old one or the new
/// one. Throws CFailure, and leaves the old one, when that is not possible.
void WriteFileAtOnce(const std::string& strPath, const std::string& strContent);

}  // namespace vok::ctl
