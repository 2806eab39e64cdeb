// qkUuid: a 16-byte identifier made of four 32-bit numbers, each stored most
// significant byte first: the machine's node value, the process id, the
// time in seconds (low 32 bits) and twice a counter the caller holds. Two
// identifiers made on different machines, by different processes, in
// different seconds or with different counter values differ.
//
// The counter is a 32-bit int of the caller's; each generation takes its
// value and adds 1 to it in one atomic step, so threads that share one
// counter never get the same value (and ids made in one second by one
// process differ as long as its callers share a counter).
#pragma once

#include <cstdint>

#include "qkExport.h"
#include "qkString.h"

class QK_EXPORT qkUuid {
  public:
    qkUuid() = default;  // all zero
    // A new identifier from the counter (an int32_t of the caller's).
    explicit qkUuid(void* counter);
    // The same, then `step` more added to the counter.
    qkUuid(void* counter, int step);
    explicit qkUuid(unsigned char const* bytes) { set(bytes); }
    qkUuid(qkUuid const&) = default;
    // The 16 bytes; all zero from a null pointer.
    qkUuid& operator=(qkUuid const& other) = default;
    qkUuid& operator=(qkUuid const* other);

    int operator==(qkUuid const& other) const;
    int operator!=(qkUuid const& other) const { return !(*this == other); }
    operator unsigned char const*() const { return bytes_; }

    void get(unsigned char* out) const;
    void set(unsigned char const* in);
    // 32 upper-case hexadecimal digits, two per byte in order.
    void get(qkString& s) const;
    // The first 12 bytes as 24 upper-case digits, and the last four as a
    // number, most significant byte first.
    void getHexDec(qkString& hex, int& n) const;
    // The four numbers as "%x_%x_%x_%x" (at most 35 characters and a NUL).
    void UUID_to_chaine(char* out) const;
    // "{0x..,0x..,...}": the 16 bytes as "0x%x" (at most 81 characters and
    // a NUL).
    void UUID_to_struct(char* out) const;
    // The inverse of get(qkString&): the first 32 characters as 16 pairs,
    // high digit first; a character is worth c - '0' up to '9' and c - 55
    // above, unchecked (so lower case gives other bytes). Characters
    // missing from a shorter text read as "0".
    static qkUuid fromHexaUuid(qkString const& s);

    // Kept for the host's start-up code: null, and nothing.
    static void* allocStaticData() { return nullptr; }
    static void freeStaticData(void*) {}

  private:
    unsigned char bytes_[16] = {};
};

static_assert(sizeof(qkUuid) == 16, "an identifier is its 16 bytes");

// Fills uuid's 16 bytes as qkUuid describes and adds 1 to the counter (an
// int32_t of the caller's, updated atomically); returns 0.
QK_EXPORT_C int getuuid(void* counter, unsigned char* const uuid);
// 1 when s is exactly 32 characters of 0-9 and A-F (upper case), else 0.
QK_EXPORT_C unsigned char isAnUuid(qkString const& s);
