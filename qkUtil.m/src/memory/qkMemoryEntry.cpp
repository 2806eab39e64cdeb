// The plain entry points. Each one decides at the call whether the manager
// exists: with it, the manager serves the call; without it (before the host
// creates it, or for good in pass-through mode) the C runtime does, through
// the platform's raw heap so that a malloc redirected to the manager cannot
// recurse.
#include <cstring>

#include "memory/qkMemoryInternal.h"
#include "platform/platform_memory.h"

using namespace qk::memory;
namespace plat = qk::platform;

void* qkMalloc(size_t size, char const* caller, int line) {
    if (qkMemory* m = manager()) return qkMemoryInternals::alloc(m, size, caller, line);
    return plat::rawAlloc(size);
}

void qkFree(void* p, char const* caller, int line) {
    if (qkMemory* m = manager()) return qkMemoryInternals::free(m, p, caller, line);
    plat::rawFree(p);
}

void* qkCalloc(size_t count, size_t size, char const* caller, int line) {
    qkMemory* m = manager();
    if (!m) return plat::rawCalloc(count, size);
    size_t bytes = count * size;
    void* p = qkMemoryInternals::alloc(m, bytes, caller, line);
    if (p) std::memset(p, 0, bytes);
    return p;
}

void* qkRealloc(void* p, size_t size, char const* caller, int line) {
    if (qkMemory* m = manager()) return m->reallocMemory(p, size, caller, line);
    return plat::rawRealloc(p, size);
}

namespace {

// A copy of s from the manager; null when out of memory.
char* copyText(qkMemory* m, char const* s, char const* caller, int line) {
    size_t bytes = std::strlen(s) + 1;
    char* copy = static_cast<char*>(qkMemoryInternals::alloc(m, bytes, caller, line));
    if (copy) std::memcpy(copy, s, bytes);
    return copy;
}

}  // namespace

char* qkStrdup(char const* s, char const* caller, int line) {
    if (!s) return nullptr;
    qkMemory* m = manager();
    if (!m) return plat::rawStrdup(s);
    return copyText(m, s, caller, line);
}

size_t qkMemSize(void* p) {
    qkMemory* m = manager();
    if (!p || !m) return 0;
    MEMORY_HEADER* h = qkMemoryInternals::headerOf(m, p);
    switch (peekTag(p, h)) {
        case TAG_LARGE_USED:
            return static_cast<size_t>(h->size);
        case TAG_SMALL_USED:
            return static_cast<size_t>(h->owner->blockSize);
        default:
            return 0;
    }
}

char* qkTempnam(char const* dir, char const* pfx) {
    char* name = plat::tempName(dir, pfx);
    if (!name) return nullptr;
    qkMemory* m = manager();
    if (!m) return name;  // already a C runtime copy
    char* copy = copyText(m, name, kManagerFile, 1593);
    plat::rawFree(name);
    return copy;
}

MEMORY_THREAD* qkMemoryThread() {
    qkMemory* m = manager();
    return m ? qkMemoryInternals::thread(m) : nullptr;
}
