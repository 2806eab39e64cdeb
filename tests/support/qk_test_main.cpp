// main() of every test program: the host's start-up, then GoogleTest.
//
// Like the host, it creates the memory manager first, so that every test runs
// on it; with QK_TEST_PASSTHRU=1 the process stays on the C runtime's heap.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "qkMemory.h"

int main(int argc, char** argv) {
    char const* passthru = std::getenv("QK_TEST_PASSTHRU");
    if (!passthru || std::strcmp(passthru, "1") != 0) qkMemory::setPassthru(0, nullptr);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
