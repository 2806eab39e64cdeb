// qkSemaphore: a counting semaphore that also tracks its depth. The counters
// change under `mutex`; the wait itself happens outside it.
#include "platform/platform.h"
#include "qkThread.h"

namespace plat = qk::platform;

qkSemaphore::qkSemaphore(int initial)
    : semaphore(plat::semCreate(initial, kMaximumCount)),
      count(initial),
      initial(initial),
      maxDepth_(0) {}

qkSemaphore::~qkSemaphore() {
    plat::semDestroy(semaphore);
}

void qkSemaphore::post() {
    mutex.lock();
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    mutex.unlock();
    plat::semRelease(semaphore, 1);
}

void qkSemaphore::wait() {
    plat::semWait(semaphore);
    mutex.lock();
    int now = count.load(std::memory_order_relaxed) - 1;
    count.store(now, std::memory_order_relaxed);
    if (initial - now > maxDepth_.load(std::memory_order_relaxed)) {
        maxDepth_.store(initial - now, std::memory_order_relaxed);
    }
    mutex.unlock();
}
