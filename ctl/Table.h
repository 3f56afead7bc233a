/// Tables for people.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ctl/Format.h"

namespace vok::ctl {

enum class eColour { None, Bold, Faint, Red, Green, Yellow, Blue, Magenta, Cyan };

/// A piece of text of one colour.
struct Span {
    std::string strText;  // any bytes
    eColour colour = eColour::None;
};

/// What stands in one place of a table: pieces, one after the other.
struct Cell {
    Cell(std::string strText, eColour colour = eColour::None)
        : spans{{std::move(strText), colour}} {}
    Cell(const char* szText) : Cell(std::string(szText)) {}
    explicit Cell(std::vector<Span> pieces) : spans(std::move(pieces)) {}

    std::vector<Span> spans;
};

/// The escape sequences of a colour around a text that `Printable` has made; without colours, the
/// text.
std::string Painted(const std::string& strText, eColour colour, const Style& style);

/// A line of text, made safe to show and cut to the width of the style. Ends with a line feed.
std::string Line(const std::vector<Span>& spans, const Style& style);
std::string Line(const std::string& strText, const Style& style);

/// The first lines of a text, as many as there is room for; of one that is longer, the last of them
/// tells how many more there are.
std::string CutLines(const std::string& strText, int nLines, const Style& style);

/// Rows below headings, each column as wide as its widest cell. Where that is too wide for the
/// terminal, the widest columns give way, and what does not fit is cut.
class CTable {
public:
    struct Column {
        std::string strHeading;
        bool bRight = false;  // for numbers
    };

    explicit CTable(std::vector<Column> columns) : m_Columns(std::move(columns)) {}

    /// A cell for each column; missing ones are empty.
    void Add(std::vector<Cell> cells);
    bool IsEmpty() const { return m_Rows.empty(); }

    std::string Render(const Style& style) const;

private:
    std::vector<int> Widths(const Style& style) const;
    std::string RenderRow(const std::vector<Cell>& cells, const std::vector<int>& widths,
                          const Style& style) const;

    std::vector<Column> m_Columns;
    std::vector<std::vector<Cell>> m_Rows;
};

}  // namespace vok::ctl
