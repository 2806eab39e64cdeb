// A program for the debugger check of the dump's command form: in debug
// mode it leaks blocks from one known function, writes the dump's "x/i"
// commands and the offset lines to the files named on its command line, and
// stops itself with SIGTRAP (unless QK_NO_TRAP is set) for the debugger that
// runs it to read them against the live process. QK_MEMORY_REPORT then gets
// the leak report at exit.
#include <csignal>
#include <cstdlib>

#include "qkMemory.h"

__attribute__((noipa)) void* gdbSiteOne(unsigned n) {
    void* p = qkMalloc(n, static_cast<char const*>(getCaller(16)), __LINE__);
    asm volatile("" : : "r"(p) : "memory");
    return p;
}

int main(int argc, char** argv) {
    qkMemory::setPassthru(0, nullptr);
    qkMemory::setDebug(1, 2);
    if (argc < 3) return 2;
    for (int i = 0; i < 4; ++i)
        gdbSiteOne(200);  // leaked on purpose
    size_t bytes = 0, blocks = 0, superblocks = 0;
    if (!qkMemoryDump(argv[1], &bytes, &blocks, &superblocks, 1, 1)) return 3;
    qkMemory::printOffsets(argv[2]);
    if (!std::getenv("QK_NO_TRAP")) std::raise(SIGTRAP);
    return 0;
}
