// Accounting and limits as a host sees them. A random run of requests under
// changing limits is checked against the crossing rule applied to the
// statistics seen before and after each request: which reports come, in which
// order on which path, with which text; the high-water marks and the advisory
// query follow the same statistics. Then the warning line itself, and the
// C runtime heap as the manager sets it up for large blocks.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

// Warnings (captured by Warnings) and handler calls in the order they came,
// and what was expected. Reserved before the run: they must not allocate, or
// they would change the statistics they watch.
std::string want;

void journalHandler(qkMemoryErrorId id) {
    Warnings::text += id == QK_MEMORY_SYSTEM_LIMIT ? "handler system\n" : "handler thread\n";
}

// A limit is crossed by a charge that takes the summary from above 0 and at
// most the limit to above it.
bool crosses(unsigned long long limit, long long old, long long now) {
    return limit != 0 && old >= 1 && static_cast<unsigned long long>(old) <= limit && now >= 1 &&
           static_cast<unsigned long long>(now) > limit;
}

// A new limit: none, exactly the summary's value or a superblock above it
// (the edges of the rule), or near it.
unsigned long long nearLimit(std::mt19937& rng, long long bytes) {
    long long near = bytes + static_cast<long long>(rng() % 60000) - 20000;
    long long const picks[] = {0, bytes, bytes + 16384, std::max(near, 1LL)};
    return static_cast<unsigned long long>(picks[std::min<unsigned>(rng() % 6, 3)]);
}

// Per limit (system, thread): its summary, limit, warning and handler line.
TEST(qkMemoryLimits, CrossingsHighwaterAndTheAdvisoryQueryFollowTheStatistics) {
    Warnings::install();
    Warnings::text.reserve(4096);
    want.reserve(4096);
    onFreshThread([] {
        MEMORY_STATS* stats[2] = {&mgr()->summarySystemStats, &qkMemoryThread()->summaryStats};
        auto limits = [] {
            return std::array{qkMemory::getSystemLimit(), qkMemory::getThreadLimit()};
        };
        char const* const texts[2] = {"system memory limit exceeded",
                                      "thread memory limit exceeded"};
        char const* const heard[2] = {"handler system\n", "handler thread\n"};
        std::mt19937 rng(2024);
        std::vector<std::pair<void*, size_t>> live;
        live.reserve(10000);          // no allocation of the test's own during the run
        qkMemory::setThreadLimit(1);  // a charge from 0 is never a crossing
        qkMemory::setSystemHighwater();
        long long peak[2] = {stats[0]->bytes, stats[1]->bytes};
        int crossed[2] = {};  // on the small and the large path
        for (int step = 0; step < 10000 && !HasFailure(); ++step) {
            unsigned op = rng() % 100;
            Warnings::text.clear();
            if (op < 8) {
                qkMemory::setSystemLimit(nearLimit(rng, stats[0]->bytes));
                qkMemory::setThreadLimit(nearLimit(rng, stats[1]->bytes));
                qkMemory::_memoryErrorHandler = rng() % 2 ? journalHandler : nullptr;
            } else if (op < 10) {
                qkMemory::setSystemHighwater();
                peak[0] = stats[0]->bytes, peak[1] = stats[1]->bytes;
            } else if (op < 45 && !live.empty()) {
                qkFree(std::exchange(live[rng() % live.size()], live.back()).first, "free", step);
                live.pop_back();
                EXPECT_EQ(Warnings::text, "") << "a release reported a crossing";
            } else {
                // A small request of the buckets with the fewest blocks (so that
                // superblocks are often taken from the system or the keep pool),
                // a large one, or the growth of a large one.
                bool grow = op < 60 && !live.empty() && live.back().second > 512;
                size_t size = grow      ? live.back().second + 1 + rng() % 30000
                              : op < 88 ? 384 + rng() % 129
                                        : 513 + rng() % 6000;
                char const* tag = randomTag(rng);
                auto limit = limits();
                long long old[2] = {stats[0]->bytes, stats[1]->bytes};
                void* p = grow ? qkRealloc(live.back().first, size, tag, step)
                               : qkMalloc(size, tag, step);
                bool handler = qkMemory::_memoryErrorHandler != nullptr, hit[2];
                std::array<char, 128> warned[2] = {};
                char const* called[2] = {"", ""};
                for (int k = 0; k < 2; ++k) {
                    hit[k] = crosses(limit[k], old[k], stats[k]->bytes);
                    if (hit[k] && (handler || size <= 512))
                        warned[k] = warningLine(texts[k], tag, step);
                    if (hit[k] && handler) called[k] = heard[k];
                }
                crossed[size > 512] += hit[0] || hit[1];
                // Small: warned always, then the handler hears. Large: the
                // handler hears, then the warning (none without a handler).
                char const* order[2][4] = {
                    {warned[0].data(), warned[1].data(), called[0], called[1]},
                    {called[0], warned[0].data(), called[1], warned[1].data()}};
                want.clear();
                for (char const* part : order[size > 512])
                    want += part;
                EXPECT_EQ(Warnings::text, want) << "step " << step;
                if (grow) live.pop_back();
                live.emplace_back(p, size);
            }
            auto limit = limits();
            int size = static_cast<int>(rng() % 2000), count = static_cast<int>(rng() % 4);
            bool reached = false;
            for (int k = 0; k < 2; ++k) {
                peak[k] = std::max(peak[k], stats[k]->bytes);
                EXPECT_EQ(stats[k]->highwater, peak[k]) << "step " << step;
                long long at = stats[k]->bytes, need = (size + 16) * count;
                reached |= limit[k] && at >= 1 && at + need > static_cast<long long>(limit[k]);
            }
            EXPECT_EQ(qkMemory::systemLimitReached(size, count), reached) << "step " << step;
        }
        for (auto& [p, size] : live)
            qkFree(p, "free", 0);
        EXPECT_GE(std::min(crossed[0], crossed[1]), 10);
    });
}

// Without a print function a warning goes to standard output; a line is cut
// to its 1024-byte buffer; a warning from inside the print function is
// dropped (and the print lock is not taken twice in a way that would hang).
std::vector<std::string> printed;

TEST(qkMemoryWarn, TheLineIsCutToItsBufferAndAWarningFromThePrintFunctionIsDropped) {
    testing::internal::CaptureStdout();
    qkMemory::warn("plain", reinterpret_cast<char const*>(0xABCDEF0123456789ULL), -3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "plain (0x23456789:-3)\n");
    qkMemory::setPrintFunction([](char const* text) {
        printed.push_back(text);
        qkMemory::warn("inner", "x", 1);
    });
    qkMemory::warn(std::string(2000, 'm').c_str(), nullptr, 0);
    qkMemory::warn("outer", reinterpret_cast<char const*>(5), 2);
    EXPECT_EQ(printed, std::vector<std::string>({std::string(1023, 'm'), "outer (0x5:2)\n"}));
}

}  // namespace

namespace {

// The C runtime's heap as the manager sets it up for large blocks: a block of
// some MiB comes from the heap top (not a mapping of its own), and releasing
// it leaves the top where it was (glibc's defaults map such a block, and give
// the top back as soon as 128 KiB lie free). On the main thread, whose heap
// is the one that grows by brk.
TEST(qkMemoryHeap, LargeBlocksComeFromTheHeapTopAndItIsNotGivenBack) {
#ifdef QK_MEMORY_SANITIZED
    GTEST_SKIP() << "the sanitizer's allocator serves the raw heap";
#else
    ASSERT_NE(mgr(), nullptr);
    void* probe = qk::platform::rawAlloc(64);  // the heap exists
    char* before = static_cast<char*>(sbrk(0));
    constexpr size_t kBig = 2 << 20;
    void* big = qk::platform::rawAlloc(kBig);
    std::memset(big, 1, kBig);
    char* grown = static_cast<char*>(sbrk(0));
    qk::platform::rawFree(big);
    char* after = static_cast<char*>(sbrk(0));
    qk::platform::rawFree(probe);
    EXPECT_GE(grown - before, static_cast<ptrdiff_t>(kBig)) << "the block was mapped on its own";
    EXPECT_EQ(after, grown) << "the heap top was given back";
#endif
}

}  // namespace
