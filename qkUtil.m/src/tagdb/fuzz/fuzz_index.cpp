// Fuzz target: the input is the node index of the store's current version
// (N-x-V), whose other files are sound. A transaction in each mode reads
// every key, changes a few and commits; nothing faults, and a commit that
// succeeds adds no problem the check did not find before it.
#include <string>

#include "TagdbFuzz.h"

using namespace tagdbfuzz;

namespace {

Setup setup;
std::string index;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setup.keys = 24;
    build(setup.keys, 8, setup.maxEntries);
    setup.pristine = snapshot();
    Bytes const& version = setup.pristine[kStore];
    int v = version[0] | version[1] << 8 | version[2] << 16 | version[3] << 24;
    index = std::string(kStore) + "-x-" + std::to_string(v);
    require(setup.pristine.count(index) == 1, "the store has no index");
    writeSeeds({setup.pristine[index]});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    exercise(setup, index, data, size, -1);
    return 0;
}
