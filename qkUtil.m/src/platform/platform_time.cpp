// Ticks, sleeps and the high-resolution counter, all on CLOCK_MONOTONIC so
// that wall-clock changes never disturb a time-out; the wall clock and the
// process id for identifiers.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include <cerrno>

#include "platform/platform.h"

namespace qk::platform {

static int64_t monotonicNanos() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

uint32_t tickCount() {
    return static_cast<uint32_t>(monotonicNanos() / 1000000);
}

void sleepMs(unsigned ms) {
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

int64_t perfCounter() {
    return monotonicNanos();
}
int64_t perfFrequency() {
    return 1000000000;
}

int64_t unixTime() {
    return static_cast<int64_t>(time(nullptr));
}

// The id is asked of the kernel once (getpid is a system call) and again in
// a forked child, whose id differs.
namespace {
std::atomic<int> cachedPid{0};
__attribute__((constructor)) void forgetPidInChildren() {
    pthread_atfork(nullptr, nullptr, [] { cachedPid.store(0, std::memory_order_relaxed); });
}
}  // namespace

int processId() {
    int pid = cachedPid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<int>(getpid());
        cachedPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

}  // namespace qk::platform
