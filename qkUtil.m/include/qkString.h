// qkString: the library's byte string, and qkStringRef, its representation.
//
// A qkString is null (no text at all), inline (texts of up to 31 bytes live in
// a 32-byte buffer inside the object) or on the heap (one block from qkMalloc
// holding a qkStringRef header and the text). Null and empty differ: a null
// string reads as "" but has length 0 and size 0 and head() is null.
//
// Ownership and sharing: a heap text is shared by reference count among the
// strings of the thread that made it. Copying such a string on that thread
// costs one count increment; the text is copied only when one of the sharers
// is about to change it (copy on write). Copying from a string whose heap text
// was made by another thread always makes a separate copy, so a reference
// count is only ever changed by the thread that made its text, and counts are
// plain integers.
//
// Thread-safety: a qkString belongs to one thread at a time. Other threads may
// read it meanwhile (length(), the text, copying from it) as long as no thread
// changes it; the one exception is the const operator[] of a null string,
// which turns it into an empty one. A string handed to another thread is
// handed over whole: the giver does not use its copies of that text meanwhile.
//
// Formatting: sprintf/vsprintf run the library's own engine, not the C
// runtime's whole-format printf. It knows the conversions c C d i o u x X e E
// f g G s S p; flags (" #+-"), a width (a leading 0 is part of it) and a
// precision are passed to the C runtime one directive at a time. There are no
// length modifiers, no "*" width and no "%%": any other conversion refuses the
// whole format (result 0, the string keeps its text). "%c" appends the byte
// alone; "%s" of a null pointer appends nothing; "%p" gives 16 upper-case
// hexadecimal digits without "0x". "%S" is a narrow text exactly like "%s".
// A backslash keeps itself and the next byte as literal text. Unless the
// environment variable LANG is "C" (or unset), a byte >= 0x80 is taken as the
// lead byte of a double-byte character and the byte after it is copied with
// it (under LANG "SJIS" the single-byte characters 0xA0..0xDF excepted); with
// a UTF-8 LANG a multi-byte character may therefore hide a "%" or "\" that
// directly follows it. A null format is refused like an unknown conversion.
//
// Unicode: wchar_t is 32 bits on this platform, so the wchar_t forms convert
// between UTF-8 and UTF-32; the char16_t forms convert real UTF-16 (surrogate
// pairs included). Broken input (a lone surrogate, a malformed or truncated
// UTF-8 sequence, a value above U+10FFFF) becomes U+FFFD. The conversion is the
// library's own small codec (src/strings/qkUtf.h), not an operating-system
// service.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "qkExport.h"

// The representation of a qkString's text. Kept inside the qkString object
// (refCount 0, allocLen 32) or as one heap block: the four fields followed by
// allocLen bytes of text.
struct qkStringRef {
    int reqLen;    // length of the text in bytes; -1 when not known (counted on demand)
    int allocLen;  // capacity of buf: allocLen - 1 bytes of text and the terminator
    int refCount;  // 0 inside a qkString; else the number of strings sharing this block
    void* thread;  // qkMutex::id() of the thread that last (re)allocated the heap block
    char buf[32];  // the text, zero-terminated; a heap block has allocLen bytes here

    // The text as a pointer: indexing `buf` itself past 32 reads, to a
    // bounds checker, as leaving the array, though a heap block goes on.
    char* text() { return buf; }
    char const* text() const { return buf; }
};

class QK_EXPORT qkString {
  public:
    // The longest text a string can hold (its capacity must fit an int);
    // longer texts end the process like an allocation failure.
    static constexpr unsigned maxLength = 0x7FFFFFFF - 32;

    // ---- construction and assignment
    qkString() : sp(nullptr) {}
    qkString(char const* s);  // a null s gives a null string
    qkString(qkString const& o);
    ~qkString() { release(); }

    // Shares o's heap text when it was made by the calling thread; copies it
    // otherwise. A null o gives an empty (not null) string.
    qkString& operator=(qkString const& o);
    // A null s makes this a null string; else s's text replaces the current one.
    qkString& operator=(char const* s);

    // ---- reading
    // 0 for a null string; the cached length, counted up to the terminator
    // and stored first when it is unknown.
    unsigned int length() const;
    // The capacity of the text buffer in bytes; 0 for a null string.
    unsigned int size() const { return sp ? sp->allocLen : 0; }
    unsigned int sizeInBytes() const { return size(); }
    // The text; "" for a null string, never null.
    operator char const*() const { return sp ? sp->buf : ""; }
    char const* sanitize() const { return sp ? sp->buf : ""; }
    // The byte at i (i <= length(), not checked); a null string first becomes
    // an empty inline one.
    char operator[](int i) const { return constText()[i]; }
    char operator[](unsigned int i) const { return constText()[i]; }
    // 1 when the text contains "*" or "?", else 0.
    unsigned char hasWild() const;
    // Writes the text with the stream's ordinary text insertion; a null string
    // writes nothing.
    void printOn(std::ostream& os) const;

    // ---- changing (each first makes the text private to this string)
    // The writable text, null for a null string. Its length becomes unknown:
    // the caller may write into it, within size() bytes, terminator included.
    char* head() const;
    char& operator[](int i);
    char& operator[](unsigned int i);
    // Makes room for a text of len bytes and cuts the text at len (bytes
    // between an earlier terminator and len are left as they are). keep = 0
    // lets a shared text go without copying it. Growing gives a capacity of
    // exactly len + 32. Returns 1.
    int resize(unsigned int len, unsigned char keep);
    // Appending; a null text appends nothing and leaves the string as it is.
    // Growing gives a capacity of n * 3 / 2 + 32 for a new length n.
    qkString& operator+=(char c) {
        // Fast path: a private text of known length with room for one more.
        if (isPrivate() && sp->reqLen >= 0 && sp->reqLen + 1 < sp->allocLen) {
            sp->text()[sp->reqLen] = c;
            sp->text()[++sp->reqLen] = 0;
            return *this;
        }
        return appendChar(c);
    }
    qkString& operator+=(char const* s) {
        // Inline so that the length of a literal is known when compiling.
        if (s) appendBytes(s, checkedLength(s));
        return *this;
    }
    void cat(char const* a, char const* b, char const* c);
    // Upper-cases each byte with the C runtime's toupper (current C locale).
    void toUpper();
    // Reverses the bytes of the text.
    void reverse();
    // Appends this text to out as an SQL LIKE pattern: "*" becomes "%", "?"
    // becomes "_", and a literal "%" or "_" is escaped with "*" (the escape
    // character). Returns 1 when something had to be escaped, else 0.
    unsigned char prepareSQL(qkString& out) const;

    // ---- Unicode
    // Replaces the text by the UTF-8 form of the zero-terminated wide text w
    // (UTF-32 for wchar_t, UTF-16 for char16_t); a null or empty w changes
    // nothing.
    void convertToUTF8FromUnicode(wchar_t const* w);
    void convertToUTF8FromUnicode(char16_t const* w);
    // Writes the wide form of this UTF-8 text (up to its first zero byte),
    // terminator included, into out. length() + 1 units always suffice. A null
    // string writes nothing.
    void convertFromUTF8ToUnicode(wchar_t* out);
    void convertFromUTF8ToUnicode(char16_t* out);
    // A new block (qkMalloc; release it with qkFree) of wcslen(w) + 1 bytes
    // holding w in the current C locale's multibyte form, cut at a character
    // boundary when it does not fit; characters the locale cannot express
    // become "?". Null for a null w.
    static char* convertToLPSTR(wchar_t const* w);

    // ---- stream input
    // Reads one line of at most 2047 bytes (the line feed is left in the
    // stream and skipped by the next call; the rest of a longer line is read
    // by the next call). Like istream::get, an empty line sets the stream's
    // failbit; the string is then empty.
    void scanFrom(std::istream& in);

    // ---- formatting (see above)
    int sprintf(char const* format, ...);
    int vsprintf(char const* format, va_list ap);

    // Appends the field offsets of qkString and qkStringRef to the debugger
    // script at path.
    static void printOffsets(char const* path);

  protected:
    void init();
    void update(unsigned char keep);
    void release();

  private:
    friend struct qkStringFormatter;
    bool onHeap() const { return sp != nullptr && sp != &static_; }
    char const* constText() const;
    void grow(unsigned int len);
    // Only this string may write its text: inline, or a heap block it alone holds.
    bool isPrivate() const { return sp && (sp == &static_ || sp->refCount == 1); }
    // Makes the text private (a null string becomes an empty one) and keeps
    // its length known; returns that length.
    unsigned makePrivate();
    void append(char const* const* texts, unsigned const* lens, int count);
    // Appends len bytes. A private text of known length with room takes them
    // at once, which is what the general path comes to in that case; the
    // bytes may come from inside this very text (hence memmove).
    void appendBytes(char const* text, unsigned len) {
        if (isPrivate() && sp->reqLen >= 0 &&
            static_cast<unsigned>(sp->reqLen) + uint64_t{len} <
                static_cast<unsigned>(sp->allocLen)) {
            __builtin_memmove(sp->text() + sp->reqLen, text, len);
            sp->reqLen += static_cast<int>(len);
            sp->text()[sp->reqLen] = 0;
            return;
        }
        append(&text, &len, 1);
    }
    qkString& appendChar(char c);
    static unsigned checkedLength(char const* s) {
        size_t n = __builtin_strlen(s);
        if (n > maxLength) tooLong(n);
        return static_cast<unsigned>(n);
    }
    [[noreturn]] static void tooLong(size_t n);
    void assignBytes(char const* text, unsigned len);

    qkStringRef* sp;      // null, &static_, or a heap block
    qkStringRef static_;  // the inline representation
};

QK_EXPORT std::ostream& operator<<(std::ostream& os, qkString const& s);
QK_EXPORT std::istream& operator>>(std::istream& is, qkString& s);
