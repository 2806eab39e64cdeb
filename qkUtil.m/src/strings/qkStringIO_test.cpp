// qkString and streams: line reading with its 2047-byte limit, checked
// against a model of the reads over random inputs, and text output.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "qkString.h"

namespace {

std::string text(qkString const& s) {
    return std::string(s.sanitize(), s.length());
}

// What a sequence of reads gives: each read skips one line feed left by the
// read before it, then takes up to 2047 bytes up to the next line feed.
std::vector<std::string> modelReads(std::string const& in, int reads) {
    std::vector<std::string> out;
    size_t pos = 0;
    for (int r = 0; r < reads && pos < in.size(); ++r) {
        if (in[pos] == '\n') ++pos;
        size_t end = in.find('\n', pos);
        if (end == std::string::npos) end = in.size();
        size_t len = std::min<size_t>(end - pos, 2047);
        out.push_back(in.substr(pos, len));
        pos += len;
        if (len == 0) break;  // an empty line fails the stream
    }
    return out;
}

TEST(qkStringScan, RandomInputsFollowTheModel) {
    std::mt19937 rng(21);
    int const lengths[] = {0, 1, 5, 2046, 2047, 2048, 4094, 4095, 5000};
    for (int round = 0; round < 300; ++round) {
        std::string input;
        int lines = rng() % 5 + 1;
        for (int i = 0; i < lines; ++i) {
            int len = lengths[rng() % 9];
            for (int k = 0; k < len; ++k)
                input += static_cast<char>('a' + rng() % 26);
            if (i + 1 < lines || rng() % 2) input += '\n';
        }
        auto want = modelReads(input, 12);
        std::istringstream in(input);
        qkString shared(std::string(100, '-').c_str());
        qkString s = shared;
        for (size_t r = 0; r < want.size(); ++r) {
            s.scanFrom(in);
            ASSERT_EQ(text(s), want[r]) << "round " << round << " read " << r;
            ASSERT_EQ(text(shared), std::string(100, '-'));  // a fresh copy each time
        }
    }
}

TEST(qkStringPrint, WritesTheTextWithTheStreamsFormatting) {
    std::ostringstream out;
    qkString null, a("abc");
    out << null << "|" << a << "|";
    out.width(6);
    out << a << "|";
    null.printOn(out);
    EXPECT_EQ(out.str(), "|abc|   abc|");
}

}  // namespace
