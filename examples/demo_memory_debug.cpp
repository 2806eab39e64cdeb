// Memory debugging: the example host runs in debug mode (two slots a block,
// set at start-up before anything is allocated). A block leaked on purpose
// shows up in the leak report under the function that made it; a dump
// summary counts what is in use.
#include <cstdio>
#include <fstream>
#include <string>

#include "demo.h"
#include "qkMemory.h"

namespace {

// Allocates a record and forgets it.
__attribute__((noinline)) void forgetAnOrderRecord() {
    char* record = new char[240];
    asm volatile("" : : "r"(record) : "memory");
}

// The report's heading and its largest sites, and the line of `site`.
void printReport(std::string const& path, int sites, char const* site) {
    std::ifstream in(path);
    std::string line;
    for (int i = 0; std::getline(in, line); ++i) {
        if (i < sites + 2 || line.find(site) != std::string::npos) {
            std::printf("  %s\n", line.c_str());
        } else if (i == sites + 2) {
            std::printf("  %10s\n", "...");
        }
    }
}

}  // namespace

void demoMemoryDebug() {
    std::printf("\n== Memory debugging: a dump summary and the leak report ==\n");
    size_t bytes = 0, blocks = 0, superblocks = 0;
    std::string dump = "/tmp/qkdemo-dump.txt";
    if (qkMemoryDump(dump.c_str(), &bytes, &blocks, &superblocks, 1, 0)) {
        std::printf("  dump: %zu blocks in use (%zu bytes) in %zu superblocks\n", blocks, bytes,
                    superblocks);
    }
    std::remove(dump.c_str());

    forgetAnOrderRecord();
    std::string report = "/tmp/qkdemo-leaks.txt";
    if (qkMemoryLeakReport(report.c_str())) {
        std::printf("  leak report (the largest sites, and the block leaked on purpose):\n");
        printReport(report, 3, "forgetAnOrderRecord");
    }
    std::remove(report.c_str());
}
