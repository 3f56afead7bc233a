#pragma once

namespace vok {

/// Runs `szCommand` with /bin/sh -c and waits for it. What it prints goes to the log, a record per
/// line (level 4). Its exit status (0 to 255), 128 + n when signal n ended it, -1 when it could not
/// be started. It inherits no descriptor but 0, 1 and 2, and no blocked signal.
int VokExecShell(const char* szCommand);

}  // namespace vok
