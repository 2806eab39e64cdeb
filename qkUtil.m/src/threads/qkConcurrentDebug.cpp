// qkConcurrentDebug: the rendezvous value and its polling wait.
#include "qkConcurrentDebug.h"

#include <atomic>

#include "platform/platform.h"

int qkConcurrentDebug::_val = -1;
unsigned char qkConcurrentDebug::_on = 1;

namespace {

template <class T>
T loadRelaxed(T& field) {
    return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}

template <class T>
void storeRelaxed(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

constexpr unsigned kPollMs = 5000;

}  // namespace

int qkConcurrentDebug::set(int value) {
    storeRelaxed(_val, value);
    return 1;
}

int qkConcurrentDebug::wait(int value) {
    while (loadRelaxed(_val) != value && loadRelaxed(_on) != 0)
        qk::platform::sleepMs(kPollMs);
    return 1;
}

int qkConcurrentDebug::waitOn(unsigned char on) {
    storeRelaxed(_on, on);
    storeRelaxed(_val, -1);
    return 1;
}
