// Memory shortage: a refusal that the retry overcomes, and the end of the
// process when memory is gone for good, with injected failures and for real
// under an address-space limit. The last words go to standard output, which
// the dying child sends to its standard error for the death test to read.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

int failuresLeft = 0;
void* failingMalloc(size_t size) {
    if (failuresLeft != 0) {
        --failuresLeft;
        return nullptr;
    }
    return qk::platform::rawAlloc(size);
}

// One refusal: the idle superblocks of the keep pool go back, the request is
// asked again, and the warning says memory was critical.
TEST(qkMemoryShortage, ARefusalThatTheRetryOvercomesWarnsMemoryCritical) {
    Warnings::install();
    onThread([] {
        std::vector<void*> blocks;
        for (int i = 0; i < 2 * 37; ++i)
            blocks.push_back(qkMalloc(400, "idle", i));
        for (void* p : blocks)
            qkFree(p, "idle", 0);
    });
    ASSERT_GE(mgr()->keepStats[12].count, 1);
    sysMalloc = failingMalloc;
    failuresLeft = 1;
    void* p = qkMalloc(3000, reinterpret_cast<char const*>(0x5151), 33);
    sysMalloc = qk::platform::rawAlloc;
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(qkMemSize(p), 3000u);
    EXPECT_EQ(mgr()->keepStats[12].count, 0);  // released by the shortage path
    EXPECT_EQ(Warnings::take(), "memory critical (0x5151:33)\n");
    EXPECT_NE(mgr()->reserve, nullptr);
    qkFree(p, "done", 0);
    checkHeap(nullptr);
}

// Standard output joins standard error, where the death test looks.
void stdoutToStderr() {
    dup2(2, 1);
}

// Allocates until the C runtime refuses, with the address space limited to
// what the process holds and 64 MiB more.
void hog() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit rl;
    rl.rlim_cur = rl.rlim_max = static_cast<rlim_t>(pages) * 4096 + (rlim_t{64} << 20);
    setrlimit(RLIMIT_AS, &rl);
    for (int i = 0; i < 100000; ++i)
        qkMalloc(1 << 20, "hog", i);
}

TEST(qkMemoryShortage, MemoryGoneForGoodEndsTheProcessWithTheSize) {
    auto killed = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(
        {
            stdoutToStderr();
            onThread([] {
                qkMemoryThread();  // the heap record is had; the superblock is not
                sysMalloc = failingMalloc;
                failuresLeft = -1;  // for ever
                qkMalloc(100, "sb", 1);
            });
        },
        killed, "out of memory allocating 16384 bytes\nout of memory \\(0x[0-9a-f]+:1\\)\n");
    EXPECT_EXIT(
        {
            stdoutToStderr();
            void* p = qkMalloc(1000, "grow", 1);
            sysRealloc = [](void*, size_t) -> void* { return nullptr; };
            qkRealloc(p, 70000, "grow", 2);
        },
        killed, "out of memory reallocating 70000 bytes\nout of memory \\(0x[0-9a-f]+:2\\)\n");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // For real: under an address-space limit the C runtime refuses, the retry
    // cannot help, and the reserve pays for the last words. (The sanitizers'
    // shadow memory does not live under such a limit.)
    EXPECT_EXIT((stdoutToStderr(), hog()), killed,
                "out of memory allocating 1048592 bytes\nout of memory \\(0x");
#endif
}

}  // namespace
