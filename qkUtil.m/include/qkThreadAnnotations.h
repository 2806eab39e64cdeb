// Lock contracts that clang's -Wthread-safety analysis checks.
//
// Under g++ the macros expand to nothing. A clang build with -Wthread-safety
// proves that every field marked QK_GUARDED_BY(mu) is touched only while mu is
// held, and that functions marked QK_REQUIRES(mu) are called with it held.
#pragma once

#if defined(__clang__)
#define QK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QK_THREAD_ANNOTATION(x)
#endif

#define QK_CAPABILITY(x) QK_THREAD_ANNOTATION(capability(x))
#define QK_GUARDED_BY(x) QK_THREAD_ANNOTATION(guarded_by(x))
#define QK_PT_GUARDED_BY(x) QK_THREAD_ANNOTATION(pt_guarded_by(x))
#define QK_REQUIRES(...) QK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QK_ACQUIRE(...) QK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QK_RELEASE(...) QK_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QK_TRY_ACQUIRE(...) QK_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QK_EXCLUDES(...) QK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QK_NO_THREAD_SAFETY_ANALYSIS QK_THREAD_ANNOTATION(no_thread_safety_analysis)
