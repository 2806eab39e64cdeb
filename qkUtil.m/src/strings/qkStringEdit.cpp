// qkString: appending and the operations that rewrite a text in place.
#include <cctype>
#include <cstdint>

#include "strings/qkStringInternal.h"

using namespace qk::str;

// Appends count pieces in order. A piece may lie inside this string's own
// text (s += s); it is found again by its offset once the text has been made
// private or has moved, since both keep the old text at the same offsets.
void qkString::append(char const* const* texts, unsigned const* lens, int count) {
    unsigned old = length();
    uint64_t n = old;
    for (int i = 0; i < count; ++i)
        n += lens[i];
    if (n > kMaxText) fatal("text too long", n);

    char const* base = sp ? sp->buf : nullptr;
    int64_t offset[3];
    for (int i = 0; i < count; ++i) {
        bool inside = base && texts[i] >= base && texts[i] + lens[i] <= base + old;
        offset[i] = inside ? texts[i] - base : -1;
    }

    update(1);
    if (n >= static_cast<uint64_t>(sp->allocLen)) {
        uint64_t want = n * 3 / 2;
        resize(static_cast<unsigned>(want > kMaxText ? kMaxText : want), 1);
    }
    char* d = sp->text() + old;
    for (int i = 0; i < count; ++i) {
        char const* src = offset[i] >= 0 ? sp->text() + offset[i] : texts[i];
        std::memcpy(d, src, lens[i]);
        d += lens[i];
    }
    *d = 0;
    sp->reqLen = static_cast<int>(n);
}

qkString& qkString::appendChar(char c) {
    appendBytes(&c, 1);
    return *this;
}

void qkString::tooLong(size_t n) {
    fatal("text too long", n);
}

void qkString::cat(char const* a, char const* b, char const* c) {
    char const* in[3] = {a, b, c};
    char const* texts[3];
    unsigned lens[3];
    int count = 0;
    for (char const* t : in) {
        if (!t) continue;
        texts[count] = t;
        lens[count++] = checkedLength(t);
    }
    if (count) append(texts, lens, count);
}

unsigned qkString::makePrivate() {
    unsigned n = length();
    update(1);
    sp->reqLen = static_cast<int>(n);
    return n;
}

void qkString::toUpper() {
    if (!sp) return;
    unsigned n = makePrivate();
    for (unsigned i = 0; i < n; ++i)
        sp->text()[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(sp->text()[i])));
}

void qkString::reverse() {
    unsigned n = makePrivate();
    char* b = sp->buf;
    for (unsigned i = 0, j = n; i + 1 < j; ++i, --j) {
        char t = b[i];
        b[i] = b[j - 1];
        b[j - 1] = t;
    }
}

unsigned char qkString::prepareSQL(qkString& out) const {
    if (!sp) return 0;
    unsigned n = const_cast<qkString*>(this)->makePrivate();
    unsigned char escaped = 0;
    for (unsigned i = 0; i < n; ++i) {
        // Read through sp each time: out may be this very string.
        char c = sp->text()[i];
        char piece[2] = {c, 0};
        unsigned len = 1;
        if (c == '*') {
            piece[0] = '%';
        } else if (c == '?') {
            piece[0] = '_';
        } else if (c == '%' || c == '_') {
            piece[0] = '*';
            piece[1] = c;
            len = 2;
            escaped = 1;
        }
        out.appendBytes(piece, len);
    }
    return escaped;
}
