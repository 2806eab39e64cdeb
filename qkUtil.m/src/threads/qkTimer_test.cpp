// qkTimer against the platform counter read around each call: an elapsed
// time must lie between the shortest and the longest interval the readings
// allow, whatever the machine's load.
#include "qkTimer.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace plat = qk::platform;

namespace {

double micros(int64_t ticks) {
    return static_cast<double>(ticks) * 1e6 / static_cast<double>(plat::perfFrequency());
}

// A timer with the counter read just before and after its start.
struct Bracketed {
    int64_t before = plat::perfCounter();
    qkTimer timer;
    int64_t after = plat::perfCounter();

    bool readsWithinBounds() {
        int64_t early = plat::perfCounter();
        double elapsed = -1;
        timer.getElapse(elapsed);
        int64_t late = plat::perfCounter();
        return elapsed >= micros(early - after) - 1e-3 && elapsed <= micros(late - before) + 1e-3;
    }
};

}  // namespace

// Four threads make their first timers at once, then start them again by
// reset or assignment and read them at random, with short sleeps between.
TEST(qkTimer, ElapsedTimesLieWithinTheCountersBounds) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::mt19937 rng(t);
            std::vector<Bracketed> timers(3);
            for (int step = 0; step < 300; ++step) {
                Bracketed& b = timers[rng() % 3];
                unsigned what = rng() % 8;
                if (what == 0) b.before = plat::perfCounter(), b.timer.reset();
                if (what == 0) b.after = plat::perfCounter();
                if (what == 1) b = timers[rng() % 3];  // the start and its bounds
                if (what == 2) plat::sleepMs(rng() % 3);
                ASSERT_TRUE(b.readsWithinBounds()) << step;
            }
        });
    }
    for (auto& th : threads)
        th.join();
}
