// Waves of threads hand blocks to each other while threads end and new ones
// adopt their heaps: blocks of dead threads are still in transit and get
// released into heaps that were adopted or dismantled meanwhile. Every block
// carries a pattern that is checked when it is released; at the end the keep
// pool and the system statistics are checked against what is left.
#include <mutex>

#include "memory/qkMemoryModel.h"

namespace {

using namespace qktest;

struct Item {
    void* p;
    size_t size;
    uint32_t seed;
};

// Blocks in transit between threads.
struct Exchange {
    std::mutex lock;
    std::vector<Item> items;
    std::atomic<int> corrupt{0};

    void put(Item const& item) {
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
    void release(Item const& item) {
        if (!intact(item.p, item.size, item.seed)) corrupt.fetch_add(1);
        qkFree(item.p, "stress", 0);
    }
};

// One worker: keeps up to 200 blocks of its own, hands about half of what it
// makes to the others, and releases what it takes from them.
void worker(Exchange& exchange, uint32_t seed, int steps) {
    std::mt19937 rng(seed);
    std::vector<Item> mine;
    mine.reserve(256);
    for (int step = 0; step < steps; ++step) {
        unsigned op = rng() % 4;
        Item item;
        if (op < 2 && mine.size() < 200) {
            size_t size = randomSize(rng);
            item = {qkMalloc(size, "stress", step), size, static_cast<uint32_t>(rng())};
            stamp(item.p, item.size, item.seed);
            op == 0 ? mine.push_back(item) : exchange.put(item);
        } else if (op == 2 && !mine.empty()) {
            size_t i = rng() % mine.size();
            exchange.release(mine[i]);
            mine[i] = mine.back();
            mine.pop_back();
        } else if (exchange.take(item, rng)) {
            exchange.release(item);
        }
    }
    for (Item& left : mine)
        exchange.release(left);
}

void stress(int waves, int threadsPerWave, int steps) {
    Exchange exchange;
    for (int wave = 0; wave < waves; ++wave) {
        std::vector<std::thread> threads;
        for (int t = 0; t < threadsPerWave; ++t)
            threads.emplace_back(worker, std::ref(exchange), wave * 100 + t, steps);
        for (auto& t : threads)
            t.join();
    }
    onThread([&] {
        for (Item& item : exchange.items)
            exchange.release(item);
    });
    EXPECT_EQ(exchange.corrupt.load(), 0);
    std::vector<Item>().swap(exchange.items);

    // With every worker gone and every block released, all their superblocks
    // end in the keep pool with nothing in use, and the system statistics are
    // the keep pool plus what the live (main) thread holds.
    qkMemory* m = mgr();
    qkMemoryInternals::dismantleDead(m);
    checkHeap(nullptr);
    MEMORY_THREAD* mainHeap = qkMemoryThread();
    long long total = 0;
    for (int b = 0; b < kBucketLimit; ++b) {
        for (LinkedList* n = m->keep[b].next(); n->ref(); n = n->next()) {
            auto* sb = static_cast<MEMORY_SUPERBLOCK*>(n->ref());
            EXPECT_EQ(sb->allocCount, sb->freeCount.load()) << "a block is still in use";
        }
        EXPECT_EQ(m->systemStats[b].count, m->keepStats[b].count + mainHeap->stats[b].count);
        total += m->systemStats[b].bytes;
    }
    EXPECT_EQ(m->systemStats[kLargeIndex].bytes, mainHeap->stats[kLargeIndex].bytes);
    EXPECT_EQ(m->summarySystemStats.bytes, total + m->systemStats[kLargeIndex].bytes);
}

TEST(qkMemoryStress, ThreadsHandBlocksToEachOtherAndEverythingComesBack) {
    stress(3, 4, 20000);
}

TEST(qkMemoryStress, UnderAKeepLimitEverythingComesBackToo) {
    qkMemory::setKeepLimit(4 * 16384);
    stress(2, 3, 20000);
}

}  // namespace
