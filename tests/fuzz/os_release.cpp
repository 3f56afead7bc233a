// The file that names the system, which fault reports tell.
//
// Input: a line with the name of a variable, then the text of os-release(5).
#include <algorithm>
#include <string>
#include <string_view>

#include "platform/SystemInfo.h"
#include "tests/fuzz/support/Target.h"

namespace vok::test {
namespace {

std::string Quote(std::string_view strText) {
    std::string strQuoted = "\"";
    for (const char c : strText) {
        if (c == '"' || c == '$' || c == '`' || c == '\\') strQuoted += '\\';
        strQuoted += c;
    }
    return strQuoted + '"';
}

}  // namespace
}  // namespace vok::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    using vok::test::Require;
    const std::string_view strInput{reinterpret_cast<const char*>(pData), nSize};
    const std::size_t nEnd = std::min(strInput.find('\n'), strInput.size());
    const std::string strVariable{strInput.substr(0, nEnd)};
    const std::string strText{strInput.substr(std::min(nEnd + 1, strInput.size()))};

    const std::string strValue = vok::OsReleaseValue(strText, strVariable);
    Require(strValue.size() <= strText.size(), "a value is a part of the text");
    Require(strValue.find('\n') == std::string::npos, "a value is in one line");
    const std::string strAgain =
        strText + '\n' + strVariable + '=' + vok::test::Quote(strValue) + '\n';
    Require(vok::OsReleaseValue(strAgain, strVariable) == strValue, "what is quoted stays");
    return 0;
}
