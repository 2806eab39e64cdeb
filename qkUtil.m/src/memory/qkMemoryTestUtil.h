// Helpers shared by the memory manager's tests: threads, captured warnings,
// patterned blocks, an independent check of heaps and the keep pool against
// their statistics, the block layout of the base buckets and one thread's
// heap run against a model. Shared by the test programs with and without
// debug slots, so that everything that depends on the layout is checked in
// both.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
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

// The line a warning prints: the text, the low 32 bits of the caller tag and
// the line number. Returned by value so that building it allocates nothing.
inline std::array<char, 128> warningLine(char const* text, char const* caller, int line) {
    std::array<char, 128> out;
    std::snprintf(out.data(), out.size(), "%s (0x%x:%d)\n", text,
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(caller)), line);
    return out;
}
inline char const* randomTag(std::mt19937& rng) {
    return reinterpret_cast<char const*>(uint64_t{rng()} << 32 | rng());
}

inline auto const mgr = [] { return qkMemory::getManager(); };
// Runs `body` on a new thread and waits for it to be gone; "fresh": on a
// thread that gets an empty heap (no dead heap is left to adopt).
inline auto const onThread = [](auto body) { std::thread(body).join(); };
inline auto const onFreshThread = [](auto body) {
    qkMemoryInternals::dismantleDead(mgr()), onThread(body);
};
inline auto const superblockOf = [](void* p) {
    return qkMemoryInternals::headerOf(mgr(), p)->owner;
};

// `count` blocks of `size` bytes, and the release of every block in a list.
inline std::vector<void*> take(size_t size, int count) {
    std::vector<void*> blocks;
    blocks.reserve(400);  // a large block: the list takes none of the small ones it counts
    blocks.resize(static_cast<size_t>(count));
    for (void*& p : blocks)
        p = qkMalloc(size, "take", 0);
    return blocks;
}
inline void release(auto&& blocks) {
    for (void* p : std::exchange(blocks, {}))
        qkFree(p, "release", 0);
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
// A patterned block (`usable`: what qkMemSize reported for it).
struct Block {
    char* p;
    size_t size, usable;
    uint32_t seed;
    bool intact() const { return stamp(p, size, seed, true); }
};

inline auto const superblockAt = [](LinkedList* n) {
    return static_cast<MEMORY_SUPERBLOCK*>(n->ref());
};
inline int chainLength(MEMORY_HEADER* h) {
    return h ? 1 + chainLength(h->next) : 0;
}

// Checks the superblocks of one list (owner, chain lengths against the
// counts) and counts them by bucket into `held`.
inline void checkList(LinkedList const& head, MEMORY_THREAD* owner, long long* held) {
    for (LinkedList* n = head.next(); n->ref(); n = n->next()) {
        MEMORY_SUPERBLOCK* sb = superblockAt(n);
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
            held[b] += !superblockAt(n)->link.linked();
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
    for (int b = 0; b < 16; ++b) {
        int stride = 32 * (b + 1) + 16 + slots, count = 16288 / stride;
        std::vector<void*> blocks = take(32 * (b + 1), count + 1);
        char* first = static_cast<char*>(blocks[0]);
        MEMORY_SUPERBLOCK* sb = superblockOf(first);
        ASSERT_EQ(sb->blockCount, count) << "bucket " << b;
        EXPECT_EQ(first, reinterpret_cast<char*>(sb) + 96 + (count - 1) * stride + 16 + slots);
        for (int i = 1; i < count; ++i)
            ASSERT_EQ(first - static_cast<char*>(blocks[i]), i * stride) << "bucket " << b;
        EXPECT_NE(superblockOf(blocks[count]), sb) << "bucket " << b;
        release(blocks);
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
    std::map<char*, Block> live;
    std::mt19937 rng(seed);
    MEMORY_THREAD* mt = qkMemoryThread();
    size_t header = 16 + static_cast<size_t>(mgr()->debugHeaderSize);
    Warnings::install();
    int step = 0;
    long long large[2] = {};  // bytes and count of the large blocks charged to the thread
    auto charge = [&](size_t usable, int sign) {
        if (usable > 512) large[0] += sign * static_cast<long long>(usable), large[1] += sign;
    };
    auto add = [&](void* block, size_t size, size_t usable) {
        char* p = static_cast<char*>(block);
        ASSERT_EQ(qkMemSize(p), usable) << "size " << size << ", step " << step;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        auto [it, fresh] = live.emplace(p, Block{p, size, usable, static_cast<uint32_t>(rng())});
        ASSERT_TRUE(fresh) << "handed out twice, step " << step;
        stamp(p, size, it->second.seed);
        charge(usable, 1);
    };
    std::vector<void*> remote;
    auto releaseRemote = [&] { onThread([&] { release(remote); }); };
    auto checkCharges = [&] {
        MEMORY_STATS& s = mt->stats[kLargeIndex];
        EXPECT_EQ(std::make_pair(s.bytes, s.count), std::make_pair(large[0], large[1]));
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
        size_t size = randomSize(rng), count = 1 + step % 4;
        if (op < 45 || live.empty()) {  // even: a block made to be cleared, likely a dirty one
            size = op % 2 ? size : size / count * count;
            char* p = static_cast<char*>(op % 2 ? qkMalloc(size, "model", step)
                                                : qkCalloc(count, size / count, "model", step));
            ASSERT_TRUE(op % 2 || std::count(p, p + size, 0) == static_cast<long>(size)) << step;
            add(p, size, usableSize(size));
            continue;
        }
        auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
        Block was = it->second;
        char* p = was.p;
        ASSERT_TRUE(was.intact()) << "step " << step;
        live.erase(it);
        if (op < 65 || op >= 70) charge(was.usable, -1);  // not released by another thread
        if (op >= 75 && op < 92) {                        // a block that holds the new size stays
            char* q = static_cast<char*>(qkRealloc(p, size, "model", step));
            ASSERT_TRUE(was.usable < size || q == p);
            ASSERT_TRUE(stamp(q, std::min(size, was.size), was.seed, true));
            add(q, size, was.usable >= size ? was.usable : usableSize(size));
        } else if (op >= 65 && op < 70) {  // released by another thread, twenty at a time
            remote.push_back(p);
            if (remote.size() == 20) releaseRemote();
        } else {
            qkFree(p, "model", step);
            if (op < 92 || was.usable > 512) continue;
            char const* tag = randomTag(rng);  // a second release is only reported
            qkFree(p, tag, step);
            ASSERT_EQ(Warnings::take(), warningLine("duplicate free", tag, step).data());
        }
    }
    releaseRemote();
    checkCharges();
    for (auto& [p, block] : live) {
        EXPECT_TRUE(block.intact());
        qkFree(p, "model", 0);
    }
    checkHeap(mt);
    EXPECT_TRUE(Warnings::take().empty());
    EXPECT_EQ(mgr()->buckets, 16);  // the model assumes the base buckets
}

}  // namespace qktest
