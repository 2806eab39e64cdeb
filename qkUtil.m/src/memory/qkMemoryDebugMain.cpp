// main() of the debug-mode tests: the manager is made and put in debug mode
// (three slots a block) before anything is allocated, as a host does.
#include <gtest/gtest.h>

#include "qkMemory.h"

int main(int argc, char** argv) {
    qkMemory::setPassthru(0, nullptr);
    qkMemory::setDebug(1, 3);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
