// Runs a fuzz target without libFuzzer: feeds it every file of the
// directories (or the files) named on the command line, in name order. An
// empty list of inputs is an error, so that a test over a missing directory
// cannot pass.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzCheck.h"

namespace fs = std::filesystem;

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
