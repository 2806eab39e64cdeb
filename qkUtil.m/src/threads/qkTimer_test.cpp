// qkTimer against the platform counter read around each call: an elapsed
// time can only lie between the shortest and the longest interval that the
// readings allow, whatever the machine's load.
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

// A timer with the counter readings just before and after its start.
struct Bracketed {
    qkTimer timer;
    int64_t before, after;
    void restart() {
        before = plat::perfCounter();
        timer.reset();
        after = plat::perfCounter();
    }
    // Checks one reading; returns whether it fell inside its bounds.
    bool inBounds() {
        int64_t early = plat::perfCounter();
        double elapsed = -1;
        timer.getElapse(elapsed);
        int64_t late = plat::perfCounter();
        return elapsed >= micros(early - after) - 1e-3 && elapsed <= micros(late - before) + 1e-3;
    }
};

}  // namespace

// Several timers, started by construction, reset, assignment, read at random
// with short sleeps between; several threads make their first timers at once.
TEST(qkTimer, ElapsedTimesLieWithinTheCountersBounds) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::mt19937 rng(t);
            std::vector<Bracketed> timers(3);
            for (auto& b : timers)
                b.before = plat::perfCounter(), b.timer = qkTimer(), b.after = plat::perfCounter();
            for (int step = 0; step < 300; ++step) {
                Bracketed& b = timers[rng() % 3];
                unsigned what = rng() % 8;
                if (what == 0) b.restart();
                if (what == 1) b = timers[rng() % 3];  // copies the start and its bounds
                if (what == 2) plat::sleepMs(rng() % 3);
                ASSERT_TRUE(b.inBounds()) << step;
            }
        });
    }
    for (auto& th : threads)
        th.join();
}

// Right after construction the elapsed time is small and not negative; after
// a sleep it covers at least the sleep, until a reset.
TEST(qkTimer, CoversASleepUntilReset) {
    qkTimer timer;
    double first = -1, slept = -1, again = -1;
    timer.getElapse(first);
    plat::sleepMs(20);
    timer.getElapse(slept);
    timer.reset();
    timer.getElapse(again);
    EXPECT_TRUE(first >= 0 && first < 1e6 && slept >= 20000) << first << " " << slept;
    EXPECT_TRUE(again >= 0 && again < slept) << again;
}
