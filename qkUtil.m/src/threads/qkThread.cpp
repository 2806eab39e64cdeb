// qkThreadState and the static thread services of qkThread.
//
// A state's handle is a counted reference to its thread's record in the
// platform layer; the record is marked ended by the thread-exit hook, which is
// how active() tells that the thread has gone.
#include <atomic>

#include "platform/platform.h"
#include "qkThread.h"

namespace plat = qk::platform;

int qkThread::_defaultInfoKey = -1;

qkThreadState::~qkThreadState() {
    plat::threadHandleClose(handle);
}

// A copy holds its own reference to the same thread.
qkThreadState::qkThreadState(qkThreadState const& o)
    : handle(o.handle), active(o.active.load(std::memory_order_relaxed)) {
    if (handle) plat::threadHandleRetain(handle);
}

qkThreadState& qkThreadState::operator=(qkThreadState const& o) {
    if (this != &o) {
        if (o.handle) plat::threadHandleRetain(o.handle);
        plat::threadHandleClose(handle);
        handle = o.handle;
        active.store(o.active.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
    return *this;
}

int qkThread::createInfoKey() {
    return plat::tlsAlloc();
}

// The default key is made on first use. Threads that race for it agree on
// one key: the loser of the exchange gives its own key back.
static int defaultKey() {
    std::atomic_ref<int> key(qkThread::_defaultInfoKey);
    int current = key.load(std::memory_order_acquire);
    if (current != -1) return current;
    int made = plat::tlsAlloc();
    if (key.compare_exchange_strong(current, made, std::memory_order_acq_rel)) return made;
    plat::tlsFree(made);
    return current;
}

qkThreadState* qkThread::getInfo(int key) {
    if (key == -1) key = defaultKey();
    return static_cast<qkThreadState*>(plat::tlsGet(key));
}

qkThreadState* qkThread::getInfo() {
    return getInfo(-1);
}

void qkThread::setInfo(int key, qkThreadState* state) {
    if (key == -1) key = defaultKey();
    plat::tlsSet(key, state);
    if (state) {
        void* handle = plat::threadHandleDup();
        plat::threadHandleClose(state->handle);
        state->handle = handle;
        state->active.store(1, std::memory_order_relaxed);
    }
}

void qkThread::setInfo(qkThreadState* state) {
    setInfo(-1, state);
}

unsigned char qkThread::active(qkThreadState* state) {
    if (state->handle && plat::threadHandleEnded(state->handle)) {
        state->active.store(0, std::memory_order_relaxed);
    }
    return state->active.load(std::memory_order_relaxed);
}

void qkThread::exitHook(void* state) {
    if (state) static_cast<qkThreadState*>(state)->active.store(0, std::memory_order_relaxed);
}

int qkThread::create(int (*routine)(void*), void* arg, int stackSize) {
    return plat::threadCreate(routine, arg, stackSize) ? 1 : 0;
}

void* qkThread::id() {
    return qkMutex::id();
}
