// The file layer: typed values against their stored form spelled out byte by
// byte (straddling the 512-byte buffer, native and reversed order), the
// buffer's write-out rule, end of file and corrupt length words, and the lock
// file's time-out. Key order and prefix match are checked against std::string
// by the tree model; the key and record readers on damaged node files.
#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "TagdbTestUtil.h"
#include "qkMemory.h"

using namespace tagdbtest;

namespace {

struct SwappingFile : TagdbLocalFile {
    void setSwap() { swapBytes = True; }
};

// Records the sizes of the buffer's writes and counts the system's reads
// and writes; with `halfReads`, the disk hands out half of what is asked.
struct RecordingFile : TagdbLocalFile {
    std::vector<int> writes;
    int systemWrites = 0, systemReads = 0;
    bool halfReads = false;
    Status write(void const* buf, int size) override {
        writes.push_back(size);
        return TagdbLocalFile::write(buf, size);
    }
    long systemWrite(void const* buf, size_t size) override {
        ++systemWrites;
        return TagdbLocalFile::systemWrite(buf, size);
    }
    long systemRead(void* buf, size_t size) override {
        ++systemReads;
        return TagdbLocalFile::systemRead(buf, halfReads && size > 1 ? size / 2 : size);
    }
};

// Every typed value after a run that moves it across the 512-byte buffer's
// edge at each offset, in native and reversed order, against its stored form
// spelled out byte by byte, then read back.
TEST(TagdbFile, TypedValuesMatchTheirStoredForm) {
    TempDir dir;
    std::string path = dir / "typed", text = "typed \xff text", big(700, '\x9c');
    double const d = -1.5e-300;
    long long const id = 0x0102030405060708, bits = std::bit_cast<long long>(d);
    for (bool swap : {false, true}) {
        for (int pad = 470; pad < 512; ++pad) {
            SCOPED_TRACE((swap ? "swapped, pad " : "pad ") + std::to_string(pad));
            std::string run(static_cast<size_t>(pad) - 4, 'p');
            Bytes want;
            auto num = [&](long long v, int width) {
                Bytes b = le(v, width);
                if (swap) std::reverse(b.begin(), b.end());
                want.insert(want.end(), b.begin(), b.end());
            };
            auto raw = [&](std::string const& s) { want.insert(want.end(), s.begin(), s.end()); };
            num(pad - 4, 4), raw(run), num(0x81, 1), num(-2, 2), num(0x01020304, 4), num(bits, 8);
            num(id, 8), num(long(text.size()) + 1, 4), raw(text + '\0'), num(-1, 4);
            num(700, 4), raw(big), num(-1, 4);

            SwappingFile f;
            ASSERT_EQ(f.open(path.c_str(), T::WriteMode), T::Ok);
            if (swap) f.setSwap();
            // A braced list is evaluated in order: the writes happen as listed.
            for (T::Status st :
                 {f.writeBytes(run.data(), pad - 4), f.writeByte(0x81), f.writeShort(-2),
                  f.writeInteger(0x01020304), f.writeDouble(d), f.writeTagDbId(id),
                  f.writeString(text.c_str()), f.writeString(nullptr),
                  f.writeBytes(big.data(), 700), f.writeBytes(nullptr, 0), f.close()})
                ASSERT_EQ(st, T::Ok);
            ASSERT_EQ(readFile(path), want);

            ASSERT_EQ(f.open(path.c_str(), T::ReadMode), T::Ok);
            if (swap) f.setSwap();
            void const *r1 = nullptr, *r2 = nullptr, *r3 = nullptr;
            char const *t1 = nullptr, *t2 = nullptr;
            int n1 = 0, n2 = 0, n3 = -1, n = 0;
            unsigned char b = 0;
            short sh = 0;
            double dd = 0;
            long long ii = 0;
            for (T::Status st :
                 {f.readBytes(r1, n1), f.readByte(b), f.readShort(sh), f.readInteger(n),
                  f.readDouble(dd), f.readTagDbId(ii), f.readString(t1), f.readString(t2),
                  f.readBytes(r2, n2), f.readBytes(r3, n3)})
                EXPECT_EQ(st, T::Ok);
            EXPECT_EQ(std::string(static_cast<char const*>(r1), size_t(n1)), run);
            EXPECT_EQ(std::tuple(b, sh, n, dd, ii), std::tuple(0x81, -2, 0x01020304, d, id));
            EXPECT_EQ(std::string(t1), text);
            EXPECT_EQ(std::string(static_cast<char const*>(r2), size_t(n2)), big);
            EXPECT_TRUE(!t2 && !r3 && n3 == 0);
            EXPECT_EQ(f.readByte(b), T::Failed);  // the end
            for (void const* p : {r1, r2, static_cast<void const*>(t1)})
                qkFree(const_cast<void*>(p), __FILE__, __LINE__);
        }
    }
}

TEST(TagdbFile, FullBufferWaitsForCloseAndShortFilesFail) {
    TempDir dir;
    RecordingFile f;
    Bytes chunk(508, 0xAB);
    ASSERT_EQ(f.open((dir / "f").c_str(), T::WriteMode), T::Ok);
    ASSERT_EQ(f.writeBytes(chunk.data(), 508), T::Ok);  // 4 + 508: exactly full
    EXPECT_EQ(f.writes, std::vector<int>{});
    ASSERT_EQ(f.writeByte(1), T::Ok);  // one more goes in: the 512 go out
    EXPECT_EQ(f.writes, std::vector<int>{512});
    // ... to the local file's stage: the disk sees them, and the last byte,
    // in one write at close.
    EXPECT_EQ(readFile(dir / "f").size(), 0u);
    ASSERT_EQ(f.close(), T::Ok);
    EXPECT_EQ(f.writes, (std::vector<int>{512, 1}));
    EXPECT_EQ(f.systemWrites, 1);
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

// Files of every size around the local file's stage (128 KiB kept between
// files, 1 MiB the most gathered or read ahead at once), written as byte
// runs of mixed sizes: on disk they are exactly the runs' stored form, put
// there in one write per MiB; they read back whole in a few reads, also
// from a disk that hands out half of every read; and a shorter file written
// over one of them leaves nothing of its tail.
TEST(TagdbLocalFile, FilesOfAnySizePassTheStageInFewCalls) {
    TempDir dir;
    std::string const path = dir / "f";
    std::mt19937 rng(5);
    constexpr int kMiB = 1 << 20;
    for (int total : {1, 131068, 131072, 131077, kMiB - 1, kMiB, kMiB + 1, 3 * kMiB + 11}) {
        SCOPED_TRACE("about " + std::to_string(total) + " bytes");
        std::vector<Bytes> runs;
        Bytes want;
        for (size_t size = 0; size < static_cast<size_t>(total);) {
            size_t n =
                std::min<size_t>(total - size, std::array{1, 9, 511, 4096, 70000}[rng() % 5]);
            Bytes run(n);
            for (auto& b : run)
                b = static_cast<unsigned char>(rng());
            Bytes stored = cat({le(static_cast<long long>(n), 4), run});
            want.insert(want.end(), stored.begin(), stored.end());
            runs.push_back(std::move(run));
            size += n;
        }
        RecordingFile out;
        ASSERT_EQ(out.open(path.c_str(), T::WriteMode), T::Ok);
        for (Bytes const& run : runs)
            ASSERT_EQ(out.writeBytes(run.data(), static_cast<int>(run.size())), T::Ok);
        ASSERT_EQ(out.close(), T::Ok);
        ASSERT_EQ(readFile(path), want);
        EXPECT_LE(out.systemWrites, static_cast<int>(want.size() / kMiB) + 1);
        for (bool half : {false, true}) {
            RecordingFile in;
            in.halfReads = half;
            ASSERT_EQ(in.open(path.c_str(), T::ReadMode), T::Ok);
            for (Bytes const& run : runs) {
                void const* p = nullptr;
                int n = 0;
                ASSERT_EQ(in.readBytes(p, n), T::Ok);
                EXPECT_TRUE(n == static_cast<int>(run.size()) &&
                            std::memcmp(p, run.data(), run.size()) == 0);
                qkFree(const_cast<void*>(p), __FILE__, __LINE__);
            }
            unsigned char end;
            EXPECT_EQ(in.readByte(end), T::Failed);
            EXPECT_EQ(in.close(), T::Ok);
            if (!half) {
                EXPECT_LE(in.systemReads, static_cast<int>(want.size() / kMiB) + 3);
            }
        }
    }
    TagdbLocalFile over;
    ASSERT_EQ(over.open(path.c_str(), T::WriteMode), T::Ok);
    ASSERT_EQ(over.writeInteger(7), T::Ok);
    ASSERT_EQ(over.close(), T::Ok);
    EXPECT_EQ(readFile(path), le(7, 4));
}

// CreateMode writes only into a file it makes: over an existing one (even
// an empty one) the open fails and the file keeps every byte; a new one is
// written through the buffer as in WriteMode, across its edge included.
TEST(TagdbLocalFile, CreateModeNeverOpensAnExistingFile) {
    TempDir dir;
    TagdbLocalFile f;
    for (Bytes const& old : {Bytes{}, le(7, 4), Bytes(600, 'o')}) {
        writeFile(dir / "there", old);
        EXPECT_EQ(f.open((dir / "there").c_str(), T::CreateMode), T::Failed);
        EXPECT_FALSE(f.isOpen());
        EXPECT_EQ(readFile(dir / "there"), old);
    }
    std::string big(600, 'n');
    ASSERT_EQ(f.open((dir / "new").c_str(), T::CreateMode), T::Ok);
    for (T::Status st : {f.writeInteger(1), f.writeBytes(big.data(), 600), f.close()})
        ASSERT_EQ(st, T::Ok);
    EXPECT_EQ(readFile(dir / "new"), cat({le(1, 4), le(600, 4), Bytes(big.begin(), big.end())}));
    EXPECT_EQ(f.open((dir / "new").c_str(), T::CreateMode), T::Failed);
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
