// The allocator core: the block layout and one thread's heap against a
// model, blocks released by other threads, the keep pool and the heaps of
// ended threads, tuning, and threads handing blocks to each other. Each
// scenario runs on threads of its own, so that it starts from an empty heap.
#include <mutex>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

TEST(qkMemoryCore, EveryBaseBucketCutsItsSuperblocksInOrder) {
    onFreshThread(checkLayout);
}

TEST(qkMemoryCore, OneThreadAgainstAModel) {
    onFreshThread([] { runModel(12345, 60000); });
}

// An idle superblock goes to the keep pool unless it is its thread's last
// one of the bucket; a keep limit of 65536 bytes gives each of the 16 buckets
// 4096, so the next idle one goes back to the system. A thread that ends
// leaves its heap; the next thread that needs one adopts it with its
// statistics, and of several dead heaps the oldest is adopted and the others
// are dismantled.
TEST(qkMemoryCore, IdleSuperblocksAndTheHeapsOfEndedThreads) {
    qkMemory* m = mgr();
    MEMORY_SUPERBLOCK *first = nullptr, *last = nullptr;
    MEMORY_THREAD* heap = nullptr;
    long long bytes = 0;
    std::vector<void*> left;
    qkMemory::setKeepLimit(4 * 16384);
    onFreshThread([&] {
        heap = qkMemoryThread();
        std::vector<void*> blocks = take(160, 185);  // 92 a superblock
        first = superblockOf(blocks[0]);
        last = superblockOf(blocks[184]);
        long long system = m->systemStats[4].count;
        release(blocks);
        EXPECT_EQ(std::make_tuple<MEMORY_THREAD*>(first->thread.load(), m->keepStats[4].count,
                                                  last->thread.load()),
                  std::make_tuple(nullptr, 1LL, heap));
        EXPECT_EQ(m->systemStats[4].count, system - 1);
        left = {qkMalloc(300, "left", 0), qkMalloc(5000, "left", 1)};
        bytes = qkMemory::loadStats(qkMemory::getThreadStats()).bytes;
    });
    onThread([&] {
        EXPECT_EQ(qkMemoryThread(), heap);
        EXPECT_EQ(qkMemory::loadStats(qkMemory::getThreadStats()).bytes, bytes);
        left.push_back(qkMalloc(150, "adopt", 0));
        EXPECT_EQ(superblockOf(left[2]), last);
        release(left);  // its own blocks now
        // A thread running beside this one makes a heap of its own and takes
        // the kept superblock; it ends with a block still in use.
        onThread([&] {
            EXPECT_NE(qkMemoryThread(), heap);
            EXPECT_EQ(superblockOf(qkMalloc(150, "adopt", 2)), first);
        });
        EXPECT_EQ(m->keepStats[4].count, 0);
        checkHeap(heap);
    });
    onThread([&] {
        EXPECT_EQ(qkMemoryThread(), heap);
        EXPECT_EQ(m->keepStats[4].count, 1);  // the newer dead heap's superblock
        EXPECT_EQ(first->allocCount, 1);
        checkHeap(nullptr);
        checkHeap(heap);
    });
}

// After 200000 counted requests the next one adds a bucket for the busiest
// eight-byte range; the old bucket's idle kept superblocks go back to the
// system, and blocks made before keep their size.
TEST(qkMemoryCore, TuningAddsABucketForTheBusiestRange) {
    auto request = [](int size, long long count) {
        for (long long i = 0; i < count; ++i)
            qkFree(qkMalloc(size, "tune", 0), "tune", 0);
    };
    onThread([] {  // leaves idle 128-byte superblocks behind
        release(take(120, 120));
    });
    onFreshThread([&] {
        qkMemory* m = mgr();
        void* early = qkMalloc(100, "early", 0);  // adopts one of them
        EXPECT_EQ(m->keepStats[3].count, 1);
        request(100, m->allocLimit - m->allocCount);
        EXPECT_EQ(m->buckets, 16);  // tuning starts above the limit
        request(100, 1);
        ASSERT_EQ(m->buckets, 17);
        EXPECT_EQ(m->allocLimit, 400000);
        EXPECT_EQ(m->keepStats[3].count, 0);
        for (int s = 0; s <= 512; ++s)
            ASSERT_EQ(m->bucketNumber[s], s >= 97 && s <= 104 ? 16 : s == 0 ? 0 : (s - 1) / 32);
        void* tuned = qkMalloc(100, "tuned", 0);
        EXPECT_EQ(qkMemSize(tuned), 104u);
        EXPECT_EQ(superblockOf(tuned)->blockCount,
                  16288 / (104 + qkMemoryInternals::overheadOf(mgr())));
        EXPECT_EQ(qkMemSize(early), 128u);
        request(200, 400000 - m->allocCount + 1);
        EXPECT_EQ(m->bucketSize[17], 200);
        checkHeap(qkMemoryThread());
    });
}

// Waves of workers hand blocks to each other through an exchange while
// threads end and new ones adopt their heaps: blocks of dead threads are
// still in transit and get released into heaps that were adopted or
// dismantled meanwhile. Each block's pattern is checked when it is released.
struct Exchange {
    std::mutex lock;
    std::vector<Block> items;
    std::atomic<int> corrupt{0};

    void release(Block const& item) {
        corrupt += !item.intact();
        qkFree(item.p, "stress", 0);
    }
    // Keeps up to 200 blocks of its own, hands about half of what it makes
    // to the others, and releases what it takes from them.
    void worker(uint32_t seed, int steps) {
        std::mt19937 rng(seed);
        std::vector<Block> mine;
        for (int step = 0; step < steps; ++step) {
            unsigned op = rng() % 4;
            if (op < 2 && mine.size() < 200) {
                size_t size = randomSize(rng);
                Block item{static_cast<char*>(qkMalloc(size, "stress", step)), size, 0,
                           static_cast<uint32_t>(rng())};
                stamp(item.p, item.size, item.seed);
                std::lock_guard<std::mutex> hold(lock);
                (op == 0 ? mine : items).push_back(item);
                continue;
            }
            std::vector<Block>& from = op == 2 && !mine.empty() ? mine : items;
            std::unique_lock<std::mutex> hold(lock);
            if (from.empty()) continue;
            Block item = std::exchange(from[rng() % from.size()], from.back());
            from.pop_back();
            hold.unlock();
            release(item);
        }
        for (Block& left : mine)
            release(left);
    }
};

// With every worker gone and every block released, all their superblocks end
// in the keep pool with nothing in use, and the system statistics are the
// keep pool plus what the live (main) thread holds.
void stress(int waves, int threadsPerWave, int steps) {
    Exchange exchange;
    for (int wave = 0; wave < waves; ++wave) {
        std::vector<std::thread> threads;
        for (int t = 0; t < threadsPerWave; ++t)
            threads.emplace_back(&Exchange::worker, &exchange, wave * 100 + t, steps);
        for (auto& t : threads)
            t.join();
    }
    onThread([&] {
        for (auto& item : exchange.items)
            exchange.release(item);
    });
    EXPECT_EQ(exchange.corrupt.load(), 0);
    std::vector<Block>().swap(exchange.items);  // made by the workers
    qkMemory* m = mgr();
    qkMemoryInternals::dismantleDead(m);
    checkHeap(nullptr);
    MEMORY_THREAD* mainHeap = qkMemoryThread();
    long long total = 0;
    for (int b = 0; b < kBucketLimit; ++b) {
        for (LinkedList* n = m->keep[b].next(); n->ref(); n = n->next())
            EXPECT_EQ(superblockAt(n)->allocCount, superblockAt(n)->freeCount) << "still in use";
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
