// The entry points before the manager exists, and the manager's creation.
// These tests run with QK_TEST_PASSTHRU=1: the process starts on the C
// runtime's heap and each test decides whether and how to make the manager.
#include <malloc.h>
#include <unistd.h>

#include <cstring>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

int handlerCalls = 0;

// A temporary name comes in the directory asked for (else in $TMPDIR), does
// not exist, and comes from the manager's heap when there is one.
void checkTempnam() {
    char dir[] = "/tmp/qkmemXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("TMPDIR", dir, 1);
    for (char const* in : {static_cast<char const*>(dir), "/no/such/directory"}) {
        char* name = qkTempnam(in, "pre");
        ASSERT_EQ(std::strlen(name), std::strlen(dir) + 1 + 3 + 6);
        EXPECT_EQ(std::string(name).rfind(std::string(dir) + "/pre", 0), 0u) << name;
        EXPECT_NE(access(name, F_OK), 0);
        EXPECT_EQ(qkMemSize(name) != 0, mgr() != nullptr);
        qkFree(name, "tmp", 0);
    }
    rmdir(dir);
}

// The host's start-up: the entry points are the C runtime's until the manager
// is made; pass-through mode makes none, and a later call still can. Blocks
// of the C runtime pass through the manager's entry points untouched.
TEST(qkMemoryPassthru, EntryPointsBeforeAndAfterTheManagerIsMade) {
    char* p = static_cast<char*>(qkMalloc(100, "pt", 1));
    EXPECT_GE(malloc_usable_size(p), 100u);
    EXPECT_EQ(qkMemSize(p), 0u);
    std::strcpy(p, "made before the manager");
    EXPECT_EQ(qkMemoryThread(), nullptr);
    EXPECT_EQ(qkMemory::getThreadStats()->bytes + qkMemory::getSystemStats()->count, 0);
    EXPECT_EQ(qkMemory::systemLimitReached(100, 10), 0);
    qkMemory::setPrintFunction([](char const*) { FAIL() << "warned without a manager"; });
    qkMemory::warn("nobody hears this", nullptr, 0);
    checkTempnam();

    auto handler = [](qkMemoryErrorId) { ++handlerCalls; };
    qkMemory::setPassthru(1, handler);
    EXPECT_TRUE(mgr() == nullptr && qkMemory::_memoryErrorHandler == nullptr);
    qkMemory::setSystemLimit(1), qkMemory::setThreadLimit(1);
    Warnings::install();
    qkMemory::setPassthru(0, handler);
    qkMemory* first = mgr();
    qkMemory::setPassthru(0, nullptr);  // a second call changes nothing
    ASSERT_TRUE(first && mgr() == first);
    EXPECT_EQ(qkMemory::_memoryErrorHandler, handler);
    EXPECT_EQ(qkMemory::_pageSize, 8192u);
    onThread([] {
        void* big = qkMalloc(100000, "first", 0);      // from 0: no crossing
        qkFree(qkMalloc(10, "first", 1), "first", 1);  // already above: no crossing
        qkFree(big, "first", 2);
    });
    EXPECT_EQ(handlerCalls + Warnings::take().size(), 0u);
    p = static_cast<char*>(qkRealloc(p, 5000, "after", 0));
    EXPECT_STREQ(p, "made before the manager");
    qkFree(p, "after", 0);
    checkTempnam();
}

TEST(qkMemoryPassthru, PreAllocationTakesMemoryOnEveryCall) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' heaps do not report through mallinfo2";
#endif
    auto held = [] { return mallinfo2().hblkhd + mallinfo2().uordblks; };
    setenv("KorSysPreAllocation", "3000000", 1);
    size_t before = held();
    qkMemory::setPassthru(1, nullptr), qkMemory::setPassthru(1, nullptr);
    EXPECT_GE(held() - before, 6000000u);
    setenv("KorSysPreAllocation", "lots", 1);  // not a number: nothing taken
    before = held();
    qkMemory::setPassthru(1, nullptr);
    EXPECT_LT(held() - before, 100000u);
}

// Debug slots widen every block; the layout and the model must hold all the
// same. The slots are set before the first allocation through the manager.
TEST(qkMemoryPassthru, DebugSlotsWidenEveryBlock) {
    qkMemory::setPassthru(0, nullptr);
    mgr()->debugHeaderCount = 2, mgr()->debugHeaderSize = 32;
    onThread([] {
        checkLayout();
        if (!HasFatalFailure()) runModel(777, 20000);
    });
}

}  // namespace
