// The binary value record: hand-checked records byte for byte, random round
// trips at every size boundary of the compact form, buffer growth, and the
// bounded reader on every truncation and on damaged buffers.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "qkCompositeValues.h"
#include "qkMemory.h"
#include "qkScalarValues.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The record of v, written into a fresh buffer.
Bytes record(qkValue& v) {
    char* buf = nullptr;
    int pos = 0, capacity = 0;
    v.writeObject(buf, pos, capacity);
    Bytes out(buf, buf + pos);
    qkFree(buf, "test", 0);
    return out;
}

std::unique_ptr<qkValue> intWith(int i, int flags) {
    auto v = std::make_unique<qkIntValue>(0);
    v->set(i);
    v->setFlag(0xff, false);
    v->setFlag(flags, true);
    return v;
}

std::unique_ptr<qkValue> textWith(bool raw, std::string const& s, int flags) {
    std::unique_ptr<qkValue> v;
    if (raw) {
        v = std::make_unique<qkRawValue>(0);
    } else {
        v = std::make_unique<qkStringValue>(0);
    }
    std::memcpy(v->prepare(int(s.size())), s.data(), s.size());
    v->setFlag(0xff, false);
    v->setFlag(flags, true);
    return v;
}

Bytes cat(Bytes head, std::string const& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

TEST(ValueRecord, HandCheckedRecords) {
    struct Case {
        std::unique_ptr<qkValue> value;
        Bytes bytes;
    };
    std::vector<Case> cases;
    cases.push_back({intWith(5, qkValue::Updated), {0x51, 0x01}});
    cases.push_back({intWith(-300, 0), {0x11, 0xC0, 0x2C, 0x01}});
    cases.push_back({intWith(-1, 0), {0x11, 0x80}});
    cases.push_back({intWith(0, 0), {0x01, 0x00}});
    cases.push_back({intWith(15, 0), {0xF1, 0x00}});
    cases.push_back({intWith(16, 0), {0x01, 0x40, 0x10}});
    cases.push_back({intWith(255, 0), {0x01, 0x40, 0xFF}});
    cases.push_back({intWith(256, 0), {0x11, 0x40, 0x00, 0x01}});
    cases.push_back({intWith(65535, 0), {0x11, 0x40, 0xFF, 0xFF}});
    cases.push_back({intWith(65536, 0), {0x21, 0x40, 0x00, 0x00, 0x01}});
    cases.push_back({intWith(INT_MAX, 0), {0x31, 0x40, 0xFF, 0xFF, 0xFF, 0x7F}});
    cases.push_back({intWith(INT_MIN, 0), {0x01, 0x80}});
    cases.push_back({intWith(-16, qkValue::Literal), {0x01, 0xD0, 0x10}});
    cases.push_back({textWith(false, "abc", qkValue::Updated), cat({0x34, 0x01}, "abc")});
    cases.push_back(
        {textWith(false, std::string(15, 'x'), 0), cat({0xF4, 0x00}, std::string(15, 'x'))});
    cases.push_back(
        {textWith(false, std::string(16, 'y'), 0), cat({0x04, 0x40, 0x10}, std::string(16, 'y'))});
    cases.push_back({textWith(true, "", qkValue::NullValue), {0x05, 0x08}});
    cases.push_back({textWith(true, "\x01\xff", qkValue::Constant), {0x25, 0x02, 0x01, 0xFF}});
    auto b = std::make_unique<qkBooleanValue>(0);
    b->set(static_cast<unsigned char>(1));
    cases.push_back({std::move(b), {0x10, 0x01}});
    auto d = std::make_unique<qkDoubleValue>(0);
    d->set(1.0);
    d->setFlag(0xff, false);
    cases.push_back({std::move(d), {0x02, 0x00, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F}});
    auto date = std::make_unique<qkDateValue>(0);
    date->set(qkTimebase(2024, 3, 5, 7, 8, 9.25f));
    cases.push_back({std::move(date), {0x03, 0x01, 0, 0, 0, 0, 0xE8, 0x07, 3, 0, 5, 0, 0,
                                       0,    7,    0, 8, 0, 9, 0,    0xFA, 0, 0, 0, 0, 0}});
    for (auto& c : cases) {
        qkString text;
        c.value->get(text);
        EXPECT_EQ(record(*c.value), c.bytes) << text.sanitize();
    }
}

TEST(ValueRecord, GrowthAndValuesWithoutARecord) {
    char* buf = static_cast<char*>(qkMalloc(10, "test", 0));
    int pos = 8, capacity = 10;
    intWith(7, 0)->writeObject(buf, pos, capacity);
    EXPECT_EQ(capacity, 28);
    EXPECT_EQ(pos, 10);
    // A boolean whose number needs two bytes gets them, whatever its content size.
    auto b = std::make_unique<qkBooleanValue>(0);
    b->value = 300;
    int before = pos;
    capacity = pos + 3;  // exactly the room of the content size
    buf = static_cast<char*>(qkRealloc(buf, size_t(capacity), "test", 0));
    b->writeObject(buf, pos, capacity);
    EXPECT_EQ(pos - before, 4);
    EXPECT_GE(capacity, pos);
    int at = before;
    std::unique_ptr<qkValue> back(qkValue::readObject(buf, at, 0));
    int i = 0;
    back->get(i);
    EXPECT_EQ(i, 300);

    qkListValue list(0);
    qkQueryValue query(0, 0);
    int p = pos, c = capacity;
    char* same = buf;
    list.writeObject(buf, p, c);
    query.writeObject(buf, p, c);
    EXPECT_EQ(std::make_tuple(p, c, buf), std::make_tuple(pos, capacity, same));
    qkFree(buf, "test", 0);
}

// ---- random round trips ------------------------------------------------------------

int boundaryInt(std::mt19937& rng) {
    static int const edges[] = {0,         1,       15, 16,  255, 256,  65535, 65536,  0xffffff,
                                0x1000000, INT_MAX, -1, -15, -16, -255, -256,  -65536, INT_MIN};
    int e = edges[rng() % 18];
    // A neighbour of the edge, wrapping at the ends of the range.
    return rng() % 2 ? e : static_cast<int>(static_cast<uint32_t>(e) + rng() % 3 - 1);
}

size_t boundaryLength(std::mt19937& rng) {
    static size_t const edges[] = {0, 1, 15, 16, 255, 256, 300, 65535, 65536};
    return edges[rng() % 9] + (rng() % 2);
}

std::unique_ptr<qkValue> randomScalar(std::mt19937& rng) {
    int type = int(rng() % 6);
    std::unique_ptr<qkValue> v;
    switch (type) {
        case qkValue::Boolean: {
            auto b = std::make_unique<qkBooleanValue>(0);
            b->value = int16_t(rng() % 4 ? rng() % 2 : rng());
            v = std::move(b);
            break;
        }
        case qkValue::Int:
            v = std::make_unique<qkIntValue>(0, boundaryInt(rng));
            break;
        case qkValue::Double: {
            auto d = std::make_unique<qkDoubleValue>(0);
            uint64_t bits = (uint64_t(rng()) << 32) | rng();
            if (rng() % 4 == 0) bits = 0x7ff8000000000001ull;  // a NaN with payload
            std::memcpy(&d->value, &bits, 8);
            v = std::move(d);
            break;
        }
        case qkValue::Date: {
            auto d = std::make_unique<qkDateValue>(0);
            if (rng() % 4) {
                d->set(qkTimebase(uint16_t(rng()), uint16_t(rng() % 13), uint16_t(rng() % 32),
                                  uint16_t(rng() % 24), uint16_t(rng() % 60), float(rng() % 60)));
            }
            v = std::move(d);
            break;
        }
        default: {
            std::string s(boundaryLength(rng), ' ');
            for (char& c : s)
                c = char(rng());
            if (type == qkValue::String) {
                for (char& c : s)
                    c = c ? c : 'z';  // a text's characters are not 0
            }
            v = textWith(type == qkValue::Raw, s, 0);
            break;
        }
    }
    v->setFlag(0xff, false);
    v->setFlag(int(rng() % 64), true);
    return v;
}

// The record's length as the compact form prescribes.
int expectedLength(qkValue& v) {
    auto numberBytes = [](long long n) {
        unsigned long long m = n < 0 ? (unsigned long long)(-n) : (unsigned long long)n;
        if (n == INT_MIN) m = 0;
        return m <= 15 ? 0 : m <= 0xff ? 1 : m <= 0xffff ? 2 : m <= 0xffffff ? 3 : 4;
    };
    switch (v.dataType()) {
        case qkValue::Double:
            return 10;
        case qkValue::Date:
            return 26;
        case qkValue::String:
        case qkValue::Raw:
            return 2 + numberBytes(v.size()) + v.size();
        default: {
            int i = 0;
            v.get(i);
            return 2 + numberBytes(i);
        }
    }
}

void expectSame(qkValue& wrote, qkValue& read) {
    ASSERT_EQ(read.dataType(), wrote.dataType());
    ASSERT_EQ(read.column(), 9);
    int number = 0;
    switch (wrote.dataType()) {
        case qkValue::Double:
            ASSERT_EQ(std::memcmp(read.pointer(), wrote.pointer(), 8), 0);
            break;
        case qkValue::Date:
            ASSERT_EQ(std::memcmp(read.pointer(), wrote.pointer(), 24), 0);
            break;
        case qkValue::String:
        case qkValue::Raw:
            number = wrote.size();
            ASSERT_EQ(read.size(), number);
            ASSERT_EQ(std::memcmp(read.prepare(-1), wrote.prepare(-1), size_t(number)), 0);
            break;
        default: {
            wrote.get(number);
            int back = 0;
            read.get(back);
            ASSERT_EQ(back, number);
        }
    }
    // Flags: without Federate and NullValue; the encoding bits stay; numbers
    // come back Updated.
    int flags = wrote.flags() & ~(qkValue::Federate | qkValue::NullValue);
    if (number < 0) flags |= 0x80;
    long long m = number < 0 ? -(long long)number : number;
    if (number == INT_MIN) m = 0;
    if (m > 15) flags |= 0x40;
    if (wrote.dataType() == qkValue::Int || wrote.dataType() == qkValue::Boolean) {
        flags |= qkValue::Updated;
    }
    ASSERT_EQ(read.flags(), flags);
}

TEST(ValueRecord, RandomValuesRoundTripAtEveryBoundary) {
    std::mt19937 rng(55);
    for (int round = 0; round < 50; ++round) {
        std::vector<std::unique_ptr<qkValue>> values;
        char* buf = nullptr;
        int pos = 0, capacity = 0;
        std::vector<int> ends;
        for (int i = 0; i < 40; ++i) {
            values.push_back(randomScalar(rng));
            int before = pos;
            values.back()->writeObject(buf, pos, capacity);
            ASSERT_EQ(pos - before, expectedLength(*values.back()));
            ASSERT_LE(pos, capacity);
            ends.push_back(pos);
        }
        for (int pass = 0; pass < 2; ++pass) {
            int at = 0;
            for (size_t i = 0; i < values.size(); ++i) {
                std::unique_ptr<qkValue> v(pass ? qkValue::readObject(buf, at, pos, 9)
                                                : qkValue::readObject(buf, at, 9));
                ASSERT_TRUE(v);
                ASSERT_EQ(at, ends[i]);
                ASSERT_NO_FATAL_FAILURE(expectSame(*values[i], *v)) << "value " << i;
            }
        }
        qkFree(buf, "test", 0);
    }
}

// ---- the bounded reader ----------------------------------------------------------------

TEST(ValueRecord, BoundedReaderStopsAtEveryTruncation) {
    std::mt19937 rng(77);
    for (int round = 0; round < 40; ++round) {
        char* buf = nullptr;
        int pos = 0, capacity = 0;
        std::vector<int> ends = {0};
        for (int i = 0; i < 6; ++i) {
            auto v = randomScalar(rng);
            if (v->size() > 400) continue;  // keep every cut cheap
            v->writeObject(buf, pos, capacity);
            ends.push_back(pos);
        }
        for (int length = 0; length <= pos; ++length) {
            // An exact-size copy, so that a read past its end is caught.
            std::unique_ptr<char[]> cut(new char[size_t(length) + 1]);
            std::memcpy(cut.get(), buf, size_t(length));
            int at = 0, records = 0;
            while (std::unique_ptr<qkValue> v{qkValue::readObject(cut.get(), at, length, 0)})
                ++records;
            int whole = int(std::upper_bound(ends.begin(), ends.end(), length) - ends.begin()) - 1;
            ASSERT_EQ(records, whole) << "length " << length;
            ASSERT_EQ(at, ends[size_t(whole)]);
        }
        qkFree(buf, "test", 0);
    }
}

TEST(ValueRecord, DamagedBuffersNeverReadOutside) {
    std::mt19937 rng(99);
    for (int round = 0; round < 3000; ++round) {
        int length = int(rng() % 40);
        std::unique_ptr<char[]> bytes(new char[size_t(length) + 1]);
        for (int i = 0; i < length; ++i)
            bytes[size_t(i)] = char(rng());
        int at = 0;
        for (int guard = 0; guard < 100; ++guard) {
            int before = at;
            std::unique_ptr<qkValue> v(qkValue::readObject(bytes.get(), at, length, 0));
            ASSERT_LE(at, length);
            if (!v && at == before) break;  // damaged or at the end
            ASSERT_GT(at, before);
        }
    }
    // The trusting reader takes a negative text length as empty.
    unsigned char negative[] = {0x04, 0x80};
    int at = 0;
    std::unique_ptr<qkValue> v(qkValue::readObject(reinterpret_cast<char*>(negative), at, 0));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->size(), 0);
    at = 0;
    EXPECT_EQ(qkValue::readObject(reinterpret_cast<char const*>(negative), at, 2, 0), nullptr);
    EXPECT_EQ(at, 0);
    // A type nibble above 5 consumes the header and gives null.
    unsigned char unknown[] = {0x07, 0x00};
    EXPECT_EQ(qkValue::readObject(reinterpret_cast<char const*>(unknown), at, 2, 0), nullptr);
    EXPECT_EQ(at, 2);
}

}  // namespace
