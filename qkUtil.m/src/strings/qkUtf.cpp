// The Unicode codec: UTF-8, UTF-16 and UTF-32 with U+FFFD for broken input.
#include "strings/qkUtf.h"

namespace qk::utf {

namespace {

// The range allowed for the second byte of a sequence led by `lead`; the
// narrower ranges after E0, ED, F0 and F4 exclude overlong forms, surrogates
// and values above U+10FFFF, so a sequence that passes them is well formed.
void secondByteRange(unsigned char lead, unsigned char& lo, unsigned char& hi) {
    lo = 0x80;
    hi = 0xBF;
    if (lead == 0xE0) lo = 0xA0;
    if (lead == 0xED) hi = 0x9F;
    if (lead == 0xF0) lo = 0x90;
    if (lead == 0xF4) hi = 0x8F;
}

}  // namespace

char32_t decodeUtf8(unsigned char const*& p, unsigned char const* end) {
    unsigned char lead = *p++;
    if (lead < 0x80) return lead;
    int need;  // continuation bytes still to come
    char32_t c;
    if (lead >= 0xC2 && lead <= 0xDF) {
        need = 1;
        c = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        need = 2;
        c = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        need = 3;
        c = lead & 0x07;
    } else {
        return kReplacement;  // a stray continuation byte, C0, C1 or F5..FF
    }
    unsigned char lo, hi;
    secondByteRange(lead, lo, hi);
    // Stop at the first byte that cannot continue the sequence and leave it
    // for the next call: the bytes consumed so far are one ill-formed piece.
    for (int i = 0; i < need; ++i) {
        if (p == end || *p < lo || *p > hi) return kReplacement;
        c = (c << 6) | (*p++ & 0x3F);
        lo = 0x80;
        hi = 0xBF;
    }
    return c;
}

char32_t decodeUtf16(char16_t const*& p) {
    char32_t u = *p++;
    if (u < 0xD800 || u > 0xDFFF) return u;
    if (u >= 0xDC00) return kReplacement;  // a trail surrogate without a lead
    char32_t t = *p;                       // the terminator at worst
    if (t < 0xDC00 || t > 0xDFFF) return kReplacement;
    ++p;
    return 0x10000 + ((u - 0xD800) << 10) + (t - 0xDC00);
}

int encodeUtf8(char32_t c, char* out) {
    if (c < 0x80) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    if (c < 0x800) {
        out[0] = static_cast<char>(0xC0 | (c >> 6));
        out[1] = static_cast<char>(0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (c >> 12));
        out[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (c & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (c >> 18));
    out[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (c & 0x3F));
    return 4;
}

namespace {

// One code point from wide text, advancing past it: a UTF-32 unit is checked,
// UTF-16 may take a surrogate pair.
char32_t next(wchar_t const*& p) {
    return checkUtf32(static_cast<char32_t>(*p++));
}
char32_t next(char16_t const*& p) {
    return decodeUtf16(p);
}

// One code point into wide text: one UTF-32 unit, or one or two UTF-16 units.
void put(wchar_t*& o, char32_t c) {
    *o++ = static_cast<wchar_t>(c);
}
void put(char16_t*& o, char32_t c) {
    if (c >= 0x10000) {
        c -= 0x10000;
        *o++ = static_cast<char16_t>(0xD800 + (c >> 10));
        *o++ = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
        *o++ = static_cast<char16_t>(c);
    }
}

template <class Wide>
size_t utf8SizeOf(Wide const* w) {
    size_t n = 0;
    while (*w)
        n += utf8Length(next(w));
    return n;
}

template <class Wide>
size_t wideToUtf8(Wide const* w, char* out) {
    char* o = out;
    while (*w)
        o += encodeUtf8(next(w), o);
    *o = 0;
    return o - out;
}

template <class Wide>
size_t utf8ToWide(char const* s, size_t n, Wide* out) {
    auto p = reinterpret_cast<unsigned char const*>(s);
    auto end = p + n;
    Wide* o = out;
    while (p < end)
        put(o, decodeUtf8(p, end));
    *o = 0;
    return o - out;
}

}  // namespace

size_t utf8Size(wchar_t const* w) {
    return utf8SizeOf(w);
}
size_t utf8Size(char16_t const* w) {
    return utf8SizeOf(w);
}
size_t toUtf8(wchar_t const* w, char* out) {
    return wideToUtf8(w, out);
}
size_t toUtf8(char16_t const* w, char* out) {
    return wideToUtf8(w, out);
}
size_t fromUtf8(char const* s, size_t n, wchar_t* out) {
    return utf8ToWide(s, n, out);
}
size_t fromUtf8(char const* s, size_t n, char16_t* out) {
    return utf8ToWide(s, n, out);
}

}  // namespace qk::utf
