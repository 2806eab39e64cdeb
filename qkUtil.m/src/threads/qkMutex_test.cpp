// qkMutex: recursive holds that exclude every other thread until the last
// unlock, under contention, and the trylock time-out. Timings are checked
// loosely: the machines are noisy.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "qkThread.h"

namespace {

// Threads take the mutex one to three levels deep, by lock or by a spinning
// trylock(0), and release it level by level. A marker set after the first
// level and cleared before the last unlock shows whether another thread ever
// got in while the mutex was held at any depth.
TEST(qkMutex, RecursiveHoldsExcludeOtherThreadsUntilTheLastUnlock) {
    qkMutex m;
    std::atomic<void*> holder{nullptr};
    std::atomic<int> intrusions{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            void* me = qkMutex::id();
            for (int i = 0; i < 20000; ++i) {
                int depth = 1 + (i + t) % 3;
                if ((i * 7 + t) % 3 == 0) {
                    while (!m.trylock(0))
                        std::this_thread::yield();
                } else {
                    m.lock();
                }
                void* none = nullptr;
                bool alone = holder.compare_exchange_strong(none, me);
                for (int level = 1; level < depth; ++level)
                    alone &= level % 2 ? m.trylock(0) == 1 : (m.lock(), true);  // never waits
                for (int level = 1; level < depth; ++level) {
                    m.unlock();
                    alone &= holder.load() == me && m.owner() == me;
                }
                holder.store(nullptr);
                m.unlock();
                if (!alone) intrusions.fetch_add(1);
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(intrusions.load(), 0);
    EXPECT_EQ(m.owner(), nullptr);
}

// Against a holder: trylock(0) makes one attempt, trylock(50) gives up after
// about 50 ms, and a negative time-out waits until the holder lets go.
TEST(qkMutex, TrylockTriesOnceOrUntilItsTimeOut) {
    using namespace std::chrono;
    auto msSince = [](steady_clock::time_point t) {
        return duration_cast<milliseconds>(steady_clock::now() - t).count();
    };
    qkMutex m;
    std::atomic<int> stage{0};
    std::thread holder([&] {
        m.lock();
        stage = 1;
        while (stage != 2)
            std::this_thread::sleep_for(milliseconds(1));
        m.unlock();
    });
    while (stage != 1)
        std::this_thread::yield();
    auto t0 = steady_clock::now();
    EXPECT_EQ(m.trylock(0), 0);
    EXPECT_LT(msSince(t0), 1000);
    t0 = steady_clock::now();
    EXPECT_EQ(m.trylock(50), 0);
    EXPECT_GE(msSince(t0), 45);
    std::thread releaser([&] {
        std::this_thread::sleep_for(milliseconds(30));
        stage = 2;
    });
    EXPECT_EQ(m.trylock(-1), 1);
    EXPECT_EQ(m.owner(), qkMutex::id());
    m.unlock();
    releaser.join();
    holder.join();
}

}  // namespace
