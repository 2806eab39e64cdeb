// Accounting and limits as a host sees them: crossings reported once per
// upward crossing, in the order and on the paths the manager promises, the
// warning line and its recursion guard, and the advisory queries.
#include <cstdio>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

// Warnings and handler calls in the order they came. Kept in fixed storage:
// the journal must not allocate, or it would change the statistics it watches.
struct Journal {
    char lines[32][128];
    size_t used = 0;
    void add(char const* text) {
        if (used < 32) std::snprintf(lines[used++], sizeof lines[0], "%s", text);
    }
    size_t size() const { return used; }
    bool empty() const { return used == 0; }
    void clear() { used = 0; }
    std::string operator[](size_t i) const { return lines[i]; }
};

Journal* journal = nullptr;
int handlerCalls = 0;

void recordHandler(qkMemoryErrorId id) {
    ++handlerCalls;
    if (journal) journal->add(id == QK_MEMORY_SYSTEM_LIMIT ? "handler system" : "handler thread");
}

void journalPrint(char const* text) {
    if (journal) journal->add(text);
}

bool startsWith(std::string const& line, char const* message) {
    return line.rfind(message, 0) == 0;
}

// Takes a new superblock in bucket `b` on the calling thread and returns its
// first block; the bucket must have no superblock on this thread or in the pool.
void* newSuperblock(int b) {
    long long before = mgr()->systemStats[b].count;
    void* p = qkMalloc(32 * (b + 1), "sb", b);
    EXPECT_EQ(mgr()->systemStats[b].count, before + 1) << "bucket " << b;
    return p;
}

TEST(qkMemoryLimits, SystemLimitIsReportedOncePerUpwardCrossing) {
    Journal seen;
    journal = &seen;
    qkMemory::setPrintFunction(journalPrint);
    qkMemory::_memoryErrorHandler = recordHandler;
    std::thread([&] {
        long long base = qkMemory::loadStats(qkMemory::getSystemStats()).bytes;
        qkMemory::setSystemLimit(base + 2 * 16384);
        newSuperblock(12);
        newSuperblock(13);
        EXPECT_TRUE(seen.empty());  // reaching the limit is not crossing it
        newSuperblock(14);
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_TRUE(startsWith(seen[0], "system memory limit exceeded (0x")) << seen[0];
        EXPECT_EQ(seen[1], "handler system");  // the block is made, then the handler hears
        newSuperblock(15);
        EXPECT_EQ(seen.size(), 2u);  // already above: no new report

        // Down below the limit and up again: a new crossing each time. On the
        // large path the handler hears first, then the warning follows.
        qkMemory::setSystemLimit(qkMemory::loadStats(qkMemory::getSystemStats()).bytes + 10000);
        seen.clear();
        for (int round = 0; round < 3; ++round) {
            void* big = qkMalloc(20000, "big", round);
            qkFree(big, "big", round);
        }
        ASSERT_EQ(seen.size(), 6u);
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(seen[2 * round], "handler system");
            EXPECT_TRUE(startsWith(seen[2 * round + 1], "system memory limit exceeded (0x"));
        }
        void* big = qkMalloc(20000, "big", 3);
        void* bigger = qkMalloc(20000, "big", 4);  // still above: no report
        EXPECT_EQ(seen.size(), 8u);
        qkFree(big, "big", 5);
        qkFree(bigger, "big", 6);
    }).join();
    journal = nullptr;
}

TEST(qkMemoryLimits, ThreadLimitOnTheSmallAndTheLargePath) {
    Journal seen;
    journal = &seen;
    qkMemory::setPrintFunction(journalPrint);
    std::thread([&] {
        qkMemory::setThreadLimit(2 * 16384);
        newSuperblock(13);  // from 0: never a crossing, whatever the limit
        newSuperblock(14);
        EXPECT_TRUE(seen.empty());
        newSuperblock(15);
        ASSERT_EQ(seen.size(), 1u);  // small path: warned even without a handler
        EXPECT_TRUE(startsWith(seen[0], "thread memory limit exceeded (0x"));
        EXPECT_TRUE(seen[0].find(":15)\n") != std::string::npos) << seen[0];
        EXPECT_EQ(handlerCalls, 0);

        // Large path: only with a handler, handler first.
        qkMemory::setThreadLimit(qkMemory::loadStats(qkMemory::getThreadStats()).bytes + 50000);
        void* big = qkMalloc(60000, "large", 1);
        EXPECT_EQ(seen.size(), 1u);
        qkFree(big, "large", 2);
        qkMemory::_memoryErrorHandler = recordHandler;
        big = qkMalloc(60000, "large", 3);
        ASSERT_EQ(seen.size(), 3u);
        EXPECT_EQ(seen[1], "handler thread");
        EXPECT_TRUE(startsWith(seen[2], "thread memory limit exceeded (0x"));
        // Growing a large block charges the growth the same way.
        qkFree(big, "large", 4);
        big = qkMalloc(40000, "large", 5);
        big = qkRealloc(big, 60000, "large", 6);
        EXPECT_EQ(seen.size(), 5u);
        EXPECT_EQ(handlerCalls, 2);
        qkFree(big, "large", 7);
    }).join();
    journal = nullptr;
}

// A print function that warns itself: the inner warning is dropped, and the
// lock is not taken twice in a way that would hang.
std::vector<std::string> printed;
void reentrantPrint(char const* text) {
    printed.push_back(text);
    qkMemory::warn("inner", "x", 1);
}

TEST(qkMemoryWarn, FormatsTheLineAndDropsWarningsFromInsideThePrintFunction) {
    qkMemory::setPrintFunction(reentrantPrint);
    EXPECT_EQ(qkMemory::getPrintFunction(), reentrantPrint);
    qkMemory::warn("outer", reinterpret_cast<char const*>(0xABCDEF0123456789ULL), 0);
    qkMemory::warn(std::string(2000, 'm').c_str(), nullptr, -5);
    ASSERT_EQ(printed.size(), 2u);
    EXPECT_EQ(printed[0], "outer (0x23456789:0)\n");
    EXPECT_EQ(printed[1].size(), 1023u);  // cut to the 1024-byte buffer
}

}  // namespace
