// The digit loops of the key texts: numbers written backwards from the end
// of a caller's buffer, without a formatting call.
#pragma once

#include <cstdint>

namespace qk::keys {

// The most hexadecimal digits of a 32-bit number.
constexpr int kHexDigits = 8;
// The most decimal digits of a 32-bit number.
constexpr int kDecimalDigits = 10;

// The lower-case hexadecimal digits of v, ending just before `end`: all 8
// with fixedWidth, else none beyond the last significant one (at least
// one). Returns the first digit.
inline char* writeHex(char* end, uint32_t v, bool fixedWidth) {
    char* p = end;
    int n = 0;
    do {
        *--p = "0123456789abcdef"[v & 15];
        v >>= 4;
    } while (++n < kHexDigits && (v != 0 || fixedWidth));
    return p;
}

// The decimal digits of v, ending just before `end`, zero-padded to at
// least minWidth digits (printf's "%0*u"). Returns the first digit.
inline char* writeDecimal(char* end, uint32_t v, int minWidth) {
    char* p = end;
    int n = 0;
    do {
        *--p = char('0' + v % 10);
        v /= 10;
    } while (++n < minWidth || v != 0);
    return p;
}

// v in decimal with a '-' before a negative number (printf's "%d").
inline char* writeSignedDecimal(char* end, int32_t v) {
    uint32_t magnitude = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
    char* p = writeDecimal(end, magnitude, 1);
    if (v < 0) *--p = '-';
    return p;
}

// The value of a lower-case hexadecimal digit; -1 for any other byte.
inline int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace qk::keys
