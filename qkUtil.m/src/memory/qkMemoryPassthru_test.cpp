// The entry points before the manager exists, and the manager's creation.
// These tests run with QK_TEST_PASSTHRU=1: the process starts on the C
// runtime's heap and each test decides whether and how to make the manager.
#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

int handlerCalls = 0;
void countingHandler(qkMemoryErrorId) {
    ++handlerCalls;
}

TEST(qkMemoryPassthru, EntryPointsUseTheCRuntimeWithoutAManager) {
    ASSERT_EQ(mgr(), nullptr);
    char* p = static_cast<char*>(qkMalloc(100, "pt", 1));
    ASSERT_NE(p, nullptr);
    EXPECT_GE(malloc_usable_size(p), 100u);  // a C runtime block
    EXPECT_EQ(qkMemSize(p), 0u);
    p = static_cast<char*>(qkRealloc(p, 5000, "pt", 2));
    EXPECT_GE(malloc_usable_size(p), 5000u);
    qkFree(p, "pt", 3);
    qkFree(nullptr, "pt", 4);

    unsigned char* z = static_cast<unsigned char*>(qkCalloc(10, 10, "pt", 5));
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(z[i], 0);
    qkFree(z, "pt", 6);
    char* s = qkStrdup("text", "pt", 7);
    EXPECT_STREQ(s, "text");
    qkFree(s, "pt", 8);
    EXPECT_EQ(qkStrdup(nullptr, "pt", 9), nullptr);

    EXPECT_EQ(qkMemoryThread(), nullptr);
    MEMORY_STATS* zero = qkMemory::getThreadStats();
    EXPECT_EQ(zero, qkMemory::getSystemStats());
    EXPECT_EQ(zero, qkMemory::getKeepStats());
    EXPECT_EQ(zero->bytes + zero->count + zero->highwater, 0);
    EXPECT_EQ(qkMemory::systemLimitReached(100, 10), 0);
    qkMemory::setPrintFunction([](char const*) { FAIL() << "warned without a manager"; });
    qkMemory::warn("nobody hears this", nullptr, 0);
}

TEST(qkMemoryPassthru, PassThroughModeMakesNoManagerAndALaterCallStillCan) {
    char* before = static_cast<char*>(qkMalloc(64, "before", 0));
    std::strcpy(before, "made before the manager");
    qkMemory::setPassthru(1, countingHandler);
    EXPECT_EQ(mgr(), nullptr);
    EXPECT_EQ(qkMemory::_memoryErrorHandler, nullptr);
    qkMemory::setPassthru(0, countingHandler);
    ASSERT_NE(mgr(), nullptr);
    EXPECT_EQ(qkMemory::_memoryErrorHandler, countingHandler);
    qkMemory* first = mgr();
    qkMemory::setPassthru(0, nullptr);  // a second call changes nothing
    EXPECT_EQ(mgr(), first);
    EXPECT_EQ(qkMemory::_memoryErrorHandler, countingHandler);
    EXPECT_EQ(qkMemSize(before), 0u);  // not the manager's: released to the C runtime
    EXPECT_STREQ(before, "made before the manager");
    qkFree(before, "after", 0);
    MEMORY_THREAD* mt = qkMemoryThread();
    EXPECT_NE(mt, nullptr);
    EXPECT_EQ(qkMemoryThread(), mt);
    EXPECT_EQ(qkMemory::_pageSize, 8192u);
}

TEST(qkMemoryPassthru, AFirstAllocationNeverReportsACrossing) {
    qkMemory::setSystemLimit(1);
    qkMemory::setThreadLimit(1);
    Warnings::install();
    qkMemory::setPassthru(0, countingHandler);
    std::thread([] {
        void* big = qkMalloc(100000, "first", 0);  // from 0: no crossing
        void* small = qkMalloc(10, "first", 1);    // already above: no crossing
        qkFree(big, "first", 2);
        qkFree(small, "first", 3);
    }).join();
    EXPECT_EQ(handlerCalls, 0);
    EXPECT_TRUE(Warnings::take().empty());
}

TEST(qkMemoryPassthru, PreAllocationTakesMemoryOnEveryCall) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' heaps do not report through mallinfo2";
#endif
    setenv("KorSysPreAllocation", "3000000", 1);
    size_t before = mallinfo2().hblkhd + mallinfo2().uordblks;
    qkMemory::setPassthru(1, nullptr);
    qkMemory::setPassthru(1, nullptr);
    size_t after = mallinfo2().hblkhd + mallinfo2().uordblks;
    EXPECT_GE(after - before, 6000000u);
    setenv("KorSysPreAllocation", "lots", 1);  // not a number: nothing taken
    qkMemory::setPassthru(1, nullptr);
    EXPECT_LT(mallinfo2().hblkhd + mallinfo2().uordblks - after, 100000u);
}

// Debug slots widen every block; everything that depends on the layout must
// follow. The slots are set before the first allocation through the manager.
TEST(qkMemoryPassthru, LayoutFollowsTheDebugSlotSize) {
    qkMemory::setPassthru(0, nullptr);
    mgr()->debugHeaderCount = 2;
    mgr()->debugHeaderSize = 32;
    std::thread([] {
        char* p = static_cast<char*>(qkMalloc(30, "dbg", 0));
        MEMORY_HEADER* h = qkMemoryInternals::headerOf(mgr(), p);
        EXPECT_EQ(reinterpret_cast<char*>(h) + 48, p);
        EXPECT_EQ(h->tag, TAG_SMALL_USED);
        MEMORY_SUPERBLOCK* sb = h->owner;
        EXPECT_EQ(sb->blockCount, 16288 / 80);
        EXPECT_EQ(reinterpret_cast<char*>(h), reinterpret_cast<char*>(sb) + 96 + 202 * 80);
        EXPECT_EQ(qkMemSize(p), 32u);
        std::memset(p, 1, 32);
        char* q = static_cast<char*>(qkRealloc(p, 600, "dbg", 1));
        EXPECT_EQ(qkMemSize(q), 600u);
        EXPECT_EQ(qkMemoryInternals::headerOf(mgr(), q)->tag, TAG_LARGE_USED);
        EXPECT_EQ(q[31], 1);
        EXPECT_EQ(qkMalloc(size_t{0x7FFFFFFF} - 47, "dbg", 2), nullptr);
        qkFree(q, "dbg", 3);
        std::vector<void*> blocks;
        blocks.reserve(500);
        for (int i = 0; i < 500; ++i)
            blocks.push_back(qkMalloc(i, "dbg", i));
        for (void* b : blocks)
            qkFree(b, "dbg", 0);
        checkHeap(qkMemoryThread());
    }).join();
}

TEST(qkMemoryPassthru, TempnamGivesAFreshNameInTheDirectory) {
    for (bool withManager : {false, true}) {
        if (withManager) qkMemory::setPassthru(0, nullptr);
        char dir[] = "/tmp/qkmemXXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        char* name = qkTempnam(dir, "pre");
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(std::string(name).rfind(std::string(dir) + "/pre", 0), 0u) << name;
        EXPECT_EQ(std::strlen(name), std::strlen(dir) + 1 + 3 + 6);
        EXPECT_NE(access(name, F_OK), 0);
        EXPECT_EQ(qkMemSize(name) != 0, withManager);
        qkFree(name, "tmp", 0);
        name = qkTempnam("/no/such/directory", nullptr);
        ASSERT_NE(name, nullptr);
        EXPECT_NE(std::string(name).find('/'), std::string::npos);
        qkFree(name, "tmp", 1);
        rmdir(dir);
    }
}

}  // namespace
