// Raw C runtime heap. glibc exports its allocator under __libc_* names as
// well; calling those keeps working when malloc itself has been redirected
// to the library's memory manager by the preloadable shim. Sanitizers
// intercept malloc but not the __libc_* names, so under a sanitizer the
// ordinary names are used and the sanitizer sees every block.
#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QK_RAW_THROUGH_MALLOC 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QK_RAW_THROUGH_MALLOC 1
#endif
#endif

#ifndef QK_RAW_THROUGH_MALLOC
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}
#endif

namespace qk::platform {

#ifdef QK_RAW_THROUGH_MALLOC
void* rawAlloc(size_t size) {
    return std::malloc(size);
}
void* rawCalloc(size_t count, size_t size) {
    return std::calloc(count, size);
}
void* rawRealloc(void* p, size_t size) {
    return std::realloc(p, size);
}
void rawFree(void* p) {
    std::free(p);
}
#else
void* rawAlloc(size_t size) {
    return __libc_malloc(size);
}
void* rawCalloc(size_t count, size_t size) {
    return __libc_calloc(count, size);
}
void* rawRealloc(void* p, size_t size) {
    return __libc_realloc(p, size);
}
void rawFree(void* p) {
    __libc_free(p);
}
#endif

// glibc's defaults give memory back to the system as soon as 128 KiB lie
// free at the top of a heap and fetch it again on the next request: a program
// that keeps a few blocks of some tens of KiB alive at a time pays a system
// call and fresh zero pages on nearly every request. The manager keeps only
// large blocks (and superblocks) on this heap, so the heap top is left alone
// until 8 MiB are free, each growth reserves 1 MiB more (address space only:
// untouched pages take no memory), and blocks from 4 MiB up are mapped on
// their own, so that releasing one gives its memory back at once. Setting any
// of these switches glibc's sliding mmap threshold off, so all three are set.
// A process that tunes the heap itself, through glibc's environment
// variables, keeps its own settings.
void rawConfigure() {
#ifndef QK_RAW_THROUGH_MALLOC
    static char const* const own[] = {"MALLOC_TRIM_THRESHOLD_", "MALLOC_TOP_PAD_",
                                      "MALLOC_MMAP_THRESHOLD_", "GLIBC_TUNABLES"};
    for (char const* name : own)
        if (std::getenv(name)) return;
    mallopt(M_MMAP_THRESHOLD, 4 << 20);
    mallopt(M_TRIM_THRESHOLD, 8 << 20);
    mallopt(M_TOP_PAD, 1 << 20);
#endif
}

char* rawStrdup(char const* s) {
    size_t n = std::strlen(s) + 1;
    char* copy = static_cast<char*>(rawAlloc(n));
    if (copy) std::memcpy(copy, s, n);
    return copy;
}

}  // namespace qk::platform
