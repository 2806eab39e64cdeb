// The allocator core: the block layout and one thread's heap against a
// model, blocks released by other threads, the keep pool and the heaps of
// ended threads, and tuning. Each scenario runs on threads of
// its own, so that it starts from an empty heap.
#include <set>

#include "memory/qkMemoryModel.h"

namespace {

using namespace qktest;

TEST(qkMemoryCore, EveryBaseBucketCutsItsSuperblocksInOrder) {
    onFreshThread(checkLayout);
}

TEST(qkMemoryCore, OneThreadAgainstAModel) {
    onFreshThread([] { runModel(12345, 60000); });
}

// Another thread's releases wait on their superblock until the owner has no
// other free block; then they come back under the bucket's lock (the
// superblock leaves the reclaim list). When every block handed out came back
// that way, the owner takes them in place.
TEST(qkMemoryCore, RemoteReleasesWaitUntilTheOwnerRunsDry) {
    onFreshThread([] {
        std::vector<void*> mine;  // 224-byte blocks, 67 a superblock
        for (int i = 0; i < 10; ++i)
            mine.push_back(qkMalloc(200, "own", i));
        MEMORY_SUPERBLOCK* sb = superblockOf(mine[0]);
        std::set<void*> parked = {mine[2], mine[5], mine[7]};
        onThread([&] {
            for (void* p : parked)
                qkFree(p, "remote", 0);
        });
        for (int i = 10; i < 67; ++i) {
            mine.push_back(qkMalloc(200, "own", i));
            ASSERT_EQ(parked.count(mine.back()), 0u) << "a parked block came out early";
        }
        EXPECT_TRUE(sb->reclaim.linked());
        for (int i : {2, 5, 7})
            EXPECT_EQ(parked.count(mine[i] = qkMalloc(200, "own", i)), 1u);
        EXPECT_FALSE(sb->reclaim.linked());
        onThread([&] {
            for (void* p : mine)
                qkFree(p, "remote", 1);
        });
        EXPECT_EQ(qkMalloc(200, "again", 0), mine.back());  // the last one parked
        EXPECT_EQ(sb->allocCount, 1);
        EXPECT_EQ(sb->freeCount.load(), 0);
    });
}

// An idle superblock goes to the keep pool unless it is its thread's last one
// of the bucket; a keep limit of 65536 bytes gives each of the 16 buckets a
// share of 4096, so the next idle one goes back to the system. A thread that
// ends leaves its heap; the next thread that needs one adopts it with its
// statistics, and of several dead heaps the one met last (the oldest) is
// adopted and the others are dismantled.
TEST(qkMemoryCore, IdleSuperblocksAndTheHeapsOfEndedThreads) {
    qkMemory* m = mgr();
    MEMORY_SUPERBLOCK *first = nullptr, *last = nullptr;
    MEMORY_THREAD* heap = nullptr;
    MEMORY_STATS before{};
    void* left[2];
    qkMemory::setKeepLimit(4 * 16384);
    onFreshThread([&] {
        heap = qkMemoryThread();
        void* blocks[185];
        for (void*& p : blocks)  // 160-byte blocks, 92 a superblock
            p = qkMalloc(160, "keep", 0);
        first = superblockOf(blocks[0]);
        last = superblockOf(blocks[184]);
        long long system = m->systemStats[4].count;
        for (void* p : blocks)
            qkFree(p, "keep", 1);
        EXPECT_EQ(first->thread.load(), nullptr);
        EXPECT_EQ(m->keepStats[4].count, 1);
        EXPECT_EQ(m->systemStats[4].count, system - 1);
        EXPECT_EQ(last->thread.load(), heap);
        left[0] = qkMalloc(300, "left", 0);
        left[1] = qkMalloc(5000, "left", 1);
        before = qkMemory::loadStats(qkMemory::getThreadStats());
        checkHeap(heap);
        checkHeap(nullptr);
    });
    onThread([&] {
        EXPECT_EQ(qkMemoryThread(), heap);
        MEMORY_STATS now = qkMemory::loadStats(qkMemory::getThreadStats());
        EXPECT_EQ(now.bytes, before.bytes);
        EXPECT_EQ(now.count, before.count);
        void* p = qkMalloc(150, "adopt", 0);
        EXPECT_EQ(superblockOf(p), last);
        qkFree(p, "adopt", 1);
        for (void* q : left)
            qkFree(q, "left", 0);  // its own blocks now
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
    onThread([] {  // leaves two idle 128-byte superblocks behind
        void* blocks[120];
        for (void*& p : blocks)
            p = qkMalloc(120, "idle", 0);
        for (void* p : blocks)
            qkFree(p, "idle", 0);
    });
    onFreshThread([&] {
        qkMemory* m = mgr();
        void* early = qkMalloc(100, "early", 0);  // adopts one of them
        EXPECT_EQ(m->keepStats[3].count, 1);
        request(100, m->allocLimit - m->allocCount);
        EXPECT_EQ(m->buckets, 16);  // tuning starts above the limit
        request(100, 1);
        ASSERT_EQ(m->buckets, 17);
        EXPECT_EQ(m->bucketSize[16], 104);
        EXPECT_EQ(m->allocLimit, 400000);
        EXPECT_EQ(m->keepStats[3].count, 0);
        for (int s = 0; s <= 512; ++s) {
            int expected = (s >= 97 && s <= 104) ? 16 : (s == 0 ? 0 : (s - 1) / 32);
            ASSERT_EQ(m->bucketNumber[s], expected) << "size " << s;
        }
        void* tuned = qkMalloc(100, "tuned", 0);
        EXPECT_EQ(qkMemSize(tuned), 104u);
        EXPECT_EQ(superblockOf(tuned)->blockCount, 16288 / 120);
        EXPECT_EQ(qkMemSize(early), 128u);
        request(200, 400000 - m->allocCount);
        EXPECT_EQ(m->buckets, 17);
        request(200, 1);
        EXPECT_EQ(m->bucketSize[17], 200);
        checkHeap(qkMemoryThread());
    });
}

}  // namespace
