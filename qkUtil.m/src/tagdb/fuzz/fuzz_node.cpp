// Fuzz target: the input replaces one node file of a store of three levels
// with nodes of four entries; its first byte chooses which (by the order of
// the files' names), the rest is the file. A transaction in each mode reads
// every key, walks the store, changes a few keys and commits. A damaged
// node is refused where it is read and never built upon: after a commit
// that succeeds the check finds no problem it did not find before, except
// in the damaged node itself.
#include <string>
#include <vector>

#include "TagdbFuzz.h"

using namespace tagdbfuzz;

namespace {

Setup setup;
std::vector<std::pair<std::string, long long>> nodes;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setup.keys = 24;
    build(setup.keys, 8, setup.maxEntries);
    setup.pristine = snapshot();
    for (auto const& [name, id] : nodeFiles(setup.pristine))
        nodes.emplace_back(name, id);
    require(!nodes.empty() && nodes.size() < 256, "the store has no node files to damage");
    std::vector<Bytes> seeds;
    for (size_t i = 0; i < nodes.size(); ++i) {
        Bytes seed = setup.pristine[nodes[i].first];
        seed.insert(seed.begin(), static_cast<unsigned char>(i));
        seeds.push_back(seed);
    }
    writeSeeds(seeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    if (size < 1) return 0;
    auto const& [name, id] = nodes[data[0] % nodes.size()];
    exercise(setup, name, data + 1, size - 1, id);
    return 0;
}
