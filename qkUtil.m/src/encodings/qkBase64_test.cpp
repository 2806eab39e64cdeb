// Base64: RFC 4648 vectors; random round trips of every length against a
// bit-by-bit encoder, with blanks, line breaks and high bytes strewn into
// the text; every character and padding position through isBase64; the
// decoding tables made by many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qkBase64.h"

namespace {

std::string encoded(std::string const& in) {
    std::string out(4 * ((in.size() + 2) / 3) + 1, '?');
    int n = encode64(in.data(), int(in.size()), out.data());
    EXPECT_EQ(out[size_t(n)], '\0');
    out.resize(size_t(n));
    return out;
}

std::string decoded(std::string const& in) {
    std::string out(3 * in.size() / 4 + 1, '?');
    int n = decode64(in.data(), in.size(), out.data());
    EXPECT_EQ(out[size_t(n)], '\0');
    out.resize(size_t(n));
    return out;
}

// The text taken one bit at a time, six bits a character, "=" to a multiple of 4.
std::string bitwiseEncode(std::string const& in) {
    static char const alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    int bits = 0, value = 0;
    for (unsigned char c : in) {
        for (int b = 7; b >= 0; --b) {
            value = value << 1 | ((c >> b) & 1);
            if (++bits == 6) out += alphabet[value], bits = value = 0;
        }
    }
    if (bits) out += alphabet[value << (6 - bits)];
    while (out.size() % 4)
        out += '=';
    return out;
}

TEST(Base64, RfcVectors) {
    std::pair<char const*, char const*> const vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (auto [plain, text] : vectors) {
        EXPECT_EQ(encoded(plain), text);
        EXPECT_EQ(decoded(text), plain);
        EXPECT_EQ(isBase64(text, std::strlen(text)), 1) << text;
    }
    EXPECT_EQ(std::string(qkMime64),
              "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
    char out[4] = "xyz";
    EXPECT_EQ(encode64("abc", -1, out), 0);
    EXPECT_EQ(out[0], '\0');
}

TEST(Base64, RandomRoundTripsOfEveryLength) {
    std::mt19937 rng(64);
    for (int length = 0; length <= 300; ++length) {
        for (int round = 0; round < 4; ++round) {
            std::string plain(size_t(length), ' ');
            for (char& c : plain)
                c = char(rng());
            std::string text = encoded(plain);
            ASSERT_EQ(text, bitwiseEncode(plain)) << "length " << length;
            ASSERT_EQ(decoded(text), plain);
            ASSERT_EQ(isBase64(text.data(), text.size()), 1);

            // Skipped characters anywhere leave the bytes as they were.
            std::string noisy;
            for (char c : text) {
                while (rng() % 5 == 0)
                    noisy += "\r\n \t\x80\xff"[rng() % 6];
                noisy += c;
            }
            ASSERT_EQ(decoded(noisy), plain) << "length " << length;
        }
    }
}

// Every byte at every position of a valid text: kept when it is in the
// alphabet or skipped, refused otherwise, and "=" only where padding goes.
TEST(Base64, IsBase64OnEveryCharacterAndPaddingPosition) {
    std::string const base = "YWJjZGVm";
    std::string const alphabet = qkMime64;
    for (size_t at = 0; at < base.size(); ++at) {
        for (int c = 0; c < 256; ++c) {
            std::string s = base;
            s[at] = char(c);
            int expected;
            if (alphabet.find(char(c)) != std::string::npos || static_cast<signed char>(c) <= 32) {
                expected = 1;
            } else if (c == '=') {
                expected = at == s.size() - 1;
            } else {
                expected = 0;
            }
            ASSERT_EQ(isBase64(s.data(), s.size()), expected) << "byte " << c << " at " << at;
        }
    }
    EXPECT_EQ(isBase64("YWI=", 4), 1);
    EXPECT_EQ(isBase64("YQ==", 4), 1);
    EXPECT_EQ(isBase64("Y===", 4), 0);
    EXPECT_EQ(isBase64("YW=j", 4), 0);
    EXPECT_EQ(isBase64("YWJ", 3), 0);
    EXPECT_EQ(isBase64("", 0), 1);
    EXPECT_EQ(isBase64("YW\nJj", 5), 0);  // the line break counts towards n
    EXPECT_EQ(isBase64("YW\nJjYQ=", 8), 1);
}

TEST(Base64, DecodeStopsAtPaddingAndReadsStrangersAsA) {
    EXPECT_EQ(decoded("YQ==YWJj"), "a");
    EXPECT_EQ(decoded("YW*j"), decoded("YWAj"));
    EXPECT_EQ(decoded(""), "");
    EXPECT_EQ(decoded("Y"), "");
}

// The decoding tables are made on first use; here many threads make that
// first use together, in a fresh process.
TEST(Base64DeathTest, TablesMadeOnceByManyThreads) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atomic<int> ready{0};
            std::atomic<int> wrong{0};
            std::vector<std::thread> threads;
            for (int t = 0; t < 8; ++t) {
                threads.emplace_back([&, t] {
                    ready.fetch_add(1);
                    while (ready.load() < 8) {
                    }
                    char out[8];
                    if (t % 2 ? isBase64("Zm9v", 4) != 1 : decode64("Zm9v", 4, out) != 3)
                        wrong.fetch_add(1);
                });
            }
            for (auto& t : threads)
                t.join();
            std::exit(wrong.load());
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
