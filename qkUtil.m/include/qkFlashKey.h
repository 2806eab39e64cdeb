// FlashKey: the compact text key under which the result cache files a
// query or a row. A key is a zero-terminated byte string built by appending
// fields, each an optional one-byte tag followed by text: numbers in
// lower-case hexadecimal, dates in a fixed dotted form, values by their data
// type, and the table's group (with its version) opening the key.
//
// The key is two 64-bit words and keeps its text in one of three forms:
//
//   form     first word   second word          text
//   empty    0            0                    ""
//   inline   not 0        (text bytes 8..15)   the 16 bytes of the object,
//                                              zero-terminated, <= 15 bytes
//   outside  0            the key's buffer     the buffer, zero-terminated
//
// A text of length L lies in at least ((L / 16) + 1) * 16 bytes: the object
// itself while L <= 15, else an outside buffer of exactly that size when
// growth or set() made it (a cut such as SuperSetKey::trim can leave a
// shorter text in a larger buffer). The key stores neither its length nor
// its capacity: the builders take the current length from the caller as a
// cursor (`int& pos`), derive the capacity from it, and advance it by what
// they append. A cursor of 0 starts a new key: the key is emptied first.
// Keeping the cursor equal to the text's length is the caller's duty.
//
// Text is copied unchanged: a key cannot carry a zero byte, and a text that
// holds 0x01 or 0x02 is not told apart from a separator. Buffers come from
// the memory manager; a key belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qkExport.h"

class qkOID;
class qkTable;
class qkValue;
struct qkSQLnull_timestamp;

class QK_EXPORT FlashKey {
  public:
    // The separator tags of the cache keys and of key lists.
    static constexpr char kFieldTag = 0x01;
    static constexpr char kListTag = 0x02;

    FlashKey() : words_{0, 0} {}
    // The other key's text in storage of this key's own.
    FlashKey(FlashKey const& other);
    FlashKey& operator=(FlashKey const& other);
    // Takes the other key's storage; the other key is left empty.
    FlashKey(FlashKey&& other) noexcept;
    FlashKey& operator=(FlashKey&& other) noexcept;
    ~FlashKey() { reset(); }

    // ---- reading ----------------------------------------------------------------
    // The text; "" for an empty key.
    operator char const*() const { return text(); }
    char* head() { return text(); }
    // False exactly for the empty form.
    unsigned char hasKey() const { return (words_[0] | words_[1]) != 0; }

    // ---- whole texts --------------------------------------------------------
    // Releases an outside buffer; the key becomes empty.
    void reset() {
        if (isOutside()) release();
        words_[0] = words_[1] = 0;
    }
    // reset(), then a copy of s: inline below 16 bytes, else in an outside
    // buffer of ((length / 16) + 1) * 16 bytes. Null and "" leave the key
    // empty. s may point into this key's own text.
    void set(char const* s) { set(s, s ? std::strlen(s) : 0); }
    // The same with the n bytes at s (no zero byte among them).
    void set(char const* s, size_t n);

    // ---- appending (pos: the cursor; tag 0 writes no tag) -----------------------
    // The tag, then s (nothing for null).
    void addString(int& pos, char tag, char const* s) {
        if (pos == 0) reset();
        if (tag) appendBytes(pos, &tag, 1);
        if (s) appendBytes(pos, s, std::strlen(s));
    }
    // The tag and value's hexadecimal text: digits of the unsigned 32-bit
    // form, lower case, no leading zeros (0 is "0") unless fixedWidth asks
    // for all 8.
    void addInt(int& pos, char tag, int value, unsigned char fixedWidth);
    // The tag and the date "yyyy.mm.dd.hh.mm.ss" (each field at least that
    // many digits); "@" for a null timestamp.
    void addDate(int& pos, char tag, qkSQLnull_timestamp& t);
    // The tag and v's text by its data type: Int as 8 hexadecimal digits,
    // Date as addDate writes it, String its characters unchanged, every
    // other type its get(qkString&) text.
    void addValue(int& pos, char tag, qkValue& v);
    // The four-byte group text: '@' + group (mod 256), then the base-100
    // digits of version, least significant first, each as ' ' + digit.
    // Appended as a text with no tag, so a zero byte in it ends it.
    void setGroup(int& pos, int group, int version);
    // oid's group field: the four-byte text with the group version of
    // oid's table and partition when the table's versionIndex is 0 or more
    // and oid is distributed; else the byte '@' + group alone, as a tag.
    void setGroup(int& pos, qkOID& oid);

    // ---- numbers ------------------------------------------------------------
    // value's hexadecimal text (as addInt), right-aligned in buf: a zero in
    // buf[size - 1] and the digits before it, as many as fit. Returns the
    // first digit; null when size < 1. Uses nothing of the key.
    static char const* itoa(int value, char* buf, int size, unsigned char fixedWidth);
    // Lower-case hexadecimal digits from the start of s, up to the first
    // other byte (upper case included), accumulated as a 32-bit integer that
    // wraps on overflow; 0 for none.
    static int atoi(char const* s);

    // ---- diagnostics --------------------------------------------------------
    // How many outside buffers the calling thread's keys have allocated or
    // regrown since it started: a key that stays inline adds nothing.
    static uint64_t allocations();

  protected:
    // Appends n bytes of s at pos (no emptying, no tag), growing the buffer
    // when the text crosses a multiple of 16.
    void appendBytes(int& pos, char const* s, size_t n) {
        size_t end = size_t(pos) + n;
        if (end / 16 > size_t(pos) / 16) grow(size_t(pos), end);
        char* t = text();
        std::memcpy(t + pos, s, n);
        t[end] = 0;
        pos = int(end);
    }
    // setGroup(pos, oid) with oid's table already looked up, so that a
    // builder asks the hook once.
    void addGroupField(int& pos, qkTable& table, qkOID& oid);

    // The outside form: the text lives in a buffer of the key's own.
    bool isOutside() const { return words_[0] == 0 && words_[1] != 0; }

  private:
    char* outsideBuffer() const { return reinterpret_cast<char*>(words_[1]); }
    // The storage the text lives in: the buffer in the outside form, the
    // object itself otherwise (whose bytes read "" in the empty form).
    //
    // The empty barrier hides where the pointer came from: seeing that one
    // of its two sources is a 16-byte member, GCC 12 at -O2 was seen to take
    // 15 as the bound of strlen() on the text even when it was outside, and
    // so to miscompile callers (a std::string built from a 21-byte key got a
    // 15-byte buffer).
    char* text() const {
        char* t =
            isOutside() ? outsideBuffer() : reinterpret_cast<char*>(const_cast<uint64_t*>(words_));
        asm("" : "+r"(t));
        return t;
    }
    // Moves the first `pos` bytes into an outside buffer that holds a text
    // of length `end`.
    void grow(size_t pos, size_t end);
    void release();

    // Accessed as bytes through text() (char may alias anything); the two
    // words tell the form apart.
    uint64_t words_[2];
};

static_assert(sizeof(FlashKey) == 16, "a key is two 64-bit words");

// Several texts in one key, separated by the byte 0x02.
class QK_EXPORT FlashKeyList : public FlashKey {
  public:
    // s as the next entry: with the separator when pos is not 0, without it
    // (and emptying the list first) when pos is 0.
    void append(int& pos, char const* s) { addString(pos, pos ? kListTag : 0, s); }
    // The same at the end of the list's text; an empty list is not emptied
    // again.
    void append(char const* s);
    // The entry that starts at pos into `out`, and pos past it and its
    // separator; false at the end of the text (pos and out unchanged). An
    // empty entry between separators is returned as an empty key.
    unsigned char next(int& pos, FlashKey& out);
};

static_assert(sizeof(FlashKeyList) == 16, "a key list adds no data");
