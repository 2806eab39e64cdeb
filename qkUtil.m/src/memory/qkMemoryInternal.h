// The memory manager's internal structures and its lock-free fast paths.
//
// Layout of a superblock (16384 bytes from the C runtime):
//   [MEMORY_SUPERBLOCK, 96 bytes][block][block]...   each block one stride long
// Layout of a block (small or large):
//   [header 16: owner|next|size, tag, slot][debug slots 16 * n][data]
// The caller's pointer is header + 16 + debugHeaderSize.
//
// Who touches what (see also qkMemory.h):
// - The owning thread works on its superblocks' `free` lists, on `allocCount`
//   and on its own `partial`/`full` lists without a lock.
// - Other threads reach an owned superblock only through `pending`,
//   `freeCount` and the owner's `reclaim[b]` list, under allocLock[b].
// - allocLock[b] guards keep[b], keepStats[b], systemStats[b], every heap's
//   stats[b], every superblock's pending/freeCount/thread for bucket b and
//   every heap's reclaim[b]. allocLock[24] guards the large-block statistics.
// - threadLock guards `threads`, the tuning decision and the last retry of an
//   allocation from the C runtime.
//
// Lock order (relied on wherever two are held, and by the fork handlers that
// take them all): printLock, then threadLock, then at most one allocLock.
// - A warning holds printLock while the print function runs, and the print
//   function may allocate: make a heap, tune (threadLock), take a bucket's
//   allocLock. So no path may wait for printLock while it holds threadLock
//   or an allocLock: warnings are raised after those are let go, and
//   outOfMemory is called with neither held.
// - An allocLock is never held while waiting for threadLock, printLock or
//   another bucket's allocLock; the only nesting of allocLocks is
//   keepSuperblock() re-entering the lock of its own bucket, which the
//   recursive mutex allows.
// - The C runtime is asked for memory (sys_alloc) with no allocLock and no
//   threadLock held, because its shortage path takes every allocLock in
//   turn, then threadLock, and may warn.
#pragma once

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "platform/platform.h"
#include "qkMemory.h"
#include "qkThread.h"

#if defined(__SANITIZE_ADDRESS__)
#define QK_MEMORY_ASAN 1
#include <sanitizer/asan_interface.h>
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QK_MEMORY_SANITIZED 1
// From the sanitizer runtimes (GCC ships no header for them). Under the
// address sanitizer, ownership answers whether `p` is the start of one of its
// blocks; under the thread sanitizer it also answers for interior pointers,
// and the allocated size (non-zero for every block start, zero inside a
// block) is the exact question.
extern "C" int __sanitizer_get_ownership(void const volatile* p);
extern "C" size_t __sanitizer_get_allocated_size(void const volatile* p);
#endif

// The fast paths are inlined into every entry point (qkMalloc, qkFree, the
// operators), so that a request costs one call from the caller.
#define QK_ALWAYS_INLINE inline __attribute__((always_inline))

namespace qk::memory {

constexpr int kSmallLimit = 512;
constexpr int kSuperblockSize = 16384;
constexpr int kSuperblockHeader = 96;
constexpr int kBlockArea = kSuperblockSize - kSuperblockHeader;  // 16288
constexpr int kHeaderSize = 16;                                  // MEMORY_HEADER_SIZE
constexpr int kDebugSlotSize = 16;                               // DEBUG_MEMORY_HEADER_SIZE
constexpr int kReserveSize = 1048576;
constexpr int kBaseBuckets = 16;
constexpr int kBucketLimit = 24;
constexpr int kLargeIndex = 24;
constexpr int kFirstTuning = 200000;
constexpr unsigned long long kDefaultPageSize = 8192;

constexpr uint32_t TAG_SMALL_USED = 0x12345678;
constexpr uint32_t TAG_SMALL_FREE = 0xBAAAAAAD;
constexpr uint32_t TAG_LARGE_USED = 0x87654321;
constexpr uint32_t TAG_RELEASED = 0x45555552;

// The file tag the manager uses for its own warnings and requests.
constexpr char const* kManagerFile = "qkMemory.cpp";

// Makes fork() safe for a process whose threads use the manager (once).
void registerForkHandlers();

}  // namespace qk::memory

// The 16-byte header in front of every block.
struct MEMORY_HEADER {
    union {
        MEMORY_SUPERBLOCK* owner;  // small block in use
        MEMORY_HEADER* next;       // small block on a free or pending list
        uint64_t size;             // large block: the requested size
    };
    uint32_t tag;
    int32_t slot;  // ring position of the next debug slot
};
static_assert(sizeof(MEMORY_HEADER) == qk::memory::kHeaderSize);

// The header at the start of each superblock.
struct MEMORY_SUPERBLOCK {
    int bucket;
    int blockSize;
    int blockCount;
    int allocCount;          // owner only (or under allocLock while in the keep pool)
    LinkedList link;         // in the owner's partial/full list, or in keep[bucket]
    LinkedList reclaim;      // in the owner's reclaim[bucket] list
    MEMORY_HEADER* free;     // owner only
    MEMORY_HEADER* pending;  // under allocLock[bucket]
    // Read without a lock by any thread that frees into the superblock: only
    // the heap itself ever sets it to its own address, so a thread that reads
    // its own heap here is right, and any other value sends it to the locked
    // path.
    std::atomic<MEMORY_THREAD*> thread;
    // Bumped under allocLock[bucket] with a release store after the push onto
    // `pending`, so an owner that reads it (acquire) sees the pushed blocks.
    std::atomic<int> freeCount;
    // Under allocLock[bucket], valid while `pending` is not empty: the byte
    // offset of the last block of `pending`, so that merging it into `free`
    // does not walk the list (each step a cache miss on a block another
    // thread wrote). It fills the header's last four bytes.
    int pendingTail;

    MEMORY_HEADER* firstBlock() {
        return reinterpret_cast<MEMORY_HEADER*>(reinterpret_cast<char*>(this) +
                                                qk::memory::kSuperblockHeader);
    }
};
static_assert(sizeof(MEMORY_SUPERBLOCK) <= qk::memory::kSuperblockHeader);
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<void*>::is_always_lock_free);

// A thread's heap record: taken from the C runtime, reached through the
// manager's thread-local key, linked into the manager's `threads` list. It
// outlives its thread until another thread adopts or dismantles it.
//
// The tuning counts of a heap that does not own the shared counts. Two
// threads that both wrote `countBySize` and `allocCount` on every small
// request would pass those cache lines back and forth on every request. So
// one heap at a time (FastState::countOwner) writes them directly, exactly as
// documented; any other counts its requests here and folds them into the
// shared counts every kFoldEvery requests, taking the ownership over at that
// moment. A heap that is not the owner but finds the shared count unchanged
// since its previous request (the owner has stopped counting) takes the
// ownership over at once, so a thread that counts alone is exact: it sees
// every tuning at the documented count and reads exact shared counts.
struct TuningCounts {
    static constexpr int kFoldEvery = 4096;
    int pending = 0;  // requests counted here and not yet folded in
    int budget = 0;   // fold when `pending` reaches this
    int seen = -1;    // the shared allocCount after this heap's last direct count
    int bySize[qk::memory::kSmallLimit + 1] = {};
};

class qkMemoryThreadRecord : public qkThreadState {
  public:
    qkMemoryThreadRecord();
    // Hands every superblock to the keep pool, zeroes the statistics and
    // unlinks the record from `threads`; the caller holds threadLock.
    ~qkMemoryThreadRecord() override;

    LinkedList node;
    MEMORY_THREAD heap;
    TuningCounts counts;
};

// ---- Relaxed and atomic access to fields declared plain in the interface ----
//
// Summaries take atomic additions; the plain counters (per-bucket
// entries, high-water marks, tuning counts, limits, hooks) are read and
// written with relaxed atomic loads and stores: the same instructions as plain
// accesses, but no data race in the C++ sense.
namespace qk::memory {

template <class T>
inline T loadRelaxed(T const& field) {
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}
template <class T>
inline void storeRelaxed(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}
template <class T>
inline void addAtomic(T& field, T delta) {
    std::atomic_ref<T>(field).fetch_add(delta, std::memory_order_relaxed);
}

// What every request reads besides the block it takes. The manager's own
// fields keep the order the debugger scripts know, which puts infoKey on the
// cache line of the keep and system summaries and `buckets` next to the keep
// statistics: lines that other threads write whenever a superblock changes
// hands. So the fast paths read copies kept here, on a line of their own that
// is written only when the values change.
struct alignas(64) FastState {
    qkMemory* manager;  // qkMemory::_This, published together with it
    int infoKey;        // the manager's infoKey
    int tuning;         // non-zero while buckets < 24 (requests are counted)
    // The heap that writes the shared tuning counts directly; the others
    // count on their own (see TuningCounts). Written once per hand-over.
    MEMORY_THREAD* countOwner;
};
extern FastState fast __attribute__((visibility("hidden")));

inline qkMemory* manager() {
    return std::atomic_ref<qkMemory*>(fast.manager).load(std::memory_order_acquire);
}

// Reads the tag of the header in front of `p`. The pointer may not be the
// manager's: then these bytes belong to whoever made it. Every tag value of
// the manager is impossible as the size word of a glibc chunk (wrong low bits
// or not a multiple of the chunk granularity), so a C runtime block is never
// mistaken for one of ours. The sanitizers' heaps keep no such word in front
// of a block (there may be no mapped memory at all), so in sanitizer builds a
// block the sanitizer's allocator made itself is recognised as foreign
// without reading in front of it: the manager's pointers are never the start
// of such a block, since they lie behind a superblock or large-block header.
__attribute__((no_sanitize("address", "thread"))) inline uint32_t peekTag(void const* p,
                                                                          MEMORY_HEADER const* h) {
#if defined(QK_MEMORY_ASAN)
    if (__sanitizer_get_ownership(p)) return 0;
#elif defined(QK_MEMORY_SANITIZED)
    if (__sanitizer_get_allocated_size(p) != 0) return 0;
#else
    (void)p;
#endif
    return *reinterpret_cast<uint32_t const volatile*>(&h->tag);
}

// AddressSanitizer builds: the data of a free small block is poisoned, so a
// use after free or an overrun into a free neighbour is reported even though
// the whole superblock is one allocation as far as the sanitizer knows.
inline void poison(void* data, size_t bytes) {
#ifdef QK_MEMORY_ASAN
    ASAN_POISON_MEMORY_REGION(data, bytes);
#else
    (void)data, (void)bytes;
#endif
}
inline void unpoison(void* data, size_t bytes) {
#ifdef QK_MEMORY_ASAN
    ASAN_UNPOISON_MEMORY_REGION(data, bytes);
#else
    (void)data, (void)bytes;
#endif
}

// The C runtime allocation and reallocation the manager makes for
// superblocks, large blocks, heap records and its reserve. Variables so that
// tests can inject failures; exported for them, not part of the interface.
QK_EXPORT extern void* (*sysMalloc)(size_t size);
QK_EXPORT extern void* (*sysRealloc)(void* p, size_t size);

// Whose contract a request follows. The manager's (qkMalloc and the rest of
// its entry points): a block of a tuned bucket of 8 mod 16 bytes is only
// 8-aligned, and memory the C runtime refuses for good ends the process. The
// C runtime's (malloc & co. in libqkmalloc.so): every block is 16-aligned,
// and a refusal returns null with errno ENOMEM.
enum class Contract { manager, c };

// What a refusal of sys_alloc's last retry does on the calling thread: with
// the manager's contract the process ends, with the C contract the request
// fails with null. The C contract's slow exits switch for their duration, and
// the manager switches back while it runs a caller's code (print function,
// error handler), so that a request made there keeps its own contract. Only
// slow paths make one: the fast paths do no thread-local store. Exported for
// the tests.
class QK_EXPORT RefusalMode {
  public:
    explicit RefusalMode(Contract contract);
    ~RefusalMode();
    RefusalMode(RefusalMode const&) = delete;
    RefusalMode& operator=(RefusalMode const&) = delete;
    // Whether a refusal returns null on the calling thread.
    static bool soft();

  private:
    bool outer_;
};

}  // namespace qk::memory

// The manager's internal steps that the entry points and the operators share.
// Static functions of a friend so that they reach the protected steps.
// Exported for the library's own tests; not part of the interface.
struct QK_EXPORT qkMemoryInternals {
    static MEMORY_THREAD* threadSlow(qkMemory* m);
    static void* allocSlow(qkMemory* m, MEMORY_THREAD* mt, int b, char const* caller, int line);
    static void* allocLarge(qkMemory* m, MEMORY_THREAD* mt, size_t size, char const* caller,
                            int line);
    static void tuneLocked(qkMemory* m);
    // Charges a change of `bytes` and `count` in large blocks to the system and
    // to `mt` under allocLock[24]; a crossed limit is reported after the lock
    // is let go (a release never crosses one).
    static void chargeLarge(qkMemory* m, MEMORY_THREAD* mt, long long bytes, long long count,
                            char const* caller, int line);
    // Whether a large block of `size` bytes, header included, fits the int of
    // sys_alloc.
    static bool largeFits(qkMemory* m, size_t size) {
        return size <= static_cast<size_t>(INT_MAX - overheadOf(m));
    }
    static void freeOwnedSlow(qkMemory* m, MEMORY_THREAD* mt, MEMORY_SUPERBLOCK* sb, bool wasEmpty);
    static void freeRemote(qkMemory* m, MEMORY_THREAD* mt, MEMORY_SUPERBLOCK* sb, MEMORY_HEADER* h,
                           char const* caller, int line);
    static void freeOther(qkMemory* m, MEMORY_THREAD* mt, MEMORY_HEADER* h, uint32_t tag, void* p,
                          char const* caller, int line);
    static void* finishBlock(qkMemory* m, MEMORY_SUPERBLOCK* sb, MEMORY_HEADER* h, void* data,
                             char const* caller);
    // Hands every superblock of `mt` to the keep pool and zeroes its statistics.
    static void dismantle(qkMemory* m, MEMORY_THREAD* mt);
    // Dismantles and releases every heap record whose thread has ended; for
    // tests that want every superblock back in the keep pool.
    static int dismantleDead(qkMemory* m);
    // A superblock of bucket b from the C runtime, cut into free blocks.
    static MEMORY_SUPERBLOCK* newSuperblock(qkMemory* m, int b, char const* caller, int line);
    [[noreturn]] static void outOfMemory(qkMemory* m, char const* format, size_t size,
                                         char const* caller, int line);
    static void keepSuperblock(qkMemory* m, MEMORY_SUPERBLOCK* sb) { m->keepSuperblock(sb); }
    static void reclaimSuperblock(qkMemory* m, MEMORY_SUPERBLOCK* sb) { m->reclaim(sb); }
    static int bump(qkMemory* m, MEMORY_STATS& summary, MEMORY_STATS* array, int index,
                    long long bytes, long long count, unsigned long long limit) {
        return m->bumpStats(summary, array, index, bytes, count, limit);
    }

    // ---- The fast paths -----------------------------------------------------
    //
    // Every call out of a fast path is a tail call, so that the common case
    // saves no registers: a thread without a heap yet, a large request, the
    // tuning counts (only until the last bucket is tuned), an empty bucket
    // list, fill and debug work all leave through one.

    static void* allocFirst(qkMemory* m, size_t size, char const* caller, int line);
    static void* allocCounted(qkMemory* m, MEMORY_THREAD* mt, size_t size, char const* caller,
                              int line);
    static void freeFirst(qkMemory* m, void* p, char const* caller, int line);
    // The same exits for requests of the C contract: a refusal returns null
    // and sets errno (qkMemoryC.cpp).
    static void* allocFirstC(qkMemory* m, size_t size, char const* caller, int line);
    static void* allocCountedC(qkMemory* m, MEMORY_THREAD* mt, size_t size, char const* caller,
                               int line);
    static void* allocSlowC(qkMemory* m, MEMORY_THREAD* mt, int b, char const* caller, int line);
    static void* allocLargeC(qkMemory* m, MEMORY_THREAD* mt, size_t size, char const* caller,
                             int line);

    // ---- The C contract, for libqkmalloc.so ---------------------------------
    // malloc and realloc: 16-aligned blocks; null with errno ENOMEM when the
    // C runtime refuses, a block passed in left as it was. Without a manager
    // they are the C runtime's.
    static void* mallocC(size_t size, char const* caller);
    static void* reallocC(void* p, size_t size, char const* caller);
    // reallocMemory under either contract.
    static void* resize(qkMemory* m, void* p, size_t size, char const* caller, int line,
                        qk::memory::Contract contract);

    // A small request rounded up to a multiple of 16. It then maps to a base
    // bucket (multiples of 32) or to a tuned bucket of exactly its size (a
    // tuned bucket of t bytes takes the sizes t-7..t), and the blocks of such
    // a bucket lie a multiple of 16 bytes from each other, behind 16-aligned
    // headers. Large requests stay as they are: their blocks are 16-aligned already,
    // and the rounding of a size near SIZE_MAX would overflow.
    QK_ALWAYS_INLINE static size_t alignedRequest(size_t size) {
        constexpr size_t limit = qk::memory::kSmallLimit;
        return size <= limit ? (size + 15) & ~size_t{15} : size;
    }

    // The calling thread's heap record, or null when it has none yet: one
    // thread-local load.
    QK_ALWAYS_INLINE static MEMORY_THREAD* heapOf(qkMemory* m) {
        (void)m;
        void* record = qk::platform::tlsGet(qk::memory::fast.infoKey);
        if (QK_UNLIKELY(record == nullptr)) return nullptr;
        return &static_cast<qkMemoryThreadRecord*>(static_cast<qkThreadState*>(record))->heap;
    }

    // The calling thread's heap, made on first use.
    QK_ALWAYS_INLINE static MEMORY_THREAD* thread(qkMemory* m) {
        MEMORY_THREAD* mt = heapOf(m);
        return QK_LIKELY(mt != nullptr) ? mt : threadSlow(m);
    }

    // The tuning counts: plain increments that may lose counts under
    // contention; the locked part runs once the count passes the limit.
    static void countRequest(qkMemory* m, size_t size) {
        using qk::memory::loadRelaxed, qk::memory::storeRelaxed;
        storeRelaxed(m->countBySize[size], loadRelaxed(m->countBySize[size]) + 1);
        int count = loadRelaxed(m->allocCount) + 1;
        storeRelaxed(m->allocCount, count);
        if (QK_UNLIKELY(count > loadRelaxed(m->allocLimit))) tuneLocked(m);
    }
    // The same for a request of heap `mt`: directly while `mt` owns the shared
    // counts, else through its own counts (TuningCounts, qkMemoryCounts.cpp).
    static void countRequest(qkMemory* m, MEMORY_THREAD* mt, size_t size) {
        if (QK_LIKELY(qk::memory::loadRelaxed(qk::memory::fast.countOwner) == mt)) {
            return countRequest(m, size);
        }
        countOnItsOwn(m, mt, size);
    }
    static void countOnItsOwn(qkMemory* m, MEMORY_THREAD* mt, size_t size);
    // Folds the heap's own counts into the shared ones (the locked tuning
    // step follows when they pass the limit) and makes it the owner.
    static void foldCounts(qkMemory* m, MEMORY_THREAD* mt);

    // Hands out the first free block of `sb`, owned by the calling thread.
    QK_ALWAYS_INLINE static void* takeBlock(qkMemory* m, MEMORY_SUPERBLOCK* sb, MEMORY_HEADER* h,
                                            char const* caller) {
        MEMORY_HEADER* next = h->next;
        sb->free = next;
        // The next request of this bucket takes `next`: start loading its
        // header now. Blocks freed in random order, or by another core, make
        // it a cache miss that would otherwise stall that request.
        __builtin_prefetch(next, 1);
        sb->allocCount += 1;
        h->tag = qk::memory::TAG_SMALL_USED;
        h->owner = sb;
        char* data = dataOf(m, h);
        qk::memory::unpoison(data, sb->blockSize);
        if (QK_UNLIKELY(m->debug | qk::memory::loadRelaxed(m->fill))) {
            return finishBlock(m, sb, h, data, caller);
        }
        return data;
    }

    // A small request of the calling thread's heap: a bucket lookup and a pop.
    template <qk::memory::Contract kContract = qk::memory::Contract::manager>
    QK_ALWAYS_INLINE static void* allocSmall(qkMemory* m, MEMORY_THREAD* mt, size_t size,
                                             char const* caller, int line) {
        constexpr bool c = kContract == qk::memory::Contract::c;
        int b = std::atomic_ref<signed char>(m->bucketNumber[size]).load(std::memory_order_acquire);
        LinkedList* head = &mt->partial[b];
        LinkedList* first = head->next();
        if (QK_LIKELY(first != head)) {
            // The superblock around its link node: no load of the node's ref
            // on the way to the free list.
            MEMORY_SUPERBLOCK* sb = linkOwner(first);
            MEMORY_HEADER* h = sb->free;
            if (QK_LIKELY(h != nullptr)) return takeBlock(m, sb, h, caller);
        }
        return (c ? allocSlowC : allocSlow)(m, mt, b, caller, line);
    }

    // The exits are picked at compile time: either contract's fast path is
    // the same code, the C contract's with the rounding of small sizes.
    template <qk::memory::Contract kContract = qk::memory::Contract::manager>
    QK_ALWAYS_INLINE static void* alloc(qkMemory* m, size_t size, char const* caller, int line) {
        constexpr bool c = kContract == qk::memory::Contract::c;
        MEMORY_THREAD* mt = heapOf(m);
        if (QK_UNLIKELY(mt == nullptr))
            return (c ? allocFirstC : allocFirst)(m, size, caller, line);
        if (QK_UNLIKELY(size > static_cast<size_t>(qk::memory::kSmallLimit))) {
            return (c ? allocLargeC : allocLarge)(m, mt, size, caller, line);
        }
        if (c) size = alignedRequest(size);
        if (QK_UNLIKELY(qk::memory::loadRelaxed(qk::memory::fast.tuning) != 0)) {
            return (c ? allocCountedC : allocCounted)(m, mt, size, caller, line);
        }
        return allocSmall<kContract>(m, mt, size, caller, line);
    }

    // ---- Debug mode (qkMemoryDebug.cpp) ---------------------------------------
    // The ring step: the caller into the block's current slot as its
    // allocation, or as its release, which moves the ring on. A slot outside
    // the ring (a layout without slots) is left alone.
    static void debugStep(qkMemory* m, MEMORY_HEADER* h, char const* caller, bool isAlloc) {
        int count = m->debugHeaderCount;
        if (h->slot < 0 || h->slot >= count) return;
        void** slot = reinterpret_cast<void**>(h + 1) + 2 * h->slot;
        if (isAlloc) {
            slot[0] = const_cast<char*>(caller);
        } else {
            slot[1] = const_cast<char*>(caller);
            h->slot = (h->slot + 1) % count;
        }
    }
    // Debug mode keeps the large blocks in a registry, so that a leak report
    // finds them (the manager keeps no list of them otherwise).
    static void registerLarge(MEMORY_HEADER* h);
    static void unregisterLarge(MEMORY_HEADER* h);
    // Calls f(header) for every registered large block, under the registry's lock.
    static void forEachLarge(void (*f)(MEMORY_HEADER*, void*), void* context);
    // With QK_MEMORY_REPORT set, writes the leak report there at exit (once).
    static void armReportAtExit();

    // The superblock whose `link` node this is (not a list head).
    QK_ALWAYS_INLINE static MEMORY_SUPERBLOCK* linkOwner(LinkedList* node) {
        return reinterpret_cast<MEMORY_SUPERBLOCK*>(reinterpret_cast<char*>(node) -
                                                    offsetof(MEMORY_SUPERBLOCK, link));
    }
    // The superblock of a `link` or `reclaim` node; null for a list head.
    QK_ALWAYS_INLINE static MEMORY_SUPERBLOCK* superblockOf(LinkedList* node) {
        return static_cast<MEMORY_SUPERBLOCK*>(node->ref());
    }

    // The block layout: the header, the debug slots, then the caller's data.
    QK_ALWAYS_INLINE static MEMORY_HEADER* headerOf(qkMemory* m, void* p) {
        return reinterpret_cast<MEMORY_HEADER*>(static_cast<char*>(p) - m->debugHeaderSize) - 1;
    }
    QK_ALWAYS_INLINE static char* dataOf(qkMemory* m, MEMORY_HEADER* h) {
        return reinterpret_cast<char*>(h + 1) + m->debugHeaderSize;
    }
    // The bytes in front of the data: the header and the debug slots.
    static int overheadOf(qkMemory* m) { return qk::memory::kHeaderSize + m->debugHeaderSize; }
    // The distance from one block of a superblock to the next.
    static int strideOf(qkMemory* m, MEMORY_SUPERBLOCK const* sb) {
        return sb->blockSize + overheadOf(m);
    }

    QK_ALWAYS_INLINE static void free(qkMemory* m, void* p, char const* caller, int line) {
        if (p == nullptr) return;
        MEMORY_THREAD* mt = heapOf(m);
        if (QK_UNLIKELY(mt == nullptr)) return freeFirst(m, p, caller, line);
        MEMORY_HEADER* h = headerOf(m, p);
        uint32_t tag = qk::memory::peekTag(p, h);
        if (QK_LIKELY(tag == qk::memory::TAG_SMALL_USED)) {
            MEMORY_SUPERBLOCK* sb = h->owner;
            h->tag = qk::memory::TAG_SMALL_FREE;
            if (QK_UNLIKELY(m->debug)) debugStep(m, h, caller, false);
            qk::memory::poison(p, sb->blockSize);
            if (QK_LIKELY(sb->thread.load(std::memory_order_relaxed) == mt)) {
                MEMORY_HEADER* head = sb->free;
                h->next = head;
                sb->free = h;
                int inUse = --sb->allocCount;
                // The superblock changes state when its free list was empty,
                // when it sits on no list, or when it fell idle and is not
                // the last one of its bucket list.
                LinkedList* next = sb->link.next();
                if (QK_UNLIKELY(head == nullptr || next == &sb->link ||
                                (inUse == sb->freeCount.load(std::memory_order_relaxed) &&
                                 next != sb->link.prev()))) {
                    return freeOwnedSlow(m, mt, sb, head == nullptr);
                }
                return;
            }
            return freeRemote(m, mt, sb, h, caller, line);
        }
        return freeOther(m, mt, h, tag, p, caller, line);
    }
};
