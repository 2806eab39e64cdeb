// The C runtime's aligned allocator and temporary file names.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "platform/platform_file.h"
#include "platform/platform_memory.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QK_RAW_THROUGH_MALLOC 1
#endif

#ifndef QK_RAW_THROUGH_MALLOC
extern "C" void* __libc_memalign(size_t, size_t);
#endif

namespace qk::platform {

void* rawAlignedAlloc(size_t alignment, size_t size) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0) return nullptr;
#ifdef QK_RAW_THROUGH_MALLOC
    void* p = nullptr;
    if (alignment < sizeof(void*)) alignment = sizeof(void*);
    return posix_memalign(&p, alignment, size) == 0 ? p : nullptr;
#else
    return __libc_memalign(alignment, size);
#endif
}

static bool usableDirectory(char const* dir) {
    struct stat st;
    return dir && *dir && stat(dir, &st) == 0 && S_ISDIR(st.st_mode) &&
           access(dir, W_OK | X_OK) == 0;
}

// Six characters from a generator seeded by the clock, the process and the
// buffer's address; uniqueness is checked against the file system.
static void randomSuffix(char* out, unsigned long long& state) {
    static char const alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int i = 0; i < 6; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        out[i] = alphabet[(state >> 33) % (sizeof alphabet - 1)];
    }
    out[6] = '\0';
}

char* tempName(char const* dir, char const* pfx) {
    char const* base = usableDirectory(dir) ? dir : nullptr;
    if (!base) {
        char const* env = tempDirectory();
        base = usableDirectory(env) ? env : "/tmp";
    }
    if (!pfx) pfx = "";
    size_t length = std::strlen(base) + 1 + std::strlen(pfx) + 6 + 1;
    char* name = static_cast<char*>(rawAlloc(length));
    if (!name) return nullptr;
    unsigned long long state = static_cast<unsigned long long>(perfCounter()) ^
                               (static_cast<unsigned long long>(getpid()) << 32) ^
                               reinterpret_cast<unsigned long long>(name);
    char suffix[7];
    for (int attempt = 0; attempt < 1000; ++attempt) {
        randomSuffix(suffix, state);
        std::snprintf(name, length, "%s/%s%s", base, pfx, suffix);
        struct stat st;
        if (lstat(name, &st) != 0) return name;
    }
    rawFree(name);
    return nullptr;
}

}  // namespace qk::platform
