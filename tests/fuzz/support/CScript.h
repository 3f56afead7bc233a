/// Calls and what happens meanwhile, as lines of text: what targets that call the broker read.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vok::test {

/// One line: its texts, separated by tabs, and the lines below it that stand one blank deeper.
///
///     OpenEmp <tab> 50700 <tab> Weather <tab> 1.0 <tab> App
///      Execute <tab> <tab> __BROKER_CMD_NOTIFY_EMP_SERVER_INFO <tab> @ <tab> 50610|901 ...
struct ScriptLine {
    std::vector<std::string> texts;
    std::vector<ScriptLine> meanwhile;

    /// Empty when the line has no such text.
    const std::string& Text(std::size_t nIndex) const;
};

/// Any bytes make a script: what is too deep is taken as less deep, and what is too long is left
/// out.
std::vector<ScriptLine> ParseScript(std::string_view strText);

}  // namespace vok::test
