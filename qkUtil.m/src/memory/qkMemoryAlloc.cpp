// Allocation: the small path that takes a block from the calling thread's
// superblocks without a lock, and the slow paths behind it (finding or making
// a superblock with a free block, large blocks).
#include <cstring>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

// The fast path itself is qkMemoryInternals::alloc (qkMemoryInternal.h): a
// bucket lookup, a pop from the first superblock's free list, two header
// stores. Everything else is here, out of line.
void* qkMemory::allocMemory(size_t size, char const* caller, int line) {
    return qkMemoryInternals::alloc(this, size, caller, line);
}

// Fill and debug work for a block just handed out.
QK_NOINLINE void* qkMemoryInternals::finishBlock(qkMemory* m, MEMORY_SUPERBLOCK* sb,
                                                 MEMORY_HEADER* h, void* data, char const* caller) {
    if (m->debug) debugStep(m, h, caller, true);
    unsigned char fill = loadRelaxed(m->fill);
    if (fill) std::memset(data, fill, static_cast<size_t>(sb->blockSize));
    return data;
}

// The calling thread's first request: make its heap first.
QK_NOINLINE void* qkMemoryInternals::allocFirst(qkMemory* m, size_t size, char const* caller,
                                                int line) {
    threadSlow(m);
    return alloc(m, size, caller, line);
}

// While buckets are still being tuned, every small request is counted first.
QK_NOINLINE void* qkMemoryInternals::allocCounted(qkMemory* m, MEMORY_THREAD* mt, size_t size,
                                                  char const* caller, int line) {
    countRequest(m, mt, size);
    return allocSmall(m, mt, size, caller, line);
}

namespace {

// Limit crossings seen while a superblock was made or adopted for one request.
struct Crossings {
    bool system = false;
    bool thread = false;
};

// The error handler hears of crossings once the block has been made, outside
// every lock, on the allocating thread.
void tellHandler(Crossings const& crossed) {
    if (!crossed.system && !crossed.thread) return;
    void (*handler)(qkMemoryErrorId) = loadRelaxed(qkMemory::_memoryErrorHandler);
    if (!handler) return;
    RefusalMode mode(Contract::manager);  // the handler's requests keep their contract
    if (crossed.system) handler(QK_MEMORY_SYSTEM_LIMIT);
    if (crossed.thread) handler(QK_MEMORY_THREAD_LIMIT);
}

}  // namespace

// Takes the remote frees of the heap's reclaim list back. A superblock that
// has free blocks afterwards goes to the keep pool (where the walk of
// adoptSuperblock may take it straight back); one without stays full.
// The caller holds allocLock[b].
static void reclaimList(qkMemory* m, MEMORY_THREAD* mt, int b) {
    for (LinkedList* n = mt->reclaim[b].next(); n->ref();) {
        MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
        n = n->next();
        sb->reclaim.unlink();
        qkMemoryInternals::reclaimSuperblock(m, sb);
        if (sb->free) {
            qkMemoryInternals::keepSuperblock(m, sb);
        } else {
            sb->link.link(&mt->full, sb);
        }
    }
}

// The first superblock of the keep pool that has a free block once its
// remote frees are merged, taken off the keep statistics; null when none.
// The caller holds allocLock[b].
static MEMORY_SUPERBLOCK* adoptFromKeep(qkMemory* m, int b) {
    for (LinkedList* n = m->keep[b].next(); n->ref();) {
        MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
        n = n->next();
        sb->reclaim.unlink();
        qkMemoryInternals::reclaimSuperblock(m, sb);
        if (sb->free) {
            qkMemoryInternals::bump(m, m->summaryKeepStats, m->keepStats, b, -kSuperblockSize, -1,
                                    0);
            return sb;
        }
    }
    return nullptr;
}

// Puts a superblock with free blocks at the front of the heap's bucket list:
// one from the reclaim list or the keep pool, else a new one from the C
// runtime. Warnings for crossed limits come here, after the lock is let go.
// False when the C runtime refused the superblock (for a request that fails
// softly): nothing was charged and the heap's lists are as they were.
static bool refill(qkMemory* m, MEMORY_THREAD* mt, int b, char const* caller, int line,
                   Crossings& crossed) {
    qkMutex* lock = m->allocLock[b];
    lock->lock();
    reclaimList(m, mt, b);
    MEMORY_SUPERBLOCK* sb = adoptFromKeep(m, b);
    bool systemCrossed = false;
    if (!sb) {
        // The C runtime is asked with no allocLock held (see the lock order).
        lock->unlock();
        sb = qkMemoryInternals::newSuperblock(m, b, caller, line);
        if (!sb) return false;
        lock->lock();
        systemCrossed =
            qkMemoryInternals::bump(m, m->summarySystemStats, m->systemStats, b, kSuperblockSize, 1,
                                    loadRelaxed(qkMemory::_systemLimit));
    }
    sb->thread.store(mt, std::memory_order_relaxed);
    sb->link.link(&mt->partial[b], sb);
    bool threadCrossed = qkMemoryInternals::bump(m, mt->summaryStats, mt->stats, b, kSuperblockSize,
                                                 1, loadRelaxed(qkMemory::_threadLimit));
    lock->unlock();
    if (systemCrossed) qkMemory::warn("system memory limit exceeded", caller, line);
    if (threadCrossed) qkMemory::warn("thread memory limit exceeded", caller, line);
    crossed.system |= systemCrossed;
    crossed.thread |= threadCrossed;
    return true;
}

// The first superblock of the bucket list had no free block. Walk the list:
// take a block where there is one; merge the parked remote frees of a
// superblock all of whose handed-out blocks came back that way (no thread
// can free into it any more, so no lock is needed); move the rest to the
// full list. When the list runs dry, refill it and walk again; null when the
// C runtime refused a superblock to a request that fails softly.
QK_NOINLINE void* qkMemoryInternals::allocSlow(qkMemory* m, MEMORY_THREAD* mt, int b,
                                               char const* caller, int line) {
    Crossings crossed;
    void* data = nullptr;
    do {
        for (LinkedList* n = mt->partial[b].next(); n->ref();) {
            MEMORY_SUPERBLOCK* sb = superblockOf(n);
            if (MEMORY_HEADER* h = sb->free) {
                data = takeBlock(m, sb, h, caller);
                break;
            }
            int parked = sb->freeCount.load(std::memory_order_acquire);
            if (parked != 0 && parked == sb->allocCount) {
                sb->free = sb->pending;
                sb->pending = nullptr;
                sb->allocCount -= parked;
                sb->freeCount.store(0, std::memory_order_relaxed);
                continue;
            }
            n = n->next();
            sb->link.link(&mt->full, sb);
        }
    } while (!data && refill(m, mt, b, caller, line, crossed));
    tellHandler(crossed);
    return data;
}

// On the large path a crossing is told to the handler and then warned about,
// and only when a handler is set.
static void reportLargeCrossings(bool system, bool thread, char const* caller, int line) {
    void (*handler)(qkMemoryErrorId) = loadRelaxed(qkMemory::_memoryErrorHandler);
    if (!handler) return;
    RefusalMode mode(Contract::manager);  // the handler's requests keep their contract
    if (system) {
        handler(QK_MEMORY_SYSTEM_LIMIT);
        qkMemory::warn("system memory limit exceeded", caller, line);
    }
    if (thread) {
        handler(QK_MEMORY_THREAD_LIMIT);
        qkMemory::warn("thread memory limit exceeded", caller, line);
    }
}

void qkMemoryInternals::chargeLarge(qkMemory* m, MEMORY_THREAD* mt, long long bytes,
                                    long long count, char const* caller, int line) {
    m->allocLock[kLargeIndex]->lock();
    bool system = bump(m, m->summarySystemStats, m->systemStats, kLargeIndex, bytes, count,
                       loadRelaxed(qkMemory::_systemLimit));
    bool thread = bump(m, mt->summaryStats, mt->stats, kLargeIndex, bytes, count,
                       loadRelaxed(qkMemory::_threadLimit));
    m->allocLock[kLargeIndex]->unlock();
    if (system || thread) reportLargeCrossings(system, thread, caller, line);
}

// A large block: the C runtime's memory with a header in front. Sizes whose
// total does not fit the int of sys_alloc are refused with null, and so is a
// request that fails softly when the C runtime refuses it (nothing charged).
QK_NOINLINE void* qkMemoryInternals::allocLarge(qkMemory* m, MEMORY_THREAD* mt, size_t size,
                                                char const* caller, int line) {
    if (!largeFits(m, size)) return nullptr;
    MEMORY_HEADER* h = static_cast<MEMORY_HEADER*>(
        m->sys_alloc(static_cast<int>(size) + overheadOf(m), caller, line));
    if (!h) return nullptr;
    chargeLarge(m, mt, static_cast<long long>(size), 1, caller, line);
    h->size = size;
    h->tag = TAG_LARGE_USED;
    h->slot = 0;
    if (m->debugHeaderCount) {
        // Slot 0 holds the allocation site, the others start empty.
        std::memset(h + 1, 0, static_cast<size_t>(m->debugHeaderSize));
        if (m->debug) debugStep(m, h, caller, true);
        registerLarge(h);
    }
    return dataOf(m, h);
}
