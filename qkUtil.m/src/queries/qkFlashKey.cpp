// FlashKey: storage (the three forms, growth, copies) and the numbers.
#include "qkFlashKey.h"

#include <algorithm>
#include <utility>

#include "qkMemory.h"
#include "qkNumberText.h"

namespace {

// Counted per thread, since keys belong to one thread at a time; only the
// allocating path touches it.
thread_local uint64_t tAllocations = 0;

size_t capacityFor(size_t length) {
    return (length / 16 + 1) * 16;
}

}  // namespace

// The tags are macros because getCaller must run in the function that asks.
#define QK_KEY_ALLOC_TAG static_cast<char const*>(getCaller(16 + allocStackOffset))
#define QK_KEY_FREE_TAG static_cast<char const*>(getCaller(16 + freeStackOffset))

FlashKey::FlashKey(FlashKey const& other) : words_{0, 0} {
    char const* s = other.text();
    set(s, std::strlen(s));
}

FlashKey& FlashKey::operator=(FlashKey const& other) {
    if (this != &other) {
        char const* s = other.text();
        set(s, std::strlen(s));
    }
    return *this;
}

FlashKey::FlashKey(FlashKey&& other) noexcept : words_{other.words_[0], other.words_[1]} {
    other.words_[0] = other.words_[1] = 0;
}

FlashKey& FlashKey::operator=(FlashKey&& other) noexcept {
    if (this != &other) {
        reset();
        std::swap(words_, other.words_);
    }
    return *this;
}

void FlashKey::release() {
    qkFree(outsideBuffer(), QK_KEY_FREE_TAG, __LINE__);
}

// The new storage is filled before the old is let go, so s may lie in it.
void FlashKey::set(char const* s, size_t n) {
    if (n < 16) {
        uint64_t copy[2] = {0, 0};
        if (n) std::memcpy(copy, s, n);
        reset();
        words_[0] = copy[0], words_[1] = copy[1];
        return;
    }
    size_t bytes = capacityFor(n);
    char* buffer = static_cast<char*>(qkMalloc(bytes, QK_KEY_ALLOC_TAG, __LINE__));
    ++tAllocations;
    std::memcpy(buffer, s, n);
    buffer[n] = 0;
    reset();
    words_[1] = reinterpret_cast<uint64_t>(buffer);
}

void FlashKey::grow(size_t pos, size_t end) {
    size_t bytes = capacityFor(end);
    char* buffer;
    if (isOutside()) {
        buffer = static_cast<char*>(qkRealloc(outsideBuffer(), bytes, QK_KEY_ALLOC_TAG, __LINE__));
    } else {
        // From the object itself (or the empty form): pos <= 15 bytes move.
        buffer = static_cast<char*>(qkMalloc(bytes, QK_KEY_ALLOC_TAG, __LINE__));
        std::memcpy(buffer, words_, pos);
        buffer[pos] = 0;
    }
    ++tAllocations;
    words_[0] = 0;
    words_[1] = reinterpret_cast<uint64_t>(buffer);
}

uint64_t FlashKey::allocations() {
    return tAllocations;
}

void FlashKey::addInt(int& pos, char tag, int value, unsigned char fixedWidth) {
    if (pos == 0) reset();
    char digits[1 + qk::keys::kHexDigits];
    char* end = digits + sizeof digits;
    char* first = qk::keys::writeHex(end, static_cast<uint32_t>(value), fixedWidth);
    if (tag) *--first = tag;
    appendBytes(pos, first, size_t(end - first));
}

char const* FlashKey::itoa(int value, char* buf, int size, unsigned char fixedWidth) {
    if (!buf || size < 1) return nullptr;
    char digits[qk::keys::kHexDigits];
    char* end = digits + sizeof digits;
    char* first = qk::keys::writeHex(end, static_cast<uint32_t>(value), fixedWidth);
    size_t n = std::min(size_t(end - first), size_t(size - 1));
    char* out = buf + (size - 1) - n;
    std::memcpy(out, end - n, n);
    buf[size - 1] = 0;
    return out;
}

int FlashKey::atoi(char const* s) {
    uint32_t value = 0;
    for (; s && *s; ++s) {
        int digit = qk::keys::hexDigitValue(*s);
        if (digit < 0) break;
        value = value * 16 + uint32_t(digit);
    }
    return static_cast<int>(value);
}
