/// How the broker makes threads.
#pragma once

#include <string>

namespace vok {

class ThreadMaker {
public:
    /// Starts `pRoutine(pArg)` with `nStackSize` bytes of stack. False when any step fails. No
    /// handle is kept and `strName` is not applied: threads name themselves.
    /// The new thread has all signals blocked: they belong to the main thread, or to the host.
    static bool CreateThread(const std::string& strName, void* (*pRoutine)(void*), void* pArg,
                             unsigned int nStackSize, bool bDetached);

    /// Names the calling thread; the kernel keeps 15 characters (PR_SET_NAME, prctl(2)). A name
    /// that somebody else gives it meanwhile is not noticed by the next call with the same name.
    static void NameThisThread(const char* szName);
};

}  // namespace vok
