// What ThreadSanitizer cannot judge. Compiled into every program that tests start: EMPs are given
// no environment that could tell them.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VOK_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define VOK_THREAD_SANITIZER
#endif

#ifdef VOK_THREAD_SANITIZER
/// The RPC library is not instrumented. Its accepting thread lets go of objects that connection
/// threads have used; the reference counts that order the two are not seen.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:apache::thrift::server::TServerFramework::serve\n";
}
#endif
