// A heap changes hands only when its thread can no longer use it. A thread
// that is still busy after the library's exit hook (a destructor of a key
// made later, re-armed into the last rounds, that sleeps and then allocates
// and frees) keeps its heap; a thread started meanwhile gets another one.
// Once the busy thread is really gone, its heap is adopted again.
#include <pthread.h>

#include <atomic>
#include <chrono>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

struct LateTeardown {
    std::atomic<bool> busy{false};       // the destructor is in its last round
    std::atomic<bool> done{false};       // and has finished
    std::atomic<MEMORY_THREAD*> heap{};  // the heap it used
    int rounds = 0;
};

pthread_key_t lateKey;

// Re-arms until the round after the library's exit hook, then works on.
void lateDestructor(void* value) {
    auto* late = static_cast<LateTeardown*>(value);
    if (++late->rounds < PTHREAD_DESTRUCTOR_ITERATIONS - 1) {
        pthread_setspecific(lateKey, late);
        return;
    }
    late->busy = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    late->heap = qkMemoryThread();
    std::vector<void*> blocks;
    for (int i = 0; i < 2000; ++i) {
        blocks.push_back(qkMalloc(16 + i % 400, "late", i));
        stamp(blocks.back(), 16 + i % 400, static_cast<uint32_t>(i));
    }
    for (int i = 0; i < 2000; ++i) {
        EXPECT_TRUE(stamp(blocks[i], 16 + i % 400, static_cast<uint32_t>(i), true));
        qkFree(blocks[i], "late", i);
    }
    late->done = true;
}

TEST(qkMemoryThreadEnd, AHeapIsNeverHandedOnWhileItsThreadStillRuns) {
    qkFree(qkMalloc(8, "key order", 0), "key order", 0);  // the library's keys first
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_key_create(&lateKey, lateDestructor); });
    for (int round = 0; round < 3 && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        qkMemoryInternals::dismantleDead(mgr());
        LateTeardown late;
        std::thread ending([&] {
            qkFree(qkMalloc(100, "ending", 0), "ending", 0);
            pthread_setspecific(lateKey, &late);
        });
        while (!late.busy)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        MEMORY_THREAD* other = nullptr;
        onThread([&] {
            qkFree(qkMalloc(100, "newcomer", 0), "newcomer", 0);
            other = qkMemoryThread();
            // Both threads on the same free lists would corrupt them.
            std::vector<void*> blocks = take(48, 3000);
            release(blocks);
        });
        EXPECT_FALSE(late.done) << "the teardown finished too early to tell";
        ending.join();
        EXPECT_TRUE(late.done);
        EXPECT_NE(other, late.heap.load());
        // Gone now: a later thread adopts the heap (the oldest dead one).
        bool adopted = false;
        for (int attempt = 0; attempt < 50 && !adopted; ++attempt)
            onThread([&] {
                qkFree(qkMalloc(100, "later", 0), "later", 0);
                adopted = qkMemoryThread() == late.heap.load();
            });
        EXPECT_TRUE(adopted);
    }
    checkHeap(nullptr);
}

}  // namespace
