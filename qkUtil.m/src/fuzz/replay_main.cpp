// Runs a fuzz target without libFuzzer: feeds it every file of the
// directories (or the files) named on the command line, in name order,
// after the target's own start-up when it has one. A broken property ends
// the process; an empty list of inputs is an error, so that a test over a
// missing directory cannot pass. Shared by every fuzz target of the tree.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzCheck.h"

namespace fs = std::filesystem;

// The start-up a target may define; null when it defines none.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_directory(argv[i])) {
            for (auto const& e : fs::directory_iterator(argv[i]))
                if (e.is_regular_file()) inputs.push_back(e.path());
        } else if (fs::is_regular_file(argv[i])) {
            inputs.emplace_back(argv[i]);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 1;
    }
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    for (fs::path const& p : inputs) {
        std::ifstream in(p, std::ios::binary);
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
        std::printf("%s\n", p.filename().c_str());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
