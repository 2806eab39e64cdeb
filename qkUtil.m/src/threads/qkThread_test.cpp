// The thread primitives: recursive qkMutex holds that exclude every other
// thread until the last unlock, trylock against a holder, qkSemaphore depth
// accounting and admission, per-thread state slots, the life of a state's
// active flag across its thread's end, thread creation and ids.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "qkThread.h"

// Threads take the mutex one to three levels deep, by lock or by a spinning
// trylock(0), and release it level by level. A marker set after the first
// level and cleared before the last unlock shows whether another thread ever
// got in while the mutex was held at any depth. Between holds they pass a
// semaphore of 2, which must never let a third in.
TEST(qkMutex, RecursiveHoldsExcludeOthersAndASemaphoreAdmitsItsCount) {
    qkMutex m;
    qkSemaphore sem(2);
    std::atomic<void*> holder{nullptr};
    std::atomic<int> intrusions{0}, inside{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0, depth; i < 5000; ++i) {
                while ((depth = 1 + (i + t) % 3) == 2 && !m.trylock(0))
                    std::this_thread::yield();
                if (depth != 2) m.lock();
                void *none = nullptr, *me = qkMutex::id();
                bool alone = holder.compare_exchange_strong(none, me);
                for (int level = 1; level < depth; ++level)
                    alone &= level % 2 ? m.trylock(0) == 1 : (m.lock(), true);  // never waits
                for (int level = 1; level < depth; ++level)
                    m.unlock(), alone &= holder.load() == me && m.owner() == me;
                holder.store(nullptr);
                m.unlock();
                sem.wait();
                intrusions += !alone + (++inside > 2);
                std::this_thread::yield();
                --inside;
                sem.post();
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_TRUE(intrusions.load() == 0 && m.owner() == nullptr && sem.depth() == 0);
    EXPECT_TRUE(sem.maxDepth() >= 1 && sem.maxDepth() <= 2);
}

// Against a holder, trylock(0) and trylock(30) give up; a negative time-out
// waits until the holder lets go.
TEST(qkMutex, TrylockGivesUpOnAHolderUnlessItsTimeOutIsNegative) {
    qkMutex m;
    std::atomic<int> stage{0};
    std::thread holder([&] {
        m.lock();
        for (stage = 1; stage != 2;)
            std::this_thread::yield();
        m.unlock();
    });
    while (stage != 1)
        std::this_thread::yield();
    EXPECT_TRUE(m.trylock(0) == 0 && m.trylock(30) == 0);
    stage = 2;
    EXPECT_TRUE(m.trylock(-1) == 1 && m.owner() == qkMutex::id());
    m.unlock();
    holder.join();
}

// Random posts and waits (a wait only when the model says it cannot block)
// from several initial counts; depth is initial - count, maxDepth its peak.
TEST(qkSemaphore, DepthAndMaxDepthFollowAModel) {
    std::mt19937 rng(99);
    for (int initial = 0; initial < 4; ++initial) {
        qkSemaphore sem(initial);
        for (int step = 0, count = initial, peak = 0; step < 400; ++step) {
            bool wait = count > 0 && (step < initial || rng() % 2);
            wait ? sem.wait() : sem.post();
            peak = std::max(peak, initial - (count += wait ? -1 : 1));
            ASSERT_TRUE(sem.depth() == initial - count && sem.maxDepth() == peak) << step;
        }
    }
}

// The default key is made on first use; slots are per thread. A thread made
// by create runs with the stack asked for (above the default). Its state is
// active while it runs and inactive, for good, once it has ended, a copy with
// it; a state never bound keeps its flag, which a host may clear through the
// exit hook.
TEST(qkThread, StatesArePerThreadAndFollowTheirThreadsLife) {
    EXPECT_TRUE(qkThread::getInfo(-1) == nullptr && qkThread::_defaultInfoKey != -1);
    static struct Shared {
        int key = qkThread::createInfoKey();
        qkThreadState mine, state, unbound;
        std::atomic<int> stage{0};
        size_t stack = 0;
        bool slotEmpty = false;
    } s;
    qkThread::setInfo(s.key, &s.mine);
    auto routine = [](void*) {
        s.slotEmpty = qkThread::getInfo(s.key) == nullptr;
        qkThread::setInfo(&s.state);
        pthread_attr_t attr;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &s.stack);
        pthread_attr_destroy(&attr);
        for (s.stage = 1; s.stage != 2;)
            std::this_thread::yield();
        return 0;
    };
    ASSERT_EQ(qkThread::create(routine, nullptr, 32 << 20), 1);
    while (s.stage != 1)
        std::this_thread::yield();
    EXPECT_TRUE(qkThread::getInfo(s.key) == &s.mine && qkThread::getInfo() == nullptr);
    EXPECT_TRUE(s.slotEmpty && s.stack >= 32 << 20 && qkThread::active(&s.state) == 1);
    qkThreadState copy = s.state;
    s.stage = 2;
    while (qkThread::active(&s.state))  // a thread that never ends times out
        std::this_thread::yield();
    EXPECT_TRUE(qkThread::active(&s.state) == 0 && qkThread::active(&copy) == 0);
    s.unbound.active = 1;
    qkThread::exitHook(nullptr);  // ignored
    EXPECT_EQ(qkThread::active(&s.unbound), 1);
    qkThread::exitHook(&s.unbound);
    EXPECT_EQ(qkThread::active(&s.unbound), 0);
}

// A forked child runs on a thread of its own: the id cached by the parent's
// thread must not follow it, or the child's locks could mistake owners.
TEST(qkThread, ForkedChildGetsItsOwnThreadId) {
    void* parent = qkThread::id();
    pid_t child = fork();
    if (child == 0) _exit(qkThread::id() == (void*)uintptr_t(gettid()) && parent != qkThread::id());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
}
