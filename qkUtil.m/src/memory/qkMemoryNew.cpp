// The library's global operator new and operator delete, exported so that
// they serve the whole process, and getCaller, which gives them their caller
// tags.
//
// Every ordinary form goes to the manager (or to the C runtime while there is
// none) and every delete goes through the manager's release path, which hands
// pointers it did not make to the C runtime; so a block is always released by
// the allocator that made it. The manager is asked for small sizes rounded up
// to a multiple of 16, so that every block is aligned for any type of default
// alignment (__STDCPP_DEFAULT_NEW_ALIGNMENT__, 16), in tuned buckets too.
// Over-aligned forms go to the C runtime's aligned allocator and back to its
// free.
#include <new>

#include "memory/qkMemoryInternal.h"
#include "platform/platform_memory.h"

using namespace qk::memory;
namespace plat = qk::platform;

// The word `offset` bytes above `slot`. Reads the caller's stack as it is,
// which the address sanitizer would take for an access to another frame.
__attribute__((no_sanitize("address", "thread"))) static void* stackWord(void* slot, long offset) {
    return *reinterpret_cast<void* const*>(static_cast<char*>(slot) + offset);
}

// getCaller's frame base lies 16 bytes below its return-address slot, so
// offset 16 reads the return address, 24 the word above it, and so on.
QK_NOINLINE void* getCaller(int offset) {
    char* frame = static_cast<char*>(__builtin_frame_address(0));  // saved frame pointer
    return stackWord(frame - 8, offset);
}

// The caller tag of the operators: their own return address (the code that
// said new or delete) when the offset is 0, which costs one read; otherwise
// the word `offset` bytes above the return-address slot, further up the
// caller's stack.
#define QK_OPERATOR_CALLER(offset)     \
    (QK_LIKELY((offset) == 0)          \
         ? __builtin_return_address(0) \
         : stackWord(static_cast<char*>(__builtin_frame_address(0)) + 8, (offset)))

namespace {

inline void* allocate(size_t size, void* caller) {
    if (qkMemory* m = manager()) {
        size_t aligned = qkMemoryInternals::alignedRequest(size);
        return qkMemoryInternals::alloc(m, aligned, static_cast<char const*>(caller), 0);
    }
    return plat::rawAlloc(size ? size : 1);
}

inline void release(void* p, void* caller) {
    if (qkMemory* m = manager()) {
        return qkMemoryInternals::free(m, p, static_cast<char const*>(caller), 0);
    }
    plat::rawFree(p);
}

// A refused request: the new handler, if any, may make room; then `attempt`
// again. Without a handler the request fails: null for the nothrow forms,
// std::bad_alloc for the others.
template <class Attempt>
QK_NOINLINE void* retry(bool nothrow, Attempt attempt) {
    for (;;) {
        std::new_handler handler = std::get_new_handler();
        if (!handler) {
            if (nothrow) return nullptr;
            throw std::bad_alloc();
        }
        try {
            handler();
        } catch (std::bad_alloc const&) {
            if (nothrow) return nullptr;
            throw;
        }
        if (void* p = attempt()) return p;
    }
}

void* retryNew(size_t size, void* caller, bool nothrow) {
    return retry(nothrow, [=] { return allocate(size, caller); });
}

inline void* allocateAligned(size_t size, std::align_val_t alignment) {
    return plat::rawAlignedAlloc(static_cast<size_t>(alignment), size ? size : 1);
}

void* retryAligned(size_t size, std::align_val_t alignment, bool nothrow) {
    return retry(nothrow, [=] { return allocateAligned(size, alignment); });
}

}  // namespace

#define QK_OPERATOR __attribute__((visibility("default")))

// A small request with the manager in place never fails (a manager out of
// memory ends the process), so the common case is one tail call into the
// fast path; everything else goes through newOther.
QK_NOINLINE static void* newOther(size_t size, void* caller, bool nothrow) {
    void* p = allocate(size, caller);
    return QK_LIKELY(p != nullptr) ? p : retryNew(size, caller, nothrow);
}

#define QK_NEW_BODY(nothrow)                                                            \
    void* caller = QK_OPERATOR_CALLER(allocStackOffset);                                \
    if (QK_LIKELY(size <= static_cast<size_t>(kSmallLimit))) {                          \
        if (qkMemory* m = manager()) {                                                  \
            return qkMemoryInternals::alloc(m, qkMemoryInternals::alignedRequest(size), \
                                            static_cast<char const*>(caller), 0);       \
        }                                                                               \
    }                                                                                   \
    return newOther(size, caller, nothrow)

QK_OPERATOR void* operator new(size_t size) {
    QK_NEW_BODY(false);
}
QK_OPERATOR void* operator new[](size_t size) {
    QK_NEW_BODY(false);
}
QK_OPERATOR void* operator new(size_t size, std::nothrow_t const&) noexcept {
    QK_NEW_BODY(true);
}
QK_OPERATOR void* operator new[](size_t size, std::nothrow_t const&) noexcept {
    QK_NEW_BODY(true);
}

QK_OPERATOR void operator delete(void* p) noexcept {
    release(p, QK_OPERATOR_CALLER(freeStackOffset));
}
QK_OPERATOR void operator delete[](void* p) noexcept {
    release(p, QK_OPERATOR_CALLER(freeStackOffset));
}
QK_OPERATOR void operator delete(void* p, size_t) noexcept {
    release(p, QK_OPERATOR_CALLER(freeStackOffset));
}
QK_OPERATOR void operator delete[](void* p, size_t) noexcept {
    release(p, QK_OPERATOR_CALLER(freeStackOffset));
}
QK_OPERATOR void operator delete(void* p, std::nothrow_t const&) noexcept {
    release(p, QK_OPERATOR_CALLER(freeStackOffset));
}
QK_OPERATOR void operator delete[](void* p, std::nothrow_t const&) noexcept {
    release(p, QK_OPERATOR_CALLER(freeStackOffset));
}

// ---- Over-aligned forms: the C runtime's aligned heap --------------------------

QK_OPERATOR void* operator new(size_t size, std::align_val_t alignment) {
    void* p = allocateAligned(size, alignment);
    return QK_LIKELY(p != nullptr) ? p : retryAligned(size, alignment, false);
}
QK_OPERATOR void* operator new[](size_t size, std::align_val_t alignment) {
    void* p = allocateAligned(size, alignment);
    return QK_LIKELY(p != nullptr) ? p : retryAligned(size, alignment, false);
}
QK_OPERATOR void* operator new(size_t size, std::align_val_t alignment,
                               std::nothrow_t const&) noexcept {
    void* p = allocateAligned(size, alignment);
    return QK_LIKELY(p != nullptr) ? p : retryAligned(size, alignment, true);
}
QK_OPERATOR void* operator new[](size_t size, std::align_val_t alignment,
                                 std::nothrow_t const&) noexcept {
    void* p = allocateAligned(size, alignment);
    return QK_LIKELY(p != nullptr) ? p : retryAligned(size, alignment, true);
}

QK_OPERATOR void operator delete(void* p, std::align_val_t) noexcept {
    plat::rawFree(p);
}
QK_OPERATOR void operator delete[](void* p, std::align_val_t) noexcept {
    plat::rawFree(p);
}
QK_OPERATOR void operator delete(void* p, size_t, std::align_val_t) noexcept {
    plat::rawFree(p);
}
QK_OPERATOR void operator delete[](void* p, size_t, std::align_val_t) noexcept {
    plat::rawFree(p);
}
QK_OPERATOR void operator delete(void* p, std::align_val_t, std::nothrow_t const&) noexcept {
    plat::rawFree(p);
}
QK_OPERATOR void operator delete[](void* p, std::align_val_t, std::nothrow_t const&) noexcept {
    plat::rawFree(p);
}
