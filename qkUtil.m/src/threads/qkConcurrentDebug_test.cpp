// qkConcurrentDebug: a wait returns at once when its value is there or
// waiting is off; otherwise not before another thread sets the value or
// switches waiting off, and within one 5 s polling interval of that.
#include "qkConcurrentDebug.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/platform.h"

namespace plat = qk::platform;

static double secondsSince(int64_t start) {
    return static_cast<double>(plat::perfCounter() - start) /
           static_cast<double>(plat::perfFrequency());
}

TEST(qkConcurrentDebug, WaitsEndWhenTheValueIsSetOrWaitingIsOff) {
    int64_t start = plat::perfCounter();  // a wait that slept would take 5 s
    EXPECT_TRUE(qkConcurrentDebug::set(5) == 1 && qkConcurrentDebug::wait(5) == 1);
    EXPECT_TRUE(qkConcurrentDebug::waitOn(0) == 1 && qkConcurrentDebug::wait(5) == 1);
    EXPECT_LT(secondsSince(start), 4.0);

    qkConcurrentDebug::waitOn(1);  // clears the value to -1
    std::atomic<int64_t> releasedAt[2] = {0, 0};
    double late[2] = {-1, -1};
    auto waiter = [&](int value, int i) {
        qkConcurrentDebug::wait(value);
        int64_t at = releasedAt[i].load();
        late[i] = at ? secondsSince(at) : -1;  // -1: it left before its release
    };
    std::thread bySet(waiter, 5, 0), byOff(waiter, 7, 1);
    plat::sleepMs(300);
    releasedAt[0] = plat::perfCounter();
    qkConcurrentDebug::set(5);
    bySet.join();
    releasedAt[1] = plat::perfCounter();
    qkConcurrentDebug::waitOn(0);
    byOff.join();
    EXPECT_TRUE(late[0] >= 0 && late[0] < 15.0 && late[1] >= 0 && late[1] < 15.0)
        << late[0] << " " << late[1];
}
