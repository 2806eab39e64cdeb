// The life of a superblock beyond one thread: taken from the C runtime
// (sys_alloc, with its shortage path and the reserve), formatted, handed to
// the keep pool (keep), given its parked remote frees back (reclaim),
// returned to the C runtime (freeAll), and the adaptive buckets (tune).
#include <cstdio>
#include <cstring>
#include <new>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

namespace qk::memory {
void* (*sysMalloc)(size_t size) = qk::platform::rawAlloc;
void* (*sysRealloc)(void* p, size_t size) = qk::platform::rawRealloc;
}  // namespace qk::memory

// ---- Taking memory from the C runtime -----------------------------------------

// Called with no allocLock and no threadLock held: the shortage path takes
// each bucket's allocLock in turn and then threadLock, and its warnings take
// printLock, which comes before both in the lock order.
void* qkMemory::sys_alloc(int size, char const* caller, int line) {
    void* p = sysMalloc(static_cast<size_t>(size));
    if (QK_LIKELY(p != nullptr)) return p;
    int used = loadRelaxed(buckets);
    for (int b = 0; b < used; ++b)
        freeAll(b);
    threadLock->lock();
    p = sysMalloc(static_cast<size_t>(size));
    threadLock->unlock();
    if (!p) {
        if (RefusalMode::soft()) return nullptr;
        qkMemoryInternals::outOfMemory(this, "out of memory allocating %zu bytes\n",
                                       static_cast<size_t>(size), caller, line);
    }
    warn("memory critical", caller, line);
    return p;
}

// The last word on memory: the reserve goes back so that the message can be
// printed, then the process ends. When the reserve was spent before, the
// process ends all the same, since no caller of sys_alloc can go on without
// its memory. `format` prints `size` with %zu.
void qkMemoryInternals::outOfMemory(qkMemory* m, char const* format, size_t size,
                                    char const* caller, int line) {
    if (void* reserve = std::atomic_ref<void*>(m->reserve).exchange(nullptr)) {
        qk::platform::rawFree(reserve);
    }
    std::printf(format, size);
    std::fflush(stdout);
    qkMemory::warn("out of memory", caller, line);
    qkMemory::abort();
}

// Takes a superblock from the C runtime and cuts it into blocks of bucket b.
// The blocks are pushed onto `free` in address order, so the block at the
// highest address is handed out first. Every block starts free, with its
// debug slots zeroed. Null when the C runtime refused a request that fails
// softly.
MEMORY_SUPERBLOCK* qkMemoryInternals::newSuperblock(qkMemory* m, int b, char const* caller,
                                                    int line) {
    void* memory = m->sys_alloc(kSuperblockSize, caller, line);
    if (!memory) return nullptr;
    MEMORY_SUPERBLOCK* sb = new (memory) MEMORY_SUPERBLOCK{};
    sb->bucket = b;
    sb->blockSize = m->bucketSize[b];
    sb->allocCount = 0;
    sb->freeCount.store(0, std::memory_order_relaxed);
    sb->free = sb->pending = nullptr;
    int stride = strideOf(m, sb);
    sb->blockCount = kBlockArea / stride;
    char* block = reinterpret_cast<char*>(sb->firstBlock());
    for (int i = 0; i < sb->blockCount; ++i, block += stride) {
        MEMORY_HEADER* h = reinterpret_cast<MEMORY_HEADER*>(block);
        h->tag = TAG_SMALL_FREE;
        h->slot = 0;
        if (m->debugHeaderSize) std::memset(h + 1, 0, static_cast<size_t>(m->debugHeaderSize));
        h->next = sb->free;
        sb->free = h;
        poison(dataOf(m, h), static_cast<size_t>(sb->blockSize));
    }
    return sb;
}

// Marks every block released and gives the superblock back to the C runtime.
static void releaseSuperblock(qkMemory* m, MEMORY_SUPERBLOCK* sb) {
    int stride = qkMemoryInternals::strideOf(m, sb);
    char* block = reinterpret_cast<char*>(sb->firstBlock());
    for (int i = 0; i < sb->blockCount; ++i, block += stride)
        reinterpret_cast<MEMORY_HEADER*>(block)->tag = TAG_RELEASED;
    sb->link.unlink();
    sb->reclaim.unlink();
    unpoison(sb, kSuperblockSize);
    sb->~MEMORY_SUPERBLOCK();
    qk::platform::rawFree(sb);
}

// ---- The keep pool --------------------------------------------------------------

// Hands a superblock to the keep pool, or back to the C runtime when the keep
// limit is exceeded and none of its blocks is in use. Each bucket may keep
// about keepLimit / buckets bytes.
void qkMemory::keepSuperblock(MEMORY_SUPERBLOCK* sb) {
    int b = sb->bucket;
    unsigned long long limit = loadRelaxed(_keepLimit);
    bool release =
        limit != 0 && static_cast<unsigned long long>(loadRelaxed(buckets) *
                                                      loadRelaxed(keepStats[b].bytes)) > limit;
    allocLock[b]->lock();
    MEMORY_THREAD* owner = sb->thread.exchange(nullptr, std::memory_order_relaxed);
    sb->reclaim.unlink();
    if (owner) bumpStats(owner->summaryStats, owner->stats, b, -kSuperblockSize, -1, 0);
    if (!release || sb->allocCount != sb->freeCount.load(std::memory_order_relaxed)) {
        sb->link.link(&keep[b], sb);
        bumpStats(summaryKeepStats, keepStats, b, kSuperblockSize, 1, 0);
    } else {
        releaseSuperblock(this, sb);
        bumpStats(summarySystemStats, systemStats, b, -kSuperblockSize, -1, 0);
    }
    allocLock[b]->unlock();
}

// Merges the parked remote frees into the free list. The caller holds the
// bucket's allocLock, or owns the superblock and knows that no thread can
// free into it.
void qkMemory::reclaim(MEMORY_SUPERBLOCK* sb) {
    MEMORY_HEADER* first = sb->pending;
    if (!first) return;
    auto* last = reinterpret_cast<MEMORY_HEADER*>(reinterpret_cast<char*>(sb) + sb->pendingTail);
    last->next = sb->free;
    sb->free = first;
    sb->allocCount -= sb->freeCount.load(std::memory_order_relaxed);
    sb->freeCount.store(0, std::memory_order_relaxed);
    sb->pending = nullptr;
}

// Gives the idle superblocks of one bucket's keep pool back to the C runtime.
void qkMemory::freeAll(int bucket) {
    allocLock[bucket]->lock();
    long long released = 0;
    for (LinkedList* n = keep[bucket].next(); n->ref();) {
        MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
        n = n->next();
        if (sb->allocCount != sb->freeCount.load(std::memory_order_relaxed)) continue;
        releaseSuperblock(this, sb);
        ++released;
    }
    if (released) {
        bumpStats(summaryKeepStats, keepStats, bucket, -kSuperblockSize * released, -released, 0);
        bumpStats(summarySystemStats, systemStats, bucket, -kSuperblockSize * released, -released,
                  0);
    }
    allocLock[bucket]->unlock();
}

// ---- Adaptive buckets -------------------------------------------------------------

void qkMemory::tune(int size) {
    qkMemoryInternals::countRequest(this, static_cast<size_t>(size));
}

// The eight-byte range of request sizes asked for most that has no tuned
// bucket yet; the first such range wins ties, and one is chosen even when
// nothing was counted.
static int busiestRange(qkMemory const* m) {
    long long best = -1;
    int chosen = 8;
    for (int t = 8; t <= kSmallLimit; t += 8) {
        if (loadRelaxed(m->bucketNumber[t]) >= kBaseBuckets) continue;
        long long sum = 0;
        for (int s = t - 7; s <= t; ++s)
            sum += loadRelaxed(m->countBySize[s]);
        if (sum > best) {
            best = sum;
            chosen = t;
        }
    }
    return chosen;
}

// Adds a bucket fitted to the busiest range. Blocks already handed out keep
// working: every superblock carries its own bucket and block size.
QK_NOINLINE void qkMemoryInternals::tuneLocked(qkMemory* m) {
    m->threadLock->lock();
    int n = loadRelaxed(m->buckets);
    if (loadRelaxed(m->allocCount) > loadRelaxed(m->allocLimit) && n < kBucketLimit) {
        int t = busiestRange(m);
        int old = m->bucketNumber[t];
        // The size is in place before any request can be mapped to the bucket.
        storeRelaxed(m->bucketSize[n], t);
        storeRelaxed(m->buckets, n + 1);
        for (int s = t - 7; s <= t; ++s) {
            std::atomic_ref<signed char>(m->bucketNumber[s])
                .store(static_cast<signed char>(n), std::memory_order_release);
        }
        m->freeAll(old);
        storeRelaxed(m->allocCount, 0);
        storeRelaxed(m->allocLimit, 2 * loadRelaxed(m->allocLimit));
        if (n + 1 == kBucketLimit) storeRelaxed(fast.tuning, 0);  // the counting ends
    }
    m->threadLock->unlock();
}
