/// Annotations for clang's -Wthread-safety: which lock guards what, and in which order locks are
/// taken. Other compilers see nothing.
#pragma once

#if defined(__clang__)
#define VOK_TSA(x) __attribute__((x))
#else
#define VOK_TSA(x)
#endif

#define VOK_GUARDED_BY(mutex) VOK_TSA(guarded_by(mutex))
#define VOK_REQUIRES(...) VOK_TSA(requires_capability(__VA_ARGS__))
#define VOK_EXCLUDES(...) VOK_TSA(locks_excluded(__VA_ARGS__))
#define VOK_BEFORE(mutex) VOK_TSA(acquired_before(mutex))
