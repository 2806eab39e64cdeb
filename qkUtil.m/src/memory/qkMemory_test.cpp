// The allocator core: bucket map and superblock format, the order in which
// blocks come out, remote frees, the keep pool, heaps of ended threads,
// duplicate frees, tuning and resizing. Each scenario runs on threads of its
// own, with no dead heap left around, so that it starts from an empty heap.
#include <cstring>
#include <latch>
#include <set>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

// Runs `body` on a new thread that gets a heap of its own (no dead heap to adopt).
template <class F>
void onFreshThread(F body) {
    qkMemoryInternals::dismantleDead(mgr());
    onThread(body);
}

// The block counts per base bucket, for superblocks without debug slots.
constexpr int kBlockCounts[16] = {339, 203, 145, 113, 92, 78, 67, 59,
                                  53,  48,  44,  40,  37, 35, 32, 30};

TEST(qkMemoryCore, BucketMapBlockCountsAndLargeBoundary) {
    onFreshThread([] {
        for (int size = 0; size <= 513; ++size) {
            void* p = qkMalloc(size, "map", size);
            ASSERT_NE(p, nullptr);
            std::memset(p, 0x5A, size);
            if (size == 513) {
                EXPECT_EQ(qkMemSize(p), 513u);
                EXPECT_EQ(qkMemoryInternals::headerOf(mgr(), p)->tag, TAG_LARGE_USED);
            } else {
                int bucket = size == 0 ? 0 : (size + 31) / 32 - 1;
                MEMORY_SUPERBLOCK* sb = superblockOf(p);
                ASSERT_EQ(sb->bucket, bucket) << "size " << size;
                EXPECT_EQ(sb->blockSize, 32 * (bucket + 1));
                EXPECT_EQ(sb->blockCount, kBlockCounts[bucket]);
                EXPECT_EQ(qkMemSize(p), static_cast<size_t>(32 * (bucket + 1)));
                EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << "size " << size;
            }
            qkFree(p, "map", size);
        }
        checkHeap(qkMemoryThread());
    });
}

TEST(qkMemoryCore, BlocksComeOutHighestAddressFirstAndTheNextSuperblockFollows) {
    onFreshThread([] {
        MEMORY_THREAD* mt = qkMemoryThread();
        std::vector<char*> blocks;
        blocks.reserve(400);  // the vector's own memory must not come from bucket 0
        for (int i = 0; i < 339; ++i)
            blocks.push_back(static_cast<char*>(qkMalloc(32, "order", i)));
        MEMORY_SUPERBLOCK* first = superblockOf(blocks[0]);
        char* lastBlock = reinterpret_cast<char*>(first) + 96 + 338 * 48 + 16;
        EXPECT_EQ(blocks[0], lastBlock);
        for (int i = 1; i < 339; ++i) {
            ASSERT_EQ(superblockOf(blocks[i]), first);
            ASSERT_EQ(blocks[i - 1] - blocks[i], 48);
        }
        EXPECT_EQ(mt->stats[0].count, 1);
        char* next = static_cast<char*>(qkMalloc(1, "order", 339));
        EXPECT_NE(superblockOf(next), first);
        EXPECT_EQ(mt->stats[0].count, 2);
        EXPECT_EQ(listLength(mt->full), 1);
        checkHeap(mt);
        blocks.push_back(next);
        for (char* p : blocks)
            qkFree(p, "order", 0);
        checkHeap(mt);
    });
}

// Another thread's frees wait on the superblock until the owner has nothing
// else; then the owner takes them back without asking the C runtime.
TEST(qkMemoryCore, RemoteFreesWaitUntilTheOwnerRunsDry) {
    onFreshThread([] {
        // 200-byte requests (224-byte blocks, 67 a superblock): a bucket that
        // the test's own containers do not use.
        MEMORY_THREAD* mt = qkMemoryThread();
        std::vector<void*> mine;
        for (int i = 0; i < 10; ++i)
            mine.push_back(qkMalloc(200, "own", i));
        std::set<void*> remote = {mine[2], mine[5], mine[7]};
        onThread([&] {
            for (void* p : remote)
                qkFree(p, "remote", 0);
        });
        MEMORY_SUPERBLOCK* sb = superblockOf(mine[0]);
        EXPECT_EQ(sb->freeCount.load(), 3);
        EXPECT_TRUE(sb->reclaim.linked());
        long long system = mgr()->systemStats[6].count;
        for (int i = 10; i < 67; ++i) {
            void* p = qkMalloc(200, "own", i);
            ASSERT_EQ(remote.count(p), 0u) << "reused a parked block early, at " << i;
        }
        std::set<void*> back;
        for (int i = 0; i < 3; ++i)
            back.insert(qkMalloc(200, "own", 0));
        EXPECT_EQ(back, remote);
        EXPECT_EQ(mgr()->systemStats[6].count, system);
        checkHeap(mt);
    });
}

// When every block handed out has come back through other threads, the
// owner merges them without a lock as soon as its free list is empty.
TEST(qkMemoryCore, AFullyRemoteFreedSuperblockIsMergedInPlace) {
    onFreshThread([] {
        std::vector<void*> all;
        for (int i = 0; i < 78; ++i)
            all.push_back(qkMalloc(180, "all", i));
        MEMORY_SUPERBLOCK* sb = superblockOf(all[0]);
        onThread([&] {
            for (void* p : all)
                qkFree(p, "remote", 0);
        });
        long long system = mgr()->systemStats[5].count;
        void* p = qkMalloc(180, "again", 0);
        EXPECT_EQ(superblockOf(p), sb);
        EXPECT_EQ(p, all.back());  // the last parked block is the first handed out
        EXPECT_EQ(sb->allocCount, 1);
        EXPECT_EQ(sb->freeCount.load(), 0);
        EXPECT_EQ(mgr()->systemStats[5].count, system);
    });
}

TEST(qkMemoryCore, EmptySuperblocksGoToTheKeepPoolExceptTheLastOne) {
    MEMORY_SUPERBLOCK* first = nullptr;
    MEMORY_SUPERBLOCK* second = nullptr;
    long long kept = mgr()->keepStats[4].count;
    onFreshThread([&] {
        MEMORY_THREAD* mt = qkMemoryThread();
        std::vector<void*> blocks;
        for (int i = 0; i < 93; ++i)
            blocks.push_back(qkMalloc(160, "keep", i));
        first = superblockOf(blocks[0]);
        second = superblockOf(blocks[92]);
        ASSERT_NE(first, second);
        for (int i = 0; i < 92; ++i)
            qkFree(blocks[i], "keep", i);
        EXPECT_EQ(first->thread.load(), nullptr);
        EXPECT_EQ(mgr()->keepStats[4].count, kept + 1);
        EXPECT_EQ(mt->stats[4].count, 1);
        qkFree(blocks[92], "keep", 92);
        EXPECT_EQ(second->thread.load(), mt);  // the only one left stays
        EXPECT_EQ(second->allocCount, 0);
        checkHeap(mt);
        checkKeepPool();
    });
    onThread([&] {
        long long system = mgr()->systemStats[4].count;
        void* p = qkMalloc(150, "adopt", 0);  // the dead heap still has `second`
        EXPECT_EQ(superblockOf(p), second);
        qkMemoryInternals::dismantleDead(mgr());
        void* q = nullptr;
        onThread([&] { q = qkMalloc(150, "adopt", 1); });
        EXPECT_EQ(superblockOf(q), first);  // taken from the keep pool
        EXPECT_EQ(mgr()->systemStats[4].count, system);
        qkFree(p, "adopt", 0);
        qkFree(q, "adopt", 1);
    });
}

TEST(qkMemoryCore, AnEndedThreadsHeapIsAdoptedWithItsStatistics) {
    MEMORY_THREAD* heap = nullptr;
    MEMORY_STATS before{};
    std::vector<void*> leftovers;
    onFreshThread([&] {
        heap = qkMemoryThread();
        for (int i = 0; i < 5; ++i)
            leftovers.push_back(qkMalloc(300, "left", i));
        leftovers.push_back(qkMalloc(5000, "left", 5));
        before = qkMemory::loadStats(qkMemory::getThreadStats());
    });
    EXPECT_GE(before.bytes, 16384 + 5000);
    onThread([&] {
        EXPECT_EQ(qkMemoryThread(), heap);
        MEMORY_STATS now = qkMemory::loadStats(qkMemory::getThreadStats());
        EXPECT_EQ(now.bytes, before.bytes);
        EXPECT_EQ(now.count, before.count);
        for (void* p : leftovers)
            qkFree(p, "left", 0);  // its own blocks now: released without a lock
        EXPECT_EQ(heap->stats[kLargeIndex].bytes, 0);
        EXPECT_EQ(superblockOf(leftovers[0])->allocCount, 0);
        checkHeap(heap);
    });
}

// Of several dead heaps the oldest is adopted and the others are dismantled.
TEST(qkMemoryCore, OlderDeadHeapsAreDismantledIntoTheKeepPool) {
    qkMemoryInternals::dismantleDead(mgr());
    MEMORY_THREAD* older = nullptr;
    MEMORY_THREAD* newer = nullptr;
    long long kept9 = mgr()->keepStats[9].count;
    long long kept10 = mgr()->keepStats[10].count;
    // Both threads live at once, so each makes a heap of its own.
    std::latch olderReady(1), bothDone(2);
    std::thread first([&] {
        older = qkMemoryThread();
        qkFree(qkMalloc(300, "a", 0), "a", 0);
        olderReady.count_down();
        bothDone.arrive_and_wait();
    });
    std::thread second([&] {
        olderReady.wait();
        newer = qkMemoryThread();
        qkMalloc(300, "b", 0);  // left in use
        qkFree(qkMalloc(330, "b", 1), "b", 1);
        bothDone.arrive_and_wait();
    });
    first.join();
    second.join();
    ASSERT_NE(older, newer);
    onThread([&] {
        EXPECT_EQ(qkMemoryThread(), older);
        EXPECT_EQ(mgr()->keepStats[9].count, kept9 + 1);
        EXPECT_EQ(mgr()->keepStats[10].count, kept10 + 1);
        checkKeepPool();
        checkHeap(older);
    });
}

TEST(qkMemoryCore, ADuplicateFreeIsReportedAndChangesNothing) {
    Warnings::install();
    onFreshThread([] {
        void* a = qkMalloc(40, "dup", 1);
        void* b = qkMalloc(40, "dup", 2);
        MEMORY_SUPERBLOCK* sb = superblockOf(a);
        qkFree(a, "dup", 3);
        int freeBlocks = chainLength(sb->free);
        qkFree(a, reinterpret_cast<char const*>(0x7f001234abcdULL), 77);
        EXPECT_EQ(chainLength(sb->free), freeBlocks);
        auto got = Warnings::take();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0], "duplicate free (0x1234abcd:77)\n");
        void* c = qkMalloc(40, "dup", 4);
        void* d = qkMalloc(40, "dup", 5);
        EXPECT_EQ(c, a);
        EXPECT_NE(d, a);
        EXPECT_NE(d, b);
        checkHeap(qkMemoryThread());
    });
}

// Drives `count` small requests of `size` bytes.
void request(int size, long long count) {
    for (long long i = 0; i < count; ++i)
        qkFree(qkMalloc(size, "tune", 0), "tune", 0);
}

TEST(qkMemoryCore, TuningAddsABucketForTheBusiestRange) {
    onFreshThread([] {
        qkMemory* m = mgr();
        void* early = qkMalloc(100, "early", 0);
        ASSERT_EQ(m->buckets, 16);
        request(100, m->allocLimit - m->allocCount);
        EXPECT_EQ(m->buckets, 16);  // tuning starts above the limit
        request(100, 1);
        ASSERT_EQ(m->buckets, 17);
        EXPECT_EQ(m->bucketSize[16], 104);
        EXPECT_EQ(m->allocLimit, 400000);
        for (int s = 0; s <= 512; ++s) {
            int expected = (s >= 97 && s <= 104) ? 16 : (s == 0 ? 0 : (s - 1) / 32);
            ASSERT_EQ(m->bucketNumber[s], expected) << "size " << s;
        }
        void* tuned = qkMalloc(100, "tuned", 0);
        EXPECT_EQ(qkMemSize(tuned), 104u);
        EXPECT_EQ(superblockOf(tuned)->blockCount, 16288 / 120);
        EXPECT_EQ(qkMemSize(early), 128u);  // made before: keeps its bucket
        qkFree(early, "early", 0);
        qkFree(tuned, "tuned", 0);
        request(200, 400000 - m->allocCount);
        EXPECT_EQ(m->buckets, 17);
        request(200, 1);
        EXPECT_EQ(m->buckets, 18);
        EXPECT_EQ(m->bucketSize[17], 200);
        checkHeap(qkMemoryThread());
    });
}

TEST(qkMemoryCore, ReallocGrowsInPlaceWhileTheBlockFitsAndMovesOtherwise) {
    onFreshThread([] {
        char* p = static_cast<char*>(qkMalloc(40, "re", 0));
        std::memset(p, 'x', 40);
        EXPECT_EQ(qkRealloc(p, 50, "re", 1), p);
        EXPECT_EQ(qkRealloc(p, 10, "re", 2), p);
        char* q = static_cast<char*>(qkRealloc(p, 100, "re", 3));
        ASSERT_NE(q, p);
        EXPECT_EQ(std::string(q, 40), std::string(40, 'x'));
        EXPECT_EQ(qkMemoryInternals::headerOf(mgr(), p)->tag, TAG_SMALL_FREE);

        MEMORY_THREAD* mt = qkMemoryThread();
        char* big = static_cast<char*>(qkRealloc(q, 1000, "re", 4));
        EXPECT_EQ(qkMemSize(big), 1000u);
        EXPECT_EQ(std::string(big, 40), std::string(40, 'x'));
        EXPECT_EQ(qkRealloc(big, 900, "re", 5), big);
        std::memset(big, 'y', 1000);
        char* bigger = static_cast<char*>(qkRealloc(big, 70000, "re", 6));
        EXPECT_EQ(qkMemSize(bigger), 70000u);
        EXPECT_EQ(std::string(bigger, 1000), std::string(1000, 'y'));
        EXPECT_EQ(mt->stats[kLargeIndex].bytes, 70000);
        EXPECT_EQ(mt->stats[kLargeIndex].count, 1);
        qkFree(bigger, "re", 7);
        EXPECT_EQ(mt->stats[kLargeIndex].bytes, 0);
        EXPECT_EQ(mt->stats[kLargeIndex].count, 0);

        // Blocks the manager did not make go to the C runtime.
        char* foreign = static_cast<char*>(qk::platform::rawAlloc(10));
        std::memcpy(foreign, "123456789", 10);
        EXPECT_EQ(qkMemSize(foreign), 0u);
        foreign = static_cast<char*>(qkRealloc(foreign, 5000, "re", 8));
        EXPECT_STREQ(foreign, "123456789");
        qkFree(foreign, "re", 9);
    });
}

TEST(qkMemoryCore, RequestsBeyondTheIntInterfaceAreRefused) {
    EXPECT_EQ(qkMalloc(size_t{1} << 31, "huge", 0), nullptr);
    EXPECT_EQ(qkMalloc(~size_t{0}, "huge", 0), nullptr);
    EXPECT_EQ(qkCalloc(1, size_t{3} << 30, "huge", 0), nullptr);
    void* p = qkMalloc(1000, "huge", 1);
    EXPECT_EQ(qkRealloc(p, size_t{1} << 32, "huge", 2), nullptr);
    EXPECT_EQ(qkMemSize(p), 1000u);  // the block is untouched
    qkFree(p, "huge", 3);
    EXPECT_EQ(qkMemoryThread()->stats[kLargeIndex].bytes, 0);
}

}  // namespace
