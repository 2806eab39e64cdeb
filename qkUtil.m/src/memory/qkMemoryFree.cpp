// Release and resize: the owner's lock-free release (its fast path is
// qkMemoryInternals::free in qkMemoryInternal.h), the remote release that
// parks a block on its superblock, large and foreign blocks, and realloc.
#include <errno.h>

#include <cstring>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

void qkMemory::freeMemory(void* p, char const* caller, int line) {
    qkMemoryInternals::free(this, p, caller, line);
}

// A release by a thread that has no heap yet: make it first (the block may
// be one of another thread's superblocks, or a large or foreign block).
QK_NOINLINE void qkMemoryInternals::freeFirst(qkMemory* m, void* p, char const* caller, int line) {
    threadSlow(m);
    free(m, p, caller, line);
}

// The owner released a block and the superblock changed state: its free list
// was empty (it may sit on the full list), it sits on no list (a thread that
// adopted it by freeing into it), or no block of it is in use any more.
QK_NOINLINE void qkMemoryInternals::freeOwnedSlow(qkMemory* m, MEMORY_THREAD* mt,
                                                  MEMORY_SUPERBLOCK* sb, bool wasEmpty) {
    int b = sb->bucket;
    if (wasEmpty || !sb->link.linked()) {
        sb->link.link(&mt->partial[b], sb);
        // Parked frees are merged now that the superblock is in use again.
        // Only another thread's free raises freeCount, and it links the
        // reclaim node in the same locked step; a zero count read here at
        // worst leaves an empty reclaim entry for the next refill.
        if (sb->freeCount.load(std::memory_order_relaxed) != 0) {
            m->allocLock[b]->lock();
            if (sb->reclaim.linked()) {
                sb->reclaim.unlink();
                m->reclaim(sb);
            }
            m->allocLock[b]->unlock();
        }
    }
    // An idle superblock goes to the keep pool unless it is the last one of
    // its bucket list: a thread keeps one superblock per bucket even when
    // it is empty.
    bool alone = sb->link.next() == sb->link.prev();
    if (sb->allocCount == sb->freeCount.load(std::memory_order_relaxed) && !alone)
        m->keepSuperblock(sb);
}

// Another thread's block: it is parked on the superblock's pending list and
// the superblock goes on its owner's reclaim list. A superblock of the keep
// pool that still has blocks in use is adopted by the freeing thread.
QK_NOINLINE void qkMemoryInternals::freeRemote(qkMemory* m, MEMORY_THREAD* mt,
                                               MEMORY_SUPERBLOCK* sb, MEMORY_HEADER* h,
                                               char const* caller, int line) {
    int b = sb->bucket;
    bool threadCrossed = false;
    m->allocLock[b]->lock();
    if (!sb->pending) {
        sb->pendingTail =
            static_cast<int>(reinterpret_cast<char*>(h) - reinterpret_cast<char*>(sb));
    }
    h->next = sb->pending;
    sb->pending = h;
    // Release: an owner that reads the new count also sees the push.
    int parked = sb->freeCount.load(std::memory_order_relaxed) + 1;
    sb->freeCount.store(parked, std::memory_order_release);
    MEMORY_THREAD* owner = sb->thread.load(std::memory_order_relaxed);
    if (!owner && sb->allocCount != parked) {
        sb->link.unlink();
        sb->reclaim.unlink();
        m->reclaim(sb);
        sb->thread.store(mt, std::memory_order_relaxed);
        owner = mt;
        bump(m, m->summaryKeepStats, m->keepStats, b, -kSuperblockSize, -1, 0);
        threadCrossed = bump(m, mt->summaryStats, mt->stats, b, kSuperblockSize, 1,
                             loadRelaxed(qkMemory::_threadLimit));
    }
    if (owner && !sb->reclaim.linked()) sb->reclaim.link(&owner->reclaim[b], sb);
    m->allocLock[b]->unlock();
    if (threadCrossed) qkMemory::warn("thread memory limit exceeded", caller, line);
}

// Large blocks go back to the C runtime; their statistics go to the thread
// that frees them. A free small block released again is reported and left
// alone. Anything else was not made by the manager and goes to the C runtime.
QK_NOINLINE void qkMemoryInternals::freeOther(qkMemory* m, MEMORY_THREAD* mt, MEMORY_HEADER* h,
                                              uint32_t tag, void* p, char const* caller, int line) {
    if (tag == TAG_LARGE_USED) {
        long long size = static_cast<long long>(h->size);
        if (m->debug) debugStep(m, h, caller, false);
        if (m->debugHeaderCount) unregisterLarge(h);
        h->tag = TAG_RELEASED;
        qk::platform::rawFree(h);
        chargeLarge(m, mt, -size, -1, caller, line);
    } else if (tag == TAG_SMALL_FREE) {
        qkMemory::warn("duplicate free", caller, line);
    } else {
        qk::platform::rawFree(p);
    }
}

// ---- Resizing ----------------------------------------------------------------------

// The C runtime could not resize a block to `size` bytes: null under the C
// contract (the block is as it was), else the end of the process.
static void* resizeRefused(qkMemory* m, size_t size, Contract contract, char const* caller,
                           int line) {
    if (contract == Contract::c) return nullptr;
    qkMemoryInternals::outOfMemory(m, "out of memory reallocating %zu bytes\n", size, caller, line);
}

// Grows a large block in the C runtime (it may move), then charges the growth.
static void* growLarge(qkMemory* m, MEMORY_THREAD* mt, MEMORY_HEADER* h, size_t size,
                       Contract contract, char const* caller, int line) {
    if (!qkMemoryInternals::largeFits(m, size)) return nullptr;
    size_t had = h->size;
    // The registry holds the header's address, which the C runtime may move.
    bool listed = m->debugHeaderCount != 0;
    if (listed) qkMemoryInternals::unregisterLarge(h);
    MEMORY_HEADER* moved = static_cast<MEMORY_HEADER*>(
        sysRealloc(h, size + static_cast<size_t>(qkMemoryInternals::overheadOf(m))));
    if (!moved) {
        if (listed) qkMemoryInternals::registerLarge(h);
        return resizeRefused(m, size, contract, caller, line);
    }
    moved->size = size;  // the tag came along with the header
    if (listed) qkMemoryInternals::registerLarge(moved);
    if (m->debug) qkMemoryInternals::debugStep(m, moved, caller, true);
    qkMemoryInternals::chargeLarge(m, mt, static_cast<long long>(size - had), 0, caller, line);
    return qkMemoryInternals::dataOf(m, moved);
}

static void* allocUnder(qkMemory* m, size_t size, Contract contract, char const* caller, int line) {
    if (contract == Contract::c)
        return qkMemoryInternals::alloc<Contract::c>(m, size, caller, line);
    return qkMemoryInternals::alloc(m, size, caller, line);
}

// A small block that no longer holds the size moves to a new block.
static void* moveSmall(qkMemory* m, void* p, size_t have, size_t size, Contract contract,
                       char const* caller, int line) {
    void* q = allocUnder(m, size, contract, caller, line);
    if (!q) return nullptr;
    std::memcpy(q, p, have);
    qkMemoryInternals::free(m, p, caller, line);
    return q;
}

// Blocks never shrink and never move to a smaller bucket: a request that
// fits returns the block itself.
void* qkMemoryInternals::resize(qkMemory* m, void* p, size_t size, char const* caller, int line,
                                Contract contract) {
    if (!p) return allocUnder(m, size, contract, caller, line);
    MEMORY_THREAD* mt = thread(m);
    MEMORY_HEADER* h = headerOf(m, p);
    uint32_t tag = peekTag(p, h);
    if (tag == TAG_SMALL_USED) {
        size_t have = static_cast<size_t>(h->owner->blockSize);
        return have >= size ? p : moveSmall(m, p, have, size, contract, caller, line);
    }
    if (tag == TAG_LARGE_USED) {
        return h->size >= size ? p : growLarge(m, mt, h, size, contract, caller, line);
    }
    // Not the manager's block. A size of 0 would let the C runtime free the
    // block and answer null, which could not be told from a failure.
    void* q = sysRealloc(p, size ? size : 1);
    return q ? q : resizeRefused(m, size, contract, caller, line);
}

void* qkMemory::reallocMemory(void* p, size_t size, char const* caller, int line) {
    return qkMemoryInternals::resize(this, p, size, caller, line, Contract::manager);
}

// A block that moves gets a block of the rounded size; one that stays is
// aligned already.
void* qkMemoryInternals::reallocC(void* p, size_t size, char const* caller) {
    qkMemory* m = manager();
    if (!m) return qk::platform::rawRealloc(p, size);
    void* q = resize(m, p, alignedRequest(size), caller, 0, Contract::c);
    if (!q) errno = ENOMEM;
    return q;
}
