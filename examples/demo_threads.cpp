// Threads: workers started with qkThread::create, at most two at a time
// inside the work section (a qkSemaphore), writing to a shared journal under
// a qkMutex; the host waits for all of them and then sees them ended.
#include <chrono>
#include <cstdio>
#include <thread>

#include "demo.h"
#include "qkThread.h"

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

}  // namespace

void demoThreads() {
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
}
