// Requests with the C runtime's contract, for libqkmalloc.so: every block is
// 16-aligned, and memory the C runtime refuses makes the request return null
// with errno ENOMEM, where the manager's own entry points end the process.
//
// The fast path is the manager's (qkMemoryInternals::alloc with
// Contract::c); only its exits here switch the thread's RefusalMode, so that
// a common request does no thread-local store. The heap record of a thread's
// first request is made before the switch: a thread whose heap cannot be made
// ends the process, as with the manager's entry points. Resizing is
// qkMemoryInternals::resize (qkMemoryFree.cpp).
#include <errno.h>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

namespace {

// Plain and constant-initialised: reached without an initialisation guard.
thread_local bool softRefusal = false;

inline void* refusedUnlessMade(void* p) {
    if (!p) errno = ENOMEM;
    return p;
}

}  // namespace

namespace qk::memory {

RefusalMode::RefusalMode(Contract contract) : outer_(softRefusal) {
    softRefusal = contract == Contract::c;
}
RefusalMode::~RefusalMode() {
    softRefusal = outer_;
}
bool RefusalMode::soft() {
    return softRefusal;
}

}  // namespace qk::memory

QK_NOINLINE void* qkMemoryInternals::allocFirstC(qkMemory* m, size_t size, char const* caller,
                                                 int line) {
    threadSlow(m);
    return alloc<Contract::c>(m, size, caller, line);
}

// Counting takes no memory; the request goes on to the C contract's small path.
QK_NOINLINE void* qkMemoryInternals::allocCountedC(qkMemory* m, MEMORY_THREAD* mt, size_t size,
                                                   char const* caller, int line) {
    countRequest(m, mt, size);
    return allocSmall<Contract::c>(m, mt, size, caller, line);
}

QK_NOINLINE void* qkMemoryInternals::allocSlowC(qkMemory* m, MEMORY_THREAD* mt, int b,
                                                char const* caller, int line) {
    RefusalMode mode(Contract::c);
    return refusedUnlessMade(allocSlow(m, mt, b, caller, line));
}

// Also the sizes that no large block can have.
QK_NOINLINE void* qkMemoryInternals::allocLargeC(qkMemory* m, MEMORY_THREAD* mt, size_t size,
                                                 char const* caller, int line) {
    RefusalMode mode(Contract::c);
    return refusedUnlessMade(allocLarge(m, mt, size, caller, line));
}

void* qkMemoryInternals::mallocC(size_t size, char const* caller) {
    if (qkMemory* m = manager()) return alloc<Contract::c>(m, size, caller, 0);
    return qk::platform::rawAlloc(size);
}
