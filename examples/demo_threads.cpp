// Threads: workers started with qkThread::create, at most two at a time
// inside the work section (a qkSemaphore), writing to a shared journal under
// a qkMutex; the host waits for all of them and then sees them ended. Then
// the global locks: taken highest number first they are silent, the other
// way round the library warns; a hash mutex guards an object that has no
// mutex of its own; a qkTimer measures the whole section.
#include <chrono>
#include <cstdio>
#include <thread>

#include "demo.h"
#include "qkThread.h"
#include "qkTimer.h"

namespace {

constexpr int kWorkers = 4;
constexpr int kSteps = 3;

struct Shared {
    qkSemaphore section{2};  // at most two workers inside
    qkSemaphore finished{0};
    qkMutex journalLock;
    char journal[kWorkers * kSteps][64];
    int entries = 0;
};

struct Worker {
    Shared* shared;
    int number;
    qkThreadState state;
};

void note(Shared& s, int worker, int step, int depth) {
    s.journalLock.lock();
    std::snprintf(s.journal[s.entries++], sizeof s.journal[0],
                  "worker %d step %d (units drawn: %d)", worker, step, depth);
    s.journalLock.unlock();
}

int workerMain(void* arg) {
    Worker& w = *static_cast<Worker*>(arg);
    qkThread::setInfo(&w.state);
    for (int step = 1; step <= kSteps; ++step) {
        w.shared->section.wait();
        note(*w.shared, w.number, step, w.shared->section.depth());
        w.shared->section.post();
    }
    w.shared->finished.post();
    return 0;
}

// The warnings come through the host's print function (see hostStartup).
void showLockOrder() {
    qkThread::getLockList();  // a host makes the lists at start-up
    {
        qkThread seven(qkThread::Lock7);
        qkThread three(qkThread::Lock3);
        std::printf("  took lock 7, then lock 3: in order, no warning (highest held: %d)\n",
                    qkThread::getMaxLockHeld());
    }
    {
        qkThread three(qkThread::Lock3);
        std::printf("  took lock 3, now taking lock 7:\n");
        qkThread seven(qkThread::Lock7);
    }
    static int counter = 0;  // no mutex of its own: its hash mutex guards it
    qkMutex* guard = qkThread::hashMutex(&counter);
    guard->lock();
    counter += 1;
    guard->unlock();
    std::printf("  counter guarded by hash mutex %d of %d: %d\n",
                static_cast<int>(guard - qkThread::getHashList()), qkThread::kHashCount, counter);
}

}  // namespace

void demoThreads() {
    qkTimer timer;
    std::printf("\n== Threads: qkThread::create, qkSemaphore, qkMutex ==\n");
    static Shared shared;
    static Worker workers[kWorkers];
    for (int i = 0; i < kWorkers; ++i) {
        workers[i].shared = &shared;
        workers[i].number = i + 1;
        if (!qkThread::create(workerMain, &workers[i], 256 * 1024)) {
            std::printf("could not start worker %d\n", i + 1);
            shared.finished.post();
        }
    }
    for (int i = 0; i < kWorkers; ++i)
        shared.finished.wait();

    for (int i = 0; i < shared.entries; ++i)
        std::printf("  %s\n", shared.journal[i]);
    std::printf("  %d journal entries; most workers inside the section at once: %d\n",
                shared.entries, shared.section.maxDepth());

    // The workers have signalled; wait for their threads to be gone.
    int ended = 0;
    for (int tries = 0; tries < 1000 && ended < kWorkers; ++tries) {
        ended = 0;
        for (auto& w : workers)
            ended += qkThread::active(&w.state) == 0;
        if (ended < kWorkers) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::printf("  %d of %d worker threads seen ended\n", ended, kWorkers);

    std::printf("\n== Threads: the global locks of qkThread, hash mutexes, qkTimer ==\n");
    showLockOrder();
    double micros = 0;
    timer.getElapse(micros);
    std::printf("  the threads section took %.0f microseconds\n", micros);
}
