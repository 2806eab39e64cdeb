// qkMutex: recursion across threads, mutual exclusion under contention and
// the trylock time-out. Timings are checked loosely: the machines are noisy.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "qkThread.h"

namespace {

using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

TEST(qkMutex, RecursiveHoldBlocksOthersUntilTheLastUnlock) {
    qkMutex m;
    EXPECT_EQ(m.owner(), nullptr);
    m.lock();
    m.lock();
    EXPECT_EQ(m.trylock(0), 1);  // recursion through trylock counts too
    EXPECT_EQ(m.owner(), qkMutex::id());

    for (int remaining = 3; remaining > 0; --remaining) {
        std::thread([&] {
            EXPECT_EQ(m.trylock(0), 0);
            EXPECT_NE(m.owner(), qkMutex::id());
        }).join();
        m.unlock();
    }
    EXPECT_EQ(m.owner(), nullptr);
    std::thread([&] {
        ASSERT_EQ(m.trylock(0), 1);
        EXPECT_EQ(m.owner(), qkMutex::id());
        m.unlock();
    }).join();
}

TEST(qkMutex, NestedLockingUnderContentionLosesNoUpdate) {
    qkMutex m;
    long long counter = 0;  // guarded by m
    constexpr int kThreads = 4, kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                if ((i + t) % 3 == 0) {
                    while (!m.trylock(0))
                        std::this_thread::yield();
                } else {
                    m.lock();
                }
                m.lock();  // nested: the recursion count must not leak the lock
                long long v = counter;
                counter = v + 1;
                EXPECT_EQ(m.owner(), qkMutex::id());
                m.unlock();
                m.unlock();
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, static_cast<long long>(kThreads) * kRounds);
    EXPECT_EQ(m.owner(), nullptr);
}

TEST(qkMutex, TrylockTimesOutRoughlyOnTimeAndSucceedsOnceFreed) {
    qkMutex m;
    std::atomic<bool> held{false}, release{false};
    std::thread holder([&] {
        m.lock();
        held = true;
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        m.unlock();
    });
    while (!held)
        std::this_thread::yield();

    auto t0 = Clock::now();
    EXPECT_EQ(m.trylock(0), 0);
    EXPECT_LT(msSince(t0), 1000);  // one attempt, no waiting

    t0 = Clock::now();
    EXPECT_EQ(m.trylock(50), 0);
    long long waited = msSince(t0);
    EXPECT_GE(waited, 45);
    EXPECT_LT(waited, 5000);

    // A negative time-out waits until the holder lets go.
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        release = true;
    });
    EXPECT_EQ(m.trylock(-1), 1);
    EXPECT_EQ(m.owner(), qkMutex::id());
    m.unlock();
    releaser.join();
    holder.join();
}

}  // namespace
