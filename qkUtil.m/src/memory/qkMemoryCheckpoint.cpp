// The checkpoint: a heap's superblocks handed on to another thread's heap or
// to the keep pool, with their statistics.
#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

namespace {

// Moves `sb` (bucket b, held under allocLock[b] by the caller) from `current`
// to `target`, which takes it in through its reclaim list; true when the
// charge crossed the thread limit.
bool moveSuperblock(qkMemory* m, MEMORY_THREAD* current, MEMORY_THREAD* target,
                    MEMORY_SUPERBLOCK* sb, int b) {
    sb->link.unlink();
    sb->reclaim.link(&target->reclaim[b], sb);
    sb->thread.store(target, std::memory_order_relaxed);
    qkMemoryInternals::bump(m, current->summaryStats, current->stats, b, -kSuperblockSize, -1, 0);
    return qkMemoryInternals::bump(m, target->summaryStats, target->stats, b, kSuperblockSize, 1,
                                   loadRelaxed(qkMemory::_threadLimit)) != 0;
}

// Hands one superblock on: to the target under its bucket's lock, or to the
// keep pool (which takes the lock itself).
bool handOn(qkMemory* m, MEMORY_THREAD* current, MEMORY_THREAD* target, MEMORY_SUPERBLOCK* sb) {
    if (!target) {
        qkMemoryInternals::keepSuperblock(m, sb);
        return false;
    }
    int b = sb->bucket;
    m->allocLock[b]->lock();
    bool crossed = moveSuperblock(m, current, target, sb, b);
    m->allocLock[b]->unlock();
    return crossed;
}

}  // namespace

void qkMemory::checkpoint(MEMORY_THREAD* current, MEMORY_THREAD* target, int all) {
    if (!current || current == target) return;
    bool crossed = false;
    if (target || all) {
        for (LinkedList* n = current->full.next(); n->ref();) {
            MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
            n = n->next();  // the superblock leaves the list
            crossed |= handOn(this, current, target, sb);
        }
    }
    for (int b = 0; b < kBucketLimit; ++b) {
        allocLock[b]->lock();
        // The oldest superblock is the last of the list; it stays unless `all`.
        LinkedList* stop = all ? &current->partial[b] : current->partial[b].prev();
        for (LinkedList* n = current->partial[b].next(); n != stop && n->ref();) {
            MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
            n = n->next();
            if (target) {
                crossed |= moveSuperblock(this, current, target, sb, b);
            } else {
                keepSuperblock(sb);  // re-enters this bucket's lock
            }
        }
        for (LinkedList* n = current->reclaim[b].next(); n->ref();) {
            MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
            n = n->next();
            keepSuperblock(sb);
        }
        allocLock[b]->unlock();
    }
    // The statistics follow what moved, superblock by superblock, so that a
    // heap's counts always match its lists (a superblock that stays keeps
    // its charge). The large blocks go with the heap to a target; without
    // one they stay charged here, where their releases will be counted.
    if (target) {
        allocLock[kLargeIndex]->lock();
        MEMORY_STATS large = loadStats(&current->stats[kLargeIndex]);
        crossed |= bumpStats(target->summaryStats, target->stats, kLargeIndex, large.bytes,
                             large.count, loadRelaxed(_threadLimit)) != 0;
        bumpStats(current->summaryStats, current->stats, kLargeIndex, -large.bytes, -large.count,
                  0);
        allocLock[kLargeIndex]->unlock();
    }
    if (crossed) warn("thread memory limit exceeded", kManagerFile, 478);
}

void qkMemoryCheckpoint(MEMORY_THREAD* target, int all) {
    qkMemory* m = manager();
    if (m) m->checkpoint(m->getThread(), target, all);
}
