// One lock order on every path: a print function may allocate, and its
// allocation may start a tuning (threadLock) while the warning holds
// printLock. So fork(), which takes every lock, and the end of the process
// when memory is gone, which warns after the last retry, must take printLock
// before threadLock too. Each scenario runs in a child with an alarm: a
// deadlock shows as death by SIGALRM instead of the expected end.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

std::atomic<bool> inPrint{false};

// Sleeps while the warning holds printLock, then makes the request that
// starts a tuning.
void allocatingPrint(char const* line) {
    inPrint = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    qkMemory* m = mgr();
    storeRelaxed(m->allocCount, loadRelaxed(m->allocLimit));
    qkFree(qkMalloc(100, "print", 0), "print", 0);
    std::fputs(line, stderr);
}

// A thread warns; the calling thread waits until the print function runs.
std::thread warnMeanwhile() {
    inPrint = false;
    qkMemory::setPrintFunction(allocatingPrint);
    std::thread warner([] { qkMemory::warn("slow warning", "x", 7); });
    while (!inPrint)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return warner;
}

void forkDuringAllocatingPrint() {
    alarm(10);
    ASSERT_LT(mgr()->buckets, kBucketLimit) << "no tuning left to start";
    int before = mgr()->buckets;
    std::thread warner = warnMeanwhile();
    pid_t child = fork();
    if (child == 0) {
        qkFree(qkMalloc(100, "child", 0), "child", 0);
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    warner.join();
    std::fprintf(stderr, "child %d, tuned %d\n", status, mgr()->buckets - before);
    std::exit(0);
}

TEST(qkMemoryLockOrder, ForkWhileAPrintFunctionAllocates) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators hang in the child of a busy fork";
#endif
    EXPECT_EXIT(forkDuringAllocatingPrint(), testing::ExitedWithCode(0),
                "slow warning \\(0x[0-9a-f]+:7\\)\nchild 0, tuned 1\n");
}

void outOfMemoryWhileAPrintFunctionAllocates() {
    alarm(10);
    dup2(2, 1);
    std::thread warner = warnMeanwhile();
    // Large requests are refused for good; superblocks are still given.
    sysMalloc = [](size_t n) { return n >= (1u << 20) ? nullptr : qk::platform::rawAlloc(n); };
    qkMalloc(2 << 20, "huge", 9);
    warner.join();
}

TEST(qkMemoryLockOrder, OutOfMemoryWhileAPrintFunctionAllocates) {
    EXPECT_EXIT(outOfMemoryWhileAPrintFunctionAllocates(), testing::KilledBySignal(SIGABRT),
                "out of memory allocating 2097168 bytes\n"
                "(.|\n)*out of memory \\(0x[0-9a-f]+:9\\)\n");
}

}  // namespace
