#include "ctl/Table.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace vok::ctl {

namespace {

constexpr int kGapWidth = 2;
/// No column gives way below this.
constexpr int kLeastColumn = 6;

const char* Sequence(eColour colour) {
    switch (colour) {
        case eColour::None:
            break;
        case eColour::Bold:
            return "\x1B[1m";
        case eColour::Faint:
            return "\x1B[2m";
        case eColour::Red:
            return "\x1B[31m";
        case eColour::Green:
            return "\x1B[32m";
        case eColour::Yellow:
            return "\x1B[33m";
        case eColour::Blue:
            return "\x1B[34m";
        case eColour::Magenta:
            return "\x1B[35m";
        case eColour::Cyan:
            return "\x1B[36m";
    }
    return "";
}

int WidthOf(const Cell& cell, bool bUtf8) {
    int nWidth = 0;
    for (const Span& span : cell.spans) nWidth += Width(Printable(span.strText, bUtf8));
    return nWidth;
}

struct Rendered {
    std::string strText;
    int nWidth = 0;
};

/// In at most `nMost` columns; the piece that does not fit is cut, and what follows it is left out.
Rendered RenderSpans(const std::vector<Span>& spans, int nMost, const Style& style) {
    Rendered rendered;
    for (const Span& span : spans) {
        const std::string strWhole = Printable(span.strText, style.bUtf8);
        const std::string strText = Cut(strWhole, nMost - rendered.nWidth, style.bUtf8);
        rendered.nWidth += Width(strText);
        rendered.strText += Painted(strText, span.colour, style);
        if (strText != strWhole) break;
    }
    return rendered;
}

constexpr int kUnlimited = 1 << 20;

int Limit(const Style& style) {
    return style.nWidth > 0 ? style.nWidth : kUnlimited;
}

}  // namespace

std::string Painted(const std::string& strText, eColour colour, const Style& style) {
    if (!style.bColour || colour == eColour::None || strText.empty()) return strText;
    return Sequence(colour) + strText + "\x1B[0m";
}

std::string Line(const std::vector<Span>& spans, const Style& style) {
    // Only what is in columns is cut: a sentence goes on in the terminal's next line.
    Style whole = style;
    if (!style.bInPlace) whole.nWidth = 0;
    return RenderSpans(spans, Limit(whole), whole).strText + '\n';
}

std::string Line(const std::string& strText, const Style& style) {
    return Line(std::vector<Span>{{strText, eColour::None}}, style);
}

std::string CutLines(const std::string& strText, int nLines, const Style& style) {
    const auto nAll = std::count(strText.begin(), strText.end(), '\n');
    if (nAll <= nLines) return strText;
    std::size_t nEnd = 0;
    for (int i = 1; i < nLines; ++i) nEnd = strText.find('\n', nEnd) + 1;
    return strText.substr(0, nEnd) +
           Line({{(style.bUtf8 ? "\u2026 " : "... ") +
                      Count(nAll - std::max(nLines - 1, 0), "more line", "more lines"),
                  eColour::Faint}},
                style);
}

void CTable::Add(std::vector<Cell> cells) {
    cells.resize(m_Columns.size(), Cell(""));
    m_Rows.push_back(std::move(cells));
}

std::vector<int> CTable::Widths(const Style& style) const {
    std::vector<int> widths;
    for (std::size_t i = 0; i < m_Columns.size(); ++i) {
        int nWidth = Width(m_Columns[i].strHeading);
        for (const auto& row : m_Rows) nWidth = std::max(nWidth, WidthOf(row[i], style.bUtf8));
        widths.push_back(nWidth);
    }
    int nTotal = std::accumulate(widths.begin(), widths.end(), 0) +
                 kGapWidth * (static_cast<int>(widths.size()) - 1);
    while (nTotal > Limit(style)) {
        const auto it = std::max_element(widths.begin(), widths.end());
        if (it == widths.end() || *it <= kLeastColumn) break;
        --*it;
        --nTotal;
    }
    return widths;
}

std::string CTable::RenderRow(const std::vector<Cell>& cells, const std::vector<int>& widths,
                              const Style& style) const {
    std::string strRow;
    int nLeft = Limit(style);
    std::size_t nOwed = 0;  // blanks that are written before the next text only
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const int nMost = std::min(widths[i], nLeft);
        const Rendered cell = RenderSpans(cells[i].spans, nMost, style);
        const auto nPadding = static_cast<std::size_t>(std::max(nMost - cell.nWidth, 0));
        const std::size_t nBefore = m_Columns[i].bRight ? nPadding : 0;
        if (cell.nWidth > 0) {
            strRow.append(nOwed + nBefore, ' ');
            strRow += cell.strText;
            nOwed = nPadding - nBefore;
        } else {
            nOwed += nPadding;
        }
        nOwed += kGapWidth;
        nLeft -= nMost + kGapWidth;
        if (nLeft <= 0) break;
    }
    return strRow + '\n';
}

std::string CTable::Render(const Style& style) const {
    const std::vector<int> widths = Widths(style);
    std::vector<Cell> headings;
    std::transform(m_Columns.begin(), m_Columns.end(), std::back_inserter(headings),
                   [](const Column& column) { return Cell(column.strHeading, eColour::Bold); });
    std::string strTable = RenderRow(headings, widths, style);
    for (const auto& row : m_Rows) strTable += RenderRow(row, widths, style);
    return strTable;
}

}  // namespace vok::ctl
