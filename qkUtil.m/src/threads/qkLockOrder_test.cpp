// qkThread's global locks: the order warnings of threads holding and taking
// locks in random orders against a model of who holds what, with and without
// the switch; getMaxLockHeld, unlockAll and lockAll after random recursive
// locking; the scoped lock object.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qkMemory.h"
#include "qkThread.h"

// These tests take the global locks out of order on purpose, which is what
// the warnings are for, and are laid out so that they cannot deadlock.
// ThreadSanitizer's lock-order check would report every deliberate
// inversion; its race detection stays on.
extern "C" char const* __tsan_default_options() {
    return "detect_deadlocks=0";
}

namespace {

using Lock = qkThread::qkLock;

// Every warning printed, with the thread that raised it.
struct Printed {
    void* thread;
    std::string text;
};
std::mutex printedLock;
std::vector<Printed> printed;

void capture(char const* text) {
    std::lock_guard<std::mutex> hold(printedLock);
    printed.push_back({qkMutex::id(), text});
}

// The caller tag of a warning line "message (tag:122)\n".
std::string tagOf(std::string const& line) {
    size_t open = line.rfind(" ("), colon = line.rfind(":122)\n");
    return open == std::string::npos || colon == std::string::npos
               ? std::string()
               : line.substr(open + 2, colon - open - 2);
}

std::string orderLine(void* thread, int taking, int held, std::string const& tag) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "WARNING: t@%016llX acquiring lock %d while holding %d (%s:122)\n",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(thread)), taking,
                  held, tag.c_str());
    return text;
}

// The lines printed by `thread`; every line must carry the lock module's tag.
std::vector<std::string> printedBy(void* thread, std::string const& tag) {
    std::vector<std::string> lines;
    for (auto& p : printed) {
        EXPECT_EQ(tagOf(p.text), tag);
        if (p.thread == thread) lines.push_back(p.text);
    }
    return lines;
}

class qkThreadLocks : public testing::Test {
  protected:
    void SetUp() override {
        printed.clear();
        qkMemory::setPrintFunction(capture);
    }
    void TearDown() override {
        qkMemory::setPrintFunction(nullptr);
        unsetenv("SYNC_NO_LOCK_WARNING");
    }
};

// One thread's random walk. Lock k is shared when k % 4 is 0, else private
// to thread k % 4 - 1: nobody waits for a private lock, and a shared lock is
// taken only again or while no lower shared lock is held, so the random
// orders cannot deadlock while other threads often hold the lower locks.
struct Walker {
    int t;
    std::mt19937 rng;
    int held[qkThread::kLockCount] = {};
    std::vector<std::pair<int, int>> expected;  // (taking, held) per warning
    int mismatches = 0;

    Walker(int thread, unsigned seed) : t(thread), rng(seed) {}
    bool mayTake(int n) {
        if (held[n] || n % 4 == t + 1) return true;
        if (n % 4 != 0) return false;
        for (int k = 0; k < n; k += 4)
            if (held[k]) return false;
        return true;
    }
    int maxHeld() {
        for (int k = qkThread::kLockCount - 1; k >= 0; --k)
            if (held[k]) return k;
        return -1;
    }
    void step() {
        int n = static_cast<int>(rng() % qkThread::kLockCount);
        if (held[n] && rng() % 2) {
            qkThread::unlock(Lock(n)), --held[n];
        } else if (mayTake(n)) {
            for (int i = 0; i < n; ++i)
                if (held[i]) expected.push_back({n, i});
            qkThread::lock(Lock(n)), ++held[n];
        }
        mismatches += qkThread::getMaxLockHeld() != maxHeld();
    }
    void run(int steps) {
        for (int s = 1; s <= steps; ++s) {
            step();
            if (s % 50 != 0 && s != steps) continue;
            bool any = maxHeld() >= 0;
            mismatches += qkThread::unlockAll() != any || qkThread::getMaxLockHeld() != -1;
            std::fill(std::begin(held), std::end(held), 0);
        }
    }
};

// Runs three walkers together and checks each one's lines against its model.
void walkAndCompare(unsigned seed, bool silenced) {
    std::vector<Walker> walkers;
    for (int t = 0; t < 3; ++t)
        walkers.emplace_back(t, seed + t);
    std::vector<void*> ids(3);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            ids[t] = qkMutex::id();
            for (++ready; ready < 3;)
                std::this_thread::yield();
            walkers[t].run(20000);
        });
    }
    for (auto& th : threads)
        th.join();
    std::string tag = printed.empty() ? "" : tagOf(printed.front().text);
    EXPECT_TRUE(silenced || tag.rfind("0x", 0) == 0) << tag;
    for (int t = 0; t < 3; ++t) {
        std::vector<std::string> want;
        for (auto [taking, held] : walkers[t].expected)
            want.push_back(orderLine(ids[t], taking, held, tag));
        ASSERT_GT(want.size(), 100u);
        if (silenced) want.clear();
        EXPECT_EQ(printedBy(ids[t], tag), want) << "thread " << t;
        EXPECT_EQ(walkers[t].mismatches, 0) << "thread " << t;
    }
    EXPECT_EQ(printed.size() == 0, silenced);
}

}  // namespace

TEST_F(qkThreadLocks, OrderWarningsFollowAModelOfWhoHoldsWhat) {
    walkAndCompare(11, false);
}

// Any value switches the warnings off, even "0"; the locks work as before.
TEST_F(qkThreadLocks, TheSwitchSilencesEveryWarning) {
    setenv("SYNC_NO_LOCK_WARNING", "0", 1);
    walkAndCompare(23, true);
}

// Random recursive holds while another thread holds lock 5: unlockAll frees
// every level of the caller's locks and leaves lock 5 to its holder. lockAll
// on top of lower holds warns nothing and holds all twelve.
TEST_F(qkThreadLocks, UnlockAllReleasesEveryLevelOfTheCallersLocksOnly) {
    qkMutex* list = qkThread::getLockList();
    std::atomic<int> stage{0};
    std::thread other([&] {
        qkThread::lock(qkThread::Lock5);
        for (stage = 1; stage != 2;)
            std::this_thread::yield();
        qkThread::unlock(qkThread::Lock5);
    });
    while (stage != 1)
        std::this_thread::yield();
    void* holder = list[5].owner();
    std::mt19937 rng(3);
    for (int round = 0; round < 200; ++round) {
        int max = -1, takes = static_cast<int>(rng() % 8);
        for (int i = 0; i < takes; ++i) {
            int n = static_cast<int>(rng() % 11);
            n += n >= 5;  // never 5
            qkThread::lock(Lock(n)), max = std::max(max, n);
        }
        ASSERT_EQ(qkThread::getMaxLockHeld(), max);
        ASSERT_EQ(qkThread::unlockAll(), max >= 0);
        ASSERT_EQ(qkThread::getMaxLockHeld(), -1);
        ASSERT_EQ(list[5].owner(), holder);
    }
    stage = 2;
    other.join();
    size_t before = printed.size();
    qkThread::lock(qkThread::Lock2), qkThread::lock(qkThread::Lock0);
    qkThread::lockAll();
    EXPECT_TRUE(printed.size() == before && qkThread::getMaxLockHeld() == 11);
    EXPECT_TRUE(qkThread::unlockAll() == 1 && qkThread::unlockAll() == 0);
    std::thread([&] {
        for (int n = 0; n < qkThread::kLockCount; ++n)
            EXPECT_EQ(list[n].trylock(0), 1) << n;
        EXPECT_EQ(qkThread::unlockAll(), 1);
    }).join();
}

// The documented cases through scoped objects: 3 then 7 warns once, 7 then
// 3 is silent, 2 and 1 then 5 warns for 1 and then 2; an object told not to
// lock holds nothing; an assigned object releases the lock it copied.
TEST_F(qkThreadLocks, ScopedObjectsHoldForTheirLifeAndWarnLikeLock) {
    {
        qkThread three(qkThread::Lock3);
        qkThread seven(qkThread::Lock7);
        qkThread none(qkThread::Lock9, 0);
        EXPECT_EQ(qkThread::getMaxLockHeld(), 7);
    }
    EXPECT_EQ(qkThread::getMaxLockHeld(), -1);
    { qkThread seven(qkThread::Lock7), three(qkThread::Lock3); }
    { qkThread two(qkThread::Lock2), one(qkThread::Lock1), five(qkThread::Lock5, 1); }
    qkThread::lock(qkThread::Lock6);
    {
        qkThread copy(qkThread::Lock6, 0), six(qkThread::Lock6);
        copy = six;
    }
    EXPECT_EQ(qkThread::getMaxLockHeld(), -1);
    ASSERT_FALSE(printed.empty());
    std::string tag = tagOf(printed.front().text);
    void* me = qkMutex::id();
    std::vector<std::string> want{orderLine(me, 7, 3, tag), orderLine(me, 5, 1, tag),
                                  orderLine(me, 5, 2, tag)};
    EXPECT_EQ(printedBy(me, tag), want);
}
