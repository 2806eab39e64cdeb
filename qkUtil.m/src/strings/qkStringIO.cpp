// qkString: stream input and output, Unicode conversion and the debugger
// script's field offsets.
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <iostream>
#include <istream>
#include <ostream>

#include "platform/platform_file.h"

#include "strings/qkStringInternal.h"
#include "strings/qkUtf.h"

using namespace qk::str;

// ---- streams ----------------------------------------------------------------

void qkString::printOn(std::ostream& os) const {
    if (sp) os << sp->buf;
}

std::ostream& operator<<(std::ostream& os, qkString const& s) {
    s.printOn(os);
    return os;
}

std::istream& operator>>(std::istream& is, qkString& s) {
    s.scanFrom(is);
    return is;
}

namespace {

// Whether the line feed that an earlier read leaves behind may be looked for
// now. Characters waiting in the stream's buffer can always be looked at.
// With none there, looking means waiting for input: harmless for a file, a
// pipe or a string, where the read that follows would wait for the same
// input, but not for a terminal, where it would take an empty line the user
// types now for the end of the previous one. Standard input synchronised
// with stdio (the default) keeps no buffer of its own, so what is waiting
// there lies in stdin's buffer.
bool lineEndMayWait(std::istream& in) {
    std::streambuf* buf = in.rdbuf();
    if (!buf) return false;
    if (buf->in_avail() > 0) return true;
    if (buf == std::cin.rdbuf()) return !qk::platform::stdinWaitsForTerminal();
    return true;
}

}  // namespace

void qkString::scanFrom(std::istream& in) {
    if (std::ostream* tied = in.tie()) tied->flush();
    // A line feed left waiting by the previous read ends that line, not this
    // one: skip it. Anything else stays for the read below.
    if (in.good() && lineEndMayWait(in) && in.peek() == '\n') in.ignore(1);
    char line[2048];
    line[0] = 0;
    in.get(line, sizeof line);
    // A fresh copy through a temporary, so nothing that shared this string's
    // text sees the new line.
    qkString fresh(line);
    *this = fresh;
}

// ---- Unicode ----------------------------------------------------------------

namespace {

// Replaces s's text by the UTF-8 form of the wide text w, built in a
// temporary block.
template <class Wide>
void assignUtf8(qkString& s, Wide const* w) {
    if (!w || !*w) return;
    size_t n = qk::utf::utf8Size(w);
    if (n > kMaxText) fatal("text too long", n);
    char* tmp = static_cast<char*>(qkMalloc(n + 1, QK_STRING_ALLOC_TAG, __LINE__));
    if (!tmp) fatal("out of memory", n + 1);
    if (qk::utf::toUtf8(w, tmp) > 0) s = tmp;
    qkFree(tmp, QK_STRING_FREE_TAG, __LINE__);
}

// Writes the wide form of s's UTF-8 text into out. head() makes the text
// private first, like every call that hands out the writable text, and is
// null for a null string, which writes nothing.
template <class Wide>
void decodeInto(qkString& s, Wide* out) {
    char const* text = s.head();
    if (text && out) qk::utf::fromUtf8(text, std::strlen(text), out);
}

}  // namespace

void qkString::convertToUTF8FromUnicode(wchar_t const* w) {
    assignUtf8(*this, w);
}

void qkString::convertToUTF8FromUnicode(char16_t const* w) {
    assignUtf8(*this, w);
}

void qkString::convertFromUTF8ToUnicode(wchar_t* out) {
    decodeInto(*this, out);
}

void qkString::convertFromUTF8ToUnicode(char16_t* out) {
    decodeInto(*this, out);
}

char* qkString::convertToLPSTR(wchar_t const* w) {
    if (!w) return nullptr;
    size_t limit = std::wcslen(w) + 1;
    char* out = static_cast<char*>(qkMalloc(limit, QK_STRING_ALLOC_TAG, __LINE__));
    if (!out) return nullptr;
    // One character at a time, so that a character the locale cannot express
    // becomes "?" instead of ending the conversion, and a character that
    // does not fit ends it at a character boundary.
    std::mbstate_t state{};
    char mb[MB_LEN_MAX];
    size_t used = 0;
    for (; *w; ++w) {
        size_t len = std::wcrtomb(mb, *w, &state);
        if (len == static_cast<size_t>(-1)) {
            state = std::mbstate_t{};
            mb[0] = '?';
            len = 1;
        }
        if (used + len > limit - 1) break;
        std::memcpy(out + used, mb, len);
        used += len;
    }
    out[used] = 0;
    return out;
}

// ---- debugger script ----------------------------------------------------------

void qkString::printOffsets(char const* path) {
    FILE* f = std::fopen(path, "a");
    if (!f) {
        std::printf("error opening %s for append\n", path);
        return;
    }
    std::fprintf(f, "set $qkString_sp = 0x%x\n", unsigned(offsetof(qkString, sp)));
    std::fprintf(f, "set $qkString_static = 0x%x\n", unsigned(offsetof(qkString, static_)));
    std::fprintf(f, "set $qkStringRef_reqLen = 0x%x\n", unsigned(offsetof(qkStringRef, reqLen)));
    std::fprintf(f, "set $qkStringRef_allocLen = 0x%x\n",
                 unsigned(offsetof(qkStringRef, allocLen)));
    std::fprintf(f, "set $qkStringRef_refCount = 0x%x\n",
                 unsigned(offsetof(qkStringRef, refCount)));
    std::fprintf(f, "set $qkStringRef_buf = 0x%x\n", unsigned(offsetof(qkStringRef, buf)));
    std::fprintf(f, "set $qkStringRef_thread = 0x%x\n", unsigned(offsetof(qkStringRef, thread)));
    std::fprintf(f, "set $qkStringRef_size = 0x%x\n", unsigned(sizeof(qkStringRef)));
    std::fclose(f);
}
