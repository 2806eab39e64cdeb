// qkConcurrentDebug: a wait returns at once when its value is there or
// waiting is off, and otherwise not before another thread sets the value or
// switches waiting off, and within one polling interval of that.
#include "qkConcurrentDebug.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/platform.h"

namespace plat = qk::platform;

namespace {

double secondsSince(int64_t start) {
    return static_cast<double>(plat::perfCounter() - start) /
           static_cast<double>(plat::perfFrequency());
}

}  // namespace

// A wait that had to sleep would take 5 s; these take none.
TEST(qkConcurrentDebug, WaitReturnsAtOnceWhenTheValueIsThereOrWaitingIsOff) {
    int64_t start = plat::perfCounter();
    EXPECT_TRUE(qkConcurrentDebug::set(5) == 1 && qkConcurrentDebug::wait(5) == 1);
    EXPECT_EQ(qkConcurrentDebug::waitOn(0), 1);  // also clears the value
    EXPECT_EQ(qkConcurrentDebug::wait(5), 1);
    EXPECT_LT(secondsSince(start), 4.0);
}

// Two waiters: one released by set, the other by waitOn(0) (which also
// clears the value, so the first must have been released by then).
TEST(qkConcurrentDebug, WaitersAreReleasedBySetOrBySwitchingWaitingOff) {
    qkConcurrentDebug::waitOn(1);
    qkConcurrentDebug::set(3);
    std::atomic<int> released{0};
    std::atomic<int64_t> setAt{0}, offAt{0};
    double lateness[2] = {-1, -1};
    auto waiter = [&](int value, std::atomic<int64_t>& cause, double& late) {
        qkConcurrentDebug::wait(value);
        int64_t at = cause.load();
        late = at ? secondsSince(at) : -1;  // -1: returned before its release
        ++released;
    };
    std::thread bySet(waiter, 5, std::ref(setAt), std::ref(lateness[0]));
    std::thread byOff(waiter, 7, std::ref(offAt), std::ref(lateness[1]));
    plat::sleepMs(300);
    EXPECT_EQ(released.load(), 0);
    setAt = plat::perfCounter();
    qkConcurrentDebug::set(5);
    bySet.join();
    offAt = plat::perfCounter();
    qkConcurrentDebug::waitOn(0);
    byOff.join();
    for (double late : lateness)
        EXPECT_TRUE(late >= 0 && late < 15.0) << late;
    qkConcurrentDebug::waitOn(1);
}
