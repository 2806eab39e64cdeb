// Base64 encoding and decoding. Encoding writes two characters per table
// lookup (12 bits at a time); decoding takes four characters at a time
// while they are all in the alphabet and falls back to the character walk
// for blanks, padding and anything else.
#include "qkBase64.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "qkMemory.h"

extern "C" QK_EXPORT char const qkMime64[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {

constexpr unsigned char kNotInAlphabet = 0x80;  // decode64's mark
constexpr unsigned char kInvalid = 65;          // isBase64's mark: never a 6-bit value

// The two characters of every 12-bit value.
constexpr std::array<char, 2 * 4096> makePairs() {
    std::array<char, 2 * 4096> pairs{};
    constexpr char const* a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int v = 0; v < 4096; ++v) {
        pairs[size_t(2 * v)] = a[v >> 6];
        pairs[size_t(2 * v + 1)] = a[v & 63];
    }
    return pairs;
}
constexpr std::array<char, 2 * 4096> kPairs = makePairs();

// Each character's value already shifted into place for its position in a
// group of four; a character outside the alphabet sets bit 31 in all four,
// so one test over the OR of a group finds it.
struct ShiftedTables {
    uint32_t at[4][256];
};
constexpr ShiftedTables makeShifted() {
    ShiftedTables t{};
    constexpr char const* a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int k = 0; k < 4; ++k) {
        for (int c = 0; c < 256; ++c)
            t.at[k][c] = 0x80000000u;
        for (int v = 0; v < 64; ++v)
            t.at[k][static_cast<unsigned char>(a[v])] = uint32_t(v) << (18 - 6 * k);
    }
    return t;
}
constexpr ShiftedTables kShifted = makeShifted();

// A 256-byte table from the memory manager, made on first use (once, by
// whichever thread comes first) and kept for the life of the process.
unsigned char* makeTable(unsigned char fill) {
    auto* t = static_cast<unsigned char*>(qkMalloc(256, __FILE__, __LINE__));
    std::memset(t, fill, 256);
    for (int v = 0; v < 64; ++v)
        t[static_cast<unsigned char>(qkMime64[v])] = uint8_t(v);
    return t;
}

unsigned char const* decodeTable() {
    static unsigned char const* const table = makeTable(kNotInAlphabet);
    return table;
}

unsigned char const* checkTable() {
    static unsigned char const* const table = makeTable(kInvalid);
    return table;
}

bool skipped(char c) {
    return static_cast<signed char>(c) <= 32;
}

}  // namespace

int encode64(char const* in, int n, char* out) {
    if (n <= 0) {
        *out = 0;
        return 0;
    }
    auto const* b = reinterpret_cast<unsigned char const*>(in);
    char* o = out;
    int i = 0;
    for (; i + 3 <= n; i += 3, o += 4) {
        uint32_t v = uint32_t(b[i]) << 16 | uint32_t(b[i + 1]) << 8 | b[i + 2];
        std::memcpy(o, &kPairs[2 * (v >> 12)], 2);
        std::memcpy(o + 2, &kPairs[2 * (v & 0xfff)], 2);
    }
    if (int rest = n - i) {
        uint32_t v = uint32_t(b[i]) << 16 | (rest == 2 ? uint32_t(b[i + 1]) << 8 : 0);
        o[0] = qkMime64[v >> 18];
        o[1] = qkMime64[(v >> 12) & 63];
        o[2] = rest == 2 ? qkMime64[(v >> 6) & 63] : '=';
        o[3] = '=';
        o += 4;
    }
    *o = 0;
    return int(o - out);
}

int decode64(char const* in, size_t n, char* out) {
    unsigned char const* t = decodeTable();
    auto const* b = reinterpret_cast<unsigned char const*>(in);
    auto* o = reinterpret_cast<unsigned char*>(out);
    size_t i = 0;
    int state = 0;
    unsigned p = 0;
    for (;;) {
        // Whole groups of four alphabet characters, from state 0.
        while (state == 0 && i + 4 <= n) {
            uint32_t v = kShifted.at[0][b[i]] | kShifted.at[1][b[i + 1]] |
                         kShifted.at[2][b[i + 2]] | kShifted.at[3][b[i + 3]];
            if (v & 0x80000000u) break;
            o[0] = uint8_t(v >> 16), o[1] = uint8_t(v >> 8), o[2] = uint8_t(v);
            o += 3, i += 4;
        }
        if (i >= n) break;
        char ch = in[i++];
        if (skipped(ch)) continue;
        if (ch == '=') break;
        unsigned v = t[static_cast<unsigned char>(ch)];
        if (v & kNotInAlphabet) v = 0;
        switch (state) {
            case 1:
                *o++ = uint8_t((p << 2) + (v >> 4));
                break;
            case 2:
                *o++ = uint8_t((p << 4) + (v >> 2));
                break;
            case 3:
                *o++ = uint8_t((p << 6) + v);
                break;
            default:
                break;
        }
        state = (state + 1) & 3;
        p = v;
    }
    *o = 0;
    return int(o - reinterpret_cast<unsigned char*>(out));
}

int isBase64(char const* s, size_t n) {
    if (n % 4) return 0;
    if (n == 0) return 1;
    unsigned char const* t = checkTable();
    size_t i = 0;
    for (; i < n; ++i) {
        char c = s[i];
        if (skipped(c)) continue;
        if (c == '=') break;
        if (t[static_cast<unsigned char>(c)] == kInvalid) return 0;
    }
    if (i == n || i == n - 1) return 1;
    return i == n - 2 && s[n - 1] == '=' ? 1 : 0;
}
