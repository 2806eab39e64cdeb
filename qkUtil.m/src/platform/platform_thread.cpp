// Threads: thread-local slots, thread ids, thread handles with their exit
// hook, and thread creation.
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <new>

#include "platform/platform.h"
#include "platform/platform_thread_exit.h"

namespace qk::platform {

__thread void* tlsSlots[kTlsSlots] __attribute__((tls_model("initial-exec")));
__thread uintptr_t cachedThreadId __attribute__((tls_model("initial-exec")));

// ---- Thread-local slots ----------------------------------------------------

static std::atomic<uint64_t> slotsInUse{0};
static_assert(kTlsSlots == 64, "slotsInUse is a 64-bit map");

int tlsAlloc() {
    uint64_t used = slotsInUse.load(std::memory_order_relaxed);
    for (;;) {
        if (used == ~uint64_t{0}) return -1;
        int slot = __builtin_ctzll(~used);
        if (slotsInUse.compare_exchange_weak(used, used | (uint64_t{1} << slot))) return slot;
    }
}

void tlsFree(int slot) {
    if (static_cast<unsigned>(slot) < kTlsSlots) {
        slotsInUse.fetch_and(~(uint64_t{1} << slot));
    }
}

// ---- Thread ids ------------------------------------------------------------

uintptr_t threadIdSlow() {
    cachedThreadId = static_cast<uintptr_t>(gettid());
    return cachedThreadId;
}

// ---- Thread handles --------------------------------------------------------
//
// A thread's record is made the first time a handle of it is asked for. The
// thread holds one reference and every handle one more. When the thread ends,
// the exit hook (the destructor of a pthread key) marks the record ended and
// drops the thread's reference.
//
// pthread key destructors run in rounds (at most PTHREAD_DESTRUCTOR_ITERATIONS)
// for as long as some destructor sets a value again. The hook re-arms itself
// so that it runs after the destructors of ordinary keys, whose teardown work
// may still allocate and free. It stops one round short of the last: runtimes
// that must be the very last thing on a thread (the sanitizers' thread
// finalisers) re-arm to the final round, and nothing may run after them.
//
// Even then the thread may go on: destructors of keys made after the hook's
// that re-arm into the later rounds, and the C runtime's own releases after
// the last destructor, may still allocate and free. So the hook only marks
// the record as exiting; the thread counts as ended once the kernel shows it
// can no longer run user code (platform_thread_exit.cpp), however long that
// takes. Until then the answer is "not ended": a heap is never handed on
// from a thread that still runs.

namespace {
struct ThreadRecord {
    std::atomic<int> refs;
    std::atomic<bool> exiting;  // the exit hook has run
    std::atomic<bool> ended;    // confirmed gone
    std::atomic<pid_t> tid;
    std::atomic<long long> exitTicks;  // boot-time ticks when the hook ran
};
}  // namespace

static __thread ThreadRecord* currentRecord;
static __thread int exitRounds;
static pthread_key_t exitKey;
static pthread_once_t exitKeyOnce = PTHREAD_ONCE_INIT;

static void releaseRecord(ThreadRecord* record) {
    if (record->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        record->~ThreadRecord();
        rawFree(record);
    }
}

static void threadExitHook(void* value) {
    ThreadRecord* record = static_cast<ThreadRecord*>(value);
    if (++exitRounds < PTHREAD_DESTRUCTOR_ITERATIONS - 1) {
        pthread_setspecific(exitKey, record);
        return;
    }
    currentRecord = nullptr;
    record->exitTicks.store(bootTicksNow(), std::memory_order_relaxed);
    record->exiting.store(true, std::memory_order_release);
    releaseRecord(record);
}

static void makeExitKey() {
    pthread_key_create(&exitKey, threadExitHook);
}

void* threadHandleDup() {
    ThreadRecord* record = currentRecord;
    if (!record) {
        void* memory = rawAlloc(sizeof(ThreadRecord));
        if (!memory) return nullptr;
        record = new (memory) ThreadRecord{{1}, {false}, {false}, {gettid()}, {0}};
        pthread_once(&exitKeyOnce, makeExitKey);
        pthread_setspecific(exitKey, record);
        currentRecord = record;
    }
    record->refs.fetch_add(1, std::memory_order_relaxed);
    return record;
}

void threadHandleRetain(void* handle) {
    static_cast<ThreadRecord*>(handle)->refs.fetch_add(1, std::memory_order_relaxed);
}

bool threadHandleEnded(void* handle) {
    ThreadRecord* record = static_cast<ThreadRecord*>(handle);
    if (record->ended.load(std::memory_order_acquire)) return true;
    if (!record->exiting.load(std::memory_order_acquire)) return false;
    // A thread that was just joined is usually microseconds from letting go
    // of its address space; wait that long, but not for one that is still
    // busy in its teardown: it is looked at again next time.
    pid_t tid = record->tid.load(std::memory_order_relaxed);
    long long exitTicks = record->exitTicks.load(std::memory_order_relaxed);
    for (int look = 0; !threadLeftUserSpace(tid, exitTicks); ++look) {
        if (look == 10) return false;
        sleepMs(1);
    }
    record->ended.store(true, std::memory_order_release);
    return true;
}

void threadHandleClose(void* handle) {
    if (handle) releaseRecord(static_cast<ThreadRecord*>(handle));
}

// A forked child runs on a new kernel thread: forget the parent's id.
static void adoptChildThread() {
    cachedThreadId = 0;
    if (currentRecord) currentRecord->tid.store(gettid(), std::memory_order_relaxed);
}

void atFork(void (*prepare)(), void (*parent)(), void (*child)()) {
    pthread_atfork(prepare, parent, child);
}

__attribute__((constructor)) static void registerForkHandler() {
    pthread_atfork(nullptr, nullptr, adoptChildThread);
}

// ---- Thread creation -------------------------------------------------------

namespace {
struct StartBlock {
    int (*routine)(void*);
    void* arg;
};
}  // namespace

// One step above the calling process's niceness; refused without privilege,
// which is fine: the raise is best effort.
static void raisePriority() {
    id_t tid = static_cast<id_t>(gettid());
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, tid);
    if (errno == 0) setpriority(PRIO_PROCESS, tid, nice - 1);
}

static void* threadStart(void* p) {
    StartBlock start = *static_cast<StartBlock*>(p);
    rawFree(p);
    raisePriority();
    start.routine(start.arg);
    return nullptr;
}

static size_t stackBytes(int stackSize) {
    size_t bytes = static_cast<size_t>(stackSize);
    if (bytes < static_cast<size_t>(PTHREAD_STACK_MIN)) bytes = PTHREAD_STACK_MIN;
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

bool threadCreate(int (*routine)(void*), void* arg, int stackSize) {
    StartBlock* start = static_cast<StartBlock*>(rawAlloc(sizeof(StartBlock)));
    if (!start) return false;
    start->routine = routine;
    start->arg = arg;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (stackSize > 0) pthread_attr_setstacksize(&attr, stackBytes(stackSize));
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, threadStart, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) rawFree(start);
    return rc == 0;
}

}  // namespace qk::platform
