#include "ctl/BlameSvg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ctl/Failure.h"
#include "platform/CUniqueFd.h"

namespace vok::ctl {

namespace {

// In pixels.
constexpr double kWidth = 1100;
constexpr double kLabels = 230;   // where the lanes begin
constexpr double kLanes = 700;    // the longest open
constexpr double kSummary = 275;  // beside the title
constexpr double kTop = 96;
constexpr double kLane = 20;
constexpr double kBar = 13;
constexpr double kBottom = 44;
constexpr double kLeastBar = 0.75;  // what is there is seen

constexpr int kLabelColumns = 26;
constexpr int kMostTicks = 8;

constexpr char kInk[] = "#222222";
constexpr char kFaint[] = "#777777";
constexpr char kGrid[] = "#dddddd";
constexpr char kFailed[] = "#b3372f";
constexpr char kWasted[] = "#d9857d";  // the wait of an open that came to nothing

std::string Escape(const std::string& strText) {
    std::string strEscaped;
    // Control characters may not stand in XML at all, not even escaped: as \xHH they may.
    for (const char c : Printable(strText, true)) {
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
                strEscaped += c;
        }
    }
    return strEscaped;
}

std::string Number(double dValue) {
    std::array<char, 32> number;
    (void)std::snprintf(number.data(), number.size(), "%.2f", dValue);
    return number.data();
}

std::string Text(double x, double y, const std::string& strText, const char* szColour,
                 const char* szMore = "") {
    return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" fill=\"" + szColour + "\"" +
           szMore + ">" + Escape(strText) + "</text>\n";
}

std::string Box(double x, double y, double dWidth, double dHeight, const char* szPaint,
                const std::string& strTitle = "") {
    const std::string strBox = "<rect x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" width=\"" +
                               Number(dWidth) + "\" height=\"" + Number(dHeight) + "\" fill=\"" +
                               szPaint + "\"";
    if (strTitle.empty()) return strBox + "/>\n";
    return strBox + "><title>" + Escape(strTitle) + "</title></rect>\n";
}

/// The time from one line of the axis to the next: 1, 2 or 5 times a power of ten, in microseconds.
std::int64_t TickUs(std::int64_t nLongestUs) {
    for (std::int64_t nPower = 1;; nPower *= 10) {
        for (const std::int64_t nFactor : {1, 2, 5})
            if (nLongestUs <= nFactor * nPower * kMostTicks) return nFactor * nPower;
    }
}

/// Nothing is longer than a day: the numbers of a broken broker shall not draw for ever.
constexpr std::int64_t kLongestUs = std::int64_t{24} * 3600 * 1'000'000;

class CPicture {
public:
    CPicture(const std::vector<OpenSpans>& opens, const std::string& strNone)
        : m_Opens(opens), m_strNone(strNone) {
        for (const OpenSpans& open : opens) m_nLongestUs = std::max(m_nLongestUs, open.nTotalUs);
        m_nLongestUs = std::min(m_nLongestUs, kLongestUs);
    }

    std::string Draw() const;

private:
    double At(std::int64_t nUs) const {
        return kLabels + static_cast<double>(std::min(nUs, m_nLongestUs)) * kLanes /
                             static_cast<double>(m_nLongestUs);
    }
    double Height() const { return kTop + kLane * static_cast<double>(m_Opens.size()) + kBottom; }

    static std::string Legend();
    std::string Axis() const;
    std::string Lane(const OpenSpans& open, double y) const;

    const std::vector<OpenSpans>& m_Opens;
    const std::string& m_strNone;
    std::int64_t m_nLongestUs = 1;
};

std::string CPicture::Legend() {
    std::string strLegend;
    double x = kLabels;
    for (int i = 0; i < PHASES; ++i) {
        const PhaseLook& look = LookOf(i);
        strLegend += Box(x, 48, 12, 12, look.szPaint);
        strLegend += Text(x + 17, 58, std::string("until ") + look.szName, kInk);
        x += 120;
    }
    return strLegend + Box(x, 48, 12, 12, kWasted) + Text(x + 17, 58, "in vain: it failed", kInk);
}

std::string CPicture::Axis() const {
    const double dBottom = Height() - kBottom;
    std::string strAxis;
    const std::int64_t nTick = TickUs(m_nLongestUs);
    for (std::int64_t nUs = 0; nUs <= m_nLongestUs; nUs += nTick) {
        strAxis.append("<line x1=\"").append(Number(At(nUs))).append("\" y1=\"");
        strAxis.append(Number(kTop - 6)).append("\" x2=\"").append(Number(At(nUs)));
        strAxis.append("\" y2=\"").append(Number(dBottom)).append("\" stroke=\"");
        strAxis.append(kGrid).append("\"/>\n");
        const std::string strTime = nUs == 0 ? "0" : Elapsed(nUs);
        strAxis += Text(At(nUs), kTop - 11, strTime, kFaint, " text-anchor=\"middle\"");
        strAxis += Text(At(nUs), dBottom + 15, strTime, kFaint, " text-anchor=\"middle\"");
    }
    strAxis += Text(kLabels, dBottom + 34, "time since each open began", kFaint);
    return strAxis;
}

std::string CPicture::Lane(const OpenSpans& open, double y) const {
    const bool bFailed = open.record.outcome <= 1;
    const char* const szColour = bFailed ? kFailed : kInk;
    std::string strLane = "<g>\n<title>" +
                          Escape(open.record.empName + ", " + OutcomeOf(open.record) + ", serial " +
                                 std::to_string(open.record.serial)) +
                          "</title>\n";
    const double dBase = y + kBar - 2.5;
    strLane +=
        Text(kLabels - 10, dBase, Cut(Printable(open.record.empName, true), kLabelColumns, true),
             szColour, " text-anchor=\"end\"");
    std::int64_t nEnd = 0;
    for (int i = 0; i < PHASES; ++i) {
        const std::int64_t nPhase = open.phasesUs[static_cast<std::size_t>(i)];
        if (nPhase <= 0) continue;
        const double dWidth = std::max(At(nEnd + nPhase) - At(nEnd), kLeastBar);
        const char* const szPaint = bFailed && i == PHASE_ANSWERED ? kWasted : LookOf(i).szPaint;
        strLane += Box(At(nEnd), y, dWidth, kBar, szPaint,
                       std::string("until ") + LookOf(i).szName + ": " + Elapsed(nPhase));
        nEnd += nPhase;
    }
    strLane +=
        Text(At(open.nTotalUs) + 6, dBase, Elapsed(open.nTotalUs) + ", " + OutcomeOf(open.record),
             bFailed ? kFailed : kFaint);
    return strLane + "</g>\n";
}

std::string CPicture::Draw() const {
    const std::string strWidth = Number(kWidth);
    const std::string strHeight = Number(Height());
    std::string strSvg =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
        strWidth + "\" height=\"" + strHeight + "\" viewBox=\"0 0 " + strWidth + " " + strHeight +
        "\" font-family=\"sans-serif\" font-size=\"12\">\n" +
        "<title>Where the time of opens went</title>\n" + Box(0, 0, kWidth, Height(), "#ffffff");
    strSvg += Text(24, 32, m_Opens.empty() ? m_strNone : "Opens, the longest first", kInk,
                   " font-size=\"17\" font-weight=\"bold\"");
    if (m_Opens.empty()) return strSvg + "</svg>\n";
    strSvg += Text(kSummary, 32, BlameSummary(m_Opens), kFaint) + Legend() + Axis();
    double y = kTop + (kLane - kBar) / 2;
    for (const OpenSpans& open : m_Opens) {
        strSvg += Lane(open, y);
        y += kLane;
    }
    return strSvg + "</svg>\n";
}

[[noreturn]] void ThrowNotWritten(const std::string& strPath, int nErrno) {
    throw CFailure(EXIT_FAILED, "cannot write " + strPath + ": " + std::strerror(nErrno));
}

/// 0, or an errno.
int WriteAll(int nFd, const std::string& strContent) {
    for (std::size_t nWritten = 0; nWritten < strContent.size();) {
        const ssize_t nDone =
            ::write(nFd, strContent.data() + nWritten, strContent.size() - nWritten);
        if (nDone < 0 && errno != EINTR) return errno;
        if (nDone > 0) nWritten += static_cast<std::size_t>(nDone);
    }
    return ::fsync(nFd) == 0 || errno == EINVAL ? 0 : errno;
}

/// What a new file may be read and written by.
mode_t UsualMode() {
    const mode_t nMask = ::umask(0);
    (void)::umask(nMask);
    return 0666 & ~nMask;
}

}  // namespace

std::string BlameSvg(const std::vector<OpenSpans>& opens, const std::string& strNone) {
    return CPicture{opens, strNone}.Draw();
}

bool IsFileOrMissing(const std::string& strPath) {
    struct stat info {};
    return ::lstat(strPath.c_str(), &info) != 0 || S_ISREG(info.st_mode);
}

void WriteFileAtOnce(const std::string& strPath, const std::string& strContent) {
    // A device, a pipe or a link (/dev/stdout is one) is written to, not replaced by a file.
    if (!IsFileOrMissing(strPath)) {
        const CUniqueFd fd{
            ::open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, UsualMode())};
        const int nErrno = fd.IsOpen() ? WriteAll(fd.Get(), strContent) : errno;
        if (nErrno != 0) ThrowNotWritten(strPath, nErrno);
        return;
    }
    std::string strTemporary = strPath + ".XXXXXX";
    CUniqueFd fd{::mkostemp(strTemporary.data(), O_CLOEXEC)};
    if (!fd.IsOpen()) ThrowNotWritten(strPath, errno);
    int nErrno = WriteAll(fd.Get(), strContent);
    if (nErrno == 0 && ::fchmod(fd.Get(), UsualMode()) != 0) nErrno = errno;
    if (nErrno == 0 && ::rename(strTemporary.c_str(), strPath.c_str()) != 0) nErrno = errno;
    if (nErrno == 0) return;
    (void)::unlink(strTemporary.c_str());
    ThrowNotWritten(strPath, nErrno);
}

}  // namespace vok::ctl
