/// Where the time of opens went.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ctl/Format.h"
#include "ctl/Table.h"
#include "vok_admin_types.h"

namespace vok::ctl {

/// The steps of an open, in their order.
enum ePhase { PHASE_LOCATED, PHASE_MOUNTED, PHASE_STARTED, PHASE_REPORTED, PHASE_ANSWERED, PHASES };

struct PhaseLook {
    const char* szName;   // "located": what is known at the phase's end
    char cAscii;          // of a bar without UTF-8
    const char* szUtf8;   // and with it
    eColour colour;       // on a terminal
    const char* szPaint;  // in a picture
};
const PhaseLook& LookOf(int nPhase);

/// One open: how long each phase took.
struct OpenSpans {
    admin::OpenTimes record;
    std::array<std::int64_t, PHASES> phasesUs{};  // -1: it did not come to that
    std::int64_t nTotalUs = 0;
};

/// Every open as spans, the longest first; with a name, those of that EMP only; no more than
/// `nMost` of them, 0: all. The time of a phase that an open did not come to belongs to the next
/// one that it came to.
std::vector<OpenSpans> LongestFirst(const std::vector<admin::OpenTimes>& opens,
                                    const std::string& strEmp, int nMost);

/// Why there is none to show: of this EMP, if one is named, among so many.
std::string NoOpens(const std::string& strEmp, std::size_t nAll);

/// A table with a bar for each open, and what all took together.
std::string BlameReport(const std::vector<OpenSpans>& opens, const Style& style);

/// How an open ended, in a word. One that was connected to a server which somebody else's open was
/// starting has "waited" for that one's report; what it notes as located and reported is the wait.
std::string OutcomeOf(const admin::OpenTimes& open);

/// "12 opens, 3.20 s: 5 started, 6 reused, 1 failed".
std::string BlameSummary(const std::vector<OpenSpans>& opens);

}  // namespace vok::ctl
