// libqkmalloc.so: the C allocation functions on top of the memory manager,
// for running any program on it with LD_PRELOAD (to compare the manager with
// other allocators on programs we did not write).
//
// The manager is created when the shim is loaded. Blocks that were taken
// before (the dynamic loader's and the C runtime's start-up allocations) came
// from the C runtime heap and are recognised as such when released.
//
// The C contract holds (qkMemoryInternals::mallocC and reallocC): every block
// is 16-aligned (small requests are rounded up to a multiple of 16 before the
// manager sees them), and a request the system refuses returns null with
// errno ENOMEM, leaving a block passed to realloc as it was. Alignments up to
// 16 are therefore plain requests; larger ones go to the C runtime's aligned
// heap, whose blocks the manager also recognises.
#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "memory/qkMemoryInternal.h"
#include "platform/platform_memory.h"

#define QK_SHIM extern "C" __attribute__((visibility("default")))
#define QK_SITE static_cast<char const*>(__builtin_return_address(0))

namespace {

__attribute__((constructor)) void createManager() {
    qkMemory::setPassthru(0, nullptr);
}

void* alignedBlock(size_t alignment, size_t size, char const* caller) {
    if (alignment <= 16) return qkMemoryInternals::mallocC(size, caller);
    return qk::platform::rawAlignedAlloc(alignment, size);
}

bool powerOfTwo(size_t n) {
    return n != 0 && (n & (n - 1)) == 0;
}

}  // namespace

QK_SHIM void* malloc(size_t size) {
    return qkMemoryInternals::mallocC(size, QK_SITE);
}

QK_SHIM void free(void* p) {
    qkFree(p, QK_SITE, 0);
}

QK_SHIM void* calloc(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* p = qkMemoryInternals::mallocC(bytes, QK_SITE);
    if (p) std::memset(p, 0, bytes);
    return p;
}

QK_SHIM void* realloc(void* p, size_t size) {
    return qkMemoryInternals::reallocC(p, size, QK_SITE);
}

QK_SHIM void* reallocarray(void* p, size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return realloc(p, bytes);
}

QK_SHIM int posix_memalign(void** out, size_t alignment, size_t size) {
    if (!powerOfTwo(alignment) || alignment % sizeof(void*) != 0) return EINVAL;
    void* p = alignedBlock(alignment, size, QK_SITE);
    if (!p) return ENOMEM;
    *out = p;
    return 0;
}

QK_SHIM void* aligned_alloc(size_t alignment, size_t size) {
    if (!powerOfTwo(alignment)) {
        errno = EINVAL;
        return nullptr;
    }
    void* p = alignedBlock(alignment, size, QK_SITE);
    if (!p) errno = ENOMEM;  // the C runtime's aligned heap may leave it unset
    return p;
}

QK_SHIM void* memalign(size_t alignment, size_t size) {
    return aligned_alloc(alignment, size);
}

QK_SHIM void* valloc(size_t size) {
    return aligned_alloc(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
}

QK_SHIM void* pvalloc(size_t size) {
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    if (size > SIZE_MAX - (page - 1)) {  // no whole number of pages holds it
        errno = ENOMEM;
        return nullptr;
    }
    return aligned_alloc(page, (size + page - 1) / page * page);
}

// The manager's blocks know their usable size; for a C runtime block, ask
// the C runtime's own function (the next definition after this one).
QK_SHIM size_t malloc_usable_size(void* p) {
    if (!p) return 0;
    if (size_t size = qkMemSize(p)) return size;
    using UsableSize = size_t (*)(void*);
    static UsableSize next = reinterpret_cast<UsableSize>(dlsym(RTLD_NEXT, "malloc_usable_size"));
    return next ? next(p) : 0;
}
