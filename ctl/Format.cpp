#include "ctl/Format.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iterator>

namespace vok::ctl {

namespace {

struct Range {
    char32_t nFirst;
    char32_t nLast;
};

template <std::size_t N>
bool IsIn(const Range (&ranges)[N], char32_t c) {
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [c](const Range& range) { return c >= range.nFirst && c <= range.nLast; });
}

/// Controls, and what is there without being seen, or turns around what is.
constexpr Range kUnsafe[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},     {0x180E, 0x180E},
    {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F}, {0xD800, 0xDFFF},   {0xFDD0, 0xFDEF},
    {0xFEFF, 0xFEFF}, {0xFFF0, 0xFFFB}, {0xFFFE, 0xFFFF}, {0xE0000, 0xE0FFF}, {0x10FFFE, 0x10FFFF}};

/// Marks that sit on the character before them.
constexpr Range kNarrow[] = {{0x300, 0x36F},   {0x483, 0x489},   {0x591, 0x5BD},   {0x610, 0x61A},
                             {0x64B, 0x65F},   {0x6D6, 0x6DC},   {0x900, 0x902},   {0x93C, 0x93C},
                             {0x941, 0x948},   {0x94D, 0x94D},   {0xE31, 0xE31},   {0xE34, 0xE3A},
                             {0xE47, 0xE4E},   {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x20D0, 0x20FF},
                             {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}};

/// Characters of East Asian scripts, and pictures: two columns.
constexpr Range kWide[] = {{0x1100, 0x115F},   {0x2329, 0x232A},   {0x2E80, 0x303E},
                           {0x3041, 0x33FF},   {0x3400, 0x4DBF},   {0x4E00, 0x9FFF},
                           {0xA000, 0xA4CF},   {0xA960, 0xA97F},   {0xAC00, 0xD7A3},
                           {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
                           {0xFFE0, 0xFFE6},   {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF},
                           {0x1F900, 0x1F9FF}, {0x1FA70, 0x1FAFF}, {0x20000, 0x3FFFD}};

constexpr char32_t kNone = 0xFFFFFFFF;

/// Reads the character at `nAt` and steps over it; over one byte, with kNone, where there is none.
char32_t Next(std::string_view strText, std::size_t& nAt) {
    static constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto nLead = static_cast<unsigned char>(strText[nAt]);
    std::size_t nSize = 1;
    char32_t c = nLead;
    if (nLead >= 0xF0 && nLead <= 0xF4) {
        nSize = 4;
        c = nLead & 0x07U;
    } else if (nLead >= 0xE0 && nLead < 0xF0) {
        nSize = 3;
        c = nLead & 0x0FU;
    } else if (nLead >= 0xC2 && nLead < 0xE0) {
        nSize = 2;
        c = nLead & 0x1FU;
    } else if (nLead >= 0x80) {
        ++nAt;
        return kNone;
    }
    bool bWhole = nAt + nSize <= strText.size();
    for (std::size_t i = 1; bWhole && i < nSize; ++i) {
        const auto nByte = static_cast<unsigned char>(strText[nAt + i]);
        bWhole = (nByte & 0xC0U) == 0x80U;
        c = (c << 6U) | (nByte & 0x3FU);
    }
    if (!bWhole || c < kLeast[nSize] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        ++nAt;
        return kNone;
    }
    nAt += nSize;
    return c;
}

int WidthOf(char32_t c) {
    if (c == kNone || IsIn(kNarrow, c)) return 0;
    return IsIn(kWide, c) ? 2 : 1;
}

std::string Escaped(std::string_view strBytes) {
    std::string strText;
    for (const char c : strBytes) {
        std::array<char, 8> hex;
        (void)std::snprintf(hex.data(), hex.size(), "\\x%02X", static_cast<unsigned char>(c));
        strText += hex.data();
    }
    return strText;
}

std::string Decimals(double dNumber, int nDigits) {
    std::array<char, 32> number;
    (void)std::snprintf(number.data(), number.size(), "%.*f", nDigits, dNumber);
    return number.data();
}

}  // namespace

std::string Printable(std::string_view strBytes, bool bUtf8) {
    std::string strText;
    strText.reserve(strBytes.size());
    for (std::size_t i = 0; i < strBytes.size();) {
        const std::size_t nStart = i;
        const char32_t c = Next(strBytes, i);
        const std::string_view strCharacter = strBytes.substr(nStart, i - nStart);
        const bool bShow = c != kNone && !IsIn(kUnsafe, c) && (c < 0x80 || bUtf8);
        strText += bShow ? std::string(strCharacter) : Escaped(strCharacter);
    }
    return strText;
}

std::string ValidUtf8(std::string_view strBytes) {
    std::string strText;
    strText.reserve(strBytes.size());
    for (std::size_t i = 0; i < strBytes.size();) {
        const std::size_t nStart = i;
        if (Next(strBytes, i) == kNone)
            strText += "\xEF\xBF\xBD";
        else
            strText += strBytes.substr(nStart, i - nStart);
    }
    return strText;
}

std::string AnswerText(const std::string& strAnswer, const Style& style) {
    if (!style.bTerminal) return strAnswer + '\n';
    std::string strText;
    for (std::size_t nStart = 0; nStart <= strAnswer.size();) {
        const std::size_t nEnd = std::min(strAnswer.find('\n', nStart), strAnswer.size());
        strText += Printable(strAnswer.substr(nStart, nEnd - nStart), style.bUtf8) + '\n';
        nStart = nEnd + 1;
    }
    return strText;
}

int Width(std::string_view strText) {
    int nWidth = 0;
    for (std::size_t i = 0; i < strText.size();) nWidth += WidthOf(Next(strText, i));
    return nWidth;
}

std::string Cut(std::string_view strText, int nWidth, bool bUtf8) {
    if (nWidth <= 0) return {};
    if (Width(strText) <= nWidth) return std::string(strText);
    int nTaken = 1;  // the mark
    std::size_t i = 0;
    while (i < strText.size()) {
        std::size_t nNext = i;
        nTaken += WidthOf(Next(strText, nNext));
        if (nTaken > nWidth) break;
        i = nNext;
    }
    return std::string(strText.substr(0, i)) + (bUtf8 ? "\u2026" : "~");
}

std::string Duration(std::chrono::milliseconds duration) {
    const std::int64_t nMs = std::max<std::int64_t>(duration.count(), 0);
    const std::int64_t nSeconds = nMs / 1000;
    if (nMs < 1000) return std::to_string(nMs) + " ms";
    if (nSeconds < 60)
        return std::to_string(nSeconds) + '.' + std::to_string(nMs / 100 % 10) + " s";
    const auto pair = [](std::int64_t nBig, const char* szBig, std::int64_t nSmall,
                         const char* szSmall) {
        return std::to_string(nBig) + szBig + std::to_string(nSmall) + szSmall;
    };
    if (nSeconds < 3600) return pair(nSeconds / 60, " min ", nSeconds % 60, " s");
    if (nSeconds < 86400) return pair(nSeconds / 3600, " h ", nSeconds / 60 % 60, " min");
    return pair(nSeconds / 86400, " d ", nSeconds / 3600 % 24, " h");
}

std::string Elapsed(std::int64_t nMicroseconds) {
    const std::int64_t nTime = std::max<std::int64_t>(nMicroseconds, 0);
    if (nTime < 1000) return std::to_string(nTime) + " us";
    // A thousand thousandths are one of the next.
    const bool bSeconds = nTime >= 999'500;
    const double dTime = static_cast<double>(nTime) / (bSeconds ? 1e6 : 1e3);
    const int nDigits = dTime < 9.995 ? 2 : dTime < 99.95 ? 1 : 0;
    return Decimals(dTime, nDigits) + (bSeconds ? " s" : " ms");
}

std::string UtcNow() {
    const std::time_t nNow = std::time(nullptr);
    std::tm now{};
    std::array<char, 32> text{};
    if (::gmtime_r(&nNow, &now) != nullptr)
        (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &now);
    return text.data();
}

std::string Count(std::int64_t nNumber, const std::string& strOne, const std::string& strMany) {
    return std::to_string(nNumber) + ' ' + (nNumber == 1 ? strOne : strMany);
}

std::string Join(const std::vector<std::string>& texts, const std::string& strBetween) {
    std::string strAll;
    for (const std::string& strText : texts) {
        if (!strAll.empty()) strAll += strBetween;
        strAll += strText;
    }
    return strAll;
}

std::string StatusText(int nStatus) {
    switch (nStatus) {
        case 0:
            return "not known";
        case 1:
            return "added";
        case 2:
            return "opened";
        case 3:
            return "closed";
        case 4:
            return "pending";
        default:
            return "status " + std::to_string(nStatus);
    }
}

std::string OptionText(const std::string& strOption) {
    if (strOption == "0000" || strOption.empty()) return "none reported";
    if (strOption == kSingleton) return "singleton";
    if (strOption == "0002") return "one server each";
    if (strOption == kOneConnection) return "one connection";
    return strOption;
}

std::string LocationText(int nLocation) {
    switch (nLocation) {
        case LOCATION_UNKNOWN:
            return "nowhere";
        case LOCATION_FILES:
            return "files of its own";
        case LOCATION_GROUP:
            return "grouping process";
        case LOCATION_LAUNCHER:
            return "register launcher";
        default:
            return "location " + std::to_string(nLocation);
    }
}

std::string OutcomeText(int nOutcome) {
    switch (nOutcome) {
        case 0:
            return "refused";
        case 1:
            return "failed";
        case 2:
            return "reused";
        case 3:
            return "started";
        default:
            return "outcome " + std::to_string(nOutcome);
    }
}

}  // namespace vok::ctl
