// Memory: the host creates the memory manager, sets a thread limit, and four
// workers allocate a burst of blocks of mixed sizes, handing half of them to
// each other to free. Afterwards the host reads the statistics: what the
// process holds from the C runtime, what sits in the keep pool, and what is
// charged to each worker's heap.
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "demo.h"
#include "qkMemory.h"

namespace {

constexpr int kWorkers = 4;
constexpr int kBlocks = 20000;

void printStats(char const* what, MEMORY_STATS const* stats) {
    MEMORY_STATS s = qkMemory::loadStats(stats);
    std::printf("  %-26s %6lld blocks %10lld bytes (high-water %lld)\n", what, s.count, s.bytes,
                s.highwater);
}

void limitHandler(qkMemoryErrorId id) {
    std::printf("  handler: %s limit crossed\n",
                id == QK_MEMORY_SYSTEM_LIMIT ? "system" : "thread");
}

// The library's warnings, indented like the rest of the demo's output.
void printWarning(char const* line) {
    std::printf("  warning: %s", line);
}

// Blocks handed from one worker to the next, which frees them.
struct Mailbox {
    std::atomic<void**> slots[kWorkers];
};

void burst(int worker, Mailbox& mail, MEMORY_STATS& mine) {
    void** outgoing =
        static_cast<void**>(qkMalloc(sizeof(void*) * kBlocks / 2, __FILE__, __LINE__));
    std::vector<void*> kept;
    unsigned seed = 17u * static_cast<unsigned>(worker + 1);
    for (int i = 0; i < kBlocks; ++i) {
        seed = seed * 1103515245u + 12345u;
        size_t size = (seed >> 16) % 100 < 95 ? (seed >> 8) % 513 : 1000 + (seed >> 4) % 30000;
        void* p = qkMalloc(size, __FILE__, __LINE__);
        if (i % 2) {
            outgoing[i / 2] = p;
        } else {
            kept.push_back(p);
        }
    }
    mail.slots[(worker + 1) % kWorkers].store(outgoing);
    // Free half of our own, then the neighbour's blocks once they arrive.
    for (size_t i = 0; i < kept.size(); i += 2)
        qkFree(kept[i], __FILE__, __LINE__);
    void** incoming;
    while (!(incoming = mail.slots[worker].load()))
        std::this_thread::yield();
    for (int i = 0; i < kBlocks / 2; ++i)
        qkFree(incoming[i], __FILE__, __LINE__);
    qkFree(incoming, __FILE__, __LINE__);
    mine = qkMemory::loadStats(qkMemory::getThreadStats());
    for (size_t i = 1; i < kept.size(); i += 2)
        qkFree(kept[i], __FILE__, __LINE__);
}

}  // namespace

// The host's start-up: create the memory manager before anything else
// allocates, so that every later section runs on it, and route the library's
// warnings through the host's print function.
void hostStartup() {
    qkMemory::setPassthru(0, limitHandler);
    // Debug mode comes before the first allocation: it changes the layout.
    qkMemory::setDebug(1, 2);
    qkMemory::setPrintFunction(printWarning);
}

void demoMemory() {
    std::printf("\n== Memory: qkMemory, qkMalloc/qkFree on four threads ==\n");
    qkMemory::setThreadLimit(16u << 20);  // each worker crosses it once
    Mailbox mail{};
    MEMORY_STATS perWorker[kWorkers];
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w)
        workers.emplace_back(burst, w, std::ref(mail), std::ref(perWorker[w]));
    for (auto& t : workers)
        t.join();

    std::printf("  after the burst (%d blocks per worker, half freed by a neighbour):\n", kBlocks);
    for (int w = 0; w < kWorkers; ++w) {
        std::printf(
            "  worker %d heap before its last frees: %lld superblocks+large blocks, "
            "%lld bytes (high-water %lld)\n",
            w + 1, perWorker[w].count, perWorker[w].bytes, perWorker[w].highwater);
    }
    printStats("system (from the C runtime)", qkMemory::getSystemStats());
    printStats("keep pool", qkMemory::getKeepStats());
    printStats("this thread", qkMemory::getThreadStats());
    std::printf("  buckets in use: %d\n", qkMemory::getManager()->buckets);
    qkMemory::setThreadLimit(0);
}
