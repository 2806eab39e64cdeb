// qkMutex: a recursive mutex over the platform's lock. The platform lock is
// not recursive; the owner and the recursion count kept here make it so.
#include "platform/platform.h"
#include "qkThread.h"

namespace plat = qk::platform;

qkMutex::qkMutex() : owner_(nullptr), recursion(0) {
    plat::lockInit(&section);
}

qkMutex::~qkMutex() {
    plat::lockDestroy(&section);
}

void* qkMutex::id() {
    return reinterpret_cast<void*>(plat::threadId());
}

void qkMutex::lock() {
    void* me = id();
    if (owner() == me) {
        recursion += 1;
        return;
    }
    plat::lockEnter(&section);
    takeOwnership(me);
}

void qkMutex::unlock() {
    if (recursion >= 1) {
        recursion -= 1;
        return;
    }
    owner_.store(nullptr, std::memory_order_relaxed);
    plat::lockLeave(&section);
}

unsigned char qkMutex::trylock(int timeout) {
    void* me = id();
    if (owner() == me) {
        recursion += 1;
        return 1;
    }
    uint32_t start = plat::tickCount();
    while (!plat::lockTryEnter(&section)) {
        // Unsigned on both sides: a negative time-out is a huge wait.
        if (plat::tickCount() - start >= static_cast<uint32_t>(timeout)) return 0;
        plat::sleepMs(10);
    }
    takeOwnership(me);
    return 1;
}
