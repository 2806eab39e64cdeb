// Locks and counting semaphores.
//
// The lock is a pthread mutex of the adaptive kind, which spins briefly
// before it sleeps, as the original's critical section did with its spin
// count. The semaphore is a mutex and a condition variable around a count,
// which gives it the maximum count the original's semaphore had.
#include <pthread.h>

#include <new>

#include "platform/platform.h"
#include "qkThread.h"

namespace qk::platform {

static_assert(sizeof(qkCriticalSection) >= sizeof(pthread_mutex_t));
static_assert(alignof(qkCriticalSection) >= alignof(pthread_mutex_t));

static pthread_mutex_t* asMutex(qkCriticalSection* section) {
    return reinterpret_cast<pthread_mutex_t*>(section->bytes);
}

void lockInit(qkCriticalSection* section) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
#ifdef PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
#endif
    if (pthread_mutex_init(asMutex(section), &attr) != 0) {
        pthread_mutex_init(asMutex(section), nullptr);
    }
    pthread_mutexattr_destroy(&attr);
}

void lockDestroy(qkCriticalSection* section) {
    pthread_mutex_destroy(asMutex(section));
}
void lockEnter(qkCriticalSection* section) {
    pthread_mutex_lock(asMutex(section));
}
bool lockTryEnter(qkCriticalSection* section) {
    return pthread_mutex_trylock(asMutex(section)) == 0;
}
void lockLeave(qkCriticalSection* section) {
    pthread_mutex_unlock(asMutex(section));
}

namespace {
struct Semaphore {
    pthread_mutex_t mutex;
    pthread_cond_t available;
    int count;
    int maximum;
};
}  // namespace

void* semCreate(int initial, int maximum) {
    if (initial < 0 || maximum <= 0 || initial > maximum) return nullptr;
    void* memory = rawAlloc(sizeof(Semaphore));
    if (!memory) return nullptr;
    Semaphore* sem = new (memory) Semaphore;
    pthread_mutex_init(&sem->mutex, nullptr);
    pthread_cond_init(&sem->available, nullptr);
    sem->count = initial;
    sem->maximum = maximum;
    return sem;
}

void semDestroy(void* handle) {
    if (!handle) return;
    Semaphore* sem = static_cast<Semaphore*>(handle);
    pthread_cond_destroy(&sem->available);
    pthread_mutex_destroy(&sem->mutex);
    rawFree(sem);
}

bool semRelease(void* handle, int units) {
    Semaphore* sem = static_cast<Semaphore*>(handle);
    if (!sem || units <= 0) return false;
    pthread_mutex_lock(&sem->mutex);
    bool fits = units <= sem->maximum - sem->count;
    if (fits) sem->count += units;
    pthread_mutex_unlock(&sem->mutex);
    if (fits) {
        if (units == 1) {
            pthread_cond_signal(&sem->available);
        } else {
            pthread_cond_broadcast(&sem->available);
        }
    }
    return fits;
}

void semWait(void* handle) {
    Semaphore* sem = static_cast<Semaphore*>(handle);
    if (!sem) return;
    pthread_mutex_lock(&sem->mutex);
    while (sem->count == 0)
        pthread_cond_wait(&sem->available, &sem->mutex);
    sem->count -= 1;
    pthread_mutex_unlock(&sem->mutex);
}

}  // namespace qk::platform
