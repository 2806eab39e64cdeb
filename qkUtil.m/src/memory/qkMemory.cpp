// The memory manager's life: construction, and the per-thread heap records
// (getThread, adoption of a dead thread's heap, dismantling of older ones).
#include <cstdlib>
#include <new>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

namespace {
struct alignas(64) PaddedMutex : qkMutex {};
static_assert(sizeof(PaddedMutex) % 64 == 0);
}  // namespace

int allocStackOffset = 0;
int freeStackOffset = 0;

// Adds the decimal value of an environment variable, when it is set and not
// empty, to `offset`.
static void addOffsetFromEnvironment(char const* name, int& offset) {
    char const* text = std::getenv(name);
    if (text && *text) offset += std::atoi(text);
}

qkMemory::qkMemory() {
    // `threads` and `keep` are empty rings from their constructors.
    _pageSize = kDefaultPageSize;
    infoKey = qkThread::createInfoKey();
    qk::platform::rawConfigure();
    reserve = sysMalloc(kReserveSize);
    // No manager is published yet, so these come from the C runtime. Each
    // lock has cache lines of its own: threads working on different buckets
    // would otherwise write each other's lines.
    printLock = new PaddedMutex;
    threadLock = new PaddedMutex;
    for (qkMutex*& lock : allocLock)
        lock = new PaddedMutex;
    summarySystemStats = summaryKeepStats = MEMORY_STATS{};
    for (int i = 0; i <= kLargeIndex; ++i)
        systemStats[i] = keepStats[i] = MEMORY_STATS{};
    buckets = kBaseBuckets;
    for (int i = 0; i < kBucketLimit; ++i)
        bucketSize[i] = i < kBaseBuckets ? 32 * (i + 1) : 0;
    bucketNumber[0] = 0;
    for (int s = 1; s <= kSmallLimit; ++s)
        bucketNumber[s] = static_cast<signed char>((s - 1) / 32);
    allocCount = 0;
    allocLimit = kFirstTuning;
    for (int& count : countBySize)
        count = 0;
    fill = 0;
    debug = 0;
    debugHeaderCount = 0;
    debugHeaderSize = 0;
    addOffsetFromEnvironment("QK_MEMORY_ALLOC_STACK_OFFSET", allocStackOffset);
    addOffsetFromEnvironment("QK_MEMORY_FREE_STACK_OFFSET", freeStackOffset);
}

// The manager lives until the process ends; only the list heads go.
qkMemory::~qkMemory() = default;

qkMemory* qkMemory::getManager() {
    return manager();
}

MEMORY_THREAD* qkMemory::getThread() {
    return qkMemoryInternals::thread(this);
}

// ---- Heap records -----------------------------------------------------------

qkMemoryThreadRecord::qkMemoryThreadRecord() : heap() {}

qkMemoryThreadRecord::~qkMemoryThreadRecord() {
    if (qkMemory* m = manager()) qkMemoryInternals::dismantle(m, &heap);
    // `node` unlinks itself from `threads`; the qkThreadState part closes the
    // thread handle.
}

// Hands every superblock of a list to the keep pool. The walk steps on before
// keepSuperblock() moves the current superblock away.
static void keepAll(qkMemory* m, LinkedList& head) {
    for (LinkedList* n = head.next(); n->ref();) {
        MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
        n = n->next();
        qkMemoryInternals::keepSuperblock(m, sb);
    }
}

static void zeroStats(MEMORY_STATS& s) {
    storeRelaxed(s.count, 0LL);
    storeRelaxed(s.bytes, 0LL);
    storeRelaxed(s.highwater, 0LL);
}

void qkMemoryInternals::dismantle(qkMemory* m, MEMORY_THREAD* mt) {
    keepAll(m, mt->full);
    for (int b = 0; b < kBucketLimit; ++b) {
        m->allocLock[b]->lock();
        keepAll(m, mt->partial[b]);
        keepAll(m, mt->reclaim[b]);
        m->allocLock[b]->unlock();
    }
    for (MEMORY_STATS& s : mt->stats)
        zeroStats(s);
    zeroStats(mt->summaryStats);
}

// Destroys a record taken from the C runtime. The caller holds threadLock.
static void destroyRecord(qkMemoryThreadRecord* record) {
    record->~qkMemoryThreadRecord();
    qk::platform::rawFree(record);
}

static qkMemoryThreadRecord* recordOf(LinkedList* node) {
    return static_cast<qkMemoryThreadRecord*>(node->ref());
}

// The calling thread has no heap yet. A dead thread's heap is adopted whole
// (superblocks, free lists and statistics); of several dead heaps the one met
// last in the walk (the oldest, since records are linked at the front) is
// adopted and the others are dismantled into the keep pool.
MEMORY_THREAD* qkMemoryInternals::threadSlow(qkMemory* m) {
    m->threadLock->lock();
    qkMemoryThreadRecord* dead = nullptr;
    for (LinkedList* n = m->threads.next(); n->ref();) {
        qkMemoryThreadRecord* record = recordOf(n);
        n = n->next();
        if (qkThread::active(record)) continue;
        if (dead) destroyRecord(dead);
        dead = record;
    }
    qkMemoryThreadRecord* record = dead;
    if (!record) {
        // Asked for without threadLock: a shortage may print a warning, and
        // printLock comes first in the lock order.
        m->threadLock->unlock();
        void* memory =
            m->sys_alloc(static_cast<int>(sizeof(qkMemoryThreadRecord)), kManagerFile, 0);
        record = new (memory) qkMemoryThreadRecord;
        m->threadLock->lock();
    }
    // The slot is set before anything below could allocate, so an allocation
    // made while binding the record (the thread handle) finds this heap.
    qkThread::setInfo(m->infoKey, record);
    record->node.link(&m->threads, record);
    m->threadLock->unlock();
    return &record->heap;
}

int qkMemoryInternals::dismantleDead(qkMemory* m) {
    int count = 0;
    m->threadLock->lock();
    for (LinkedList* n = m->threads.next(); n->ref();) {
        qkMemoryThreadRecord* record = recordOf(n);
        n = n->next();
        if (qkThread::active(record)) continue;
        destroyRecord(record);
        ++count;
    }
    m->threadLock->unlock();
    return count;
}
