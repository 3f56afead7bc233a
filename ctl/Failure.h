/// How vokctl ends.
#pragma once

#include <stdexcept>
#include <string>

namespace vok::ctl {

/// Exit statuses: scripts rely on them. `vokctl --help` and docs/VOKCTL.md list them.
enum eExit {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,      // refused, or failed
    EXIT_USAGE = 2,       // the command line makes no sense
    EXIT_NO_BROKER = 3,   // nobody serves
    EXIT_NEEDS_ROOT = 4,  // the admin service is root's
    EXIT_NO_ANSWER = 5,   // not in time
};

/// Ends the program: one line for stderr, which says what was tried and what to do next; empty when
/// there is nobody to tell.
class CFailure : public std::runtime_error {
public:
    CFailure(eExit nExit, const std::string& strLine)
        : std::runtime_error(strLine), m_nExit(nExit) {}
    eExit Exit() const { return m_nExit; }

private:
    eExit m_nExit;
};

}  // namespace vok::ctl
