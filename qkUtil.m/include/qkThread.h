// Thread primitives: qkMutex, qkSemaphore, qkThreadState and the static
// thread services of qkThread.
//
// - qkMutex is a recursive mutex that records its owning thread and can be
//   tried once or polled with a time-out. Any thread may call lock/trylock;
//   only the owner calls unlock.
// - qkSemaphore is a counting semaphore (maximum 0x0FFFFFFF) that also
//   measures how far it has been drawn down (depth, maxDepth).
// - qkThreadState is the small per-thread object that the library keeps under
//   a thread-local key; it knows whether its thread still runs. It outlives
//   its thread: after the thread ends, qkThread::active(state) returns 0 and
//   keeps returning 0.
// - qkThread offers thread-local keys, binding a state to the calling thread,
//   thread creation and the calling thread's id.
// - qkThread also holds the twelve process-wide locks, numbered 0 to 11 and
//   meant to be taken highest number first: a thread that takes one while it
//   holds a lower-numbered one is warned (through qkMemory::warn) once per
//   lower lock held, unless the environment variable "SYNC_NO_LOCK_WARNING"
//   is set; the lock is taken all the same. A qkThread object holds one of
//   them for its life. Beside them stand 53 hash mutexes picked by address.
//   All of them are recursive qkMutexes; both lists are made on first use,
//   safely from any number of threads, and live until the process ends.
//
// Neither qkMutex nor qkSemaphore can be copied: each owns an operating-system
// object that a copy could only share or duplicate behind the owner's back.
#pragma once

#include <atomic>
#include <cstdint>

#include "qkExport.h"
#include "qkThreadAnnotations.h"

// Storage for the operating system's lock, held inside the qkMutex object as
// the original kept its critical section; the platform layer checks the size.
struct qkCriticalSection {
    alignas(8) unsigned char bytes[40];
};

class QK_EXPORT QK_CAPABILITY("mutex") qkMutex {
  public:
    qkMutex();
    virtual ~qkMutex();
    qkMutex(qkMutex const&) = delete;
    qkMutex& operator=(qkMutex const&) = delete;

    // Blocks until the calling thread holds the mutex; recursive.
    void lock() QK_ACQUIRE();
    // Undoes one lock(); the last one frees the mutex. Only the owner calls it.
    void unlock() QK_RELEASE();
    // Takes the mutex if that can be done within `timeout` milliseconds:
    // one attempt at once, then one every 10 ms until the time is up. 0 makes
    // exactly one attempt; a negative time-out waits practically for ever.
    // Returns 1 when the mutex is held (recursively if already owned), else 0.
    unsigned char trylock(int timeout) QK_TRY_ACQUIRE(1);

    // The id of the holding thread, null when free.
    void* owner() const { return owner_.load(std::memory_order_relaxed); }
    // The calling thread's id, as a pointer-sized value.
    static void* id();

  private:
    void takeOwnership(void* me) {
        owner_.store(me, std::memory_order_relaxed);
        recursion = 0;
    }

    qkCriticalSection section;
    // Written only by the thread inside the critical section; read by any
    // thread, which compares it with its own id and so never mistakes another
    // thread's hold for its own. Relaxed atomic: no ordering is derived from it.
    std::atomic<void*> owner_;
    int recursion;  // locks by the owner beyond the first
};

class QK_EXPORT qkSemaphore {
  public:
    explicit qkSemaphore(int initial = 0);
    ~qkSemaphore();
    qkSemaphore(qkSemaphore const&) = delete;
    qkSemaphore& operator=(qkSemaphore const&) = delete;

    // Returns one unit.
    void post();
    // Draws one unit, waiting without time limit until one is available.
    void wait();
    // Units drawn and not yet returned (initial - count); read without a lock.
    int depth() const { return initial - count.load(std::memory_order_relaxed); }
    // The largest depth seen after a wait.
    int maxDepth() const { return maxDepth_.load(std::memory_order_relaxed); }

    static constexpr int kMaximumCount = 0x0FFFFFFF;

  private:
    qkMutex mutex;               // guards the counters
    void* semaphore;             // the operating system's semaphore
    std::atomic<int> count;      // initial + posts - waits
    int initial;                 // the count given at construction
    std::atomic<int> maxDepth_;  // largest initial - count after a wait
};

class QK_EXPORT qkThreadState {
  public:
    qkThreadState() : handle(nullptr), active(0) {}
    virtual ~qkThreadState();
    qkThreadState(qkThreadState const& o);
    qkThreadState& operator=(qkThreadState const& o);

    // The thread this state belongs to (a reference owned by the state), null
    // until qkThread::setInfo binds the state to a thread.
    void* handle;
    // 1 while the thread is known to run. Written by the thread that asks
    // qkThread::active or calls exitHook, read by any: relaxed atomic.
    std::atomic<unsigned char> active;
};

class QK_EXPORT qkThread {
  public:
    // The lock numbers; the library gives a number no meaning beyond its
    // place in the order. NoLock marks a scoped object that holds nothing.
    enum qkLock {
        Lock0,
        Lock1,
        Lock2,
        Lock3,
        Lock4,
        Lock5,
        Lock6,
        Lock7,
        Lock8,
        Lock9,
        Lock10,
        Lock11,
        NoLock
    };
    static constexpr int kLockCount = 12;
    static constexpr int kHashCount = 53;

    // ---- The global locks ----------------------------------------------
    // Takes lock n (recursively), after warning about every lower lock that
    // the calling thread holds. Numbers outside 0..11 are ignored.
    static void lock(qkLock n) QK_NO_THREAD_SAFETY_ANALYSIS;
    // Undoes one lock(n) of the calling thread, which must hold n.
    static void unlock(qkLock n) QK_NO_THREAD_SAFETY_ANALYSIS;
    // Takes all twelve, from 11 down to 0, without warnings.
    static void lockAll() QK_NO_THREAD_SAFETY_ANALYSIS;
    // Releases, at every recursion level, each lock the calling thread
    // holds. 1 when it held at least one, else 0.
    static unsigned char unlockAll() QK_NO_THREAD_SAFETY_ANALYSIS;
    // The highest lock number the calling thread holds, -1 for none.
    static int getMaxLockHeld();
    // The lock list (12 mutexes), made on first use.
    static qkMutex* getLockList();
    // Uses `list`, an array of 12 mutexes that the caller keeps alive, from
    // now on. A host that shares one list between modules calls this before
    // any lock is taken; the library then never makes a list of its own.
    static void setLockList(qkMutex* list);
    // The hash list (53 mutexes); null until some call has made it.
    static qkMutex* getHashList();
    // The hash mutex of address p: number p modulo 53.
    static qkMutex* hashMutex(void* p);

    // ---- Scoped lock -----------------------------------------------------
    // Holds lock n until the object dies.
    explicit qkThread(qkLock n);
    // Holds lock n when doLock is non-zero, else holds nothing.
    qkThread(qkLock n, unsigned char doLock);
    ~qkThread();
    // A copy would release the lock twice.
    qkThread(qkThread const&) = delete;
    // Copies the lock number only: the object then releases that lock when
    // it dies, so the caller must have taken it once more for it. Whatever
    // it held before is not released.
    qkThread& operator=(qkThread const&) = default;

    // ---- Thread services -------------------------------------------------
    // A new thread-local key; -1 when every key is taken.
    static int createInfoKey();
    // The calling thread's state under `key` (-1: the default key, made on
    // first use); null when none was stored.
    static qkThreadState* getInfo(int key);
    static qkThreadState* getInfo();
    // Stores `state` under `key` for the calling thread. A non-null state is
    // bound to the calling thread and marked active.
    static void setInfo(int key, qkThreadState* state);
    static void setInfo(qkThreadState* state);
    // Whether the state's thread still runs. Once its thread has ended the
    // state's active flag turns 0 and stays 0. A state that was never bound
    // keeps whatever its flag says.
    static unsigned char active(qkThreadState* state);
    // Marks `state` inactive (for a host that reports thread ends itself).
    static void exitHook(void* state);
    // Starts routine(arg) on a new thread with `stackSize` bytes of stack (0:
    // the default) and a priority one step above normal where the system
    // allows it. Returns 1, or 0 when the thread could not be made. The new
    // thread is detached: nothing waits for it.
    static int create(int (*routine)(void*), void* arg, int stackSize);
    // The calling thread's id; the same value as qkMutex::id().
    static void* id();

    static int _defaultInfoKey;  // -1 until made

  private:
    // Makes whichever of the two lists is still missing.
    static void init();
    // The lock list, made when missing.
    static qkMutex* locks();
    static void warn(char const* message);

    // Both pointers are read and written through atomic references: threads
    // may race for the first use.
    static qkMutex* _locks;
    static qkMutex* _hash;

    qkLock _lock;  // the lock held, NoLock for none
};
