// The tuning counts of heaps that do not own the shared counts (see
// TuningCounts in qkMemoryInternal.h).
#include <algorithm>
#include <cstddef>
#include <utility>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

namespace {

// The record around a heap. The record class is polymorphic, which makes
// offsetof conditionally supported; GCC gives the plain member offset.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
TuningCounts& countsOf(MEMORY_THREAD* mt) {
    constexpr size_t heapAt = offsetof(qkMemoryThreadRecord, heap);
    auto* record = reinterpret_cast<qkMemoryThreadRecord*>(reinterpret_cast<char*>(mt) - heapAt);
    return record->counts;
}
#pragma GCC diagnostic pop

// Requests the heap may count on its own before it folds them in: never past
// the request that would start the next tuning, so that a tuning is late by
// at most what other threads counted meanwhile.
int budgetOf(qkMemory* m) {
    int left = loadRelaxed(m->allocLimit) + 1 - loadRelaxed(m->allocCount);
    return std::clamp(left, 1, TuningCounts::kFoldEvery);
}

// Tells the processor that this is a spin-wait loop.
inline void spinHint() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Waits until the shared count has stopped moving: the heap that owned the
// shared counts until a moment ago may still be between reading and writing
// them (its store may wait in its store buffer), and an addition made in that
// window would be overwritten whole. The old owner stops at its next request
// (it sees the new owner), so the count is still for good after a short
// while: here, three readings that agree, each 64 spin-wait hints after the
// one before. Once per kFoldEvery requests at most, and only when the
// ownership changes hands.
void waitForQuiet(qkMemory* m) {
    int count = loadRelaxed(m->allocCount), agreeing = 0;
    for (int round = 0; round < 256 && agreeing < 3; ++round) {
        for (int i = 0; i < 64; ++i)
            spinHint();
        int now = loadRelaxed(m->allocCount);
        agreeing = now == count ? agreeing + 1 : 0;
        count = now;
    }
}

}  // namespace

QK_NOINLINE void qkMemoryInternals::countOnItsOwn(qkMemory* m, MEMORY_THREAD* mt, size_t size) {
    TuningCounts& counts = countsOf(mt);
    if (counts.pending == 0) {
        int now = loadRelaxed(m->allocCount);
        if (counts.seen == now) {
            // Nobody has counted since this heap's previous request: the
            // owner has stopped, so this heap takes over and stays exact.
            foldCounts(m, mt);
            return countRequest(m, size);
        }
        if (counts.seen < 0) {
            // A first look: count directly and watch whether anyone else does.
            // Additions, as a heap that has just taken the ownership over may
            // be folding its own counts in at this moment.
            addAtomic(m->countBySize[size], 1);
            int count = std::atomic_ref<int>(m->allocCount).fetch_add(1, std::memory_order_relaxed);
            counts.seen = count + 1;
            if (count + 1 > loadRelaxed(m->allocLimit)) tuneLocked(m);
            return;
        }
        counts.budget = budgetOf(m);  // the owner is counting: count on its own
    }
    counts.bySize[size] += 1;
    if (++counts.pending >= counts.budget) foldCounts(m, mt);
}

void qkMemoryInternals::foldCounts(qkMemory* m, MEMORY_THREAD* mt) {
    TuningCounts& counts = countsOf(mt);
    // An exchange: the new owner is visible to the old one before the wait.
    MEMORY_THREAD* previous =
        std::atomic_ref<MEMORY_THREAD*>(fast.countOwner).exchange(mt, std::memory_order_seq_cst);
    counts.seen = -1;
    if (previous != mt && previous != nullptr) waitForQuiet(m);
    if (counts.pending == 0) return;
    // Additions, so that two heaps folding at once both count.
    for (int s = 0; s <= kSmallLimit; ++s) {
        if (counts.bySize[s] == 0) continue;
        addAtomic(m->countBySize[s], counts.bySize[s]);
        counts.bySize[s] = 0;
    }
    int pending = std::exchange(counts.pending, 0);
    int count = std::atomic_ref<int>(m->allocCount).fetch_add(pending, std::memory_order_relaxed);
    if (count + pending > loadRelaxed(m->allocLimit)) tuneLocked(m);
}
