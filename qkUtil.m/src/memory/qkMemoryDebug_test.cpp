// Debug mode (three slots a block, set before the first allocation): the
// slot ring of every block against a model under random allocations and
// releases on two threads; the dump's listing parsed back against the
// manager's statistics, its script form, its failures and the fill after
// it; the leak report by allocation site.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <vector>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

constexpr int kSlots = 3;

struct Pair {
    void* alloc;
    void* release;
    bool operator==(Pair const& o) const { return alloc == o.alloc && release == o.release; }
};

// A block's ring as the manager keeps it: the slots and the current position.
struct Ring {
    Pair slots[kSlots];
    int position;
    bool operator==(Ring const& o) const {
        return position == o.position && std::equal(slots, slots + kSlots, o.slots);
    }
};

Ring ringOf(void* p) {
    MEMORY_HEADER* h = qkMemoryInternals::headerOf(mgr(), p);
    Ring r{};
    std::memcpy(r.slots, h + 1, sizeof r.slots);
    r.position = h->slot;
    return r;
}

char const* tag(int n) {
    return reinterpret_cast<char const*>(uintptr_t{0x7000} + 16 * uintptr_t(n));
}

TEST(MemoryDebug, SettingsAndTheLayoutOnceBlocksExist) {
    EXPECT_EQ(qkMemory::getDebug(), 1);
    EXPECT_EQ(qkMemory::getDebugHeaderCount(), kSlots);
    EXPECT_EQ(qkMemory::getDebugHeaderSize(), 16 * kSlots);
    // Blocks exist: another count is not taken; recording turns off and on.
    // (One is held here: under a sanitizer, operator new is not the manager's.)
    void* held = qkMalloc(8, tag(0), 0);
    qkMemory::setDebug(1, 5);
    EXPECT_EQ(qkMemory::getDebugHeaderCount(), kSlots);
    qkMemory::setDebug(0, 0);
    EXPECT_EQ(qkMemory::getDebug(), 0);
    EXPECT_EQ(qkMemory::getDebugHeaderCount(), kSlots);
    void* p = qkMalloc(40, tag(1), 0);
    Ring before = ringOf(p);
    qkFree(p, tag(2), 0);
    void* q = qkMalloc(40, tag(3), 0);
    ASSERT_EQ(q, p);  // the same block again
    EXPECT_EQ(ringOf(q), before) << "nothing recorded while off";
    qkFree(q, tag(4), 0);
    qkMemory::setDebug(1, 0);
    EXPECT_EQ(qkMemory::getDebug(), 1);
    qkFree(held, tag(0), 0);
}

// Random allocations and releases (a quarter of them by another thread):
// while a block is held, its allocation sits in the current slot and no
// other slot changes; its release fills that slot's other half and moves
// the ring on. (Between holds the test's own containers may reuse a block,
// so a block's history is followed across one hold at a time.)
TEST(MemoryDebug, EveryHoldAndReleaseStepsTheRing) {
    std::mt19937 rng(17);
    struct Held {
        void* p;
        size_t size;
        char const* tag;
        Ring ring;
    };
    std::vector<Held> live;
    live.reserve(20000);
    int next = 1;
    for (int step = 0; step < 20000; ++step) {
        if (live.empty() || rng() % 2) {
            size_t size = rng() % 4 ? 8 + rng() % 200 : 600 + rng() % 2000;
            char const* t = tag(next++);
            void* p = qkMalloc(size, t, 0);
            Ring r = ringOf(p);
            if (size > 512) {
                // A large block: slot 0 holds the allocation, nothing else.
                Ring want{};
                want.slots[0] = {const_cast<char*>(t), nullptr};
                ASSERT_EQ(r, want);
            } else {
                ASSERT_TRUE(r.position >= 0 && r.position < kSlots);
                ASSERT_EQ(r.slots[r.position].alloc, t);
            }
            live.push_back({p, size, t, r});
            continue;
        }
        size_t i = rng() % live.size();
        Held h = live[i];
        live[i] = live.back();
        live.pop_back();
        ASSERT_EQ(ringOf(h.p), h.ring) << "the ring changed while the block was held";
        char const* t = tag(next++);
        if (rng() % 4 == 0) {
            std::thread([&] { qkFree(h.p, t, 0); }).join();
        } else {
            qkFree(h.p, t, 0);
        }
        if (h.size > 512) continue;  // gone to the C runtime
        Ring want = h.ring;
        want.slots[want.position].release = const_cast<char*>(t);
        want.position = (want.position + 1) % kSlots;
        ASSERT_EQ(ringOf(h.p), want) << "after the release";
    }
    for (Held const& h : live)
        qkFree(h.p, tag(0), 0);
}

TEST(MemoryDebug, ThreePairsThroughOneBlockLeaveTheRingInOrder) {
    void* first = qkMalloc(64, tag(100), 0);
    qkFree(first, tag(101), 0);
    Ring start = ringOf(first);
    for (int round = 0; round < 3; ++round) {
        void* p = qkMalloc(64, tag(200 + 2 * round), 0);
        ASSERT_EQ(p, first);
        qkFree(p, tag(201 + 2 * round), 0);
    }
    Ring r = ringOf(first);
    // Three more pairs went round the whole ring: back at the same position.
    EXPECT_EQ(r.position, start.position);
    for (int round = 0; round < 3; ++round) {
        Pair want{const_cast<char*>(tag(200 + 2 * round)), const_cast<char*>(tag(201 + 2 * round))};
        EXPECT_EQ(r.slots[(start.position + round) % kSlots], want) << round;
    }
}

// ---- the dump -----------------------------------------------------------------------

std::string readAll(std::string const& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(MemoryDebug, ListingAgreesWithTheStatistics) {
    std::vector<void*> held;
    for (int i = 0; i < 300; ++i)
        held.push_back(qkMalloc(16 + size_t(i % 20) * 24, tag(i), 0));
    std::string path = testing::TempDir() + "qk_dump_listing.txt";
    size_t bytes = 0, blocks = 0, superblocks = 0;
    ASSERT_EQ(qkMemoryDump(path.c_str(), &bytes, &blocks, &superblocks, 0, 0), 1);
    // Read at once: the parsing below allocates, and the thread's next
    // shortage takes superblocks back out of the keep pool.
    long long kept = qkMemory::loadStats(qkMemory::getKeepStats()).count;
    // The caller's heap went to the keep pool: its statistics are zero.
    EXPECT_EQ(qkMemory::loadStats(&qkMemoryThread()->summaryStats).count, 0);
    std::string text = readAll(path);
    std::istringstream lines(text);
    std::string line;
    size_t listedSuperblocks = 0, listedBlocks = 0, listedBytes = 0, keepSuperblocks = 0;
    int blockSize = 0, hexLines = 0;
    bool inBuckets = true;
    std::regex superblock(
        R"( superblock [0-9A-F]{16} size (\d+) allocCount (\d+) freeCount (\d+) blockCount (\d+)( <-- empty)?)");
    std::regex address(R"( address [0-9A-F]{16})");
    std::regex hex(R"(0x[0-9a-f]{8,}: 0x[0-9a-f]{16} 0x[0-9a-f]{16})");
    std::smatch m;
    while (std::getline(lines, line)) {
        if (line.rfind("thread ", 0) == 0) inBuckets = false;
        if (std::regex_match(line, m, superblock)) {
            ++listedSuperblocks;
            keepSuperblocks += inBuckets;
            blockSize = std::stoi(m[1]);
            bool empty = m[5].matched;
            EXPECT_EQ(empty, m[2] == "0" && m[3] == "0") << line;
        } else if (std::regex_match(line, address)) {
            ++listedBlocks;
            listedBytes += size_t(blockSize);
        } else if (std::regex_match(line, hex)) {
            ++hexLines;
        }
    }
    EXPECT_EQ(listedSuperblocks, superblocks);
    EXPECT_EQ(listedBlocks, blocks);
    EXPECT_EQ(listedBytes, bytes);
    EXPECT_EQ(hexLines, int(blocks) * (2 + kSlots));
    EXPECT_EQ(static_cast<long long>(keepSuperblocks), kept);
    EXPECT_GE(blocks, held.size());
    EXPECT_NE(text.find("threads active/inactive "), std::string::npos);

    // The script form: one "x/i" line per block in use, with its allocation site.
    size_t scriptBlocks = 0;
    std::string script = testing::TempDir() + "qk_dump_script.gdb";
    ASSERT_EQ(qkMemoryDump(script.c_str(), &bytes, &scriptBlocks, &superblocks, 1, 1), 1);
    std::string commands = readAll(script);
    std::regex xi(R"(x/i 0x[0-9a-f]{16})");
    size_t n = 0;
    std::istringstream cs(commands);
    while (std::getline(cs, line)) {
        ASSERT_TRUE(std::regex_match(line, xi)) << line;
        ++n;
    }
    EXPECT_EQ(n, scriptBlocks);
    // Each block's command names slot 0's allocation: for a held block whose
    // ring stands at slot 0, its own allocation site.
    int withSite = 0;
    for (size_t i = 0; i < held.size(); ++i) {
        if (ringOf(held[i]).position != 0) continue;
        char site[32];
        std::snprintf(site, sizeof site, "x/i 0x%016lx\n",
                      static_cast<unsigned long>(uintptr_t(tag(int(i)))));
        EXPECT_NE(commands.find(site), std::string::npos) << site;
        ++withSite;
    }
    EXPECT_GT(withSite, 0);
    // Small blocks come filled with 0xAA from now on.
    auto* filled = static_cast<unsigned char*>(qkMalloc(48, tag(1), 0));
    EXPECT_TRUE(std::all_of(filled, filled + 48, [](unsigned char c) { return c == 0xAA; }));
    qkFree(filled, tag(1), 0);
    for (void* p : held)
        qkFree(p, tag(0), 0);
    std::remove(path.c_str());
    std::remove(script.c_str());
}

TEST(MemoryDebug, DumpFailuresAndStandardOutput) {
    Warnings::install();
    EXPECT_EQ(qkMemoryDump("/nonexistent-dir/dump.txt", nullptr, nullptr, nullptr, 1, 0), 0);
    // Tagged with the manager's own file name, wherever the library keeps it.
    EXPECT_TRUE(std::regex_match(Warnings::take(),
                                 std::regex(R"(cannot open output file \(0x[0-9a-f]+:546\)\n)")));
    qkMemory::setPrintFunction(nullptr);
    // An empty path writes to standard output (here a file in its place).
    std::string path = testing::TempDir() + "qk_dump_stdout.txt";
    std::fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, STDOUT_FILENO);
    close(fd);
    int ok = qkMemoryDump("", nullptr, nullptr, nullptr, 1, 0);
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(readAll(path).rfind("bucket 0\n", 0), 0u);
    std::remove(path.c_str());
}

// ---- the leak report ----------------------------------------------------------------

// Not tail calls, and not merged: the allocation's return address stays
// in each of these functions.
__attribute__((noipa)) void* leakFromSiteA(size_t n) {
    void* p = qkMalloc(n, static_cast<char const*>(getCaller(16)), 0);
    asm volatile("" : : "r"(p) : "memory");
    return p;
}
__attribute__((noipa)) void* leakFromSiteB(size_t n) {
    void* p = qkMalloc(n, static_cast<char const*>(getCaller(16)), 0);
    asm volatile("" : : "r"(p) : "memory");
    return p;
}

TEST(MemoryDebug, LeakReportGroupsBlocksBySite) {
    std::vector<void*> a, b;
    for (int i = 0; i < 5; ++i)
        a.push_back(leakFromSiteA(100));
    b.push_back(leakFromSiteB(3000));
    std::string path = testing::TempDir() + "qk_leaks.txt";
    size_t bytes = 0, blocks = 0;
    ASSERT_EQ(mgr()->leakReport(path.c_str(), &bytes, &blocks), 1);
    std::string text = readAll(path);
    std::regex row(R"(\s*(\d+)\s+(\d+)  (.*))");
    std::smatch m;
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "memory in use: " + std::to_string(bytes) + " bytes in " +
                        std::to_string(blocks) + " blocks from " +
                        std::to_string(std::count(text.begin(), text.end(), '\n') - 2) +
                        " allocation sites");
    bool sawA = false, sawB = false;
    size_t sum = 0;
    while (std::getline(lines, line)) {
        if (!std::regex_match(line, m, row)) continue;
        sum += std::stoul(m[2]);
        if (m[3].str().find("leakFromSiteA") != std::string::npos) {
            sawA = true;
            EXPECT_EQ(m[1], "5") << line;
            EXPECT_EQ(std::stoul(m[2]), 5 * qkMemSize(a[0])) << line;
            EXPECT_NE(m[3].str().find("qkMemoryDebug_test.cpp:"), std::string::npos) << line;
        }
        if (m[3].str().find("leakFromSiteB") != std::string::npos) {
            sawB = true;
            EXPECT_EQ(m[1], "1") << line;
            EXPECT_EQ(m[2], "3000") << line;
        }
    }
    EXPECT_TRUE(sawA && sawB) << text;
    EXPECT_EQ(sum, bytes);
    for (void* p : a)
        qkFree(p, tag(0), 0);
    for (void* p : b)
        qkFree(p, tag(0), 0);
    std::remove(path.c_str());
}

}  // namespace

// ---- the debugger -------------------------------------------------------------------

namespace {

std::string run(std::string const& command) {
    std::string out;
    if (FILE* p = popen((command + " 2>&1").c_str(), "r")) {
        char buf[4096];
        while (size_t n = std::fread(buf, 1, sizeof buf, p))
            out.append(buf, n);
        pclose(p);
    }
    return out;
}

// The dump's commands and the offset lines, sourced into gdb against the
// live process that wrote them: each "x/i" shows the allocation site's
// instruction, and the offsets read the manager's fields.
TEST(MemoryDebugTools, GdbReadsTheDumpCommandsAndTheOffsets) {
    if (run("command -v gdb").empty()) GTEST_SKIP() << "gdb is not installed";
    std::string script = testing::TempDir() + "qk_gdb_dump.gdb";
    std::string offsets = testing::TempDir() + "qk_gdb_offsets.gdb";
    std::remove(offsets.c_str());
    std::string out = run("gdb -batch -nx -ex run -ex 'source " + script + "' -ex 'source " +
                          offsets + "' -ex 'print $qkMemory_debugHeaderSize' -ex " +
                          "'print *(int*)((char*)qkMemory::_This + $qkMemory_debugHeaderSize)' " +
                          "--args " + QK_GDB_TARGET + " " + script + " " + offsets);
    EXPECT_NE(out.find("SIGTRAP"), std::string::npos) << out;
    EXPECT_NE(out.find("gdbSiteOne"), std::string::npos) << out;
    EXPECT_NE(out.find("$1 = "), std::string::npos) << out;
    EXPECT_NE(out.find("$2 = 32"), std::string::npos) << out;  // two slots of 16 bytes
    std::remove(script.c_str());
    std::remove(offsets.c_str());
}

TEST(MemoryDebugTools, ReportAtExitNamesTheLeakingFunction) {
    std::string report = testing::TempDir() + "qk_exit_report.txt";
    std::string dir = testing::TempDir();
    std::remove(report.c_str());
    std::string out = run("QK_NO_TRAP=1 QK_MEMORY_REPORT=" + report + " " + QK_GDB_TARGET + " " +
                          dir + "qk_unused.gdb " + dir + "qk_unused_offsets.gdb");
    std::string text = readAll(report);
    std::regex line(R"(\s+4\s+\d+  gdbSiteOne\(unsigned int\) \(.*qkMemoryGdbTarget\.cpp:\d+\))");
    bool found = false;
    std::istringstream lines(text);
    for (std::string l; std::getline(lines, l);)
        found |= std::regex_match(l, line);
    EXPECT_TRUE(found) << text << out;
    std::remove(report.c_str());
}

}  // namespace
