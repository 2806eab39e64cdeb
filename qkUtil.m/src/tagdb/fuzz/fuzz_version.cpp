// Fuzz target: the input is the version file of a store whose other files
// are sound. A transaction in each mode reads every key, changes a few and
// commits; whatever version the file names, nothing faults, and a commit
// that succeeds leaves a store the check finds sound.
#include "TagdbFuzz.h"

using namespace tagdbfuzz;

namespace {

Setup setup;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setup.keys = 24;
    build(setup.keys, 8, setup.maxEntries);
    setup.pristine = snapshot();
    Bytes version = setup.pristine[kStore];
    writeSeeds({version, {1, 0, 0, 0}, {2, 0, 0, 0}});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    exercise(setup, kStore, data, size, -1);
    return 0;
}
