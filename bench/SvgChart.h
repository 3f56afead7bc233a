/// The ratios as a picture.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/Statistics.h"

namespace vok::bench {

struct SvgBar {
    std::string strLabel;
    std::string strNote;  // in small letters, below the label
    Summary value;
    std::optional<double> target;
    bool bMissed = false;
};

/// A bar for each value, with its quartiles, and a mark where its target is. `strTitle` stands
/// above, `strFootnote` below. Well-formed whatever the texts are.
std::string SvgChart(const std::string& strTitle, const std::string& strFootnote,
                     const std::vector<SvgBar>& bars);

}  // namespace vok::bench
