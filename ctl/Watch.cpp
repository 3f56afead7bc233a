// Status, again and again. Nothing of the terminal is changed that would have to be set back:
// however the program ends, the last look stays.
#include <poll.h>

#include <array>
#include <cstdio>
#include <optional>

#include "ctl/AdminClient.h"
#include "ctl/Commands.h"
#include "ctl/Failure.h"
#include "ctl/Json.h"
#include "ctl/Signals.h"
#include "ctl/StateView.h"
#include "ctl/Waits.h"

namespace vok::ctl {

namespace {

/// Over what was there: each line erases what is left of the one before, the last one all below.
std::string InPlace(const std::string& strScreen, const Style& style, bool bFirst) {
    std::string strText = bFirst ? "\x1B[2J\x1B[H" : "\x1B[H";
    // The last line has no line feed to spare: it would scroll.
    const std::string strSeen =
        style.nHeight > 1 ? CutLines(strScreen, style.nHeight - 1, style) : strScreen;
    for (const char c : strSeen) {
        if (c == '\n') strText += "\x1B[K";
        strText += c;
    }
    return strText + "\x1B[J";
}

class CWatch {
public:
    CWatch(const Options& options, COutput& output)
        : m_Options(options),
          m_Output(output),
          m_Admin(WaitFor(options, kCallPatience, m_Signals.EndFd())) {}

    void Run();

private:
    bool Look();
    void Show(const admin::BrokerState& state);
    void ShowTrouble(const std::string& strTrouble);
    void ShowScreen(const std::string& strScreen);
    bool AwaitNext();
    bool IsEnded() const;
    /// How the screen looks.
    Style GetStyle() const {
        Style style = m_Output.GetStyle();
        style.bInPlace = style.bTerminal;
        return style;
    }

    const Options& m_Options;
    COutput& m_Output;
    CSignals m_Signals;
    CAdminClient m_Admin;
    std::optional<admin::BrokerState> m_Earlier;
    bool m_bBegun = false;  // there has been a broker
    bool m_bFirst = true;   // nothing is on the screen yet
};

bool CWatch::IsEnded() const {
    pollfd fd{m_Signals.EndFd(), POLLIN, 0};
    return ::poll(&fd, 1, 0) > 0;
}

void CWatch::ShowScreen(const std::string& strScreen) {
    const Style& style = m_Output.GetStyle();
    if (style.bTerminal)
        m_Output.Add(InPlace(strScreen, style, m_bFirst));
    else
        m_Output.Add((m_bFirst ? "" : "\n") + strScreen);
    m_bFirst = false;
    m_Output.Flush();
}

void CWatch::Show(const admin::BrokerState& state) {
    // Another broker counts from the beginning.
    if (m_Earlier && state.uptimeMs < m_Earlier->uptimeMs) m_Earlier.reset();
    if (m_Options.bJson) {
        Json json{{"at", UtcNow()}};
        json.update(ToJson(state));
        m_Output.AddLine(json);
        m_Output.Flush();
    } else {
        const Style style = GetStyle();
        ShowScreen(Line({{UtcNow() + "  every " + Duration(m_Options.interval) + "; Ctrl-C ends",
                          eColour::Faint}},
                        style) +
                   StatusScreen(state, style, m_Earlier ? &*m_Earlier : nullptr));
    }
    m_Earlier = state;
}

void CWatch::ShowTrouble(const std::string& strTrouble) {
    m_Earlier.reset();
    if (m_Options.bJson) {
        m_Output.AddLine({{"at", UtcNow()}, {"error", strTrouble}});
        m_Output.Flush();
        return;
    }
    ShowScreen(Line({{UtcNow() + "  waiting", eColour::Faint}}, GetStyle()) +
               Line({{strTrouble, eColour::Red}}, GetStyle()));
}

/// False when there is to be no further look. A broker that has been there may come back; one that
/// never was is told at once.
bool CWatch::Look() {
    std::optional<admin::BrokerState> state;
    try {
        state = m_Admin.GetState();
    } catch (const CFailure& failure) {
        if (IsEnded()) return false;
        if (!m_bBegun) throw;
        ShowTrouble(failure.what());
    }
    m_bBegun = true;
    if (state) Show(*state);
    return true;
}

/// False at the end.
bool CWatch::AwaitNext() {
    std::array<pollfd, 3> fds{
        {{m_Signals.EndFd(), POLLIN, 0}, {m_Signals.ResizeFd(), POLLIN, 0}, {1, 0, 0}}};
    const int nReady = ::poll(fds.data(), fds.size(), static_cast<int>(m_Options.interval.count()));
    if (nReady <= 0) return true;
    if (fds[1].revents != 0) {
        m_Signals.TakeResize();
        m_Output.SetStyle(DetectStyle());
        m_bFirst = true;  // wrapped lines have moved what was there
    }
    return fds[0].revents == 0 && (fds[2].revents & (POLLERR | POLLHUP)) == 0;
}

void CWatch::Run() {
    m_Output.SetInterrupt(m_Signals.EndFd());
    for (int i = 1; Look() && i != m_Options.nFrames && AwaitNext(); ++i) {
    }
    if (m_Options.bJson || !m_Output.GetStyle().bTerminal) return;
    m_Output.Add("\r\x1B[K");  // over what a terminal makes of Ctrl-C
    m_Output.Flush();
}

}  // namespace

int RunWatch(const Options& options, COutput& output) {
    CWatch{options, output}.Run();
    return EXIT_DONE;
}

}  // namespace vok::ctl
