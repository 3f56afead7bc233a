/// Failures that the RPC library does not report in its own way.
#pragma once

#include <thrift/TOutput.h>

#include <stdexcept>
#include <thread>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace vok::test {

/// For as long as it lives, a connection that cannot be made ends, on the thread that made this, in
/// an exception that is not the RPC library's: as when memory is short. One at a time.
class CRpcLibraryFault {
public:
    enum eThrown { STD_EXCEPTION, NO_EXCEPTION_CLASS };

    explicit CRpcLibraryFault(eThrown thrown) {
        s_Thread = std::this_thread::get_id();
        // The library tells what went wrong before it throws.
        apache::thrift::GlobalOutput.setOutputFunction(thrown == STD_EXCEPTION ? &ThrowStandard
                                                                               : &ThrowNumber);
    }
    ~CRpcLibraryFault() {
        apache::thrift::GlobalOutput.setOutputFunction(&apache::thrift::TOutput::errorTimeWrapper);
    }
    CRpcLibraryFault(const CRpcLibraryFault&) = delete;
    CRpcLibraryFault& operator=(const CRpcLibraryFault&) = delete;

private:
    static void ThrowStandard(const char* szText) {
        if (std::this_thread::get_id() == s_Thread) throw std::runtime_error(szText);
    }
    static void ThrowNumber(const char*) {
        if (std::this_thread::get_id() == s_Thread) throw 42;
    }

    static inline std::thread::id s_Thread;
#if defined(__SANITIZE_ADDRESS__)
    const __lsan::ScopedDisabler m_OfTheLibrary;  // which forgets what it holds where we throw
#endif
};

}  // namespace vok::test
