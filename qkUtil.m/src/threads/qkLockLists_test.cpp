// The lists behind the global locks: hash mutexes picked by address modulo
// 53, the first use raced by many threads in fresh processes, and a host's
// lock list given before any use.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "qkThread.h"

// Random addresses, and the same address 53 times any whole number further
// on, find the mutex of their remainder; every one of the 53 is reachable,
// separate from the lock list, and recursive.
TEST(qkThreadLists, HashMutexesArePickedByTheAddressModulo53) {
    std::mt19937_64 rng(53);
    qkMutex* base = nullptr;
    std::set<qkMutex*> seen;
    for (int i = 0; i < 5000; ++i) {
        uintptr_t p = rng() >> (rng() % 63 + 1), further = p + 53 * (rng() % 1000);
        qkMutex* m = qkThread::hashMutex(reinterpret_cast<void*>(p));
        if (!base) base = qkThread::getHashList();
        ASSERT_EQ(m, base + p % 53) << p;
        ASSERT_EQ(qkThread::hashMutex(reinterpret_cast<void*>(further)), m) << p;
        seen.insert(m);
    }
    EXPECT_EQ(seen.size(), 53u);
    qkMutex* locks = qkThread::getLockList();
    EXPECT_TRUE(base + 53 <= locks || locks + 12 <= base);
    qkMutex* m = qkThread::hashMutex(&seen);
    m->lock(), m->lock(), m->unlock();
    std::thread([m] { EXPECT_EQ(m->trylock(0), 0); }).join();
    m->unlock();
    std::thread([m] { EXPECT_EQ(m->trylock(0), 1); }).join();
}

// In a fresh process, eight threads make their first call at once, each
// through another entry point; all of them must find the same two lists.
static int raceForFirstUse() {
    if (qkThread::getHashList()) return 2;
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    qkMutex *locks[kThreads], *hash[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready < kThreads;)
                std::this_thread::yield();
            auto n = qkThread::qkLock(t);
            if (t % 4 == 0) qkThread::getLockList();
            if (t % 4 == 1) qkThread::hashMutex(nullptr);
            if (t % 4 == 2) {
                qkThread scoped(n);
            }
            if (t % 4 == 3) qkThread::lock(n), qkThread::unlock(n);
            locks[t] = qkThread::getLockList();
            hash[t] = qkThread::hashMutex(nullptr);
        });
    }
    for (auto& th : threads)
        th.join();
    for (int t = 1; t < kThreads; ++t)
        if (locks[t] != locks[0] || hash[t] != hash[0]) return 1;
    return hash[0] == qkThread::getHashList() ? 0 : 1;
}

TEST(qkThreadLists, FirstUseRacedByManyThreadsMakesOneListOfEach) {
    if (qkThread::getHashList()) GTEST_SKIP() << "needs a process that has made no list yet";
    for (int round = 0; round < 20; ++round) {
        pid_t child = fork();
        if (child == 0) _exit(raceForFirstUse());
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << round;
    }
}

// A host's list given first is what every thread and entry point uses; the
// hash list is still made, separately.
TEST(qkThreadLists, AListGivenFirstIsTheOneUsed) {
    if (qkThread::getHashList()) GTEST_SKIP() << "needs a process that has made no list yet";
    static qkMutex host[qkThread::kLockCount];
    qkThread::setLockList(host);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            auto n = qkThread::qkLock(t * 3);
            qkThread scoped(n);
            EXPECT_TRUE(qkThread::getLockList() == host && host[n].owner() == qkMutex::id());
        });
    }
    for (auto& th : threads)
        th.join();
    qkMutex* hash = qkThread::hashMutex(host);
    EXPECT_TRUE(hash != nullptr && (hash < host || hash >= host + 12));
    EXPECT_EQ(qkThread::getLockList(), host);
}
