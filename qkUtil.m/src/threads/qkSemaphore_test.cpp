// qkSemaphore: depth accounting against a model, and a bounded number of
// threads inside a section guarded by the semaphore (waits at zero block).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "qkThread.h"

namespace {

// Random posts and waits (a wait only when the model says it cannot block)
// from several initial counts, each run starting by drawing the semaphore
// down to 0; depth is initial - count, maxDepth its peak after a wait.
TEST(qkSemaphore, DepthAndMaxDepthFollowAModel) {
    std::mt19937 rng(99);
    for (int initial = 0; initial < 4; ++initial) {
        qkSemaphore sem(initial);
        int count = initial, peak = 0;
        for (int step = 0; step < 400; ++step) {
            if (count > 0 && (step < initial || rng() % 2)) {
                sem.wait();
                --count;
                peak = std::max(peak, initial - count);
            } else {
                sem.post();
                ++count;
            }
            ASSERT_EQ(sem.depth(), initial - count) << "initial " << initial << " step " << step;
            ASSERT_EQ(sem.maxDepth(), peak) << "initial " << initial << " step " << step;
        }
    }
}

TEST(qkSemaphore, NeverAdmitsMoreThanItsCount) {
    qkSemaphore sem(3);
    std::atomic<int> inside{0}, most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                sem.wait();
                int now = ++inside, seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                if (i % 64 == 0) std::this_thread::yield();
                --inside;
                sem.post();
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_LE(most.load(), 3);
    EXPECT_EQ(sem.depth(), 0);
    EXPECT_GE(sem.maxDepth(), 1);
    EXPECT_LE(sem.maxDepth(), 3);
}

}  // namespace
