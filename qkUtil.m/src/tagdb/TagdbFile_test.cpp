// The file layer: typed values against an independent byte-level encoder
// (values straddling the 512-byte buffer, native and reversed order), the
// buffer's write-out rule, end of file and corrupt length words, and the lock
// file's time-out (its use between processes is tested with the stores).
#include <chrono>
#include <cstring>
#include <optional>
#include <random>

#include "TagdbTestUtil.h"
#include "qkMemory.h"
#include "tagdb/TagdbLockFile.h"

using namespace tagdbtest;

namespace {

// One typed value: a number of 1, 2, 4 or 8 bytes (a double when `isDouble`),
// or a string or byte run (width 0), possibly null.
struct Item {
    int width = 0;
    bool isDouble = false, isString = false;
    unsigned long long bits = 0;
    std::optional<std::string> text;
    bool operator==(Item const&) const = default;
};

Bytes number(unsigned long long v, int width, bool reversed) {
    Bytes b = le(static_cast<long long>(v), width);
    if (reversed) std::reverse(b.begin(), b.end());
    return b;
}

Bytes encode(std::vector<Item> const& items, bool swap) {
    Bytes out;
    for (Item const& it : items) {
        Bytes b;
        if (it.width) {
            b = number(it.bits, it.width, swap);
        } else if (!it.text) {
            b = number(0xFFFFFFFFu, 4, swap);
        } else {
            b = cat({number(it.text->size() + it.isString, 4, swap),
                     it.isString ? sz(*it.text) : Bytes(it.text->begin(), it.text->end())});
        }
        out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

Item randomItem(std::mt19937& rng) {
    static int const widths[] = {1, 2, 4, 8, 8, 0, 0};
    Item it;
    int pick = static_cast<int>(rng() % 7);
    it.width = widths[pick];
    it.isDouble = pick == 4;
    it.isString = pick == 5;
    if (it.width) {
        it.bits = (static_cast<unsigned long long>(rng()) << 32 | rng()) &
                  (it.width == 8 ? ~0ull : (1ull << (8 * it.width)) - 1);
        if (it.isDouble) {
            double d = std::uniform_real_distribution<double>(-1e9, 1e9)(rng);
            std::memcpy(&it.bits, &d, 8);
        }
    } else if (rng() % 8) {
        std::string s(rng() % 10 ? rng() % 40 : rng() % 1500, 'x');
        for (char& c : s)
            c = static_cast<char>(it.isString ? 1 + rng() % 255 : rng());
        it.text = s;
    }
    return it;
}

T::Status writeItem(TagdbFile& f, Item const& it) {
    double d;
    std::memcpy(&d, &it.bits, 8);
    switch (it.width) {
        case 1:
            return f.writeByte(static_cast<unsigned char>(it.bits));
        case 2:
            return f.writeShort(static_cast<short>(it.bits));
        case 4:
            return f.writeInteger(static_cast<int>(it.bits));
        case 8:
            return it.isDouble ? f.writeDouble(d) : f.writeTagDbId(static_cast<long long>(it.bits));
    }
    if (it.isString) return f.writeString(it.text ? it.text->c_str() : nullptr);
    return f.writeBytes(it.text ? it.text->data() : nullptr,
                        it.text ? static_cast<int>(it.text->size()) : 0);
}

// Reads a number of type V through `read`; its bytes land in `bits`.
template <class V>
T::Status get(TagdbFile& f, T::Status (TagdbFile::*read)(V&), unsigned long long& bits) {
    V v{};
    T::Status st = (f.*read)(v);
    std::memcpy(&bits, &v, sizeof v);
    return st;
}

// Reads a value of the same kind as `like`.
Item readItem(TagdbFile& f, Item const& like) {
    Item it = like;
    it.bits = 0;
    it.text.reset();
    T::Status st = T::Failed;
    if (it.width) {
        st = it.isDouble     ? get<double>(f, &TagdbFile::readDouble, it.bits)
             : it.width == 8 ? get<long long>(f, &TagdbFile::readTagDbId, it.bits)
             : it.width == 4 ? get<int>(f, &TagdbFile::readInteger, it.bits)
             : it.width == 2 ? get<short>(f, &TagdbFile::readShort, it.bits)
                             : get<unsigned char>(f, &TagdbFile::readByte, it.bits);
    } else if (it.isString) {
        char const* s = nullptr;
        st = f.readString(s);
        if (s) it.text = s;
        qkFree(const_cast<char*>(s), __FILE__, __LINE__);
    } else {
        void const* p = nullptr;
        int n = -1;
        st = f.readBytes(p, n);
        if (p) it.text = std::string(static_cast<char const*>(p), static_cast<size_t>(n));
        EXPECT_TRUE(p || n == 0);
        qkFree(const_cast<void*>(p), __FILE__, __LINE__);
    }
    EXPECT_EQ(st, T::Ok);
    return it;
}

struct SwappingFile : TagdbLocalFile {
    void setSwap() { swapBytes = True; }
};

TEST(TagdbFile, TypedValuesMatchAnIndependentEncoder) {
    TempDir dir;
    std::mt19937 rng(42);
    std::string path = dir / "typed";
    for (int round = 0; round < 60; ++round) {
        bool swap = round % 3 == 2;
        std::vector<Item> items(1 + rng() % 400);
        for (Item& it : items)
            it = randomItem(rng);
        SwappingFile f;
        ASSERT_EQ(f.open(path.c_str(), T::WriteMode), T::Ok);
        if (swap) f.setSwap();
        for (Item const& it : items)
            ASSERT_EQ(writeItem(f, it), T::Ok);
        ASSERT_EQ(f.close(), T::Ok);
        ASSERT_EQ(readFile(path), encode(items, swap)) << "round " << round;

        ASSERT_EQ(f.open(path.c_str(), T::ReadMode), T::Ok);
        if (swap) f.setSwap();
        for (Item const& it : items)
            ASSERT_EQ(readItem(f, it), it);
        unsigned char extra;
        EXPECT_EQ(f.readByte(extra), T::Failed);
    }
}

TEST(TagdbFile, FullBufferWaitsForCloseAndShortFilesFail) {
    TempDir dir;
    TagdbLocalFile f;
    Bytes chunk(508, 0xAB);
    ASSERT_EQ(f.open((dir / "f").c_str(), T::WriteMode), T::Ok);
    ASSERT_EQ(f.writeBytes(chunk.data(), 508), T::Ok);  // 4 + 508: exactly full
    EXPECT_EQ(readFile(dir / "f").size(), 0u);
    ASSERT_EQ(f.writeByte(1), T::Ok);  // one more goes in: the 512 go out
    EXPECT_EQ(readFile(dir / "f").size(), 512u);
    ASSERT_EQ(f.close(), T::Ok);
    EXPECT_EQ(readFile(dir / "f").size(), 513u);

    EXPECT_EQ(f.open((dir / "missing").c_str(), T::ReadMode), T::Failed);
    EXPECT_FALSE(f.isOpen());
    EXPECT_EQ(f.remove((dir / "missing").c_str()), T::Failed);
    // A length word far beyond the end fails; a text without its NUL is
    // still handed back terminated.
    for (auto const& [bytes, ok] : {std::pair{cat({le(0x7FFFFFF0, 4), sz("abc")}), false},
                                    std::pair{cat({le(3, 4), Bytes{'x', 'y', 'z'}}), true}}) {
        writeFile(dir / "bad", bytes);
        ASSERT_EQ(f.open((dir / "bad").c_str(), T::ReadMode), T::Ok);
        char const* s = nullptr;
        EXPECT_EQ(f.readString(s), ok ? T::Ok : T::Failed);
        if (ok) {
            EXPECT_STREQ(s, "xyz");
        }
        qkFree(const_cast<char*>(s), __FILE__, __LINE__);
    }
}

TEST(TagdbLocalFile, LockTimesOutWhileTheFileExists) {
    TempDir dir;
    std::string lockPath = dir / "s-lock";
    ASSERT_EQ(qk::tagdb::acquireLockFile(lockPath.c_str(), 1000, 5), T::Ok);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(qk::tagdb::acquireLockFile(lockPath.c_str(), 150, 5), T::LockTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(150));
    // The real thing: a stale lock blocks for a little more than 30 seconds.
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(TagdbLocalFile().lock((dir / "s").c_str()), T::LockTimeout);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(30));
    EXPECT_LT(waited, std::chrono::seconds(45));
}

}  // namespace
