// UUIDs: the layout of a generated identifier, uniqueness over a million ids
// from threads sharing a counter and across two processes started together,
// every text form and its parsing, isAnUuid on mutated texts.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "KorSysTS.h"
#include "qkUuid.h"

namespace {

uint32_t word(qkUuid const& u, int i) {
    unsigned char const* b = u;
    return uint32_t(b[4 * i]) << 24 | uint32_t(b[4 * i + 1]) << 16 | uint32_t(b[4 * i + 2]) << 8 |
           b[4 * i + 3];
}

std::string bytesOf(qkUuid const& u) {
    unsigned char const* b = u;
    return std::string(reinterpret_cast<char const*>(b), 16);
}

TEST(Uuid, GeneratedLayout) {
    int32_t counter = 5;
    qkUuid a(&counter), b(&counter);
    while (word(a, 2) != word(b, 2)) {  // made across a second: again
        counter = 5;
        a = qkUuid(&counter), b = qkUuid(&counter);
    }
    EXPECT_EQ(counter, 7);
    EXPECT_EQ(word(a, 0), get_ethernet_address());
    EXPECT_NE(word(a, 0), 0u);
    EXPECT_EQ(word(a, 1), uint32_t(getpid()));
    EXPECT_NEAR(double(word(a, 2)), double(uint32_t(time(nullptr))), 2.0);
    EXPECT_EQ(word(a, 3), 10u);
    EXPECT_EQ(word(b, 3), 12u);
    EXPECT_TRUE(a != b);

    qkUuid stepped(&counter, 10);  // takes 7, then 1 + 10 more
    EXPECT_EQ(word(stepped, 3), 14u);
    EXPECT_EQ(counter, 18);

    counter = -1;  // twice the counter, wrapping
    EXPECT_EQ(word(qkUuid(&counter), 3), 0xfffffffeu);
    unsigned char raw[16];
    EXPECT_EQ(getuuid(&counter, raw), 0);
    EXPECT_EQ(counter, 1);
}

TEST(Uuid, TextFormsOfKnownBytes) {
    unsigned char bytes[16];
    for (int i = 0; i < 16; ++i)
        bytes[i] = uint8_t(i);
    qkUuid u(bytes);
    qkString text;
    u.get(text);
    EXPECT_STREQ(text, "000102030405060708090A0B0C0D0E0F");
    EXPECT_EQ(isAnUuid(text), 1);
    EXPECT_TRUE(qkUuid::fromHexaUuid(text) == u);
    qkString hex;
    int n = 0;
    u.getHexDec(hex, n);
    EXPECT_STREQ(hex, "000102030405060708090A0B");
    EXPECT_EQ(n, 0x0c0d0e0f);
    char chaine[36], record[82];
    u.UUID_to_chaine(chaine);
    EXPECT_STREQ(chaine, "10203_4050607_8090a0b_c0d0e0f");
    u.UUID_to_struct(record);
    EXPECT_STREQ(record, "{0x0,0x1,0x2,0x3,0x4,0x5,0x6,0x7,0x8,0x9,0xa,0xb,0xc,0xd,0xe,0xf}");

    qkUuid none;
    none = &u;
    EXPECT_TRUE(none == u);
    none = static_cast<qkUuid const*>(nullptr);
    EXPECT_TRUE(none == qkUuid());
}

// Random bytes through every text form and back, against printf.
TEST(Uuid, RandomBytesThroughEveryTextForm) {
    std::mt19937 rng(16);
    for (int round = 0; round < 2000; ++round) {
        unsigned char bytes[16];
        for (auto& b : bytes)
            b = uint8_t(rng());
        if (round == 0) std::memset(bytes, 0xff, 16);  // the longest forms
        qkUuid u(bytes);
        qkString text;
        u.get(text);
        std::string hex, record = "{";
        for (int i = 0; i < 16; ++i) {
            char b[8];
            std::snprintf(b, sizeof b, "%.2X", bytes[i]);
            hex += b;
            std::snprintf(b, sizeof b, "%s0x%x", i ? "," : "", bytes[i]);
            record += b;
        }
        record += "}";
        ASSERT_EQ(std::string(text), hex);
        ASSERT_TRUE(qkUuid::fromHexaUuid(text) == u);
        char chaine[36], expected[36], structure[82];
        u.UUID_to_chaine(chaine);
        std::snprintf(expected, sizeof expected, "%x_%x_%x_%x", word(u, 0), word(u, 1), word(u, 2),
                      word(u, 3));
        ASSERT_STREQ(chaine, expected);
        u.UUID_to_struct(structure);
        ASSERT_EQ(std::string(structure), record);
    }
}

TEST(Uuid, IsAnUuidOnMutatedTexts) {
    std::string const good = "000102030405060708090A0B0C0D0E0F";
    for (size_t at = 0; at < good.size(); ++at) {
        for (int c = 1; c < 256; ++c) {
            std::string s = good;
            s[at] = char(c);
            bool digit = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
            ASSERT_EQ(isAnUuid(qkString(s.c_str())), digit ? 1 : 0) << c << " at " << at;
        }
    }
    EXPECT_EQ(isAnUuid(qkString(good.substr(1).c_str())), 0);
    EXPECT_EQ(isAnUuid(qkString((good + "0").c_str())), 0);
    EXPECT_EQ(isAnUuid(qkString("000102030405060708090a0b0c0d0e0f")), 0);
    EXPECT_EQ(isAnUuid(qkString()), 0);
    // A short text parses with its missing characters as "0".
    EXPECT_TRUE(qkUuid::fromHexaUuid(qkString("FF")) ==
                qkUuid::fromHexaUuid(qkString("FF000000000000000000000000000000")));
}

// A million identifiers from four threads sharing one counter are distinct.
TEST(Uuid, AMillionFromThreadsSharingACounter) {
    int32_t counter = 0;
    constexpr int kThreads = 4, kEach = 250000;
    std::vector<std::vector<std::string>> made(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            made[size_t(t)].reserve(kEach);
            for (int i = 0; i < kEach; ++i)
                made[size_t(t)].push_back(bytesOf(qkUuid(&counter)));
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, kThreads * kEach);
    std::unordered_set<std::string> seen;
    for (auto const& list : made)
        seen.insert(list.begin(), list.end());
    EXPECT_EQ(seen.size(), size_t(kThreads) * kEach);
}

// Two processes started at once, each with its own counter from 0, make
// distinct identifiers: they differ in the process id.
TEST(Uuid, TwoProcessesStartedTogether) {
    constexpr int kEach = 100000;
    int pipes[2][2];
    pid_t children[2];
    for (int c = 0; c < 2; ++c) {
        ASSERT_EQ(pipe(pipes[c]), 0);
        children[c] = fork();
        ASSERT_GE(children[c], 0);
        if (children[c] == 0) {
            close(pipes[c][0]);
            int32_t counter = 0;
            for (int i = 0; i < kEach; ++i) {
                qkUuid u(&counter);
                if (write(pipes[c][1], static_cast<unsigned char const*>(u), 16) != 16) _exit(1);
            }
            _exit(0);
        }
        close(pipes[c][1]);
    }
    std::unordered_set<std::string> seen;
    for (int c = 0; c < 2; ++c) {
        FILE* in = fdopen(pipes[c][0], "rb");
        char b[16];
        int n = 0;
        while (std::fread(b, 1, 16, in) == 16)
            seen.insert(std::string(b, 16)), ++n;
        std::fclose(in);
        int status = 0;
        waitpid(children[c], &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_EQ(n, kEach);
    }
    EXPECT_EQ(seen.size(), size_t(2 * kEach));
}

}  // namespace
