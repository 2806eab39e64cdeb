// The checkpoint: a heap handed to another thread or to the keep pool, its
// statistics moved exactly, the target taking the superblocks in on its next
// shortage, no block lost or handed out twice; the debugger's offset lines;
// debug mode refused once blocks exist.
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

constexpr int kBucket512 = 15;  // the base bucket of 481..512-byte requests

// The superblocks of one list.
int listLength(LinkedList& head) {
    int n = 0;
    for (LinkedList* p = head.next(); p->ref(); p = p->next())
        ++n;
    return n;
}

TEST(MemoryCheckpoint, WithoutATargetTheOldestSuperblockStays) {
    onFreshThread([] {
        qkMemory* m = mgr();
        MEMORY_THREAD* mt = qkMemoryThread();
        // Three superblocks of 512-byte blocks, each with a free block again.
        int perSuperblock = kBlockArea / (512 + qkMemoryInternals::overheadOf(m));
        std::vector<void*> blocks = take(512, 3 * perSuperblock);
        for (int s = 0; s < 3; ++s) {
            qkFree(blocks[size_t(s * perSuperblock)], "test", 0);
            blocks[size_t(s * perSuperblock)] = nullptr;
        }
        ASSERT_EQ(listLength(mt->partial[kBucket512]), 3);
        MEMORY_SUPERBLOCK* oldest = superblockAt(mt->partial[kBucket512].prev());
        long long kept = qkMemory::loadStats(&m->keepStats[kBucket512]).count;
        qkMemoryCheckpoint(nullptr, 0);
        EXPECT_EQ(listLength(mt->partial[kBucket512]), 1);
        EXPECT_EQ(superblockAt(mt->partial[kBucket512].next()), oldest);
        EXPECT_EQ(qkMemory::loadStats(&m->keepStats[kBucket512]).count, kept + 2);
        // The superblock that stays keeps its charge: the heap's counts match its lists.
        EXPECT_EQ(qkMemory::loadStats(&mt->stats[kBucket512]).count, 1);
        checkHeap(mt);
        // Every block is still whole and can be released from here.
        for (void* p : blocks) {
            if (p) qkFree(p, "test", 0);
        }
        checkHeap(nullptr);
    });
}

// A worker thread waiting to be told what to do, so that its heap is alive
// while the main thread hands superblocks to it.
class Worker {
  public:
    Worker() : thread_([this] { run(); }) {
        std::unique_lock<std::mutex> hold(lock_);
        ready_.wait(hold, [this] { return heap_ != nullptr; });
    }
    ~Worker() {
        post([] {});
        {
            std::lock_guard<std::mutex> hold(lock_);
            stop_ = true;
        }
        ready_.notify_all();
        thread_.join();
    }
    MEMORY_THREAD* heap() const { return heap_; }
    // Runs f on the worker and waits for it.
    template <class F>
    void post(F f) {
        std::unique_lock<std::mutex> hold(lock_);
        job_ = f;
        ready_.notify_all();
        ready_.wait(hold, [this] { return !job_; });
    }

  private:
    void run() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            heap_ = qkMemoryThread();
        }
        ready_.notify_all();
        std::unique_lock<std::mutex> hold(lock_);
        for (;;) {
            ready_.wait(hold, [this] { return job_ || stop_; });
            if (job_) {
                job_();
                job_ = nullptr;
                ready_.notify_all();
            } else {
                return;
            }
        }
    }

    std::mutex lock_;
    std::condition_variable ready_;
    std::function<void()> job_;
    MEMORY_THREAD* heap_ = nullptr;
    bool stop_ = false;
    std::thread thread_;
};

// Patterned blocks of the main thread's heap go to a worker's heap with
// `all` 1: the statistics move exactly; the worker's next shortage takes the
// superblocks in; neither side's blocks are handed out twice or spoiled.
TEST(MemoryCheckpoint, ToATargetThatTakesTheSuperblocksIn) {
    std::mt19937 rng(5);
    for (int round = 0; round < 4; ++round) {
        Worker worker;
        std::vector<Block> mine;
        MEMORY_STATS before[2], after[2];
        onFreshThread([&] {
            MEMORY_THREAD* mt = qkMemoryThread();
            for (int i = 0; i < 600; ++i) {
                size_t size = rng() % 4 ? 1 + rng() % 512 : 600 + rng() % 3000;
                char* p = static_cast<char*>(qkMalloc(size, "mine", 0));
                mine.push_back({p, size, qkMemSize(p), uint32_t(rng())});
                stamp(p, size, mine.back().seed);
            }
            // Free a third, so that superblocks are partly used.
            for (size_t i = 0; i < mine.size(); i += 3)
                qkFree(mine[i].p, "mine", 0), mine[i].p = nullptr;
            before[0] = qkMemory::loadStats(&mt->summaryStats);
            before[1] = qkMemory::loadStats(&worker.heap()->summaryStats);
            Warnings::install();
            qkMemoryCheckpoint(worker.heap(), 1);
            EXPECT_EQ(Warnings::take(), "");
            qkMemory::setPrintFunction(nullptr);
            after[0] = qkMemory::loadStats(&mt->summaryStats);
            after[1] = qkMemory::loadStats(&worker.heap()->summaryStats);
            for (int b = 0; b < kBucketLimit; ++b) {
                EXPECT_EQ(listLength(mt->partial[b]) + listLength(mt->reclaim[b]), 0) << b;
            }
            EXPECT_EQ(listLength(mt->full), 0);
            {
                SCOPED_TRACE("the target right after the move");
                checkHeap(worker.heap());
            }
        });
        {
            SCOPED_TRACE("the target before it allocates");
            checkHeap(worker.heap());
        }
        EXPECT_EQ(after[0].count, 0);  // everything went with `all`
        EXPECT_EQ(after[0].bytes, 0);
        EXPECT_EQ(after[1].count, before[1].count + before[0].count);
        EXPECT_EQ(after[1].bytes, before[1].bytes + before[0].bytes);
        // The worker allocates until it has taken in superblocks: its blocks
        // never overlap the ones still in use.
        std::vector<Block> theirs;
        worker.post([&] {
            for (int i = 0; i < 3000; ++i) {
                size_t size = 1 + rng() % 512;
                char* p = static_cast<char*>(qkMalloc(size, "theirs", 0));
                theirs.push_back({p, size, qkMemSize(p), uint32_t(rng())});
                stamp(p, size, theirs.back().seed);
            }
        });
        {
            SCOPED_TRACE("the target after it allocated");
            checkHeap(worker.heap());
        }
        for (Block const& b : mine) {
            if (b.p) {
                ASSERT_TRUE(b.intact());
            }
        }
        for (Block const& b : theirs)
            ASSERT_TRUE(b.intact());
        worker.post([&] {
            for (Block const& b : theirs)
                qkFree(b.p, "theirs", 0);
            for (Block const& b : mine) {
                if (b.p) qkFree(b.p, "mine", 0);
            }
            checkHeap(qkMemoryThread());
        });
    }
}

TEST(MemoryCheckpoint, DebuggerOffsetLines) {
    std::string path = testing::TempDir() + "qk_memory_offsets.gdb";
    std::remove(path.c_str());
    qkMemory::printOffsets(path.c_str());
    std::ifstream in(path);
    std::vector<std::string> names;
    std::map<std::string, unsigned long> values;
    for (std::string line; std::getline(in, line);) {
        char name[64];
        unsigned long value = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "set $%63s = 0x%lx", name, &value), 2) << line;
        names.push_back(name);
        values[name] = value;
    }
    ASSERT_EQ(names.size(), 32u);
    EXPECT_EQ(names.front(), "qkMemory_infoKey");
    EXPECT_EQ(names.back(), "superBlock_size");
    EXPECT_EQ(values["MEMORY_HEADER_SIZE"], 16u);
    EXPECT_EQ(values["DEBUG_MEMORY_HEADER_SIZE"], 16u);
    EXPECT_EQ(values["superBlock_size"], 96u);
    // The offsets lead to the fields of the live manager.
    auto* base = reinterpret_cast<char*>(mgr());
    EXPECT_EQ(*reinterpret_cast<int*>(base + values["qkMemory_infoKey"]), mgr()->infoKey);
    EXPECT_EQ(*reinterpret_cast<int*>(base + values["qkMemory_debugHeaderSize"]),
              mgr()->debugHeaderSize);
    std::remove(path.c_str());

    testing::internal::CaptureStdout();
    qkMemory::printOffsets("/nonexistent-dir/x.gdb");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error opening /nonexistent-dir/x.gdb for append\n");
}

TEST(MemoryCheckpoint, DebugModeIsRefusedOnceBlocksExist) {
    ASSERT_EQ(qkMemory::getDebugHeaderCount(), 0);
    // A block of the manager's (under a sanitizer operator new is not its).
    void* held = qkMalloc(64, "held", 0);
    Warnings::install();
    qkMemory::setDebug(1, 4);
    std::string warning = Warnings::take();
    qkMemory::setPrintFunction(nullptr);
    EXPECT_EQ(warning.rfind("debug mode must be set before the first allocation (0x", 0), 0u)
        << warning;
    EXPECT_EQ(qkMemory::getDebug(), 0);
    EXPECT_EQ(qkMemory::getDebugHeaderCount(), 0);
    EXPECT_EQ(qkMemory::getDebugHeaderSize(), 0);
    // Blocks made and released as before.
    void* p = qkMalloc(100, "after", 0);
    qkFree(p, "after", 0);
    qkFree(held, "held", 0);
}

}  // namespace
