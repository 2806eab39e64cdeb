// The file layer: typed values against an independent byte-level encoder
// (values straddling the 512-byte buffer, native and reversed order), the
// buffer's write-out rule, end of file and corrupt length words, and the lock
// file's time-out. Key order and prefix match are checked against std::string
// by the tree model; the key and record readers on damaged node files.
#include <chrono>
#include <cmath>
#include <cstring>
#include <optional>
#include <random>

#include "TagdbTestUtil.h"
#include "qkMemory.h"

using namespace tagdbtest;

namespace {

// One value of every type; the runs may be absent (the null ones).
struct Values {
    unsigned char b;
    short s;
    int n;
    double d;
    long long id;
    std::optional<std::string> text, run;
    bool operator==(Values const&) const = default;
};

// Runs mostly short, some longer than the buffer.
Values randomValues(std::mt19937& rng) {
    auto run = [&](bool text) -> std::optional<std::string> {
        if (rng() % 8 == 0) return std::nullopt;
        std::string s(rng() % 10 ? rng() % 40 : rng() % 1500, 'x');
        for (char& c : s)
            c = static_cast<char>(text ? 1 + rng() % 255 : rng());
        return s;
    };
    return {static_cast<unsigned char>(rng()),
            static_cast<short>(rng()),
            static_cast<int>(rng()),
            std::ldexp(static_cast<int>(rng()), int(rng() % 64) - 32),
            static_cast<long long>(static_cast<unsigned long long>(rng()) << 32 | rng()),
            run(true),
            run(false)};
}

// The stored form, spelled out byte by byte: numbers little-endian (reversed
// with swap), runs after their length word, texts with their NUL.
Bytes encode(std::vector<Values> const& all, bool swap) {
    Bytes out;
    auto number = [&](long long v, int width) {
        Bytes b = le(v, width);
        if (swap) std::reverse(b.begin(), b.end());
        out.insert(out.end(), b.begin(), b.end());
    };
    auto run = [&](std::optional<std::string> const& r, bool text) {
        number(r ? static_cast<long long>(r->size()) + text : -1, 4);
        Bytes b = !r ? Bytes() : text ? sz(*r) : Bytes(r->begin(), r->end());
        out.insert(out.end(), b.begin(), b.end());
    };
    for (Values const& v : all) {
        long long bits;
        std::memcpy(&bits, &v.d, 8);
        number(v.b, 1), number(v.s, 2), number(v.n, 4), number(bits, 8), number(v.id, 8);
        run(v.text, true), run(v.run, false);
    }
    return out;
}

void write(TagdbFile& f, Values const& v) {
    // A braced list is evaluated in order: the writes happen as listed.
    for (T::Status s :
         {f.writeByte(v.b), f.writeShort(v.s), f.writeInteger(v.n), f.writeDouble(v.d),
          f.writeTagDbId(v.id), f.writeString(v.text ? v.text->c_str() : nullptr),
          f.writeBytes(v.run ? v.run->data() : nullptr, v.run ? int(v.run->size()) : 0)})
        ASSERT_EQ(s, T::Ok);
}

Values read(TagdbFile& f) {
    Values v{};
    char const* text = nullptr;
    void const* run = nullptr;
    int n = -1;
    for (T::Status s : {f.readByte(v.b), f.readShort(v.s), f.readInteger(v.n), f.readDouble(v.d),
                        f.readTagDbId(v.id), f.readString(text), f.readBytes(run, n)})
        EXPECT_EQ(s, T::Ok);
    EXPECT_TRUE(run || n == 0);  // a null run has no length
    if (text) v.text = text;
    if (run) v.run = std::string(static_cast<char const*>(run), static_cast<size_t>(n));
    qkFree(const_cast<char*>(text), __FILE__, __LINE__);
    qkFree(const_cast<void*>(run), __FILE__, __LINE__);
    return v;
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
        std::vector<Values> all(1 + rng() % 60);
        for (Values& v : all)
            v = randomValues(rng);
        SwappingFile f;
        ASSERT_EQ(f.open(path.c_str(), T::WriteMode), T::Ok);
        if (swap) f.setSwap();
        for (Values const& v : all)
            write(f, v);
        ASSERT_EQ(f.close(), T::Ok);
        ASSERT_EQ(readFile(path), encode(all, swap)) << "round " << round;

        ASSERT_EQ(f.open(path.c_str(), T::ReadMode), T::Ok);
        if (swap) f.setSwap();
        for (Values const& v : all)
            ASSERT_EQ(read(f), v);
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
    // A length word far beyond the end fails; a text without its NUL is
    // still handed back terminated.
    for (auto const& [bytes, ok] : {std::pair{cat({le(0x7FFFFFF0, 4), sz("abc")}), false},
                                    std::pair{cat({le(3, 4), Bytes{'x', 'y', 'z'}}), true}}) {
        writeFile(dir / "bad", bytes);
        ASSERT_EQ(f.open((dir / "bad").c_str(), T::ReadMode), T::Ok);
        char const* s = nullptr;
        EXPECT_EQ(f.readString(s), ok ? T::Ok : T::Failed);
        EXPECT_STREQ(ok ? s : "xyz", "xyz");
        qkFree(const_cast<char*>(s), __FILE__, __LINE__);
    }
}

// The one test that waits out the real time-out.
TEST(TagdbLocalFile, StaleLockTimesOutAfterThirtySeconds) {
    TempDir dir;
    std::string name = dir / "s";
    TagdbLocalFile f;
    ASSERT_EQ(f.lock(name.c_str()), T::Ok);
    EXPECT_EQ(dir.files(), std::set<std::string>{"s-lock"});
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(f.lock(name.c_str()), T::LockTimeout);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(30));
    EXPECT_LT(waited, std::chrono::seconds(45));
    EXPECT_EQ(f.unlock(name.c_str()), T::Ok);
    EXPECT_EQ(f.unlock(name.c_str()), T::Failed);
}

}  // namespace
