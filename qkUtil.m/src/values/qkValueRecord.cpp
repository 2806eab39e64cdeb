// The binary record of a scalar value: writeObject and readObject.
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#include "qkMemory.h"
#include "qkScalarValues.h"
#include "qkTimebase.h"

static_assert(std::endian::native == std::endian::little,
              "records hold doubles and timestamps as their little-endian memory image");

namespace {

constexpr uint8_t kNumberBytes = 0x40;  // flags byte: number bytes follow
constexpr uint8_t kNegative = 0x80;     // flags byte: the number is negative
constexpr int kDateBytes = 24;
constexpr int kDoubleBytes = 8;

// A record's header and number bytes (at most 2 + 4).
struct Header {
    uint8_t bytes[6];
    int size;
};

// The type byte with N, the flags byte with bits 6 and 7, and the magnitude
// of `number` in the fewest bytes when it is above 15.
Header encodeNumber(int type, uint8_t flags, int number) {
    Header h{};
    uint32_t magnitude = number < 0 ? 0u - static_cast<uint32_t>(number) : uint32_t(number);
    if (number == INT_MIN) magnitude = 0;  // written as 0 with the sign bit
    uint8_t flagByte = uint8_t((flags & 0x3f) | (number < 0 ? kNegative : 0));
    if (magnitude <= 15) {
        h.bytes[0] = uint8_t(type | magnitude << 4);
        h.bytes[1] = flagByte;
        h.size = 2;
        return h;
    }
    int k = magnitude <= 0xff ? 1 : magnitude <= 0xffff ? 2 : magnitude <= 0xffffff ? 3 : 4;
    h.bytes[0] = uint8_t(type | (k - 1) << 4);
    h.bytes[1] = uint8_t(flagByte | kNumberBytes);
    for (int i = 0; i < k; ++i)
        h.bytes[2 + i] = uint8_t(magnitude >> (8 * i));
    h.size = 2 + k;
    return h;
}

// Makes room for `needed` bytes: twice that when it does not fit. False
// (nothing changed) when the sizes leave the int range.
bool reserve(char*& buf, int& capacity, long long needed) {
    if (needed < capacity) return true;
    long long grown = 2 * needed;
    if (grown > INT_MAX) grown = needed;
    if (grown > INT_MAX) return false;
    buf = static_cast<char*>(qkRealloc(buf, size_t(grown), __FILE__, __LINE__));
    capacity = int(grown);
    return true;
}

// The stored flags byte without Federate and NullValue; bits 6 and 7 stay.
void takeRecordFlags(qkValue* v, uint8_t stored) {
    v->setFlag(0xff, false);
    v->setFlag(stored & ~(qkValue::Federate | qkValue::NullValue), true);
}

}  // namespace

void qkValue::writeObject(char*& buf, int& pos, int& capacity) {
    int type = dataType_;
    if (type > Raw) return;
    if (type == Double || type == Date) {
        int content = type == Double ? kDoubleBytes : kDateBytes;
        if (!reserve(buf, capacity, (long long)pos + content + 2)) return;
        buf[pos] = char(type);
        buf[pos + 1] = char(flags_);
        if (type == Double) {
            std::memcpy(buf + pos + 2, pointer(), kDoubleBytes);
        } else {
            qkTimebase t;
            get(t);
            qkSQLnull_timestamp image = t;
            std::memset(image.alignment, 0, sizeof image.alignment);
            std::memcpy(buf + pos + 2, &image, kDateBytes);
        }
        pos += content + 2;
        return;
    }
    bool text = type == String || type == Raw;
    int number = 0;
    if (text) {
        number = size();
    } else {
        get(number);
    }
    Header h = encodeNumber(type, flags_, number);
    // The room the fixed kinds reserve (content and header), or a text's
    // length and 6; never less than the record itself (a Boolean's number
    // may need two bytes more than its one byte of content).
    long long room = text ? (long long)number + 6 : (type == Int ? 4 : 1) + 2;
    long long record = h.size + (text ? number : 0);
    if (!reserve(buf, capacity, (long long)pos + (record > room ? record : room))) return;
    std::memcpy(buf + pos, h.bytes, size_t(h.size));
    if (text && number) std::memcpy(buf + pos + h.size, prepare(-1), size_t(number));
    pos += int(record);
}

namespace {

// Reads a record within [0, length) when length >= 0, or trusting it when
// length < 0. Null with pos unchanged when a bounded record does not fit.
qkValue* readRecord(char const* buf, int& pos, long long length, int column) {
    bool bounded = length >= 0;
    auto fits = [&](long long at, long long n) {
        return !bounded || (at >= 0 && at + n <= length);
    };
    long long at = pos;
    if (!fits(at, 2)) return nullptr;
    auto const* b = reinterpret_cast<unsigned char const*>(buf);
    int type = b[at] & 15, n = b[at] >> 4;
    uint8_t flags = b[at + 1];
    at += 2;
    if (type > qkValue::Raw) {
        pos = int(at);
        return nullptr;
    }
    if (type == qkValue::Double || type == qkValue::Date) {
        int content = type == qkValue::Double ? kDoubleBytes : kDateBytes;
        if (!fits(at, content)) return nullptr;
        qkValue* v = qkValue::newValue(column, static_cast<qkValue::qkDataType>(type), nullptr);
        if (type == qkValue::Double) {
            std::memcpy(v->pointer(), b + at, kDoubleBytes);
        } else {
            qkSQLnull_timestamp image;
            std::memcpy(&image, b + at, kDateBytes);
            static_cast<qkDateValue*>(v)->value = image;
        }
        takeRecordFlags(v, flags);
        pos = int(at + content);
        return v;
    }
    uint32_t magnitude = uint32_t(n);
    if (flags & kNumberBytes) {
        if (!fits(at, n + 1)) return nullptr;
        magnitude = 0;
        for (int i = 0; i <= n; ++i) {
            if (i < 4) magnitude |= uint32_t(b[at + i]) << (8 * i);
        }
        at += n + 1;
    }
    int number = static_cast<int>(magnitude);
    if (flags & kNegative) number = static_cast<int>((0u - magnitude) | 0x80000000u);
    bool text = type == qkValue::String || type == qkValue::Raw;
    if (text && number < 0) {
        if (bounded) return nullptr;
        number = 0;
    }
    if (text && !fits(at, number)) return nullptr;
    qkValue* v = qkValue::newValue(column, static_cast<qkValue::qkDataType>(type), nullptr);
    takeRecordFlags(v, flags);
    if (text) {
        char* content = static_cast<char*>(v->prepare(number));
        if (number) std::memcpy(content, b + at, size_t(number));
        at += number;
    } else {
        v->set(number);
    }
    pos = int(at);
    return v;
}

}  // namespace

qkValue* qkValue::readObject(char* buf, int& pos, int column) {
    return readRecord(buf, pos, -1, column);
}

qkValue* qkValue::readObject(char const* buf, int& pos, int length, int column) {
    if (!buf || length < 0) return nullptr;
    return readRecord(buf, pos, length, column);
}
