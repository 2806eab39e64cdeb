// fork() with the manager. fork copies only the calling thread; had another
// thread been inside the manager at that moment, the child would inherit a
// lock that no thread of its own will ever release, and its first allocation
// on that path would hang. So every manager lock is taken around the fork and
// released in both processes afterwards.
//
// The locks are taken in the manager's lock order: printLock, threadLock,
// then the bucket locks. Every path that holds two takes them in that order
// (a print function may allocate, and an allocation may tune), so taking all
// of them here cannot deadlock with a thread that holds some.
//
// In the child, the heaps of the parent's other threads stay as they were
// and are never adopted (their threads do not exist there, but were never
// seen ending either); a child usually execs soon anyway.
#include "memory/qkMemoryInternal.h"
#include "platform/platform.h"

using namespace qk::memory;

static void lockAllForFork() {
    qkMemory* m = qkMemory::getManager();
    m->printLock->lock();
    m->threadLock->lock();
    for (qkMutex* lock : m->allocLock)
        lock->lock();
}

static void unlockAllAfterFork() {
    qkMemory* m = qkMemory::getManager();
    for (int i = kLargeIndex; i >= 0; --i)
        m->allocLock[i]->unlock();
    m->threadLock->unlock();
    m->printLock->unlock();
}

void qk::memory::registerForkHandlers() {
    qk::platform::atFork(lockAllForFork, unlockAllAfterFork, unlockAllAfterFork);
}
