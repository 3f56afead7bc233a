#include "ctl/Blame.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>

namespace vok::ctl {

namespace {

constexpr std::array<PhaseLook, PHASES> kLooks{{
    {"located", 'l', "\u2591", eColour::Cyan, "#7aa6c2"},
    {"mounted", 'm', "\u2593", eColour::Yellow, "#d9a441"},
    {"started", 's', "\u2592", eColour::Blue, "#4a6fa5"},
    {"reported", 'r', "\u2588", eColour::Magenta, "#8e5ea2"},
    {"answered", 'a', "\u2594", eColour::Green, "#5b9a68"},
}};

constexpr int kReused = 2;
constexpr char kWaited[] = "waited";

/// The longest bar: what the rest of the table leaves of the terminal.
constexpr int kLeastBar = 12;
constexpr int kMostBar = 40;
/// On a narrower terminal the bars tell the phases, and figures only the total.
constexpr int kRoomForPhases = 110;

OpenSpans SpansOf(const admin::OpenTimes& open) {
    OpenSpans spans;
    spans.record = open;
    const std::array<std::int64_t, PHASES> ends{open.locatedUs, open.mountedUs, open.startedUs,
                                                open.reportedUs, open.answeredUs};
    for (std::size_t i = 0; i < ends.size(); ++i) {
        // What a broken broker sends may run backwards; no bar does.
        const bool bReached = ends[i] >= 0;
        spans.phasesUs[i] = bReached ? std::max<std::int64_t>(ends[i] - spans.nTotalUs, 0) : -1;
        if (bReached) spans.nTotalUs = std::max(spans.nTotalUs, ends[i]);
    }
    return spans;
}

std::string PhaseText(std::int64_t nMicroseconds) {
    return nMicroseconds < 0 ? "-" : Elapsed(nMicroseconds);
}

bool IsFailed(const OpenSpans& open) {
    return open.record.outcome <= 1;
}

std::string Repeated(const char* szPiece, int nTimes) {
    std::string strText;
    for (int i = 0; i < nTimes; ++i) strText += szPiece;
    return strText;
}

/// Each phase ends where its end belongs on the scale: rounding does not add up.
Cell Bar(const OpenSpans& open, std::int64_t nLongestUs, int nWidth, const Style& style) {
    const double dScale =
        nLongestUs > 0 ? static_cast<double>(nWidth) / static_cast<double>(nLongestUs) : 0;
    std::vector<Span> spans;
    std::int64_t nEnd = 0;
    int nDrawn = 0;
    for (int i = 0; i < PHASES; ++i) {
        nEnd += std::max<std::int64_t>(open.phasesUs[static_cast<std::size_t>(i)], 0);
        const int nUpTo = static_cast<int>(std::lround(static_cast<double>(nEnd) * dScale));
        const PhaseLook& look = LookOf(i);
        const char szAscii[] = {look.cAscii, '\0'};
        // The wait of an open that came to nothing.
        const bool bWasted = IsFailed(open) && i == PHASE_ANSWERED;
        spans.push_back({Repeated(style.bUtf8 ? look.szUtf8 : szAscii, nUpTo - nDrawn),
                         bWasted ? eColour::Red : look.colour});
        nDrawn = nUpTo;
    }
    return Cell(std::move(spans));
}

std::string Legend(const Style& style) {
    std::vector<Span> spans;
    for (int i = 0; i < PHASES; ++i) {
        const PhaseLook& look = LookOf(i);
        spans.push_back({style.bUtf8 ? look.szUtf8 : std::string(1, look.cAscii), look.colour});
        spans.push_back({std::string(" ") + look.szName + (i + 1 < PHASES ? "  " : "")});
    }
    return Line(spans, style);
}

CTable Rows(const std::vector<OpenSpans>& opens, bool bPhases, int nBar, const Style& style) {
    std::vector<CTable::Column> columns{{"EMP"}, {"OUTCOME"}, {"AGO", true}, {"TOTAL", true}};
    for (int i = 0; bPhases && i < PHASES; ++i) {
        std::string strHeading = LookOf(i).szName;
        for (char& c : strHeading) c = static_cast<char>(c - 'a' + 'A');
        columns.push_back({strHeading, true});
    }
    columns.push_back({nBar > 0 ? "TIME" : ""});
    CTable table{std::move(columns)};
    for (const OpenSpans& open : opens) {
        std::vector<Cell> cells{
            open.record.empName,
            Cell(OutcomeOf(open.record), IsFailed(open) ? eColour::Red : eColour::None),
            Duration(std::chrono::milliseconds(open.record.agoMs)), Elapsed(open.nTotalUs)};
        for (int i = 0; bPhases && i < PHASES; ++i)
            cells.emplace_back(PhaseText(open.phasesUs[static_cast<std::size_t>(i)]));
        cells.push_back(Bar(open, opens.front().nTotalUs, nBar, style));
        table.Add(std::move(cells));
    }
    return table;
}

int WidestLine(const std::string& strText) {
    int nWidest = 0;
    std::istringstream lines(strText);
    std::string strLine;
    while (std::getline(lines, strLine)) nWidest = std::max(nWidest, Width(strLine));
    return nWidest;
}

std::int64_t TotalUs(const std::vector<OpenSpans>& opens) {
    return std::accumulate(
        opens.begin(), opens.end(), std::int64_t{0},
        [](std::int64_t nSum, const OpenSpans& open) { return nSum + open.nTotalUs; });
}

std::string PhaseTotals(const std::vector<OpenSpans>& opens) {
    const auto dAll = static_cast<double>(std::max<std::int64_t>(TotalUs(opens), 1));
    std::vector<std::string> texts;
    for (int i = 0; i < PHASES; ++i) {
        std::int64_t nSum = 0;
        for (const OpenSpans& open : opens)
            nSum += std::max<std::int64_t>(open.phasesUs[static_cast<std::size_t>(i)], 0);
        texts.push_back(std::string(LookOf(i).szName) + ' ' + Elapsed(nSum) + " (" +
                        std::to_string(std::lround(static_cast<double>(nSum) * 100 / dAll)) +
                        " %)");
    }
    return "until " + Join(texts, ", ");
}

}  // namespace

const PhaseLook& LookOf(int nPhase) {
    return kLooks.at(static_cast<std::size_t>(nPhase));
}

std::vector<OpenSpans> LongestFirst(const std::vector<admin::OpenTimes>& opens,
                                    const std::string& strEmp, int nMost) {
    std::vector<OpenSpans> all;
    for (const admin::OpenTimes& open : opens)
        if (strEmp.empty() || open.empName == strEmp) all.push_back(SpansOf(open));
    std::stable_sort(all.begin(), all.end(), [](const OpenSpans& left, const OpenSpans& right) {
        return left.nTotalUs > right.nTotalUs;
    });
    if (nMost > 0 && all.size() > static_cast<std::size_t>(nMost))
        all.resize(static_cast<std::size_t>(nMost));
    return all;
}

std::string OutcomeOf(const admin::OpenTimes& open) {
    return open.outcome == kReused && open.reportedUs >= 0 ? kWaited : OutcomeText(open.outcome);
}

std::string NoOpens(const std::string& strEmp, std::size_t nAll) {
    if (nAll == 0) return "No open has ended yet.";
    return "No open of " + strEmp + " is among the last " + std::to_string(nAll) + '.';
}

std::string BlameSummary(const std::vector<OpenSpans>& opens) {
    std::vector<std::string> texts;
    for (const std::string& strOutcome : {OutcomeText(3), OutcomeText(kReused),
                                          std::string(kWaited), OutcomeText(1), OutcomeText(0)}) {
        const auto nCount = std::count_if(opens.begin(), opens.end(), [&](const OpenSpans& open) {
            return OutcomeOf(open.record) == strOutcome;
        });
        if (nCount > 0) texts.push_back(std::to_string(nCount) + ' ' + strOutcome);
    }
    return Count(static_cast<std::int64_t>(opens.size()), "open", "opens") + ", " +
           Elapsed(TotalUs(opens)) + ": " + Join(texts, ", ");
}

std::string BlameReport(const std::vector<OpenSpans>& opens, const Style& style) {
    if (opens.empty()) return Line(NoOpens("", 0), style);
    const bool bPhases = style.nWidth == 0 || style.nWidth >= kRoomForPhases;
    int nBar = kMostBar;
    if (style.nWidth > 0) {
        Style whole = style;
        whole.nWidth = 0;
        whole.bColour = false;
        const int nBeside = WidestLine(Rows(opens, bPhases, 0, whole).Render(whole));
        nBar = std::clamp(style.nWidth - nBeside - 2, kLeastBar, kMostBar);
    }
    return Legend(style) + Rows(opens, bPhases, nBar, style).Render(style) + '\n' +
           Line(BlameSummary(opens), style) + Line(PhaseTotals(opens), style);
}

}  // namespace vok::ctl
