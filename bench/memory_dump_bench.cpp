// The dump of a heap of 100,000 blocks in use (in debug mode, two slots a
// block): the listing, the summary and the debugger-command form, each to a
// file on /dev/shm (or the temporary directory), and the leak report.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "qkMemory.h"

namespace {

std::string scratch(char const* name) {
    FILE* probe = std::fopen("/dev/shm/.qk-probe", "w");
    std::string dir = probe ? "/dev/shm/" : "/tmp/";
    if (probe) std::fclose(probe), std::remove("/dev/shm/.qk-probe");
    return dir + name;
}

std::vector<void*>& heap() {
    static std::vector<void*> blocks = [] {
        std::vector<void*> b;
        b.reserve(100000);
        for (int i = 0; i < 100000; ++i)
            b.push_back(qkMalloc(16 + size_t(i % 16) * 24, "bench", 0));
        return b;
    }();
    return blocks;
}

void Dump(benchmark::State& state) {
    heap();
    std::string path = scratch("qk-dump-bench.txt");
    auto summary = static_cast<unsigned char>(state.range(0) >= 1);
    auto script = static_cast<unsigned char>(state.range(0) == 2);
    size_t blocks = 0;
    for (auto _ : state) {
        size_t bytes = 0, superblocks = 0;
        qkMemoryDump(path.c_str(), &bytes, &blocks, &superblocks, summary, script);
    }
    state.counters["blocks"] = double(blocks);
    std::remove(path.c_str());
}

void LeakReport(benchmark::State& state) {
    heap();
    std::string path = scratch("qk-leaks-bench.txt");
    for (auto _ : state)
        qkMemoryLeakReport(path.c_str());
    std::remove(path.c_str());
}

// 0: the listing with hex lines; 1: the summary; 2: the debugger commands.
BENCHMARK(Dump)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(LeakReport)->Unit(benchmark::kMillisecond);

// The manager in debug mode before anything is allocated through it (what
// the benchmark's registrations allocated came from the C runtime).
struct DebugManager {
    DebugManager() {
        qkMemory::setPassthru(0, nullptr);
        qkMemory::setDebug(1, 2);
    }
} const debugManager;

}  // namespace

BENCHMARK_MAIN();
