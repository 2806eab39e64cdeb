// The lists behind qkThread's global locks and hash mutexes.
//
// Both lists are made on first use and never freed. Threads may race for the
// first use, so a list is published by a compare-and-swap: the loser frees
// the list it made and takes the winner's. A list given by setLockList is
// simply there already, and nothing is made in its place.
#include <atomic>
#include <cstdint>

#include "qkThread.h"

qkMutex* qkThread::_locks = nullptr;
qkMutex* qkThread::_hash = nullptr;

static qkMutex* published(qkMutex*& slot) {
    return std::atomic_ref<qkMutex*>(slot).load(std::memory_order_acquire);
}

static qkMutex* makeOnce(qkMutex*& slot, int count) {
    qkMutex* current = published(slot);
    if (current) return current;
    qkMutex* made = new qkMutex[count];
    if (std::atomic_ref<qkMutex*>(slot).compare_exchange_strong(current, made,
                                                                std::memory_order_acq_rel)) {
        return made;
    }
    delete[] made;
    return current;
}

void qkThread::init() {
    makeOnce(_locks, kLockCount);
    makeOnce(_hash, kHashCount);
}

qkMutex* qkThread::locks() {
    qkMutex* list = published(_locks);
    if (list) return list;
    init();
    return published(_locks);
}

qkMutex* qkThread::getLockList() {
    init();
    return published(_locks);
}

void qkThread::setLockList(qkMutex* list) {
    std::atomic_ref<qkMutex*>(_locks).store(list, std::memory_order_release);
}

qkMutex* qkThread::getHashList() {
    return published(_hash);
}

qkMutex* qkThread::hashMutex(void* p) {
    init();
    return published(_hash) + reinterpret_cast<uintptr_t>(p) % kHashCount;
}
