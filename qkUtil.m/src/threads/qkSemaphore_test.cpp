// qkSemaphore: blocking at zero, depth accounting, and a bounded number of
// threads inside a section guarded by the semaphore.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "qkThread.h"

namespace {

TEST(qkSemaphore, ThirdWaitBlocksUntilAPostAndDepthIsTracked) {
    qkSemaphore sem(2);
    sem.wait();
    sem.wait();
    EXPECT_EQ(sem.depth(), 2);
    EXPECT_EQ(sem.maxDepth(), 2);

    std::atomic<bool> passed{false};
    std::thread waiter([&] {
        sem.wait();
        passed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(passed);
    sem.post();
    waiter.join();
    EXPECT_TRUE(passed);
    EXPECT_EQ(sem.maxDepth(), 2);  // depth peaked at 2 before the post

    sem.post();
    sem.post();
    sem.post();
    EXPECT_EQ(sem.depth(), -1);  // one more post than waits: count above initial
    EXPECT_EQ(sem.maxDepth(), 2);
}

TEST(qkSemaphore, NeverAdmitsMoreThanItsCount) {
    constexpr int kSlots = 3, kThreads = 8, kRounds = 2000;
    qkSemaphore sem(kSlots);
    std::atomic<int> inside{0}, most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                sem.wait();
                int now = ++inside;
                int seen = most.load();
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
    EXPECT_LE(most.load(), kSlots);
    EXPECT_EQ(sem.depth(), 0);
    EXPECT_GE(sem.maxDepth(), 1);
    EXPECT_LE(sem.maxDepth(), kSlots);
}

TEST(qkSemaphore, ProducerConsumerHandsOverEveryUnit) {
    qkSemaphore items(0);
    std::atomic<int> consumed{0};
    constexpr int kUnits = 5000;
    std::thread consumer([&] {
        for (int i = 0; i < kUnits; ++i) {
            items.wait();
            ++consumed;
        }
    });
    for (int i = 0; i < kUnits; ++i)
        items.post();
    consumer.join();
    EXPECT_EQ(consumed.load(), kUnits);
    EXPECT_EQ(items.depth(), 0);
    EXPECT_LE(items.maxDepth(), 0);  // never drawn below its initial count
}

}  // namespace
