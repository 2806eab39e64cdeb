// fork() while other threads allocate: a child must never inherit a manager
// lock held by a thread that does not exist in it. Each child walks the
// paths that take the bucket, large-block and thread locks; a child that
// hangs is killed by its alarm and fails the test. (Without the fork
// handlers the first round or two already hang.)
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qkMemory.h"

namespace {

// Large blocks and fresh superblocks keep the other threads inside the
// manager's locked paths most of the time.
void churn(std::atomic<bool>& stop, unsigned seed) {
    std::vector<void*> held;
    while (!stop.load(std::memory_order_relaxed)) {
        seed = seed * 1103515245 + 12345;
        held.push_back(qkMalloc(seed % 3 ? 16 + seed % 480 : 600 + seed % 4000, "fork", 1));
        for (size_t i = 0; held.size() > 400 && i < held.size(); ++i)
            qkFree(held[i], "fork", 2);
        if (held.size() > 400) held.clear();
    }
    for (void* p : held)
        qkFree(p, "fork", 3);
}

TEST(qkMemoryFork, ChildrenOfABusyProcessCanAllocate) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers' own allocators are not made safe across fork in this
    // toolchain: a child of a busy process can hang inside them.
    GTEST_SKIP() << "the sanitizers' allocators hang in the child of a busy fork";
#endif
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 2; ++t)
        threads.emplace_back(churn, std::ref(stop), t + 1);
    int failed = 0;
    for (int round = 0; round < 40 && !failed; ++round) {
        pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            alarm(10);
            std::vector<void*> blocks;
            for (int i = 0; i < 2000; ++i)
                blocks.push_back(qkMalloc(8 + i % 3000, "child", i));
            std::thread([] { qkFree(qkMalloc(100, "child", 0), "child", 0); }).join();
            for (void* p : blocks)
                qkFree(p, "child", 0);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        failed = !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    stop = true;
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failed, 0) << "a child hung or failed after fork";
}

}  // namespace
