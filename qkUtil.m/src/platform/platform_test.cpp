// The platform layer's own contracts that the classes above it rely on. The
// raw heap is exercised through the memory entry points without a manager,
// thread handles through the life of a qkThreadState.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <set>

namespace plat = qk::platform;

namespace {

TEST(Platform, TlsSlotsAreHandedOutOnceAndReused) {
    std::set<int> slots;
    int slot;
    while ((slot = plat::tlsAlloc()) != -1) {
        EXPECT_TRUE(slots.insert(slot).second) << "slot " << slot << " handed out twice";
        ASSERT_LT(slot, plat::kTlsSlots);
    }
    EXPECT_EQ(plat::tlsGet(-1), nullptr);  // out-of-range reads are null
    EXPECT_EQ(plat::tlsGet(plat::kTlsSlots), nullptr);
    int some = *slots.begin();
    plat::tlsFree(some);
    EXPECT_EQ(plat::tlsAlloc(), some);
    for (int s : slots)
        plat::tlsFree(s);
}

TEST(Platform, SemaphoreRefusesToExceedItsMaximum) {
    void* sem = plat::semCreate(1, 2);
    ASSERT_NE(sem, nullptr);
    EXPECT_TRUE(plat::semRelease(sem, 1));
    EXPECT_FALSE(plat::semRelease(sem, 1));  // would be 3 > 2
    plat::semWait(sem);
    plat::semWait(sem);
    EXPECT_TRUE(plat::semRelease(sem, 2));
    plat::semDestroy(sem);
    EXPECT_EQ(plat::semCreate(3, 2), nullptr);
}

TEST(Platform, TickAndCounterAdvanceWithSleep) {
    uint32_t t0 = plat::tickCount();
    int64_t c0 = plat::perfCounter();
    plat::sleepMs(20);
    EXPECT_GE(plat::tickCount() - t0, 15u);
    EXPECT_GE(plat::perfCounter() - c0, plat::perfFrequency() * 15 / 1000);
}

}  // namespace
