// qkThread's global locks taken by number, the order warnings, and the
// scoped lock object.
//
// The order check reads the owner of other threads' locks without locking:
// an owner field only ever holds the calling thread's own id while that
// thread really holds the lock, so a stale value can never be mistaken for
// a hold of our own.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "qkMemory.h"
#include "qkThread.h"

static bool validLock(int n) {
    return n >= 0 && n < qkThread::kLockCount;
}

void qkThread::warn(char const* message) {
    qkMemory::warn(message, __FILE__, 122);
}

// Thread ids print as the C runtime's "%p" did: 16 upper-case hex digits.
static void formatOrderWarning(char (&text)[1024], void* me, int taking, int held) {
    std::snprintf(text, sizeof text, "WARNING: t@%016llX acquiring lock %u while holding %u",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(me)),
                  static_cast<unsigned>(taking), static_cast<unsigned>(held));
}

void qkThread::lock(qkLock n) {
    if (!validLock(n)) return;
    qkMutex* list = locks();
    void* me = qkMutex::id();
    for (int i = 0; i < n; ++i) {
        // The switch is looked up anew each time, so a host may flip it.
        if (list[i].owner() != me || std::getenv("SYNC_NO_LOCK_WARNING")) continue;
        char text[1024];
        formatOrderWarning(text, me, n, i);
        warn(text);
    }
    list[n].lock();
}

void qkThread::unlock(qkLock n) {
    if (validLock(n)) locks()[n].unlock();
}

void qkThread::lockAll() {
    qkMutex* list = locks();
    for (int n = kLockCount - 1; n >= 0; --n)
        list[n].lock();
}

unsigned char qkThread::unlockAll() {
    qkMutex* list = locks();
    void* me = qkMutex::id();
    unsigned char held = 0;
    for (int n = 0; n < kLockCount; ++n) {
        for (; list[n].owner() == me; held = 1)
            list[n].unlock();
    }
    return held;
}

int qkThread::getMaxLockHeld() {
    qkMutex* list = locks();
    void* me = qkMutex::id();
    for (int n = kLockCount - 1; n >= 0; --n) {
        if (list[n].owner() == me) return n;
    }
    return -1;
}

qkThread::qkThread(qkLock n) : _lock(n) {
    init();
    lock(n);
}

qkThread::qkThread(qkLock n, unsigned char doLock) : _lock(NoLock) {
    init();
    if (!doLock) return;
    _lock = n;
    lock(n);
}

qkThread::~qkThread() {
    if (_lock < NoLock) unlock(_lock);
}
