// Memory shortage: a refusal that the retry overcomes, and the end of the
// process when memory is gone for good, both with injected failures and
// for real under an address-space limit. The fatal cases run in a child
// process whose standard output and exit are checked.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

struct ChildResult {
    int status = 0;
    std::string output;
};

// Runs `body` in a forked child with standard output captured.
ChildResult inChild(std::function<void()> body) {
    int pipeEnds[2];
    EXPECT_EQ(pipe(pipeEnds), 0);
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeEnds[1], 1);
        close(pipeEnds[0]);
        body();
        std::fflush(stdout);
        _exit(0);
    }
    close(pipeEnds[1]);
    ChildResult result;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeEnds[0], buffer, sizeof buffer)) > 0)
        result.output.append(buffer, static_cast<size_t>(n));
    close(pipeEnds[0]);
    waitpid(pid, &result.status, 0);
    return result;
}

bool abortedWith(ChildResult const& r, std::string const& first) {
    return WIFSIGNALED(r.status) && WTERMSIG(r.status) == SIGABRT &&
           r.output.find(first) != std::string::npos &&
           r.output.find("out of memory (0x") != std::string::npos;
}

int failuresLeft = 0;
void* failingMalloc(size_t size) {
    if (failuresLeft != 0) {
        --failuresLeft;
        return nullptr;
    }
    return qk::platform::rawAlloc(size);
}
void* failingRealloc(void*, size_t) {
    return nullptr;
}

// One refusal: the idle superblocks of the keep pool go back, the request is
// asked again, and the warning says memory was critical.
TEST(qkMemoryShortage, ARefusalThatTheRetryOvercomesWarnsMemoryCritical) {
    Warnings::install();
    std::thread([] {
        std::vector<void*> blocks;
        for (int i = 0; i < 2 * 37; ++i)
            blocks.push_back(qkMalloc(400, "idle", i));
        for (void* p : blocks)
            qkFree(p, "idle", 0);
        ASSERT_GE(mgr()->keepStats[12].count, 1);
    }).join();
    sysMalloc = failingMalloc;
    failuresLeft = 1;
    void* p = qkMalloc(3000, reinterpret_cast<char const*>(0x5151), 33);
    sysMalloc = qk::platform::rawAlloc;
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(qkMemSize(p), 3000u);
    EXPECT_EQ(mgr()->keepStats[12].count, 0);  // released by the shortage path
    auto got = Warnings::take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], "memory critical (0x5151:33)\n");
    EXPECT_NE(mgr()->reserve, nullptr);
    qkFree(p, "done", 0);
    checkKeepPool();
}

TEST(qkMemoryShortage, NoMemoryForASuperblockEndsTheProcess) {
    ChildResult r = inChild([] {
        std::thread([] {
            qkMemoryThread();  // the heap record is had; the superblock is not
            sysMalloc = failingMalloc;
            failuresLeft = -1;  // for ever
            qkMalloc(100, "sb", 1);
        }).join();
    });
    EXPECT_TRUE(abortedWith(r, "out of memory allocating 16384 bytes\n")) << r.output;
}

TEST(qkMemoryShortage, NoMemoryToGrowALargeBlockEndsTheProcess) {
    ChildResult r = inChild([] {
        void* p = qkMalloc(1000, "grow", 1);
        sysRealloc = failingRealloc;
        qkRealloc(p, 70000, "grow", 2);
    });
    EXPECT_TRUE(abortedWith(r, "out of memory reallocating 70000 bytes\n")) << r.output;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QK_UNDER_SANITIZER 1
#endif

// The real thing: under an address-space limit the C runtime refuses, the
// retry cannot help, the reserve pays for the last words.
TEST(qkMemoryShortage, AddressSpaceLimitEndsTheProcessWithTheMessage) {
#ifdef QK_UNDER_SANITIZER
    GTEST_SKIP() << "the sanitizers' shadow memory does not live under an address-space limit";
#endif
    ChildResult r = inChild([] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        rlim_t limit = static_cast<rlim_t>(pages) * 4096 + (rlim_t{64} << 20);
        rlimit rl{limit, limit};
        setrlimit(RLIMIT_AS, &rl);
        for (int i = 0; i < 100000; ++i)
            qkMalloc(1 << 20, "hog", i);
    });
    EXPECT_TRUE(abortedWith(r, "out of memory allocating 1048592 bytes\n")) << r.output;
}

}  // namespace
