// Run under LD_PRELOAD=libqkmalloc.so (see qkmalloc_contract_test.sh): the C
// allocation functions keep the C runtime's contract on the memory manager.
//
//   align    every size 0..4096 through every entry point without an explicit
//            alignment is 16-aligned, before and after the manager tunes
//            buckets of 8 mod 16 bytes; a structure with an SSE member at the
//            head of a variable-length block takes aligned SSE loads and
//            stores; blocks of the C runtime's aligned heap resize correctly.
//   exhaust  (under an address-space limit) requests the system refuses
//            return null with ENOMEM, a block passed to realloc stays as it
//            was, and the program goes on.
//
// Prints one line per broken promise and exits non-zero after any.
#include <errno.h>
#include <malloc.h>
#include <xmmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qkMemory.h"

namespace {

int failures = 0;

// Flushed at once: the program may die of the next broken promise.
void fail(char const* what, size_t size = 0) {
    std::printf("FAIL %s (%zu)\n", what, size);
    std::fflush(stdout);
    ++failures;
}

bool aligned16(void* p) {
    return reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

void stamp(void* p, size_t size, unsigned seed) {
    for (size_t i = 0; i < size; ++i)
        static_cast<unsigned char*>(p)[i] = static_cast<unsigned char>(seed + i * 7);
}
bool intact(void* p, size_t size, unsigned seed) {
    for (size_t i = 0; i < size; ++i)
        if (static_cast<unsigned char*>(p)[i] != static_cast<unsigned char>(seed + i * 7))
            return false;
    return true;
}

// ---- align --------------------------------------------------------------------

void* viaMalloc(size_t n) {
    return std::malloc(n);
}
void* viaCalloc(size_t n) {
    void* p = std::calloc(n, 1);
    for (size_t i = 0; p && i < n; ++i)
        if (static_cast<char*>(p)[i] != 0) fail("calloc cleared", n);
    return p;
}
void* viaRealloc(size_t n) {
    void* p = std::malloc(n / 2);
    stamp(p, n / 2, 5);
    void* q = std::realloc(p, n);
    if (q && !intact(q, n / 2, 5)) fail("realloc kept the bytes", n);
    return q;
}
void* viaReallocNull(size_t n) {
    return std::realloc(nullptr, n);
}
void* viaReallocarray(size_t n) {
    return reallocarray(std::malloc(1), n, 1);
}
void* viaPosixMemalign(size_t n) {
    void* p = nullptr;
    return posix_memalign(&p, sizeof(void*), n) == 0 ? p : nullptr;
}
void* viaMemalign(size_t n) {
    return memalign(4, n);
}

// Three blocks of every size at once through every entry point: neighbours in
// a bucket of 8 mod 16 bytes alternate between the two alignments.
void everySize(char const* when) {
    void* (*const forms[])(size_t) = {viaMalloc,       viaCalloc,        viaRealloc, viaReallocNull,
                                      viaReallocarray, viaPosixMemalign, viaMemalign};
    for (size_t size = 0; size <= 4096; ++size) {
        for (size_t f = 0; f < std::size(forms); ++f) {
            void* blocks[3];
            int bad = 0;
            for (void*& p : blocks)
                bad += !(p = forms[f](size)) || !aligned16(p);
            for (void* p : blocks)
                std::free(p);
            if (bad) {
                std::printf("in %s, form %zu: ", when, f);
                return fail("a block not 16-aligned, size", size);
            }
        }
    }
}

// Requests of `size` until the manager has tuned a bucket of `want` bytes for it.
template <class Request>
void tune(Request request, int size, int want) {
    qkMemory* m = qkMemory::getManager();
    for (long i = 0; i < 4000000; ++i) {
        int b = m->bucketNumber[size];
        if (b >= 16 && m->bucketSize[b] == want) return;
        request(static_cast<size_t>(size));
    }
    fail("tuned a bucket", static_cast<size_t>(want));
}

// A message with an SSE key in front of a variable-length body.
struct Packet {
    __m128 key;
    unsigned char body[1];
};

void sse() {
    std::vector<Packet*> packets;
    for (size_t length = 1; length <= 600; ++length) {
        for (int copy = 0; copy < 3; ++copy) {
            auto* p = static_cast<Packet*>(std::malloc(offsetof(Packet, body) + length));
            float const f = static_cast<float>(length);
            _mm_store_ps(reinterpret_cast<float*>(&p->key), _mm_set_ps(f, 2, 3, 4));
            std::memset(reinterpret_cast<char*>(p) + offsetof(Packet, body), 1, length);
            packets.push_back(p);
        }
    }
    for (Packet* p : packets) {
        __m128 key = _mm_load_ps(reinterpret_cast<float const*>(&p->key));
        if (_mm_cvtss_f32(key) != 4) fail("sse key");
        std::free(p);
    }
}

// Blocks of the C runtime's aligned heap grow and shrink through realloc
// with their bytes.
void foreignAligned() {
    for (size_t alignment : {32, 64, 4096}) {
        for (size_t size : {1, 100, 600, 5000}) {
            void* p = aligned_alloc(alignment, size);
            if (!p || reinterpret_cast<uintptr_t>(p) % alignment) fail("aligned_alloc", alignment);
            stamp(p, size, 9);
            size_t kept = size;
            for (size_t to : {size / 2 + 1, size * 3, size + 70000, size_t{40}}) {
                p = std::realloc(p, to);
                kept = to < kept ? to : kept;
                if (!p || !aligned16(p) || !intact(p, kept, 9)) fail("realloc of aligned", to);
            }
            std::free(p);
        }
    }
}

void align() {
    everySize("base buckets");
    // Enough malloc(100) to tune a bucket for it, then the manager's own
    // requests tune buckets of 104 and 200 bytes, 8 mod 16, whose blocks are
    // 8-aligned for qkMalloc.
    for (int i = 0; i < 210000; ++i)
        std::free(std::malloc(100));
    tune([](size_t n) { qkFree(qkMalloc(n, "tune", 0), "tune", 0); }, 100, 104);
    tune([](size_t n) { qkFree(qkMalloc(n, "tune", 0), "tune", 0); }, 200, 200);
    void* own[4];
    int misaligned = 0;
    for (void*& p : own)
        misaligned += !aligned16(p = qkMalloc(100, "own", 0));
    if (misaligned == 0 || qkMemSize(own[0]) != 104) fail("the manager's own contract kept");
    for (void* p : own)
        qkFree(p, "own", 0);
    everySize("tuned buckets");
    sse();
    foreignAligned();
}

// ---- exhaust ------------------------------------------------------------------

constexpr size_t kRefused = size_t{1} << 30;  // above the address-space limit

void expectRefused(void* p, char const* what) {
    if (p)
        fail(what), std::free(p);
    else if (errno != ENOMEM)
        fail(what, static_cast<size_t>(errno));
}

// Blocks of doubling size until the system refuses one, then small ones
// until it refuses those; all released, the same requests succeed again.
void everLarger() {
    std::vector<void*> held;
    held.reserve(1 << 16);
    size_t size = 1 << 20;
    for (void* p; (errno = 0, p = std::malloc(size)) != nullptr; size *= 2)
        held.push_back(p);
    if (errno != ENOMEM) fail("errno of a refused large block", size);
    void** chain = nullptr;  // small blocks linked through their first word
    long small = 0;
    for (void** p; (errno = 0, p = static_cast<void**>(std::malloc(200))) != nullptr; ++small)
        *p = chain, chain = p;
    if (errno != ENOMEM || small < 1000) fail("errno of a refused small block", small);
    while (chain) {
        void** next = static_cast<void**>(*chain);
        std::free(chain);
        chain = next;
    }
    for (void* p : held)
        std::free(p);
    void* again = std::malloc(size / 4);
    if (!again) fail("memory came back", size / 4);
    std::free(again);
}

// A refused realloc leaves the block valid, which the compiler cannot know.
#pragma GCC diagnostic ignored "-Wuse-after-free"

// Each kind of block asked to grow beyond the limit: null, and intact.
void reallocRefused() {
    struct {
        void* p;
        size_t size;
    } blocks[] = {
        {std::malloc(100), 100}, {std::malloc(100000), 100000}, {aligned_alloc(64, 1000), 1000}};
    for (auto& b : blocks) {
        stamp(b.p, b.size, 3);
        errno = 0;
        expectRefused(std::realloc(b.p, kRefused), "realloc refused");
        errno = 0;
        expectRefused(std::realloc(b.p, size_t{1} << 44), "realloc of 16 TiB refused");
        errno = 0;
        expectRefused(reallocarray(b.p, 1 << 20, 1 << 10), "reallocarray refused");
        if (!intact(b.p, b.size, 3)) fail("block intact after a refused realloc", b.size);
        void* q = std::realloc(b.p, b.size * 2);  // and still usable
        if (!q || !intact(q, b.size, 3)) fail("block usable after a refused realloc", b.size);
        std::free(q);
    }
}

void exhaust() {
    everLarger();
    reallocRefused();
    errno = 0;
    expectRefused(std::calloc(kRefused / 8, 8), "calloc refused");
    void* p = &p;
    for (size_t alignment : {16, 64}) {
        if (posix_memalign(&p, alignment, kRefused) != ENOMEM || p != &p)
            fail("posix_memalign refused", alignment);
        errno = 0;
        expectRefused(aligned_alloc(alignment, kRefused), "aligned_alloc refused");
    }
    errno = 0;
    expectRefused(pvalloc(SIZE_MAX - 100), "pvalloc of a size no page count holds");
}

}  // namespace

int main(int argc, char** argv) {
    void* probe = std::malloc(100);
    if (!qkMemory::getManager() || qkMemSize(probe) == 0) {
        std::printf("FAIL not running on the manager (preload libqkmalloc.so)\n");
        return 2;
    }
    std::free(probe);
    char const* mode = argc > 1 ? argv[1] : "";
    if (std::strcmp(mode, "align") == 0) {
        align();
    } else if (std::strcmp(mode, "exhaust") == 0) {
        exhaust();
    } else {
        std::printf("usage: %s align|exhaust\n", argv[0]);
        return 2;
    }
    return failures ? 1 : 0;
}
