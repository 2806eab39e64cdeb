// qkThreadState and the thread services: per-thread slots, the life of a
// state's active flag across its thread's end, and thread creation.
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

// Polls until `flag` is set; false after ~10 s.
bool waitFor(std::atomic<int>& flag) {
    for (int i = 0; i < 10000 && !flag; ++i)
        std::this_thread::sleep_for(1ms);
    return flag != 0;
}

// Polls until `state` reports its thread ended; false after ~10 s.
bool waitInactive(qkThreadState* state) {
    for (int i = 0; i < 10000; ++i) {
        if (!qkThread::active(state)) return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

TEST(qkThread, DefaultKeyIsMadeOnFirstUseAndSlotsArePerThread) {
    EXPECT_EQ(qkThread::getInfo(-1), nullptr);
    EXPECT_NE(qkThread::_defaultInfoKey, -1);
    int key = qkThread::createInfoKey();
    ASSERT_GE(key, 0);
    EXPECT_NE(key, qkThread::_defaultInfoKey);

    qkThreadState mine, other;
    qkThread::setInfo(key, &mine);
    qkThread::setInfo(&other);
    EXPECT_EQ(qkThread::getInfo(key), &mine);
    EXPECT_EQ(qkThread::getInfo(), &other);
    std::thread([&] {
        EXPECT_EQ(qkThread::getInfo(key), nullptr);
        EXPECT_EQ(qkThread::getInfo(), nullptr);
        qkThreadState theirs;
        qkThread::setInfo(key, &theirs);
        EXPECT_EQ(qkThread::getInfo(key), &theirs);
        qkThread::setInfo(key, nullptr);
    }).join();
    EXPECT_EQ(qkThread::getInfo(key), &mine);
    EXPECT_EQ(qkThread::active(&mine), 1);
    qkThread::setInfo(key, nullptr);
    qkThread::setInfo(nullptr);
}

TEST(qkThread, ActiveTurnsZeroWhenTheThreadEndsAndStaysZero) {
    qkThreadState state;
    EXPECT_EQ(qkThread::active(&state), 0);  // never bound: keeps its flag
    std::atomic<bool> bound{false}, finish{false};
    std::thread worker([&] {
        qkThread::setInfo(&state);
        bound = true;
        while (!finish)
            std::this_thread::sleep_for(1ms);
    });
    while (!bound)
        std::this_thread::yield();
    EXPECT_EQ(qkThread::active(&state), 1);
    qkThreadState copy = state;  // a copy follows the same thread
    EXPECT_EQ(qkThread::active(&copy), 1);
    finish = true;
    worker.join();  // the thread, its exit hook included, is over
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(qkThread::active(&state), 0);
        EXPECT_EQ(qkThread::active(&copy), 0);
    }
    // Binding the state again to a live thread makes it active again.
    qkThread::setInfo(&state);
    EXPECT_EQ(qkThread::active(&state), 1);
    qkThread::setInfo(nullptr);
}

TEST(qkThread, ExitHookMarksAStateInactive) {
    qkThreadState state;
    state.active = 1;
    qkThread::exitHook(nullptr);  // ignored
    qkThread::exitHook(&state);
    EXPECT_EQ(qkThread::active(&state), 0);
}

struct CreateProbe {
    qkThreadState state;
    std::atomic<size_t> stackSize{0};
    std::atomic<int> ran{0};
    std::atomic<void*> id{nullptr};
};

int probeRoutine(void* arg) {
    auto* probe = static_cast<CreateProbe*>(arg);
    qkThread::setInfo(&probe->state);
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        size_t size = 0;
        pthread_attr_getstacksize(&attr, &size);
        probe->stackSize = size;
        pthread_attr_destroy(&attr);
    }
    probe->id = qkThread::id();
    probe->ran = 1;
    return 0;
}

TEST(qkThread, CreateRunsTheRoutineWithTheAskedStackAndItsEndIsSeen) {
    CreateProbe probe;
    ASSERT_EQ(qkThread::create(probeRoutine, &probe, 1 << 20), 1);
    ASSERT_TRUE(waitFor(probe.ran));
    ASSERT_TRUE(waitInactive(&probe.state)) << "thread never reported as ended";
    EXPECT_EQ(probe.ran.load(), 1);
    EXPECT_GE(probe.stackSize.load(), size_t{1} << 20);
    EXPECT_NE(probe.id.load(), nullptr);
    EXPECT_NE(probe.id.load(), qkThread::id());
    EXPECT_EQ(qkThread::active(&probe.state), 0);
}

TEST(qkThread, ManyShortThreadsAllEnd) {
    constexpr int kThreads = 32;
    static CreateProbe probes[kThreads];
    for (auto& probe : probes)
        ASSERT_EQ(qkThread::create(probeRoutine, &probe, 0), 1);
    for (auto& probe : probes) {
        ASSERT_TRUE(waitFor(probe.ran));
        ASSERT_TRUE(waitInactive(&probe.state));
    }
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

TEST(qkThread, IdsAreStablePerThreadAndDistinct) {
    void* mine = qkThread::id();
    EXPECT_EQ(mine, qkMutex::id());
    EXPECT_EQ(mine, qkThread::id());
    void* theirs = nullptr;
    std::thread([&] { theirs = qkThread::id(); }).join();
    EXPECT_NE(theirs, nullptr);
    EXPECT_NE(theirs, mine);
}

}  // namespace
