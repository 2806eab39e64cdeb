// The file layer: typed values against an independent byte-level encoder,
// the 512-byte buffer under short reads and exact fills, end of file and
// corrupt length words, and the lock file between processes.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <random>

#include "TagdbTestUtil.h"
#include "qkMemory.h"
#include "tagdb/TagdbLockFile.h"

using namespace tagdbtest;
using Status = TagdbCommon::Status;

namespace {

// ---- An independent encoder: every number spelled out byte by byte --------

struct Item {
    enum Kind { Byte, Short, Int, Double, Id, String, Blob } kind;
    unsigned long long bits = 0;  // the number's bits (doubles: their IEEE bits)
    std::optional<std::string> text;
};

int widthOf(Item::Kind k) {
    switch (k) {
        case Item::Byte:
            return 1;
        case Item::Short:
            return 2;
        case Item::Int:
            return 4;
        default:
            return 8;
    }
}

void putNumber(Bytes& out, unsigned long long v, int width, bool bigEndian) {
    for (int i = 0; i < width; ++i) {
        int shift = 8 * (bigEndian ? width - 1 - i : i);
        out.push_back(static_cast<unsigned char>(v >> shift));
    }
}

Bytes encode(std::vector<Item> const& items, bool swap) {
    Bytes out;
    for (Item const& it : items) {
        if (it.kind == Item::String || it.kind == Item::Blob) {
            if (!it.text) {
                putNumber(out, 0xFFFFFFFFu, 4, swap);
                continue;
            }
            size_t n = it.text->size() + (it.kind == Item::String ? 1 : 0);
            putNumber(out, n, 4, swap);
            out.insert(out.end(), it.text->begin(), it.text->end());
            if (it.kind == Item::String) out.push_back(0);
        } else {
            putNumber(out, it.bits, widthOf(it.kind), swap && it.kind != Item::Byte);
        }
    }
    return out;
}

std::vector<Item> randomItems(std::mt19937& rng, int count) {
    std::vector<Item> items;
    for (int i = 0; i < count; ++i) {
        Item it{static_cast<Item::Kind>(rng() % 7), 0, {}};
        it.bits = (static_cast<unsigned long long>(rng()) << 32) | rng();
        if (it.kind == Item::Double) {
            double d = std::uniform_real_distribution<double>(-1e9, 1e9)(rng);
            std::memcpy(&it.bits, &d, 8);
        }
        if (widthOf(it.kind) < 8) it.bits &= (1ull << (8 * widthOf(it.kind))) - 1;
        if (it.kind == Item::String || it.kind == Item::Blob) {
            if (rng() % 8 == 0) {
                it.text.reset();
            } else {
                // Mostly short, sometimes longer than the buffer.
                size_t n = rng() % 10 == 0 ? rng() % 1500 : rng() % 40;
                std::string s;
                for (size_t j = 0; j < n; ++j) {
                    char c = static_cast<char>(rng());
                    s.push_back(it.kind == Item::String && c == 0 ? 'z' : c);
                }
                it.text = s;
            }
        }
        items.push_back(it);
    }
    return items;
}

Status writeItem(TagdbFile& f, Item const& it) {
    switch (it.kind) {
        case Item::Byte:
            return f.writeByte(static_cast<unsigned char>(it.bits));
        case Item::Short:
            return f.writeShort(static_cast<short>(it.bits));
        case Item::Int:
            return f.writeInteger(static_cast<int>(it.bits));
        case Item::Double: {
            double d;
            std::memcpy(&d, &it.bits, 8);
            return f.writeDouble(d);
        }
        case Item::Id:
            return f.writeTagDbId(static_cast<long long>(it.bits));
        case Item::String:
            return f.writeString(it.text ? it.text->c_str() : nullptr);
        case Item::Blob:
            return f.writeBytes(it.text ? it.text->data() : nullptr,
                                it.text ? static_cast<int>(it.text->size()) : 0);
    }
    return TagdbCommon::Failed;
}

// Reads one item of the expected kind and checks it.
void expectItem(TagdbFile& f, Item const& it) {
    switch (it.kind) {
        case Item::Byte: {
            unsigned char v;
            ASSERT_EQ(f.readByte(v), TagdbCommon::Ok);
            EXPECT_EQ(v, it.bits);
            break;
        }
        case Item::Short: {
            short v;
            ASSERT_EQ(f.readShort(v), TagdbCommon::Ok);
            EXPECT_EQ(static_cast<unsigned short>(v), it.bits);
            break;
        }
        case Item::Int: {
            int v;
            ASSERT_EQ(f.readInteger(v), TagdbCommon::Ok);
            EXPECT_EQ(static_cast<unsigned>(v), it.bits);
            break;
        }
        case Item::Double: {
            double v;
            ASSERT_EQ(f.readDouble(v), TagdbCommon::Ok);
            unsigned long long b;
            std::memcpy(&b, &v, 8);
            EXPECT_EQ(b, it.bits);
            break;
        }
        case Item::Id: {
            long long v;
            ASSERT_EQ(f.readTagDbId(v), TagdbCommon::Ok);
            EXPECT_EQ(static_cast<unsigned long long>(v), it.bits);
            break;
        }
        case Item::String: {
            char const* s = nullptr;
            ASSERT_EQ(f.readString(s), TagdbCommon::Ok);
            ASSERT_EQ(s != nullptr, it.text.has_value());
            if (s) {
                EXPECT_EQ(std::string(s), *it.text);
            }
            qkFree(const_cast<char*>(s), __FILE__, __LINE__);
            break;
        }
        case Item::Blob: {
            void const* p = nullptr;
            int n = -5;
            ASSERT_EQ(f.readBytes(p, n), TagdbCommon::Ok);
            ASSERT_EQ(p != nullptr, it.text.has_value());
            EXPECT_EQ(std::string(static_cast<char const*>(p), p ? n : 0), it.text.value_or(""));
            if (!p) {
                EXPECT_EQ(n, 0);
            }
            qkFree(const_cast<void*>(p), __FILE__, __LINE__);
            break;
        }
    }
}

// A file in memory whose reads deliver random short pieces, and which
// records the size of every write, to watch the buffer at work.
struct MemFile : TagdbFile {
    Bytes data;
    size_t readAt = 0;
    bool opened = false;
    std::vector<int> writes;
    std::mt19937 rng{7};
    int maxPiece = 512;

    int isOpen() override { return opened; }
    Status open(char const*, FileMode m) override {
        init(m);
        opened = true;
        readAt = 0;
        if (m == WriteMode) data.clear();
        return Ok;
    }
    Status close() override {
        Status st = opened && mode == WriteMode ? flush() : Ok;
        opened = false;
        return st;
    }
    Status read(void* buf, int size, int& got) override {
        got = 0;
        if (readAt >= data.size()) return Failed;
        int piece = 1 + static_cast<int>(rng() % static_cast<unsigned>(std::min(size, maxPiece)));
        got = static_cast<int>(std::min<size_t>(piece, data.size() - readAt));
        std::memcpy(buf, data.data() + readAt, static_cast<size_t>(got));
        readAt += static_cast<size_t>(got);
        return Ok;
    }
    Status write(void const* buf, int size) override {
        auto p = static_cast<unsigned char const*>(buf);
        data.insert(data.end(), p, p + size);
        writes.push_back(size);
        return Ok;
    }
    Status lock(char const*) override { return Ok; }
    Status unlock(char const*) override { return Ok; }
    Status remove(char const*) override { return Ok; }
    void setSwap() { swapBytes = True; }
};

struct SwappingLocalFile : TagdbLocalFile {
    void setSwap() { swapBytes = True; }
};

// ---- Typed values -----------------------------------------------------------

TEST(TagdbFile, TypedValuesMatchAnIndependentEncoderAcrossBufferBoundaries) {
    TempDir dir;
    std::mt19937 rng(42);
    for (int round = 0; round < 60; ++round) {
        bool swap = round % 3 == 2;
        std::vector<Item> items = randomItems(rng, 1 + static_cast<int>(rng() % 400));
        Bytes expected = encode(items, swap);
        std::string path = dir / "typed";

        SwappingLocalFile out;
        ASSERT_EQ(out.open(path.c_str(), TagdbCommon::WriteMode), TagdbCommon::Ok);
        if (swap) out.setSwap();
        for (Item const& it : items)
            ASSERT_EQ(writeItem(out, it), TagdbCommon::Ok);
        ASSERT_EQ(out.close(), TagdbCommon::Ok);
        ASSERT_EQ(readFile(path), expected) << "round " << round;

        // Read back through the descriptor, and through short random pieces.
        SwappingLocalFile in;
        ASSERT_EQ(in.open(path.c_str(), TagdbCommon::ReadMode), TagdbCommon::Ok);
        if (swap) in.setSwap();
        MemFile mem;
        mem.open("", TagdbCommon::ReadMode);
        mem.data = expected;
        mem.maxPiece = 1 + static_cast<int>(rng() % 16);
        if (swap) mem.setSwap();
        for (Item const& it : items) {
            expectItem(in, it);
            expectItem(mem, it);
        }
        unsigned char extra;
        EXPECT_EQ(in.readByte(extra), TagdbCommon::Failed);
        EXPECT_EQ(mem.readByte(extra), TagdbCommon::Failed);
    }
}

TEST(TagdbFile, BufferGoesOutOnlyWhenFullAndMoreMustGoIn) {
    MemFile f;
    f.open("", TagdbCommon::WriteMode);
    Bytes chunk(512, 0xAB);
    ASSERT_EQ(f.writeBytes(chunk.data(), 508), TagdbCommon::Ok);  // 4 + 508 = 512
    EXPECT_TRUE(f.writes.empty());
    ASSERT_EQ(f.writeByte(1), TagdbCommon::Ok);
    EXPECT_EQ(f.writes, std::vector<int>{512});
    ASSERT_EQ(f.writeBytes(chunk.data(), 507), TagdbCommon::Ok);  // 1 + 4 + 507: full again
    EXPECT_EQ(f.writes, std::vector<int>{512});
    ASSERT_EQ(f.close(), TagdbCommon::Ok);
    EXPECT_EQ(f.writes, (std::vector<int>{512, 512}));
    EXPECT_EQ(f.data.size(), 1024u);

    // The local file: 512 bytes stay in the buffer until close.
    TempDir dir;
    TagdbLocalFile lf;
    ASSERT_EQ(lf.open((dir / "f").c_str(), TagdbCommon::WriteMode), TagdbCommon::Ok);
    ASSERT_EQ(lf.writeBytes(chunk.data(), 508), TagdbCommon::Ok);
    EXPECT_EQ(readFile(dir / "f").size(), 0u);
    ASSERT_EQ(lf.close(), TagdbCommon::Ok);
    EXPECT_EQ(readFile(dir / "f").size(), 512u);
}

TEST(TagdbFile, EndOfFileMissingFilesAndCorruptLengthsFailCleanly) {
    TempDir dir;
    TagdbLocalFile f;
    EXPECT_EQ(f.open((dir / "missing").c_str(), TagdbCommon::ReadMode), TagdbCommon::Failed);
    EXPECT_FALSE(f.isOpen());
    int got = 1;
    char buf[8];
    EXPECT_EQ(f.read(buf, 8, got), TagdbCommon::Failed);
    EXPECT_EQ(f.remove((dir / "missing").c_str()), TagdbCommon::Failed);
    EXPECT_EQ(f.unlock((dir / "missing").c_str()), TagdbCommon::Failed);

    // Every truncation of an encoded sequence fails at the cut, never later.
    std::vector<Item> items = {{Item::String, 0, std::string(600, 's')},
                               {Item::Id, 0x0102030405060708ull, {}},
                               {Item::Blob, 0, std::string("blob")}};
    Bytes whole = encode(items, false);
    for (size_t cut = 0; cut < whole.size(); cut += (cut < 8 || cut > 600 ? 1 : 37)) {
        writeFile(dir / "cut", Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)));
        ASSERT_EQ(f.open((dir / "cut").c_str(), TagdbCommon::ReadMode), TagdbCommon::Ok);
        char const* s = nullptr;
        long long id = 0;
        void const* p = nullptr;
        int n = 0;
        Status a = f.readString(s), b = a == TagdbCommon::Ok ? f.readTagDbId(id) : a;
        Status c = b == TagdbCommon::Ok ? f.readBytes(p, n) : b;
        EXPECT_EQ(c, TagdbCommon::Failed) << "cut at " << cut;
        qkFree(const_cast<char*>(s), __FILE__, __LINE__);
        qkFree(const_cast<void*>(p), __FILE__, __LINE__);
        f.close();
    }

    // A length word far beyond the file, and a text without its NUL.
    Bytes bad;
    putNumber(bad, 0x7FFFFFF0u, 4, false);
    bad.insert(bad.end(), {'a', 'b', 'c'});
    writeFile(dir / "bad", bad);
    ASSERT_EQ(f.open((dir / "bad").c_str(), TagdbCommon::ReadMode), TagdbCommon::Ok);
    void const* p = nullptr;
    int n = 0;
    EXPECT_EQ(f.readBytes(p, n), TagdbCommon::Failed);
    qkFree(const_cast<void*>(p), __FILE__, __LINE__);
    Bytes unterminated;
    putNumber(unterminated, 3, 4, false);
    unterminated.insert(unterminated.end(), {'x', 'y', 'z'});
    writeFile(dir / "bad", unterminated);
    ASSERT_EQ(f.open((dir / "bad").c_str(), TagdbCommon::ReadMode), TagdbCommon::Ok);
    char const* s = nullptr;
    ASSERT_EQ(f.readString(s), TagdbCommon::Ok);
    EXPECT_STREQ(s, "xyz");
    qkFree(const_cast<char*>(s), __FILE__, __LINE__);
}

// ---- Lock files between processes ------------------------------------------

void waitChild(pid_t pid) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

int readCounter(std::string const& path) {
    Bytes b = readFile(path);
    return b.empty() ? 0 : std::stoi(std::string(b.begin(), b.end()));
}

// Two processes increment a counter file under the lock with a pause inside
// the critical section; a lost update shows in the final count.
TEST(TagdbLocalFile, LockFileSerialisesTwoProcesses) {
    TempDir dir;
    std::string name = dir / "store", counter = dir / "counter";
    constexpr int kRounds = 25;
    auto work = [&] {
        TagdbLocalFile f;
        for (int i = 0; i < kRounds; ++i) {
            if (f.lock(name.c_str()) != TagdbCommon::Ok) return 1;
            int v = readCounter(counter);
            usleep(2000);
            std::string t = std::to_string(v + 1);
            writeFile(counter, Bytes(t.begin(), t.end()));
            if (f.unlock(name.c_str()) != TagdbCommon::Ok) return 2;
        }
        return 0;
    };
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(work());
    EXPECT_EQ(work(), 0);
    waitChild(pid);
    EXPECT_EQ(readCounter(counter), 2 * kRounds);
    EXPECT_FALSE(fs::exists(name + "-lock"));
}

TEST(TagdbLocalFile, LockWaitsForTheHolderAndTimesOut) {
    TempDir dir;
    std::string lockPath = dir / "s-lock";
    ASSERT_EQ(qk::tagdb::acquireLockFile(lockPath.c_str(), 1000, 5), TagdbCommon::Ok);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(qk::tagdb::acquireLockFile(lockPath.c_str(), 150, 5), TagdbCommon::LockTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(150));

    // A holder in another process that lets go after a while.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        usleep(200000);
        writeFile(dir / "released", {});
        _exit(unlink(lockPath.c_str()) == 0 ? 0 : 1);
    }
    TagdbLocalFile f;
    ASSERT_EQ(f.lock((dir / "s").c_str()), TagdbCommon::Ok);
    EXPECT_TRUE(fs::exists(dir / "released"));
    waitChild(pid);
    EXPECT_EQ(f.unlock((dir / "s").c_str()), TagdbCommon::Ok);
    EXPECT_EQ(f.unlock((dir / "s").c_str()), TagdbCommon::Failed);
}

// The real time-out: a stale lock blocks for a little more than 30 seconds.
TEST(TagdbLocalFile, StaleLockTimesOutAfterThirtySeconds) {
    TempDir dir;
    writeFile(dir / "s-lock", {});
    TagdbLocalFile f;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(f.lock((dir / "s").c_str()), TagdbCommon::LockTimeout);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(30));
    EXPECT_LT(waited, std::chrono::seconds(45));
}

}  // namespace
