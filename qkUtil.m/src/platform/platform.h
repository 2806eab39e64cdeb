// The platform layer: the only code of the library that calls the operating
// system. Everything else reaches the system through these functions, which
// give the library the services it was designed around (critical sections,
// thread-local slots, thread handles and exit codes, tick counts, sleeps, a
// high-resolution counter) on Linux.
//
// Thread-safety: every function may be called from any thread; the objects
// behind a handle (lock, semaphore, thread handle) synchronise themselves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qkExport.h"

// Everything declared here is exported from libqkUtil.so for the library's own
// tests and tools; it is not part of the public interface and has no header
// in include/.

struct qkCriticalSection;

namespace qk::platform {

// ---- Raw C runtime heap -------------------------------------------------
// The allocator underneath the library. It bypasses any redirection of
// malloc (such as the library's own malloc shim), so the memory manager and
// the platform layer can take memory without recursing into themselves.
// Under a sanitizer these are the ordinary malloc family, which the
// sanitizer tracks. Memory from rawAlloc goes back through rawFree only.
QK_EXPORT void* rawAlloc(size_t size);
QK_EXPORT void* rawCalloc(size_t count, size_t size);
QK_EXPORT void* rawRealloc(void* p, size_t size);
QK_EXPORT void rawFree(void* p);
// Sets the raw heap up for the large blocks the memory manager keeps there
// (see platform_heap.cpp); once, when the manager is made.
QK_EXPORT void rawConfigure();
// A copy of `s` from the raw heap; null when out of memory.
QK_EXPORT char* rawStrdup(char const* s);

// ---- Locks ---------------------------------------------------------------
// A non-recursive operating-system lock in caller-provided storage (the
// critical section of the original design). Recursion is kept by qkMutex.
QK_EXPORT void lockInit(qkCriticalSection* section);
QK_EXPORT void lockDestroy(qkCriticalSection* section);
QK_EXPORT void lockEnter(qkCriticalSection* section);
// One attempt; true when the lock was taken.
QK_EXPORT bool lockTryEnter(qkCriticalSection* section);
QK_EXPORT void lockLeave(qkCriticalSection* section);

// ---- Counting semaphore --------------------------------------------------
// A semaphore with a maximum count. semRelease fails (returns false and
// changes nothing) when it would raise the count above the maximum.
QK_EXPORT void* semCreate(int initial, int maximum);
QK_EXPORT void semDestroy(void* sem);
QK_EXPORT bool semRelease(void* sem, int units);
QK_EXPORT void semWait(void* sem);

// ---- Thread-local slots --------------------------------------------------
// Slots numbered 0..kTlsSlots-1, each holding one pointer per thread, null in
// a new thread. They stay readable until the thread is gone, so code that runs
// during thread teardown still finds its state. tlsAlloc returns -1 when all
// slots are taken.
constexpr int kTlsSlots = 64;
QK_EXPORT int tlsAlloc();
QK_EXPORT void tlsFree(int slot);

// The slots live in initial-exec TLS (__thread: no C++ initialisation
// wrapper): a read is one thread-pointer-relative load, cheap enough for the
// memory manager's lock-free path.
QK_EXPORT extern __thread void* tlsSlots[kTlsSlots] __attribute__((tls_model("initial-exec")));

inline void* tlsGet(int slot) {
    return static_cast<unsigned>(slot) < kTlsSlots ? tlsSlots[slot] : nullptr;
}
inline void tlsSet(int slot, void* value) {
    if (static_cast<unsigned>(slot) < kTlsSlots) tlsSlots[slot] = value;
}

// ---- Thread handles ------------------------------------------------------
// A handle is a counted reference to the record of one thread, which is how
// a handle tells whether its thread still runs. threadHandleEnded is true
// only once the thread can no longer run user code (past its exit hook, and
// the kernel has let it go); while the thread is still busy with its
// teardown it answers false, after waiting a few milliseconds at most.
// threadHandleDup gives a new handle of the calling thread,
// threadHandleRetain one more reference to an existing handle; each needs one
// threadHandleClose. threadHandleDup returns null only when out of memory.
QK_EXPORT void* threadHandleDup();
QK_EXPORT void threadHandleRetain(void* handle);
QK_EXPORT bool threadHandleEnded(void* handle);
QK_EXPORT void threadHandleClose(void* handle);

// ---- Threads -------------------------------------------------------------
// Starts routine(arg) on a new, detached thread with `stackSize` bytes of
// stack (0: the system default; sizes below the system minimum are raised to
// it) and a priority one step above normal, best effort. False on failure.
QK_EXPORT bool threadCreate(int (*routine)(void*), void* arg, int stackSize);

// The calling thread's id (the kernel's thread id), read once per thread.
QK_EXPORT uintptr_t threadIdSlow();
QK_EXPORT extern __thread uintptr_t cachedThreadId __attribute__((tls_model("initial-exec")));
inline uintptr_t threadId() {
    uintptr_t id = cachedThreadId;
    return id ? id : threadIdSlow();
}

// Handlers run around fork(): `prepare` in the parent before it, `parent` and
// `child` in the two processes after it (pthread_atfork).
QK_EXPORT void atFork(void (*prepare)(), void (*parent)(), void (*child)());

// ---- Time ----------------------------------------------------------------
// Milliseconds of a monotonic clock as an unsigned 32-bit tick that wraps
// like the original's; compare differences unsigned.
QK_EXPORT uint32_t tickCount();
// Sleeps `ms` milliseconds (signals do not cut the sleep short).
QK_EXPORT void sleepMs(unsigned ms);
// The monotonic high-resolution counter and its ticks per second.
QK_EXPORT int64_t perfCounter();
QK_EXPORT int64_t perfFrequency();
// Seconds since 1970 by the wall clock.
QK_EXPORT int64_t unixTime();
// The calling process's id.
QK_EXPORT int processId();

}  // namespace qk::platform
