// Helpers shared by the memory manager's tests: running code on a fresh
// thread, capturing warnings, patterned blocks, and an independent check of
// heaps and the keep pool against their statistics.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>

#include "memory/qkMemoryInternal.h"

namespace qktest {

using namespace qk::memory;

// Warnings printed since the last take(). Warnings are printed one at a time
// (under the manager's print lock); take() is called while none is printed.
struct Warnings {
    static inline std::string text;
    static void install() {
        text.clear();
        qkMemory::setPrintFunction([](char const* line) { text += line; });
    }
    static std::string take() { return std::exchange(text, {}); }
};

inline qkMemory* mgr() {
    return qkMemory::getManager();
}

// Runs `body` on a new thread and waits for the thread to be gone.
template <class F>
void onThread(F body) {
    std::thread(body).join();
}

// The same, on a thread that gets an empty heap (no dead heap is left to adopt).
template <class F>
void onFreshThread(F body) {
    qkMemoryInternals::dismantleDead(mgr());
    onThread(body);
}

inline MEMORY_SUPERBLOCK* superblockOf(void* p) {
    return qkMemoryInternals::headerOf(mgr(), p)->owner;
}

// Writes a pattern derived from `seed`, or with `check` tells whether it is
// still there; a block overwritten by a neighbour, handed out twice or copied
// short is noticed.
inline bool stamp(void* p, size_t size, uint32_t seed, bool check = false) {
    unsigned char* bytes = static_cast<unsigned char*>(p);
    for (size_t i = 0; i < size; ++i) {
        unsigned char want = static_cast<unsigned char>(seed + i * 131);
        if (check && bytes[i] != want) return false;
        bytes[i] = want;
    }
    return true;
}
inline bool intact(void* p, size_t size, uint32_t seed) {
    return stamp(p, size, seed, true);
}

inline int chainLength(MEMORY_HEADER* h) {
    int n = 0;
    for (; h; h = h->next)
        ++n;
    return n;
}

// Checks the superblocks of one list: their owner and their own bookkeeping
// (list lengths against the counts, tags of the free blocks); counts them by
// bucket into `held`.
inline void checkList(LinkedList const& head, MEMORY_THREAD* owner, long long* held) {
    for (LinkedList* n = head.next(); n->ref(); n = n->next()) {
        auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
        EXPECT_EQ(sb->thread.load(), owner);
        EXPECT_EQ(chainLength(sb->pending), sb->freeCount.load());
        EXPECT_EQ(chainLength(sb->free) + sb->allocCount, sb->blockCount);
        EXPECT_LE(sb->freeCount.load(), sb->allocCount);
        for (MEMORY_HEADER* list : {sb->free, sb->pending}) {
            for (MEMORY_HEADER* h = list; h; h = h->next)
                ASSERT_EQ(h->tag, TAG_SMALL_FREE);
        }
        ++held[sb->bucket];
    }
}

// Checks that a quiescent heap (with null: the keep pool) holds sound
// superblocks, exactly as many per bucket as its statistics count: those on
// its bucket and full lists, and those on its reclaim lists alone.
inline void checkHeap(MEMORY_THREAD* mt) {
    qkMemory* m = mgr();
    long long held[kBucketLimit] = {}, total = 0;
    MEMORY_STATS* stats = mt ? mt->stats : m->keepStats;
    if (mt) checkList(mt->full, mt, held);
    for (int b = 0; b < kBucketLimit; ++b) {
        checkList(mt ? mt->partial[b] : m->keep[b], mt, held);
        for (LinkedList* n = mt ? mt->reclaim[b].next() : nullptr; n && n->ref(); n = n->next()) {
            auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
            EXPECT_EQ(sb->thread.load(), mt);
            held[b] += !sb->link.linked();  // adopted by releasing into it: only here
        }
        EXPECT_EQ(stats[b].count, held[b]) << "bucket " << b;
        EXPECT_EQ(stats[b].bytes, 16384 * held[b]) << "bucket " << b;
        total += stats[b].bytes;
    }
    if (mt) total += stats[kLargeIndex].bytes;
    EXPECT_EQ((mt ? mt->summaryStats : m->summaryKeepStats).bytes, total);
}

}  // namespace qktest
