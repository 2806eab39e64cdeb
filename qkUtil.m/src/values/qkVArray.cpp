// qkVArray_uint8: resizing, copying and freeing the bytes.
#include "qkVArray.h"

#include <cstring>

#include "qkMemory.h"

qkVArray_uint8::qkVArray_uint8(qkVArray_uint8 const& other) : data_(nullptr), length_(0) {
    *this = other;
}

qkVArray_uint8& qkVArray_uint8::operator=(qkVArray_uint8 const& other) {
    if (this == &other) return *this;
    resize(other.length_);
    if (length_) std::memcpy(data_, other.data_, length_);
    return *this;
}

qkVArray_uint8::~qkVArray_uint8() {
    resize(0);
}

void qkVArray_uint8::resize(uint32_t n) {
    if (n == 0) {
        if (data_) qkFree(data_, __FILE__, __LINE__);
        data_ = nullptr;
        length_ = 0;
        return;
    }
    void* p = data_ ? qkRealloc(data_, n, __FILE__, __LINE__) : qkMalloc(n, __FILE__, __LINE__);
    if (!p) return;  // a size the system refuses: the array stays as it was
    data_ = static_cast<uint8_t*>(p);
    if (n > length_) std::memset(data_ + length_, 0, n - length_);
    length_ = n;
}
