// What the utility fuzz targets share: a broken property ends the process
// with a message and a trap, which libFuzzer and the replaying test alike
// report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace qkfuzz {

[[noreturn]] inline void fail(char const* what) {
    std::fprintf(stderr, "property broken: %s\n", what);
    __builtin_trap();
}

inline void require(bool holds, char const* what) {
    if (!holds) fail(what);
}

}  // namespace qkfuzz

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);
