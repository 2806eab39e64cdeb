// The platform layer's own contracts that the classes above it rely on.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

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

TEST(Platform, HandleOutlivesItsThreadAndReportsTheEnd) {
    void* handle = nullptr;
    std::thread([&] {
        handle = plat::threadHandleDup();
        EXPECT_FALSE(plat::threadHandleEnded(handle));
        void* again = plat::threadHandleDup();  // same record, one more reference
        EXPECT_EQ(again, handle);
        plat::threadHandleClose(again);
    }).join();
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(plat::threadHandleEnded(handle));
    plat::threadHandleRetain(handle);
    plat::threadHandleClose(handle);
    EXPECT_TRUE(plat::threadHandleEnded(handle));
    plat::threadHandleClose(handle);
}

TEST(Platform, TickAndCounterAdvanceWithSleep) {
    uint32_t t0 = plat::tickCount();
    int64_t c0 = plat::perfCounter();
    plat::sleepMs(20);
    EXPECT_GE(plat::tickCount() - t0, 15u);
    int64_t elapsed = plat::perfCounter() - c0;
    EXPECT_GE(elapsed, plat::perfFrequency() * 15 / 1000);
    EXPECT_EQ(plat::perfFrequency(), 1000000000);
}

TEST(Platform, RawHeapRoundTrips) {
    char* copy = plat::rawStrdup("qkUtil");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "qkUtil");
    copy = static_cast<char*>(plat::rawRealloc(copy, 4096));
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "qkUtil");
    plat::rawFree(copy);
    int* zeros = static_cast<int*>(plat::rawCalloc(100, sizeof(int)));
    ASSERT_NE(zeros, nullptr);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(zeros[i], 0);
    plat::rawFree(zeros);
}

}  // namespace
