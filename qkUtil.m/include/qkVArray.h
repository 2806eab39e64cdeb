// qkVArray_uint8: a byte array of the value model (raw values), its bytes
// held in one block of the memory manager.
#pragma once

#include <cstdint>

#include "qkExport.h"

class QK_EXPORT qkVArray_uint8 {
  public:
    qkVArray_uint8() : data_(nullptr), length_(0) {}
    qkVArray_uint8(qkVArray_uint8 const& other);
    qkVArray_uint8& operator=(qkVArray_uint8 const& other);
    ~qkVArray_uint8();

    // n = 0 frees the bytes; otherwise the block grows or shrinks to n
    // bytes, bytes beyond the old length are zero. A size the memory
    // manager refuses (beyond 2 GiB) leaves the array as it was.
    void resize(uint32_t n);
    uint8_t* data() { return data_; }
    uint8_t const* data() const { return data_; }
    uint32_t length() const { return length_; }
    uint8_t& operator[](uint32_t i) { return data_[i]; }
    uint8_t operator[](uint32_t i) const { return data_[i]; }

  private:
    uint8_t* data_;    // null when empty
    uint32_t length_;  // bytes in use
};
