#include "bench/SvgChart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vok::bench {

namespace {

// In pixels.
constexpr double kWidth = 960;
constexpr double kLabels = 410;  // where the bars begin
constexpr double kBars = 450;    // the longest of them
constexpr double kTop = 64;
constexpr double kRow = 40;
constexpr double kBarHeight = 16;
constexpr double kBottom = 56;

constexpr double kLongestAxis = 4;  // a ratio

constexpr char kMet[] = "#3b7dbd";
constexpr char kMissed[] = "#c8553d";
constexpr char kTarget[] = "#222222";
constexpr char kGrid[] = "#dddddd";

std::string Escape(const std::string& strText) {
    std::string strEscaped;
    for (const char c : strText) {
        switch (c) {
            case '&':
                strEscaped += "&amp;";
                break;
            case '<':
                strEscaped += "&lt;";
                break;
            case '>':
                strEscaped += "&gt;";
                break;
            case '"':
                strEscaped += "&quot;";
                break;
            default:
                // No control character but these may stand in XML.
                if (static_cast<unsigned char>(c) >= ' ' || c == '\n' || c == '\t') strEscaped += c;
        }
    }
    return strEscaped;
}

std::string Number(double value, int nDigits = 1) {
    char szNumber[32];
    std::snprintf(szNumber, sizeof szNumber, "%.*f", nDigits, value);
    return szNumber;
}

std::string Text(double x, double y, const std::string& strText, const std::string& strMore = "") {
    return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\"" + strMore + ">" +
           Escape(strText) + "</text>\n";
}

std::string Line(double x1, double y1, double x2, double y2, const char* szColour, double width) {
    return "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" + Number(x2) +
           "\" y2=\"" + Number(y2) + "\" stroke=\"" + szColour + "\" stroke-width=\"" +
           Number(width) + "\"/>\n";
}

std::string Box(double x, double y, double width, double height, const char* szColour) {
    return "<rect x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" width=\"" + Number(width) +
           "\" height=\"" + Number(height) + "\" fill=\"" + szColour + "\"/>\n";
}

/// Where the axis ends: at the next half above everything, but not so far that the others cannot be
/// told apart. A bar that is longer ends there, with its figure beside it.
double EndOfAxis(const std::vector<SvgBar>& bars) {
    double most = 1;
    for (const SvgBar& bar : bars)
        most = std::max({most, bar.value.highQuartile, bar.value.median, bar.target.value_or(0)});
    return std::min(std::ceil(most * 2 + 0.1) / 2, kLongestAxis);
}

/// Ratios to places.
class CAxis {
public:
    explicit CAxis(double end) : m_End(end) {}
    double X(double ratio) const { return kLabels + kBars * std::clamp(ratio / m_End, 0.0, 1.0); }

    std::string Draw(double bottom) const {
        std::string strSvg;
        for (double ratio = 0; ratio <= m_End + 0.01; ratio += 0.5) {
            const bool bOne = ratio == 1;
            strSvg += Line(X(ratio), kTop, X(ratio), bottom, bOne ? "#888888" : kGrid, 1);
            strSvg += Text(X(ratio), bottom + 16, Number(ratio),
                           " text-anchor=\"middle\" font-size=\"12\"");
        }
        return strSvg;
    }

private:
    const double m_End;
};

std::string DrawBar(const SvgBar& bar, const CAxis& axis, double top) {
    const double middle = top + kRow / 2;
    const double barTop = middle - kBarHeight / 2;
    const char* const szColour = bar.bMissed ? kMissed : kMet;
    std::string strSvg = Text(12, middle - 3, bar.strLabel);
    strSvg += Text(12, middle + 11, bar.strNote, " font-size=\"11\" fill=\"#666666\"");
    strSvg += Box(kLabels, barTop, axis.X(bar.value.median) - kLabels, kBarHeight, szColour);
    strSvg += Line(axis.X(bar.value.lowQuartile), middle, axis.X(bar.value.highQuartile), middle,
                   "#000000", 1.5);
    double end = std::max(bar.value.median, bar.value.highQuartile);
    if (bar.target) {
        const double x = axis.X(*bar.target);
        strSvg += Line(x, barTop - 5, x, barTop + kBarHeight + 5, kTarget, 2.5);
        end = std::max(end, *bar.target);
    }
    return strSvg +
           Text(axis.X(end) + 8, middle + 5, Number(bar.value.median, 2), " font-weight=\"bold\"");
}

std::string DrawLegend(double y) {
    std::string strSvg;
    strSvg += Box(kLabels, y - 10, 14, 12, kMet) + Text(kLabels + 20, y, "target met, or none");
    strSvg += Box(kLabels + 160, y - 10, 14, 12, kMissed) + Text(kLabels + 180, y, "missed");
    strSvg += Line(kLabels + 252, y - 12, kLabels + 252, y + 4, kTarget, 2.5) +
              Text(kLabels + 262, y, "target");
    return strSvg + Line(kLabels + 330, y - 4, kLabels + 352, y - 4, "#000000", 1.5) +
           Text(kLabels + 360, y, "quartiles");
}

}  // namespace

std::string SvgChart(const std::string& strTitle, const std::string& strFootnote,
                     const std::vector<SvgBar>& bars) {
    const double bottom = kTop + kRow * static_cast<double>(bars.size());
    const double height = bottom + kBottom;
    const CAxis axis{EndOfAxis(bars)};
    std::string strSvg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + Number(kWidth, 0) +
                         "\" height=\"" + Number(height, 0) + "\" viewBox=\"0 0 " +
                         Number(kWidth, 0) + " " + Number(height, 0) +
                         "\" font-family=\"sans-serif\" font-size=\"13\">\n";
    strSvg += Box(0, 0, kWidth, height, "#ffffff");
    strSvg += Text(12, 26, strTitle, " font-size=\"17\" font-weight=\"bold\"");
    strSvg += DrawLegend(48);
    strSvg += axis.Draw(bottom);
    double top = kTop;
    for (const SvgBar& bar : bars) {
        strSvg += DrawBar(bar, axis, top);
        top += kRow;
    }
    strSvg += Text(12, bottom + 40, strFootnote, " font-size=\"11\" fill=\"#666666\"");
    return strSvg + "</svg>\n";
}

}  // namespace vok::bench
