/// Log records in a form that whole sequences of them can be compared in.
#pragma once

#include <string>
#include <vector>

#include "tests/support/CLogCapture.h"

namespace vok::test {

/// "<level> <function>: <message>" for every record, in the order in which they came.
inline std::vector<std::string> LogLines(const CLogCapture& log) {
    std::vector<std::string> lines;
    for (const LogRecord& record : log.Records())
        lines.push_back(std::to_string(record.nLevel) + ' ' + record.Function() + ": " +
                        record.strMessage);
    return lines;
}

}  // namespace vok::test
