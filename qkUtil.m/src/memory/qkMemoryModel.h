// The block layout of every base bucket, and one thread's heap run against a
// model of what it must hold. Both are shared by the test programs with and
// without debug slots, so that everything that depends on the block layout
// is checked in both.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <random>

#include "memory/qkMemoryTestUtil.h"

namespace qktest {

// What qkMemSize must report for a request before any tuning: the multiple of
// 32 that holds it (at least 32) for a small request, the request itself for a
// large one.
inline size_t usableSize(size_t size) {
    return size > 512 ? size : size == 0 ? 32 : (size + 31) / 32 * 32;
}

// Blocks per superblock of each base bucket, without debug slots.
constexpr int kBlockCounts[16] = {339, 203, 145, 113, 92, 78, 67, 59,
                                  53,  48,  44,  40,  37, 35, 32, 30};

// On a thread without superblocks: in every base bucket the blocks of a new
// superblock come out back to back from the highest address down, and the
// request after the last one starts another superblock.
inline void checkLayout() {
    int slots = mgr()->debugHeaderSize;
    std::vector<char*> blocks;
    blocks.reserve(400);
    for (int b = 0; b < 16; ++b) {
        int stride = 32 * (b + 1) + 16 + slots;
        int count = slots == 0 ? kBlockCounts[b] : 16288 / stride;
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

// The calling thread's heap under one request of every size from 0 to 513
// and then `steps` random allocations (plain, cleared, copies of a text),
// releases (some by another thread), resizes, duplicate releases and
// releases of C runtime blocks.
// Every block carries a pattern; the model knows each block's usable size,
// whether a resize may move it, and the large blocks the thread is charged
// with.
inline void runModel(uint32_t seed, int steps) {
    struct Live {
        size_t size, usable;
        uint32_t seed;
    };
    std::map<char*, Live> live;  // by address, so that neighbours can be checked
    std::mt19937 rng(seed);
    MEMORY_THREAD* mt = qkMemoryThread();
    size_t header = 16 + static_cast<size_t>(mgr()->debugHeaderSize);
    Warnings::install();
    int step = 0;  // for the messages: the run is reproducible from its seed
    auto add = [&](void* block, size_t size, size_t usable) {
        char* p = static_cast<char*>(block);
        ASSERT_EQ(qkMemSize(p), usable) << "size " << size << ", step " << step;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        auto [it, fresh] = live.emplace(p, Live{size, usable, static_cast<uint32_t>(rng())});
        ASSERT_TRUE(fresh) << "handed out twice, step " << step;
        stamp(p, size, it->second.seed);
        if (it != live.begin()) {
            ASSERT_LE(std::prev(it)->first + std::prev(it)->second.usable, p - header);
        }
        if (std::next(it) != live.end()) {
            ASSERT_LE(p + usable, std::next(it)->first - header);
        }
    };
    // The thread's charge for large blocks is their size; those released by
    // another thread stay charged to it.
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
        for (auto& [p, block] : live) {
            if (block.usable > 512) large += static_cast<long long>(block.usable), ++count;
        }
        EXPECT_EQ(mt->stats[kLargeIndex].bytes, large);
        EXPECT_EQ(mt->stats[kLargeIndex].count, count);
        checkHeap(mt);
    };
    for (size_t size = 0; size <= 513; ++size)
        add(qkMalloc(size, "model", 0), size, usableSize(size));
    qkFree(nullptr, "model", 0);
    EXPECT_EQ(qkMemSize(nullptr), 0u);
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
            if (op % 3 == 0) {  // a block made to be cleared, likely a dirty one
                size_t count = 1 + step % 4;
                size = size / count * count;
                p = qkCalloc(count, size / count, "model", step);
                char* bytes = static_cast<char*>(p);
                ASSERT_EQ(std::count(bytes, bytes + size, 0), static_cast<long>(size));
            } else if (op % 3 == 1 && size > 0) {
                std::string text(size - 1, static_cast<char>('a' + step % 26));
                p = qkStrdup(text.c_str(), "model", step);
                ASSERT_EQ(text, static_cast<char*>(p));
            } else {
                p = qkMalloc(size, "model", step);
            }
            add(p, size, usableSize(size));
        } else if (op >= 97) {  // a C runtime block passes through untouched
            char* c = static_cast<char*>(std::malloc(size));
            ASSERT_EQ(qkMemSize(c), 0u);
            stamp(c, size, 77);
            c = static_cast<char*>(qkRealloc(c, size + 100, "model", step));
            ASSERT_TRUE(intact(c, size, 77));
            ASSERT_EQ(qkMemSize(c), 0u);
            qkFree(c, "model", step);
        } else {
            uintptr_t lo = reinterpret_cast<uintptr_t>(live.begin()->first);
            uintptr_t hi = reinterpret_cast<uintptr_t>(live.rbegin()->first);
            uint64_t r = uint64_t{rng()} << 32 | rng();
            auto it = live.lower_bound(reinterpret_cast<char*>(lo + r % (hi - lo + 1)));
            auto [p, was] = *it;
            ASSERT_TRUE(intact(p, was.size, was.seed)) << "step " << step;
            live.erase(it);
            if (op >= 75 && op < 92) {
                char* q = static_cast<char*>(qkRealloc(p, size, "model", step));
                if (was.usable >= size) {
                    ASSERT_EQ(q, p) << "a block that holds the size stays";
                }
                ASSERT_TRUE(intact(q, std::min(size, was.size), was.seed));
                add(q, size, was.usable >= size ? was.usable : usableSize(size));
                continue;
            }
            if (op >= 65 && op < 70) {  // released by another thread, twenty at a time
                remoteBytes += was.usable > 512 ? static_cast<long long>(was.usable) : 0;
                remoteCount += was.usable > 512;
                remote.push_back(p);
                if (remote.size() == 20) releaseRemote();
                continue;
            }
            qkFree(p, "model", step);
            if (op >= 92 && was.usable <= 512) {  // a second release is only reported
                uint64_t tag = (uint64_t{rng()} << 32) | rng();
                qkFree(p, reinterpret_cast<char const*>(tag), step);
                char line[64];
                std::snprintf(line, sizeof line, "duplicate free (0x%x:%d)\n",
                              static_cast<unsigned>(tag), step);
                ASSERT_EQ(Warnings::take(), line);
            }
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
