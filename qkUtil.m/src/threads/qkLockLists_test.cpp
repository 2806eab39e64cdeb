// The lists behind the global locks: hash mutexes by address modulo 53, the
// first use raced by many threads in fresh processes, a host's lock list.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "qkThread.h"

// Random addresses, and the same ones 53 times any number further on, find
// the mutex of their remainder; all 53 are reachable and none is a lock.
TEST(qkThreadLists, HashMutexesArePickedByTheAddressModulo53) {
    std::mt19937_64 rng(53);
    std::set<qkMutex*> seen;
    for (int i = 0; i < 5000; ++i) {
        uintptr_t p = rng() >> (rng() % 63 + 1), further = p + 53 * (rng() % 1000);
        qkMutex* m = qkThread::hashMutex(reinterpret_cast<void*>(p));
        ASSERT_EQ(m, qkThread::getHashList() + p % 53) << p;
        ASSERT_EQ(qkThread::hashMutex(reinterpret_cast<void*>(further)), m) << p;
        seen.insert(m);
    }
    qkMutex *hash = qkThread::getHashList(), *locks = qkThread::getLockList();
    EXPECT_TRUE(seen.size() == 53 && (hash + 53 <= locks || locks + 12 <= hash));
}

// In a fresh process eight threads make their first call at once, through
// four different entry points; all must find the same two lists.
static int raceForFirstUse() {
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    qkMutex *locks[kThreads], *hash[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready < kThreads;)
                std::this_thread::yield();
            if (t % 4 == 0) qkThread::getLockList();
            if (t % 4 == 1) qkThread::hashMutex(nullptr);
            if (t % 4 == 2) qkThread(qkThread::qkLock(t), 0);
            if (t % 4 == 3)
                qkThread::lock(qkThread::qkLock(t)), qkThread::unlock(qkThread::qkLock(t));
            locks[t] = qkThread::getLockList(), hash[t] = qkThread::getHashList();
        });
    }
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < kThreads; ++t)
        if (locks[t] != locks[0] || hash[t] != hash[0] || !hash[t]) return 1;
    return 0;
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

// A host's lock list given first is what every thread uses; the hash list
// is still made, separately.
TEST(qkThreadLists, AListGivenFirstIsTheOneUsed) {
    if (qkThread::getHashList()) GTEST_SKIP() << "needs a process that has made no list yet";
    static qkMutex host[qkThread::kLockCount];
    qkThread::setLockList(host);
    std::thread([] {
        qkThread scoped(qkThread::Lock6);
        EXPECT_TRUE(qkThread::getLockList() == host && host[6].owner() == qkMutex::id());
    }).join();
    qkMutex* hash = qkThread::hashMutex(host);
    EXPECT_TRUE(hash && (hash < host || hash >= host + 12) && qkThread::getLockList() == host);
}
