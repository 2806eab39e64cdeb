// Randomised tests against a model: one thread's heap under a random mix of
// requests, and many threads handing blocks to each other while threads end
// and new ones adopt their heaps. Every block carries a pattern that is
// checked when it is released; the heaps and the keep pool are checked
// against their statistics.
#include <map>
#include <mutex>
#include <random>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

// A pattern derived from the block's seed, so that a block overwritten by a
// neighbour or handed out twice is noticed.
void stamp(void* p, size_t size, uint32_t seed) {
    unsigned char* bytes = static_cast<unsigned char*>(p);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(seed + i * 131);
}

bool intact(void const* p, size_t size, uint32_t seed) {
    unsigned char const* bytes = static_cast<unsigned char const*>(p);
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != static_cast<unsigned char>(seed + i * 131)) return false;
    }
    return true;
}

size_t randomSize(std::mt19937& rng) {
    unsigned pick = rng() % 100;
    if (pick < 85) return rng() % 513;
    if (pick < 98) return 513 + rng() % 8000;
    return 60000 + rng() % 20000;
}

TEST(qkMemoryModel, OneThreadAgainstAModel) {
    std::thread([] {
        struct Live {
            size_t size;
            uint32_t seed;
        };
        std::map<char*, Live> live;  // ordered by address, to check for overlaps
        std::mt19937 rng(12345);
        MEMORY_THREAD* mt = qkMemoryThread();
        auto overlapsNeighbours = [&](std::map<char*, Live>::iterator it) {
            if (it != live.begin() &&
                std::prev(it)->first + qkMemSize(std::prev(it)->first) > it->first)
                return true;
            auto next = std::next(it);
            return next != live.end() && it->first + qkMemSize(it->first) > next->first;
        };
        for (int step = 0; step < 60000; ++step) {
            unsigned op = rng() % 10;
            if (op < 5 || live.empty()) {
                size_t size = randomSize(rng);
                char* p = static_cast<char*>(qkMalloc(size, "model", step));
                ASSERT_NE(p, nullptr);
                ASSERT_GE(qkMemSize(p), size);
                uint32_t seed = rng();
                stamp(p, size, seed);
                auto [it, fresh] = live.emplace(p, Live{size, seed});
                ASSERT_TRUE(fresh) << "handed out twice";
                ASSERT_FALSE(overlapsNeighbours(it));
                continue;
            }
            auto it = live.lower_bound(reinterpret_cast<char*>(rng() * uintptr_t{2654435761}));
            if (it == live.end()) it = live.begin();
            ASSERT_TRUE(intact(it->first, it->second.size, it->second.seed)) << "step " << step;
            if (op < 8) {
                qkFree(it->first, "model", step);
                live.erase(it);
            } else {
                size_t size = randomSize(rng);
                Live was = it->second;
                char* p = it->first;
                live.erase(it);
                char* q = static_cast<char*>(qkRealloc(p, size, "model", step));
                ASSERT_TRUE(intact(q, std::min(size, was.size), was.seed));
                uint32_t seed = rng();
                stamp(q, size, seed);
                auto [moved, fresh] = live.emplace(q, Live{size, seed});
                ASSERT_TRUE(fresh);
                ASSERT_FALSE(overlapsNeighbours(moved));
            }
            if (step % 5000 == 0) checkHeap(mt);
        }
        long long large = 0;
        for (auto& [p, block] : live)
            large += block.size > 512 ? static_cast<long long>(qkMemSize(p)) : 0;
        EXPECT_EQ(mt->stats[kLargeIndex].bytes, large);
        for (auto& [p, block] : live) {
            ASSERT_TRUE(intact(p, block.size, block.seed));
            qkFree(p, "model", 0);
        }
        checkHeap(mt);
        EXPECT_EQ(mt->stats[kLargeIndex].bytes, 0);
    }).join();
}

// Blocks in transit between threads.
struct Exchange {
    struct Item {
        void* p;
        size_t size;
        uint32_t seed;
    };
    std::mutex lock;
    std::vector<Item> items;

    void put(Item item) {
        std::lock_guard<std::mutex> hold(lock);
        items.push_back(item);
    }
    bool take(Item& item, std::mt19937& rng) {
        std::lock_guard<std::mutex> hold(lock);
        if (items.empty()) return false;
        size_t i = rng() % items.size();
        item = items[i];
        items[i] = items.back();
        items.pop_back();
        return true;
    }
};

// One worker: allocates, checks and frees its own blocks, and hands about
// half of them to the others through the exchange, freeing theirs in turn.
void worker(Exchange& exchange, uint32_t seed, int steps, std::atomic<int>& corrupt) {
    std::mt19937 rng(seed);
    std::vector<Exchange::Item> mine;
    mine.reserve(256);
    for (int step = 0; step < steps; ++step) {
        unsigned op = rng() % 8;
        Exchange::Item item;
        if (op < 3 || (op < 5 && mine.size() < 200)) {
            size_t size = randomSize(rng);
            item = {qkMalloc(size, "stress", step), size, static_cast<uint32_t>(rng())};
            stamp(item.p, item.size, item.seed);
            if (rng() % 2) {
                exchange.put(item);
            } else {
                mine.push_back(item);
            }
            continue;
        }
        bool got = false;
        if (op < 6 && !mine.empty()) {
            size_t i = rng() % mine.size();
            item = mine[i];
            mine[i] = mine.back();
            mine.pop_back();
            got = true;
        } else {
            got = exchange.take(item, rng);
        }
        if (!got) continue;
        if (!intact(item.p, item.size, item.seed)) corrupt.fetch_add(1);
        qkFree(item.p, "stress", step);
    }
    for (auto& left : mine) {
        if (!intact(left.p, left.size, left.seed)) corrupt.fetch_add(1);
        qkFree(left.p, "stress", 0);
    }
}

// Waves of threads: each wave ends and the next one adopts the dead heaps,
// while blocks of the dead threads are still in transit and get freed into
// heaps that were adopted or dismantled meanwhile.
void stress(int waves, int threadsPerWave, int steps) {
    Exchange exchange;
    std::atomic<int> corrupt{0};
    for (int wave = 0; wave < waves; ++wave) {
        std::vector<std::thread> threads;
        for (int t = 0; t < threadsPerWave; ++t)
            threads.emplace_back(worker, std::ref(exchange), wave * 100 + t, steps,
                                 std::ref(corrupt));
        for (auto& t : threads)
            t.join();
    }
    std::mt19937 rng(7);
    Exchange::Item item;
    std::thread([&] {
        while (exchange.take(item, rng)) {
            if (!intact(item.p, item.size, item.seed)) corrupt.fetch_add(1);
            qkFree(item.p, "drain", 0);
        }
    }).join();
    EXPECT_EQ(corrupt.load(), 0);
    std::vector<Exchange::Item>().swap(exchange.items);  // its buffer too

    // With every worker gone and every block released, all their superblocks
    // end in the keep pool with nothing in use, and the system statistics are
    // the keep pool plus what the live (main) thread holds.
    qkMemory* m = mgr();
    qkMemoryInternals::dismantleDead(m);
    checkKeepPool();
    MEMORY_THREAD* mainHeap = qkMemoryThread();
    for (int b = 0; b < kBucketLimit; ++b) {
        for (LinkedList* n = m->keep[b].next(); n->ref(); n = n->next()) {
            auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
            EXPECT_EQ(sb->allocCount, sb->freeCount.load()) << "a block is still in use";
        }
        EXPECT_EQ(m->systemStats[b].count, m->keepStats[b].count + mainHeap->stats[b].count)
            << "bucket " << b;
    }
    long long total = 0;
    for (auto& s : m->systemStats)
        total += s.bytes;
    EXPECT_EQ(m->summarySystemStats.bytes, total);
    EXPECT_EQ(m->systemStats[kLargeIndex].bytes, mainHeap->stats[kLargeIndex].bytes);
}

TEST(qkMemoryStress, ThreadsHandBlocksToEachOtherAndEverythingComesBack) {
    stress(3, 4, 20000);
}

TEST(qkMemoryStress, UnderAKeepLimitIdleSuperblocksGoBackToTheSystem) {
    qkMemory::setKeepLimit(4 * 16384);
    stress(2, 3, 20000);
}

}  // namespace
