// qkThread's global locks: the order warnings of threads that take them in
// random orders, against a model of who holds what, with and without the
// switch; getMaxLockHeld and unlockAll after random recursive locking.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qkMemory.h"
#include "qkThread.h"

// The tests take the locks out of order on purpose and are laid out so that
// they cannot deadlock; ThreadSanitizer's lock-order check would report each
// deliberate inversion. Its race detection stays on.
extern "C" char const* __tsan_default_options() {
    return "detect_deadlocks=0";
}

namespace {

using Lock = qkThread::qkLock;
std::mutex printedLock;
std::vector<std::pair<void*, std::string>> printed;  // (thread, line)

void capture(char const* text) {
    std::lock_guard<std::mutex> hold(printedLock);
    printed.emplace_back(qkMutex::id(), text);
}

// One thread's random walk. Lock k is shared when k % 4 is 0, else private
// to walker k % 4 - 1: nobody waits for a private lock, and a shared lock is
// taken only again or while no lower shared lock is held, so the random
// orders cannot deadlock while other threads often hold the lower locks.
struct Walker {
    int t;
    std::mt19937 rng;
    void* id = nullptr;
    int held[qkThread::kLockCount] = {}, mismatches = 0;
    std::vector<std::pair<int, int>> warnings;  // (taking, held)

    Walker(int thread, unsigned seed) : t(thread), rng(seed) {}

    int maxHeld() {
        int k = qkThread::kLockCount - 1;
        while (k >= 0 && !held[k])
            --k;
        return k;
    }
    bool mayTake(int n) {
        for (int k = 0; k < n && n % 4 == 0 && !held[n]; k += 4)
            if (held[k]) return false;
        return held[n] || n % 4 == t + 1 || n % 4 == 0;
    }
    void run(int steps) {
        id = qkMutex::id();
        for (int s = 1; s <= steps; ++s) {
            int n = static_cast<int>(rng() % qkThread::kLockCount);
            if (held[n] && rng() % 2) {
                qkThread::unlock(Lock(n)), --held[n];
            } else if (mayTake(n)) {
                for (int i = 0; i < n; ++i)
                    if (held[i]) warnings.emplace_back(n, i);
                qkThread::lock(Lock(n)), ++held[n];
            }
            mismatches += qkThread::getMaxLockHeld() != maxHeld();
            if (s % 50 != 0 && s != steps) continue;
            mismatches += qkThread::unlockAll() != (maxHeld() >= 0);
            std::fill(std::begin(held), std::end(held), 0);
        }
    }
};

std::string orderLine(void* thread, int taking, int held, std::string const& tag) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "WARNING: t@%016llX acquiring lock %d while holding %d (%s:122)\n",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(thread)), taking,
                  held, tag.c_str());
    return text;
}

}  // namespace

// Three walkers at once, twice: each one's lines are exactly, and in order,
// those its model predicts; with the switch set (to "0": any value counts)
// there are none and the locks work as before.
TEST(qkThreadLocks, OrderWarningsFollowAModelOfWhoHoldsWhat) {
    qkMemory::setPrintFunction(capture);
    for (bool silenced : {false, true}) {
        if (silenced) setenv("SYNC_NO_LOCK_WARNING", "0", 1);
        printed.clear();
        std::vector<Walker> walkers{{0, 1}, {1, 2}, {2, 3}};
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (auto& w : walkers) {
            threads.emplace_back([&ready, walker = &w] {
                for (++ready; ready < 3;)
                    std::this_thread::yield();
                walker->run(20000);
            });
        }
        for (auto& th : threads)
            th.join();
        std::string first = printed.empty() ? " (:" : printed[0].second;
        size_t open = first.rfind(" (") + 2;
        std::string tag = first.substr(open, first.rfind(':') - open);  // the module's
        EXPECT_TRUE(silenced == printed.empty() && (silenced || tag.rfind("0x", 0) == 0)) << tag;
        size_t lines = 0;
        for (auto& w : walkers) {
            std::vector<std::string> want, got;
            for (auto [taking, held] : w.warnings)
                if (!silenced) want.push_back(orderLine(w.id, taking, held, tag));
            for (auto& [thread, line] : printed)
                if (thread == w.id) got.push_back(line);
            EXPECT_TRUE(w.warnings.size() > 100 && w.mismatches == 0) << w.t;
            EXPECT_EQ(got, want) << w.t;
            lines += got.size();
        }
        EXPECT_EQ(lines, printed.size());
    }
    unsetenv("SYNC_NO_LOCK_WARNING");
}

// Random recursive holds while another thread holds lock 5: unlockAll frees
// every level of the caller's locks and leaves lock 5 to its holder. lockAll
// on top of lower holds warns nothing; scoped objects hold for their life.
TEST(qkThreadLocks, UnlockAllReleasesEveryLevelOfTheCallersLocksOnly) {
    qkMemory::setPrintFunction(capture);
    qkMutex* list = qkThread::getLockList();
    std::atomic<int> stage{0};
    std::thread other([&] {
        qkThread five(qkThread::Lock5);
        for (stage = 1; stage != 2;)
            std::this_thread::yield();
    });
    while (stage != 1)
        std::this_thread::yield();
    void* holder = list[5].owner();
    std::mt19937 rng(3);
    for (int round = 0, max = -1; round < 200; ++round, max = -1) {
        for (int i = 0, takes = static_cast<int>(rng() % 8); i < takes; ++i) {
            int n = static_cast<int>(rng() % 11);
            qkThread::lock(Lock(n + (n >= 5))), max = std::max(max, n + (n >= 5));
        }
        EXPECT_EQ(qkThread::getMaxLockHeld(), max) << round;
        EXPECT_TRUE(qkThread::unlockAll() == (max >= 0) && qkThread::getMaxLockHeld() == -1);
        EXPECT_EQ(list[5].owner(), holder);
        if (HasFailure()) break;  // still let the other thread go
    }
    stage = 2;
    other.join();
    printed.clear();
    qkThread two(qkThread::Lock2), none(qkThread::Lock9, 0);
    EXPECT_EQ(qkThread::getMaxLockHeld(), 2);
    qkThread::lockAll();
    EXPECT_TRUE(printed.empty() && qkThread::getMaxLockHeld() == 11);
    EXPECT_TRUE(qkThread::unlockAll() == 1 && qkThread::unlockAll() == 0);
    std::thread([&] {
        for (int n = 0; n < qkThread::kLockCount; ++n)
            EXPECT_EQ(list[n].trylock(0), 1) << n;
        qkThread::unlockAll();
    }).join();
    qkThread::lock(qkThread::Lock2);  // for `two` to release
}
