// Allocator workloads. Built twice: bench_malloc calls malloc/free and is run
// once per allocator under LD_PRELOAD (none: glibc; jemalloc, mimalloc,
// tcmalloc, and the memory manager's own shim); bench_qkmalloc calls
// qkMalloc/qkFree directly with the manager created at start.
//
// Every workload reports items per second; one item is one allocation and
// its release.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#ifdef QK_DIRECT
#include "qkMemory.h"
static inline void* allocate(size_t size) {
    return qkMalloc(size, nullptr, 0);
}
static inline void release(void* p) {
    qkFree(p, nullptr, 0);
}
#else
static inline void* allocate(size_t size) {
    return std::malloc(size);
}
static inline void release(void* p) {
    std::free(p);
}
#endif

namespace {

// Touches a block the way a caller would: its first and last byte.
inline void touch(void* p, size_t size) {
    static_cast<char*>(p)[0] = 1;
    static_cast<char*>(p)[size ? size - 1 : 0] = 2;
}

std::vector<size_t> randomSizes(size_t count, size_t low, size_t high, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> pick(low, high);
    std::vector<size_t> sizes(count);
    for (auto& s : sizes)
        s = pick(rng);
    return sizes;
}

// One thread, malloc/free pairs over 16..512 bytes.
void Pairs(benchmark::State& state) {
    size_t size = 16;
    for (auto _ : state) {
        void* p = allocate(size);
        benchmark::DoNotOptimize(p);
        touch(p, size);
        release(p);
        size = size == 512 ? 16 : size + 16;
    }
    state.SetItemsProcessed(state.iterations());
}

// Batches of 10,000 random sizes (16..512), freed in random order. Run on
// one thread and on two threads that each do the same.
void Batch(benchmark::State& state) {
    constexpr size_t kBatch = 10000;
    auto sizes = randomSizes(kBatch, 16, 512, 11 + state.thread_index());
    std::vector<size_t> order(kBatch);
    for (size_t i = 0; i < kBatch; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(3 + state.thread_index()));
    std::vector<void*> blocks(kBatch);
    for (auto _ : state) {
        for (size_t i = 0; i < kBatch; ++i) {
            blocks[i] = allocate(sizes[i]);
            touch(blocks[i], sizes[i]);
        }
        for (size_t i : order)
            release(blocks[i]);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// Producer/consumer: thread 0 allocates, thread 1 frees every block, through
// a single-producer single-consumer ring.
struct Ring {
    static constexpr size_t kSize = 4096;
    alignas(64) std::atomic<size_t> head{0};
    alignas(64) std::atomic<size_t> tail{0};
    void* slots[kSize];
};
Ring ring;

void ProducerConsumer(benchmark::State& state) {
    constexpr size_t kPerIteration = 1000;
    auto sizes = randomSizes(kPerIteration, 16, 512, 5);
    if (state.thread_index() == 0) {
        for (auto _ : state) {
            for (size_t i = 0; i < kPerIteration; ++i) {
                void* p = allocate(sizes[i]);
                touch(p, sizes[i]);
                size_t h = ring.head.load(std::memory_order_relaxed);
                while (h - ring.tail.load(std::memory_order_acquire) == Ring::kSize)
                    std::this_thread::yield();
                ring.slots[h % Ring::kSize] = p;
                ring.head.store(h + 1, std::memory_order_release);
            }
        }
    } else {
        for (auto _ : state) {
            for (size_t i = 0; i < kPerIteration; ++i) {
                size_t t = ring.tail.load(std::memory_order_relaxed);
                while (ring.head.load(std::memory_order_acquire) == t)
                    std::this_thread::yield();
                release(ring.slots[t % Ring::kSize]);
                ring.tail.store(t + 1, std::memory_order_release);
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kPerIteration);
}

// Larson-style: each thread replaces random blocks of its array of live
// blocks, and after each round swaps its whole array with the shared one, so
// it goes on freeing blocks that another thread allocated.
std::atomic<std::vector<void*>*> shared{nullptr};

void Larson(benchmark::State& state) {
    constexpr size_t kSlots = 1000, kPerRound = 1000;
    auto sizes = randomSizes(kPerRound, 16, 512, 9 + state.thread_index());
    std::mt19937 rng(17 + state.thread_index());
    std::vector<size_t> picks(kPerRound);
    for (auto& p : picks)
        p = rng() % kSlots;
    auto* mine = new std::vector<void*>(kSlots);
    for (auto& p : *mine)
        p = allocate(64);
    if (state.thread_index() == 0) {
        // The other threads wait at the start of the timed loop meanwhile.
        auto* spare = new std::vector<void*>(kSlots);
        for (auto& p : *spare)
            p = allocate(64);
        if (auto* left = shared.exchange(spare)) {  // from the previous run
            for (void* p : *left)
                release(p);
            delete left;
        }
    }
    for (auto _ : state) {
        for (size_t i = 0; i < kPerRound; ++i) {
            void*& slot = (*mine)[picks[i]];
            release(slot);
            slot = allocate(sizes[i]);
            touch(slot, sizes[i]);
        }
        std::vector<void*>* other;
        while (!(other = shared.exchange(nullptr)))
            std::this_thread::yield();
        shared.store(mine);
        mine = other;
    }
    for (void* p : *mine)
        release(p);
    delete mine;
    state.SetItemsProcessed(state.iterations() * kPerRound);
}

// Large blocks, 1 KiB..64 KiB, with a window of 16 live blocks.
void Large(benchmark::State& state) {
    constexpr size_t kWindow = 16, kSizes = 4096;
    auto sizes = randomSizes(kSizes, 1024, 65536, 21);
    void* window[kWindow] = {};
    size_t i = 0;
    for (auto _ : state) {
        size_t slot = i % kWindow;
        if (window[slot]) release(window[slot]);
        window[slot] = allocate(sizes[i % kSizes]);
        touch(window[slot], sizes[i % kSizes]);
        ++i;
    }
    for (void* p : window)
        if (p) release(p);
    state.SetItemsProcessed(state.iterations());
}

// No allocation at all: how much parallelism the machine gave this run. Its
// two-thread throughput against one thread is the ceiling for the others.
void Control(benchmark::State& state) {
    constexpr size_t kBatch = 10000;
    uint64_t x = 88172645463325252ull + state.thread_index();
    for (auto _ : state) {
        for (size_t i = 0; i < kBatch; ++i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
        }
        benchmark::DoNotOptimize(x);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// Brings every allocator to its steady state before anything is measured:
// enough small requests for the memory manager to finish tuning its buckets
// (200,000 + 400,000 + ... + 25,600,000 requests). QK_BENCH_WARMUP=0 skips
// it, to measure the tuning phase instead.
void warmUp() {
    char const* setting = std::getenv("QK_BENCH_WARMUP");
    if (setting && std::strcmp(setting, "0") == 0) return;
    for (long i = 0; i < 52000000; ++i) {
        void* p = allocate(static_cast<size_t>(1 + i % 512));
        benchmark::DoNotOptimize(p);
        release(p);
    }
}

// The spare array of the larson workload, released like everything else.
void releaseShared() {
    if (auto* last = shared.exchange(nullptr)) {
        for (void* p : *last)
            release(p);
        delete last;
    }
}

// Prints the process's peak resident memory (the high-water mark of its own
// address space; a parent's rusage would include what the process inherited
// before exec) for bench/run_memory_bench.py.
void reportPeak() {
    releaseShared();
    FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return;
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, status))
        if (std::sscanf(line, "VmHWM: %ld", &kib) == 1) break;
    std::fclose(status);
    std::fprintf(stderr, "peak_resident_kib %ld\n", kib);
#ifdef QK_DIRECT
    // What the manager holds from the C runtime at the end (superblocks and
    // large blocks, and their bytes), and how many superblocks of it are kept.
    MEMORY_STATS held = qkMemory::loadStats(qkMemory::getSystemStats());
    MEMORY_STATS kept = qkMemory::loadStats(qkMemory::getKeepStats());
    std::fprintf(stderr, "system_blocks %lld system_bytes %lld keep_blocks %lld\n",
                 static_cast<long long>(held.count), static_cast<long long>(held.bytes),
                 static_cast<long long>(kept.count));
#endif
}

// Before main: the manager made (direct build) and every allocator brought
// to its steady state.
bool const ready = [] {
#ifdef QK_DIRECT
    qkMemory::setPassthru(0, nullptr);
#ifdef QK_DEBUG_SLOTS
    qkMemory::setDebug(1, QK_DEBUG_SLOTS);  // before the first allocation
#endif
#endif
    warmUp();
    std::atexit(reportPeak);
    return true;
}();

}  // namespace

BENCHMARK(Pairs);
BENCHMARK(Batch)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(ProducerConsumer)->Threads(2)->UseRealTime();
BENCHMARK(Larson)->Threads(2)->UseRealTime();
BENCHMARK(Large);
BENCHMARK(Control)->Threads(1)->Threads(2)->UseRealTime();

BENCHMARK_MAIN();
