// qkUuid: generation, comparison and the text forms.
#include "qkUuid.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "KorSysTS.h"
#include "platform/platform.h"

namespace {

// The node value, asked of the host until it answers with one.
std::atomic<uint32_t> gNode{0};

uint32_t nodeValue() {
    uint32_t node = gNode.load(std::memory_order_relaxed);
    if (node == 0) {
        node = get_ethernet_address();
        gNode.store(node, std::memory_order_relaxed);
    }
    return node;
}

void putBigEndian(unsigned char* at, uint32_t v) {
    at[0] = uint8_t(v >> 24), at[1] = uint8_t(v >> 16), at[2] = uint8_t(v >> 8), at[3] = uint8_t(v);
}

uint32_t getBigEndian(unsigned char const* at) {
    return uint32_t(at[0]) << 24 | uint32_t(at[1]) << 16 | uint32_t(at[2]) << 8 | at[3];
}

// The n bytes as 2n upper-case hexadecimal digits in `out` (2n + 1 bytes).
char const* upperHex(unsigned char const* bytes, int n, char* out) {
    constexpr char kHex[] = "0123456789ABCDEF";
    for (int i = 0; i < n; ++i) {
        out[2 * i] = kHex[bytes[i] >> 4];
        out[2 * i + 1] = kHex[bytes[i] & 15];
    }
    out[2 * n] = 0;
    return out;
}

}  // namespace

int getuuid(void* counter, unsigned char* const uuid) {
    auto& count = *static_cast<int32_t*>(counter);
    int32_t mine = std::atomic_ref<int32_t>(count).fetch_add(1, std::memory_order_relaxed);
    putBigEndian(uuid, nodeValue());
    putBigEndian(uuid + 4, uint32_t(qk::platform::processId()));
    putBigEndian(uuid + 8, uint32_t(qk::platform::unixTime()));
    putBigEndian(uuid + 12, uint32_t(mine) * 2u);
    return 0;
}

unsigned char isAnUuid(qkString const& s) {
    if (s.length() != 32) return 0;
    char const* text = s;
    for (int i = 0; i < 32; ++i) {
        char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return 0;
    }
    return 1;
}

qkUuid::qkUuid(void* counter) {
    getuuid(counter, bytes_);
}

qkUuid::qkUuid(void* counter, int step) {
    getuuid(counter, bytes_);
    std::atomic_ref<int32_t>(*static_cast<int32_t*>(counter))
        .fetch_add(step, std::memory_order_relaxed);
}

qkUuid& qkUuid::operator=(qkUuid const* other) {
    if (other) {
        std::memcpy(bytes_, other->bytes_, 16);
    } else {
        std::memset(bytes_, 0, 16);
    }
    return *this;
}

int qkUuid::operator==(qkUuid const& other) const {
    return std::memcmp(bytes_, other.bytes_, 16) == 0;
}

void qkUuid::get(unsigned char* out) const {
    std::memcpy(out, bytes_, 16);
}

void qkUuid::set(unsigned char const* in) {
    std::memcpy(bytes_, in, 16);
}

void qkUuid::get(qkString& s) const {
    char text[33];
    s = upperHex(bytes_, 16, text);
}

void qkUuid::getHexDec(qkString& hex, int& n) const {
    char text[25];
    hex = upperHex(bytes_, 12, text);
    n = static_cast<int>(getBigEndian(bytes_ + 12));
}

void qkUuid::UUID_to_chaine(char* out) const {
    std::snprintf(out, 36, "%x_%x_%x_%x", getBigEndian(bytes_), getBigEndian(bytes_ + 4),
                  getBigEndian(bytes_ + 8), getBigEndian(bytes_ + 12));
}

void qkUuid::UUID_to_struct(char* out) const {
    char* o = out;
    *o++ = '{';
    for (int i = 0; i < 16; ++i) {
        o += std::snprintf(o, 6, i ? ",0x%x" : "0x%x", bytes_[i]);
    }
    *o++ = '}';
    *o = 0;
}

qkUuid qkUuid::fromHexaUuid(qkString const& s) {
    char const* text = s;
    unsigned length = s.length();
    auto value = [&](unsigned i) {
        char c = i < length ? text[i] : '0';
        return c <= '9' ? c - '0' : c - 55;
    };
    unsigned char bytes[16];
    for (unsigned i = 0; i < 16; ++i) {
        bytes[i] = static_cast<unsigned char>(((value(2 * i) * 16) & 0xff) | value(2 * i + 1));
    }
    return qkUuid(bytes);
}
