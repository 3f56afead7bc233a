/// Signals as something to wait for: nothing runs inside a handler.
#pragma once

#include "platform/CUniqueFd.h"

namespace vok::ctl {

/// From its making on, SIGINT, SIGTERM, SIGHUP and SIGWINCH do nothing by themselves; a SIGHUP that
/// was ignored stays so. To be made before there are other threads: these inherit it.
class CSignals {
public:
    CSignals();

    /// Can be read once the program is to end, and stays so.
    int EndFd() const { return m_End.Get(); }
    /// Can be read when the terminal has another size.
    int ResizeFd() const { return m_Resize.Get(); }
    /// Forgets what made ResizeFd readable.
    void TakeResize() const;

private:
    CUniqueFd m_End;  // a signalfd that nobody reads
    CUniqueFd m_Resize;
};

}  // namespace vok::ctl
