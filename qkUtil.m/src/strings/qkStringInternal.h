// What the qkString sources share among themselves: the heap block layout,
// the size limit, the caller tags of their allocations and the fatal path.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>

#include "platform/platform.h"
#include "qkMemory.h"
#include "qkString.h"

namespace qk::str {

// A heap representation is the qkStringRef header followed by allocLen bytes
// of text; the inline 32-byte buffer is not part of the block's size.
constexpr size_t kHeader = offsetof(qkStringRef, buf);
// Every capacity is len + 32 and must fit allocLen (an int).
constexpr unsigned kSlack = 32;
constexpr unsigned kMaxText = qkString::maxLength;
static_assert(kMaxText + kSlack == 0x7FFFFFFF);

// The caller tags of the strings' allocations and releases: an address
// inside the function that asks, or, with the manager's stack offsets (set
// from QK_MEMORY_ALLOC_STACK_OFFSET / QK_MEMORY_FREE_STACK_OFFSET), a word
// further up the stack. Macros, because getCaller must be called from that
// very function.
#define QK_STRING_ALLOC_TAG static_cast<char const*>(getCaller(16 + allocStackOffset))
#define QK_STRING_FREE_TAG static_cast<char const*>(getCaller(16 + freeStackOffset))

// The thread that owns new heap texts and may share them: qkMutex::id(),
// read inline from the platform layer's cached thread id.
inline void* currentThread() {
    return reinterpret_cast<void*>(qk::platform::threadId());
}

// The cached length. Several threads may read one string at once, and each
// that finds the length unknown counts it and stores it: the same value from
// every one of them. Relaxed atomic access keeps that well defined at the
// cost of a plain load or store.
inline int cachedLength(qkStringRef const* r) {
    return std::atomic_ref<int>(const_cast<int&>(r->reqLen)).load(std::memory_order_relaxed);
}
inline void storeLength(qkStringRef const* r, int n) {
    std::atomic_ref<int>(const_cast<int&>(r->reqLen)).store(n, std::memory_order_relaxed);
}

// The length of a representation's text: the cached one, or counted up to
// the terminator (never beyond the buffer, even if a caller has overwritten
// the terminator through head()) and cached.
inline unsigned textLength(qkStringRef const* r) {
    int n = cachedLength(r);
    if (n >= 0) return static_cast<unsigned>(n);
    n = static_cast<int>(strnlen(r->buf, r->allocLen - 1));
    storeLength(r, n);
    return static_cast<unsigned>(n);
}

// A text too long for a string, or a heap block that could not be had: the
// process ends with a message, as it does when the memory manager runs out.
[[noreturn]] void fatal(char const* what, size_t bytes);

}  // namespace qk::str
