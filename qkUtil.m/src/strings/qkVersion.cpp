// The version texts and the re-entrant tokenizer.
#include "qkVersion.h"

#include <atomic>
#include <cstring>

#include "qkMemory.h"

#define QK_RELEASE_TEXT "qkUtil 1.0.0"

extern "C" {
QK_EXPORT char const* qkcInternalVersion = "33.0.0.0";
QK_EXPORT char const* qkcVersion = QK_RELEASE_TEXT;
QK_EXPORT char const* qkcQkffVersion = QK_RELEASE_TEXT;
}

namespace {
// The host's text; set once, then only read.
std::atomic<char const*> gHostVersion{nullptr};
}  // namespace

char const* getQkcVersion() {
    char const* v = gHostVersion.load(std::memory_order_acquire);
    return v ? v : qkcVersion;
}

void setQkcVersion(char const* v) {
    if (!v || gHostVersion.load(std::memory_order_acquire)) return;
    auto* copy = static_cast<char*>(qkMalloc(40, __FILE__, __LINE__));
    std::strncpy(copy, v, 39);
    copy[39] = 0;
    char const* none = nullptr;
    // Two first calls at once: the one that lands keeps its text.
    if (!gHostVersion.compare_exchange_strong(none, copy, std::memory_order_acq_rel)) {
        qkFree(copy, __FILE__, __LINE__);
    }
}

int getRuntimeBitMode() {
    return 64;
}

char* KorSysStrtok(char* str, char const* delims, char** save) {
    if (!delims || !save || !*save) return nullptr;
    char* p = str ? str : *save;
    p += std::strspn(p, delims);
    size_t n = std::strcspn(p, delims);
    if (n == 0) return nullptr;
    if (p[n] == 0) {
        *save = nullptr;
        return p;
    }
    p[n] = 0;
    *save = p[n + 1] ? p + n + 1 : p + n;
    return p;
}
