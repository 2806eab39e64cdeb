// Helpers shared by the memory manager's tests: threads, captured warnings,
// patterned blocks, an independent check of heaps and the keep pool against
// their statistics, the block layout of the base buckets and one thread's
// heap run against a model. Shared by the test programs with and without
// debug slots, so that everything that depends on the layout is checked in
// both.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "memory/qkMemoryInternal.h"

namespace qktest {

using namespace qk::memory;

// Warnings printed since the last take(), one at a time under the print lock.
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

// Runs `body` on a new thread and waits for it to be gone.
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
// still there: a block overwritten by a neighbour, handed out twice or copied
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

// Checks the superblocks of one list (owner, chain lengths against the
// counts) and counts them by bucket into `held`.
inline void checkList(LinkedList const& head, MEMORY_THREAD* owner, long long* held) {
    for (LinkedList* n = head.next(); n->ref(); n = n->next()) {
        auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
        EXPECT_EQ(sb->thread.load(), owner);
        EXPECT_EQ(chainLength(sb->pending), sb->freeCount.load());
        EXPECT_EQ(chainLength(sb->free) + sb->allocCount, sb->blockCount);
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
        for (LinkedList* n = mt ? mt->reclaim[b].next() : nullptr; n && n->ref(); n = n->next())
            held[b] += !static_cast<MEMORY_SUPERBLOCK*>(n->ref())->link.linked();
        EXPECT_EQ(stats[b].count, held[b]) << "bucket " << b;
        EXPECT_EQ(stats[b].bytes, 16384 * held[b]) << "bucket " << b;
        total += stats[b].bytes;
    }
    if (mt) total += stats[kLargeIndex].bytes;
    EXPECT_EQ((mt ? mt->summaryStats : m->summaryKeepStats).bytes, total);
}

// What qkMemSize must report before any tuning: the multiple of 32 that holds
// the request (at least 32) for a small one, the request itself for a large one.
inline size_t usableSize(size_t size) {
    return size > 512 ? size : size == 0 ? 32 : (size + 31) / 32 * 32;
}

// On a thread without superblocks: in every base bucket the blocks of a new
// superblock (16384 bytes, a 96-byte header) come out back to back from the
// highest address down, and the request after the last one starts another.
inline void checkLayout() {
    int slots = mgr()->debugHeaderSize;
    std::vector<char*> blocks;
    blocks.reserve(400);  // its own growth would take blocks in between
    for (int b = 0; b < 16; ++b) {
        int stride = 32 * (b + 1) + 16 + slots, count = 16288 / stride;
        blocks.clear();
        for (int i = 0; i <= count; ++i)
            blocks.push_back(static_cast<char*>(qkMalloc(32 * (b + 1), "layout", i)));
        MEMORY_SUPERBLOCK* sb = superblockOf(blocks[0]);
        ASSERT_EQ(sb->blockCount, count) << "bucket " << b;
        EXPECT_EQ(blocks[0], reinterpret_cast<char*>(sb) + 96 + (count - 1) * stride + 16 + slots);
        for (int i = 1; i < count; ++i)
            ASSERT_EQ(blocks[i - 1] - blocks[i], stride) << "bucket " << b << " block " << i;
        EXPECT_NE(superblockOf(blocks[count]), sb) << "bucket " << b;
        for (char* p : blocks)
            qkFree(p, "layout", 0);
    }
}

inline size_t randomSize(std::mt19937& rng) {
    unsigned pick = rng() % 100;
    return pick < 85 ? rng() % 513 : pick < 98 ? 513 + rng() % 8000 : 60000 + rng() % 20000;
}

// The calling thread's heap under one request of every size from 0 to 513,
// then `steps` random allocations (plain, cleared, copies of a text),
// releases (some by another thread), resizes and duplicate releases. Every
// block carries a pattern; the model knows each block's usable size, whether
// a resize may move it, and the large blocks the thread is charged with
// (those released by another thread stay charged to it).
inline void runModel(uint32_t seed, int steps) {
    struct Live {
        size_t size, usable;
        uint32_t seed;
    };
    std::map<char*, Live> live;
    std::mt19937 rng(seed);
    MEMORY_THREAD* mt = qkMemoryThread();
    size_t header = 16 + static_cast<size_t>(mgr()->debugHeaderSize);
    Warnings::install();
    int step = 0;
    auto add = [&](void* block, size_t size, size_t usable) {
        char* p = static_cast<char*>(block);
        ASSERT_EQ(qkMemSize(p), usable) << "size " << size << ", step " << step;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        auto [it, fresh] = live.emplace(p, Live{size, usable, static_cast<uint32_t>(rng())});
        ASSERT_TRUE(fresh) << "handed out twice, step " << step;
        stamp(p, size, it->second.seed);
    };
    long long remoteBytes = 0, remoteCount = 0;
    std::vector<void*> remote;
    auto releaseRemote = [&] {
        onThread([&] {
            for (void* p : remote)
                qkFree(p, "remote", 0);
        });
        remote.clear();
    };
    auto checkCharges = [&] {
        long long large = remoteBytes, count = remoteCount;
        for (auto& [p, block] : live)
            if (block.usable > 512) large += static_cast<long long>(block.usable), ++count;
        EXPECT_EQ(mt->stats[kLargeIndex].bytes, large);
        EXPECT_EQ(mt->stats[kLargeIndex].count, count);
        checkHeap(mt);
    };
    for (size_t size = 0; size <= 513; ++size)
        add(qkMalloc(size, "model", 0), size, usableSize(size));
    qkFree(nullptr, "model", 0);
    EXPECT_EQ(qkStrdup(nullptr, "model", 0), nullptr);
    // Sizes whose total with the header does not fit an int are refused.
    EXPECT_EQ(qkMalloc(INT_MAX - header + 1, "huge", 0), nullptr);
    EXPECT_EQ(qkRealloc(live.begin()->first, INT_MAX - header + 1, "huge", 0), nullptr);
    for (; step < steps && !::testing::Test::HasFailure(); ++step) {
        if (step % 2000 == 0) checkCharges();
        unsigned op = rng() % 100;
        size_t size = randomSize(rng);
        if (op < 45 || live.empty()) {
            void* p;
            if (op % 2 == 0) {  // a block made to be cleared, likely a dirty one
                size_t count = 1 + step % 4;
                size = size / count * count;
                p = qkCalloc(count, size / count, "model", step);
                char* bytes = static_cast<char*>(p);
                ASSERT_EQ(std::count(bytes, bytes + size, 0), static_cast<long>(size));
            } else {
                p = qkMalloc(size, "model", step);
            }
            add(p, size, usableSize(size));
            continue;
        }
        auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
        auto [p, was] = *it;
        ASSERT_TRUE(intact(p, was.size, was.seed)) << "step " << step;
        live.erase(it);
        if (op >= 75 && op < 92) {  // a block that holds the new size stays
            char* q = static_cast<char*>(qkRealloc(p, size, "model", step));
            ASSERT_TRUE(was.usable < size || q == p);
            ASSERT_TRUE(intact(q, std::min(size, was.size), was.seed));
            add(q, size, was.usable >= size ? was.usable : usableSize(size));
        } else if (op >= 65 && op < 70) {  // released by another thread, twenty at a time
            remoteBytes += was.usable > 512 ? static_cast<long long>(was.usable) : 0;
            remoteCount += was.usable > 512;
            remote.push_back(p);
            if (remote.size() == 20) releaseRemote();
        } else {
            qkFree(p, "model", step);
            if (op < 92 || was.usable > 512) continue;
            uint64_t tag = (uint64_t{rng()} << 32) | rng();  // a second release is only reported
            qkFree(p, reinterpret_cast<char const*>(tag), step);
            char line[64];
            std::snprintf(line, sizeof line, "duplicate free (0x%x:%d)\n",
                          static_cast<unsigned>(tag), step);
            ASSERT_EQ(Warnings::take(), line);
        }
    }
    releaseRemote();
    checkCharges();
    for (auto& [p, block] : live) {
        EXPECT_TRUE(intact(p, block.size, block.seed));
        qkFree(p, "model", 0);
    }
    checkHeap(mt);
    EXPECT_TRUE(Warnings::take().empty());
    EXPECT_EQ(mgr()->buckets, 16);  // the model assumes the base buckets
}

}  // namespace qktest
