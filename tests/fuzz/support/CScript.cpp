#include "tests/fuzz/support/CScript.h"

#include <algorithm>

namespace vok::test {
namespace {

/// An input takes a moment, whatever stands in it.
constexpr int kMostLines = 48;
constexpr std::size_t kDeepest = 3;

/// Takes the text up to the next `cEnd` off the front.
std::string_view TakeUpTo(char cEnd, std::string_view* pText) {
    const std::size_t nEnd = pText->find(cEnd);
    const std::string_view taken = pText->substr(0, nEnd);
    pText->remove_prefix(nEnd == std::string_view::npos ? pText->size() : nEnd + 1);
    return taken;
}

}  // namespace

const std::string& ScriptLine::Text(std::size_t nIndex) const {
    static const std::string strNone;
    return nIndex < texts.size() ? texts[nIndex] : strNone;
}

std::vector<ScriptLine> ParseScript(std::string_view strText) {
    ScriptLine root;
    for (int nLine = 0; nLine < kMostLines && !strText.empty(); ++nLine) {
        std::string_view strLine = TakeUpTo('\n', &strText);
        std::size_t nDepth = std::min(strLine.find_first_not_of(' '), strLine.size());
        strLine.remove_prefix(nDepth);

        std::vector<ScriptLine>* pSiblings = &root.meanwhile;
        for (nDepth = std::min(nDepth, kDeepest); nDepth > 0 && !pSiblings->empty(); --nDepth)
            pSiblings = &pSiblings->back().meanwhile;
        ScriptLine& line = pSiblings->emplace_back();
        do {
            line.texts.emplace_back(TakeUpTo('\t', &strLine));
        } while (!strLine.empty());
    }
    return std::move(root.meanwhile);
}

}  // namespace vok::test
