// Export control for libqkUtil.so.
//
// The library is built with hidden visibility; only what is marked QK_EXPORT
// (classes of the public interface) or QK_EXPORT_C (plain functions with
// unmangled names) is visible to the modules that link it.
#pragma once

#define QK_EXPORT __attribute__((visibility("default")))
#define QK_EXPORT_C extern "C" __attribute__((visibility("default")))
#define QK_NOINLINE __attribute__((noinline))
#define QK_LIKELY(x) __builtin_expect(!!(x), 1)
#define QK_UNLIKELY(x) __builtin_expect(!!(x), 0)
