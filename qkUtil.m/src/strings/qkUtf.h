// The library's Unicode codec: UTF-8 to and from UTF-32 and UTF-16.
//
// A small codec of its own rather than an operating-system service: it is
// pure computation, and keeping it here gives the same results on every
// platform and C library. Decoding never fails and never reads past the end
// it is given: every ill-formed piece of input becomes U+FFFD. For UTF-8 that
// is one U+FFFD per maximal ill-formed subpart (a lead byte followed by the
// continuation bytes that could still belong to it), the practice the Unicode
// standard recommends; for UTF-16 a lone surrogate; for UTF-32 a surrogate or a
// value above U+10FFFF.
//
// Thread-safety: stateless functions, callable from any thread.
#pragma once

#include <cstddef>

namespace qk::utf {

constexpr char32_t kReplacement = 0xFFFD;

// Reads one code point from [p, end) (p < end) and advances p past it.
char32_t decodeUtf8(unsigned char const*& p, unsigned char const* end);
// Reads one code point from the zero-terminated UTF-16 text at p (not at its
// terminator) and advances p past it.
char32_t decodeUtf16(char16_t const*& p);
// A UTF-32 unit as a code point: surrogates and values above U+10FFFF give
// U+FFFD.
inline char32_t checkUtf32(char32_t c) {
    return (c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF ? kReplacement : c;
}

// Writes the UTF-8 form of the code point c (a valid scalar value) to out and
// returns its length, 1 to 4 bytes.
int encodeUtf8(char32_t c, char* out);
// The UTF-8 length of the code point c.
inline int utf8Length(char32_t c) {
    return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
}

// Zero-terminated wide text (UTF-32 in wchar_t, UTF-16 in char16_t) to UTF-8.
// utf8Size gives the bytes needed without the terminator; toUtf8 writes them
// and a terminator into out (utf8Size + 1 bytes) and returns the byte count.
size_t utf8Size(wchar_t const* w);
size_t utf8Size(char16_t const* w);
size_t toUtf8(wchar_t const* w, char* out);
size_t toUtf8(char16_t const* w, char* out);

// The n bytes at s (UTF-8) to wide text with a terminator. Each byte gives at
// most one unit, so n + 1 units always suffice. Returns the units written
// without the terminator.
size_t fromUtf8(char const* s, size_t n, wchar_t* out);
size_t fromUtf8(char const* s, size_t n, char16_t* out);

}  // namespace qk::utf
