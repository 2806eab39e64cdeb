// Raw C runtime heap. glibc exports its allocator under __libc_* names as
// well; calling those keeps working when malloc itself has been redirected
// to the library's memory manager by the preloadable shim. Sanitizers
// intercept malloc but not the __libc_* names, so under a sanitizer the
// ordinary names are used and the sanitizer sees every block.
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

char* rawStrdup(char const* s) {
    size_t n = std::strlen(s) + 1;
    char* copy = static_cast<char*>(rawAlloc(n));
    if (copy) std::memcpy(copy, s, n);
    return copy;
}

}  // namespace qk::platform
