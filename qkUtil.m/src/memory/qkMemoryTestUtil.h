// Helpers shared by the memory manager's tests: running code on a fresh
// thread, capturing warnings, and an independent check of a heap's lists
// against its statistics.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "memory/qkMemoryInternal.h"

namespace qktest {

using namespace qk::memory;

// Warnings printed since the last take(); installed as the print function.
struct Warnings {
    static inline std::mutex lock;
    static inline std::vector<std::string> lines;
    static void print(char const* text) {
        std::lock_guard<std::mutex> hold(lock);
        lines.push_back(text);
    }
    static void install() {
        take();
        qkMemory::setPrintFunction(print);
    }
    static std::vector<std::string> take() {
        std::lock_guard<std::mutex> hold(lock);
        return std::exchange(lines, {});
    }
};

inline qkMemory* mgr() {
    return qkMemory::getManager();
}

// Runs `body` on a new thread and waits for the thread to be gone.
template <class F>
void onThread(F body) {
    std::thread(body).join();
}

inline MEMORY_SUPERBLOCK* superblockOf(void* p) {
    return qkMemoryInternals::headerOf(mgr(), p)->owner;
}

inline int listLength(LinkedList const& head) {
    int n = 0;
    for (LinkedList* node = head.next(); node->ref(); node = node->next())
        ++n;
    return n;
}

inline int chainLength(MEMORY_HEADER* h) {
    int n = 0;
    for (; h; h = h->next)
        ++n;
    return n;
}

// Superblocks of bucket b owned by `mt` (bucket list and full list).
inline int ownedSuperblocks(MEMORY_THREAD* mt, int b) {
    int n = 0;
    for (LinkedList const* head : {&mt->partial[b], &mt->full}) {
        for (LinkedList* node = head->next(); node->ref(); node = node->next())
            n += static_cast<MEMORY_SUPERBLOCK*>(node->ref())->bucket == b;
    }
    return n;
}

// Checks one superblock's own bookkeeping: list lengths against the counts,
// tags of the free blocks.
inline void checkSuperblock(MEMORY_SUPERBLOCK* sb) {
    int freeBlocks = chainLength(sb->free);
    EXPECT_EQ(chainLength(sb->pending), sb->freeCount.load());
    EXPECT_EQ(freeBlocks + sb->allocCount, sb->blockCount);
    EXPECT_LE(sb->freeCount.load(), sb->allocCount);
    for (MEMORY_HEADER* h = sb->free; h; h = h->next)
        ASSERT_EQ(h->tag, TAG_SMALL_FREE);
    for (MEMORY_HEADER* h = sb->pending; h; h = h->next)
        ASSERT_EQ(h->tag, TAG_SMALL_FREE);
}

// Checks a quiescent heap: every listed superblock is owned by it and sound,
// and its statistics count exactly the superblocks it holds.
inline void checkHeap(MEMORY_THREAD* mt) {
    long long total = 0;
    for (int b = 0; b < kBucketLimit; ++b) {
        for (LinkedList* n = mt->partial[b].next(); n->ref(); n = n->next()) {
            auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
            EXPECT_EQ(sb->bucket, b);
            EXPECT_EQ(sb->thread.load(), mt);
            checkSuperblock(sb);
        }
        int owned = ownedSuperblocks(mt, b);
        EXPECT_EQ(mt->stats[b].count, owned) << "bucket " << b;
        EXPECT_EQ(mt->stats[b].bytes, 16384LL * owned) << "bucket " << b;
        total += mt->stats[b].bytes;
    }
    for (LinkedList* n = mt->full.next(); n->ref(); n = n->next()) {
        auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
        EXPECT_EQ(sb->thread.load(), mt);
        checkSuperblock(sb);
    }
    EXPECT_EQ(mt->summaryStats.bytes, total + mt->stats[kLargeIndex].bytes);
}

// Checks the keep pool of every bucket against its statistics.
inline void checkKeepPool() {
    qkMemory* m = mgr();
    long long total = 0;
    for (int b = 0; b < kBucketLimit; ++b) {
        int kept = 0;
        for (LinkedList* n = m->keep[b].next(); n->ref(); n = n->next()) {
            auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
            EXPECT_EQ(sb->bucket, b);
            EXPECT_EQ(sb->thread.load(), nullptr);
            EXPECT_FALSE(sb->reclaim.linked());
            checkSuperblock(sb);
            ++kept;
        }
        EXPECT_EQ(m->keepStats[b].count, kept) << "bucket " << b;
        total += m->keepStats[b].bytes;
    }
    EXPECT_EQ(m->summaryKeepStats.bytes, total);
}

}  // namespace qktest
