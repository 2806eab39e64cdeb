// qkThreadState and the thread services: per-thread slots, the life of a
// state's active flag across its thread's end, thread creation and ids.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "qkThread.h"

namespace {

using namespace std::chrono_literals;

// The default key is made on first use; slots are per thread. States bound
// to a thread are active while it runs, turn inactive once it has ended and
// stay so, a copy with them; a state never bound keeps its flag, which a host
// may clear through the exit hook.
TEST(qkThread, StatesArePerThreadAndFollowTheirThreadsLife) {
    EXPECT_EQ(qkThread::getInfo(-1), nullptr);
    EXPECT_NE(qkThread::_defaultInfoKey, -1);
    int key = qkThread::createInfoKey();
    EXPECT_NE(key, qkThread::_defaultInfoKey);
    qkThreadState mine, state, second, unbound;
    qkThread::setInfo(key, &mine);
    std::atomic<bool> bound{false}, finish{false};
    std::thread worker([&] {
        EXPECT_EQ(qkThread::getInfo(key), nullptr);
        qkThread::setInfo(key, &second);
        qkThread::setInfo(&state);
        EXPECT_EQ(qkThread::getInfo(key), &second);
        EXPECT_EQ(qkThread::getInfo(), &state);
        bound = true;
        while (!finish)
            std::this_thread::sleep_for(1ms);
    });
    while (!bound)
        std::this_thread::yield();
    EXPECT_EQ(qkThread::getInfo(key), &mine);
    EXPECT_EQ(qkThread::getInfo(), nullptr);
    EXPECT_EQ(qkThread::active(&state), 1);
    qkThreadState copy = state;
    finish = true;
    worker.join();  // the thread, its exit hook included, is over
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(qkThread::active(&state), 0);
        EXPECT_EQ(qkThread::active(&second), 0);
        EXPECT_EQ(qkThread::active(&copy), 0);
    }
    qkThread::setInfo(&state);  // bound again, to a live thread
    EXPECT_EQ(qkThread::active(&state), 1);
    qkThread::setInfo(nullptr);
    qkThread::setInfo(key, nullptr);
    EXPECT_EQ(qkThread::active(&unbound), 0);
    unbound.active = 1;
    qkThread::exitHook(nullptr);  // ignored
    EXPECT_EQ(qkThread::active(&unbound), 1);
    qkThread::exitHook(&unbound);
    EXPECT_EQ(qkThread::active(&unbound), 0);
}

// Threads made with and without a stack size run their routine, are seen to
// end, and have ids of their own.
TEST(qkThread, CreatedThreadsRunWithTheAskedStackAndTheirEndIsSeen) {
    static struct Probe {
        qkThreadState state;
        std::atomic<size_t> stack{0};
        std::atomic<void*> id{nullptr};
    } probes[16];
    auto routine = [](void* arg) {
        auto* probe = static_cast<Probe*>(arg);
        qkThread::setInfo(&probe->state);
        pthread_attr_t attr;
        size_t size = 0;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
        probe->stack = size;
        probe->id = qkThread::id();  // last: the probe is complete
        return 0;
    };
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(qkThread::create(routine, &probes[i], i % 2 ? 1 << 20 : 0), 1);
    for (int i = 0; i < 16; ++i) {
        bool ended = false;
        for (int wait = 0; wait < 10000 && !ended; ++wait) {
            ended = probes[i].id && !qkThread::active(&probes[i].state);
            if (!ended) std::this_thread::sleep_for(1ms);
        }
        ASSERT_TRUE(ended) << "thread " << i << " never ran or never ended";
        EXPECT_GE(probes[i].stack.load(), i % 2 ? size_t{1} << 20 : 1);
        EXPECT_NE(probes[i].id.load(), qkThread::id());
    }
    EXPECT_EQ(qkThread::id(), qkMutex::id());
}

// A forked child runs on a thread of its own: the id cached by the parent's
// thread must not follow it, or the child's locks could mistake owners.
TEST(qkThread, ForkedChildGetsItsOwnThreadId) {
    void* parent = qkThread::id();
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        bool ok = qkThread::id() == reinterpret_cast<void*>(static_cast<uintptr_t>(gettid())) &&
                  qkThread::id() != parent;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
