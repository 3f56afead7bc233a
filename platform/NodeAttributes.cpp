#include "platform/NodeAttributes.h"

#include <pugixml.hpp>

#include <cstring>

#include "platform/Limits.h"
#include "platform/TextFile.h"

namespace vok {

namespace {

/// Stands before tags that begin with a digit, so that the parser takes them.
constexpr char kDigitTag[] = "_digit.";

bool StartsWith(const std::string& strText, std::size_t nAt, const char* szStart) {
    return strText.compare(nAt, std::strlen(szStart), szStart) == 0;
}

/// Where a comment, character data or a processing instruction that begins at `nAt` ends, or with
/// `bQuotes` a quoted text; `nAt` itself when none begins there.
std::size_t EndOfText(const std::string& strXml, std::size_t nAt, bool bQuotes) {
    struct Text {
        const char* szStart;
        const char* szEnd;
        bool bQuoted;
    };
    static constexpr Text kTexts[] = {{"<!--", "-->", false},
                                      {"<![CDATA[", "]]>", false},
                                      {"<?", "?>", false},
                                      {"\"", "\"", true},
                                      {"'", "'", true}};
    for (const Text& text : kTexts) {
        if ((text.bQuoted && !bQuotes) || !StartsWith(strXml, nAt, text.szStart)) continue;
        const std::size_t nEnd = strXml.find(text.szEnd, nAt + std::strlen(text.szStart));
        return nEnd == std::string::npos ? strXml.size() : nEnd + std::strlen(text.szEnd);
    }
    return nAt;
}

/// Where a document type declaration that begins at `nAt` ends. It nests brackets, and what stands
/// in quotes or comments does not count.
std::size_t EndOfDocumentType(const std::string& strXml, std::size_t nAt) {
    int nDepth = 0;
    while (nAt < strXml.size()) {
        if (const std::size_t nEnd = EndOfText(strXml, nAt, true); nEnd != nAt) {
            nAt = nEnd;
            continue;
        }
        const char c = strXml[nAt++];
        if (c == '<') ++nDepth;
        if (c == '>' && --nDepth == 0) break;
    }
    return nAt;
}

/// Where what begins at `nAt` ends, when nothing in it is a tag to look at; `nAt` itself for
/// everything else. Inside a tag, that is a quoted value.
std::size_t EndOfOpaque(const std::string& strXml, std::size_t nAt, bool bInTag) {
    if (!bInTag && StartsWith(strXml, nAt, "<!DOCTYPE")) return EndOfDocumentType(strXml, nAt);
    return EndOfText(strXml, nAt, bInTag);
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string MarkDigitTags(const std::string& strXml) {
    std::string strMarked;
    bool bInTag = false;
    for (std::size_t i = 0; i < strXml.size();) {
        if (const std::size_t nEnd = EndOfOpaque(strXml, i, bInTag); nEnd != i) {
            strMarked.append(strXml, i, nEnd - i);
            i = nEnd;
            continue;
        }
        const char c = strXml[i++];
        strMarked += c;
        if (c == '>') bInTag = false;
        if (c != '<') continue;

        bInTag = true;
        if (i < strXml.size() && strXml[i] == '/') strMarked += strXml[i++];
        if (i < strXml.size() && IsDigit(strXml[i])) strMarked += kDigitTag;
    }
    return strMarked;
}

}  // namespace

bool ParseNodeAttr(const std::string& strXml, const std::string& strNode,
                   NodeAttributes& attributes) {
    attributes.clear();
    const std::string strMarked = MarkDigitTags(strXml);
    pugi::xml_document document;
    if (!document.load_buffer(strMarked.data(), strMarked.size())) return false;

    const bool bDigit = !strNode.empty() && IsDigit(strNode.front());
    const std::string strTag = bDigit ? kDigitTag + strNode : strNode;
    const pugi::xml_node node = document.find_node([&](const pugi::xml_node& candidate) {
        return strTag == candidate.name() || strNode == candidate.attribute("name").value();
    });
    if (!node || strNode.empty()) return false;

    for (const pugi::xml_attribute& attribute : node.attributes())
        attributes[attribute.name()] = attribute.value();
    return true;
}

bool ParseNodeAttrFromXml(const std::string& strFile, const std::string& strNode,
                          NodeAttributes& attributes) {
    attributes.clear();
    const auto strXml = ReadTextFile(strFile.c_str(), kMaxTextFile);
    return strXml && ParseNodeAttr(*strXml, strNode, attributes);
}

}  // namespace vok
