// qkString and streams: line reading with its 2047-byte limit, checked
// against a model of the reads over random inputs, and text output.
#include <gtest/gtest.h>

#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "StringTestSupport.h"

namespace {

// What a sequence of reads gives: each read skips one line feed left by the
// read before it, then takes up to 2047 bytes up to the next line feed.
std::vector<std::string> modelReads(std::string const& in) {
    std::vector<std::string> out;
    for (size_t pos = 0; pos < in.size();) {
        if (in[pos] == '\n') ++pos;
        size_t len = std::min<size_t>(std::min(in.find('\n', pos), in.size()) - pos, 2047);
        out.push_back(in.substr(pos, len));
        pos += len;
        if (len == 0) break;  // an empty line fails the stream
    }
    return out;
}

TEST(qkStringStreams, ReadsFollowTheModel) {
    std::mt19937 rng(21);
    int const lengths[] = {0, 1, 5, 2046, 2047, 2048, 4094, 4095, 5000};
    for (int round = 0; round < 300; ++round) {
        std::string input;
        for (int lines = rng() % 5 + 1; lines > 0; --lines) {
            input += std::string(lengths[rng() % 9], char('a' + rng() % 26));
            if (lines > 1 || rng() % 2) input += '\n';
        }
        std::istringstream in(input);
        qkString shared(std::string(100, '-').c_str());
        qkString s = shared;
        for (std::string const& want : modelReads(input)) {
            in >> s;
            ASSERT_EQ(text(s), want) << "round " << round;
            ASSERT_EQ(text(shared), std::string(100, '-'));  // a fresh copy each time
        }
    }
    // Output is the stream's ordinary text insertion; a null string writes nothing.
    std::ostringstream out;
    qkString null, a("abc");
    out << null << "|" << a << "|" << std::setw(6) << a << "|";
    null.printOn(out);
    EXPECT_EQ(out.str(), "|abc|   abc|");
}

}  // namespace
