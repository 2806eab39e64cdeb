// Faults around the manager: a refusal that the retry overcomes, the end of
// the process when memory is gone for good (injected, and for real under an
// address-space limit), and fork() while other threads allocate. The last
// words go to standard output, which the dying child sends to its standard
// error for the death test to read.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

// One refusal: the idle superblocks of the keep pool go back, the request is
// asked again, and the warning says memory was critical.
TEST(qkMemoryShortage, ARefusalThatTheRetryOvercomesWarnsMemoryCritical) {
    Warnings::install();
    onThread([] { release(take(400, 2 * 37)); });
    ASSERT_GE(mgr()->keepStats[12].count, 1);
    sysMalloc = [](size_t) -> void* {  // refuses once
        sysMalloc = qk::platform::rawAlloc;
        return nullptr;
    };
    void* p = qkMalloc(3000, reinterpret_cast<char const*>(0x5151), 33);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(mgr()->keepStats[12].count, 0);  // released by the shortage path
    EXPECT_EQ(Warnings::take(), "memory critical (0x5151:33)\n");
    EXPECT_NE(mgr()->reserve, nullptr);
    qkFree(p, "done", 0);
    checkHeap(nullptr);
}

// Allocates until the C runtime refuses, with the address space limited to
// what the process holds and 64 MiB more. (Unused in sanitizer builds.)
[[maybe_unused]] void hog() {
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
            dup2(2, 1);
            sysRealloc = [](void*, size_t) -> void* { return nullptr; };
            qkRealloc(qkMalloc(1000, "grow", 1), 70000, "grow", 2);
        },
        killed, "out of memory reallocating 70000 bytes\nout of memory \\(0x[0-9a-f]+:2\\)\n");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // For real: the retry cannot help, and the reserve pays for the last
    // words. (The sanitizers' shadow memory does not live under such a limit.)
    EXPECT_EXIT((dup2(2, 1), hog()), killed,
                "out of memory allocating 1048592 bytes\nout of memory \\(0x");
#endif
}

// A child must never inherit a manager lock held by a thread that does not
// exist in it. Two threads keep inside the locked paths (large blocks, fresh
// superblocks) while the process forks; each child walks the paths that take
// the bucket, large-block and thread locks, and one that hangs is killed by
// its alarm. (Without the fork handlers the first round or two already hang.)
TEST(qkMemoryFork, ChildrenOfABusyProcessCanAllocate) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators hang in the child of a busy fork";
#endif
    std::atomic<bool> stop{false};
    auto churn = [&](unsigned seed) {
        std::vector<void*> held;
        while (!stop.load(std::memory_order_relaxed) || !held.empty()) {
            seed = seed * 1103515245 + 12345;
            if (held.size() > 400 || stop)
                release(held);
            else
                held.push_back(qkMalloc(seed % 3 ? 16 + seed % 480 : 600 + seed % 4000, "fork", 1));
        }
    };
    std::thread threads[] = {std::thread(churn, 1), std::thread(churn, 2)};
    int failed = 0;
    for (int round = 0; round < 40 && !failed; ++round) {
        pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            alarm(10);
            std::vector<void*> blocks;
            for (int i = 0; i < 2000; ++i)
                blocks.push_back(qkMalloc(8 + i % 3000, "child", i));
            onThread([] { release(take(100, 1)); });
            release(blocks);
            _exit(0);
        }
        int status = 0;
        failed = waitpid(child, &status, 0) != child || status != 0;
    }
    stop = true;
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failed, 0) << "a child hung or failed after fork";
}

}  // namespace
