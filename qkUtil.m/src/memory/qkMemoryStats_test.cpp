// Accounting and limits as a host sees them. A random run of requests under
// changing limits is checked against the crossing rule applied to the
// statistics seen before and after each request: which reports come, in which
// order on which path, with which text; the high-water marks and the advisory
// query follow the same statistics. Then the warning line itself.
#include <cstdio>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

// Warnings and handler calls in the order they came, and what was expected.
// Reserved before the run: they must not allocate, or they would change the
// statistics they watch.
std::string journal, want;

void journalHandler(qkMemoryErrorId id) {
    journal += id == QK_MEMORY_SYSTEM_LIMIT ? "handler system\n" : "handler thread\n";
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

TEST(qkMemoryLimits, CrossingsHighwaterAndTheAdvisoryQueryFollowTheStatistics) {
    journal.reserve(4096);
    want.reserve(4096);
    qkMemory::setPrintFunction([](char const* text) { journal += text; });
    onFreshThread([] {
        MEMORY_STATS& system = mgr()->summarySystemStats;
        MEMORY_STATS& thread = qkMemoryThread()->summaryStats;
        std::mt19937 rng(2024);
        std::vector<std::pair<void*, size_t>> live;
        live.reserve(10000);          // no allocation of the test's own during the run
        qkMemory::setThreadLimit(1);  // a charge from 0 is never a crossing
        qkMemory::setSystemHighwater();
        long long systemPeak = system.bytes, threadPeak = thread.bytes;
        int crossed[2] = {};  // on the small and the large path
        for (int step = 0; step < 10000 && !HasFailure(); ++step) {
            unsigned op = rng() % 100;
            journal.clear();
            if (op < 8) {
                qkMemory::setSystemLimit(nearLimit(rng, system.bytes));
                qkMemory::setThreadLimit(nearLimit(rng, thread.bytes));
                qkMemory::_memoryErrorHandler = rng() % 2 ? journalHandler : nullptr;
            } else if (op < 10) {
                qkMemory::setSystemHighwater();
                systemPeak = system.bytes, threadPeak = thread.bytes;
            } else if (op < 45 && !live.empty()) {
                size_t i = rng() % live.size();
                qkFree(live[i].first, "free", step);
                live[i] = live.back();
                live.pop_back();
                EXPECT_EQ(journal, "") << "a release reported a crossing";
            } else {
                // A small request of the buckets with the fewest blocks (so that
                // superblocks are often taken from the system or the keep pool),
                // a large one, or the growth of a large one.
                bool grow = op < 60 && !live.empty() && live.back().second > 512;
                size_t size = grow      ? live.back().second + 1 + rng() % 30000
                              : op < 88 ? 384 + rng() % 129
                                        : 513 + rng() % 6000;
                uint64_t caller = uint64_t{rng()} << 32 | rng();
                char const* tag = reinterpret_cast<char const*>(caller);
                unsigned long long systemLimit = qkMemory::getSystemLimit();
                unsigned long long threadLimit = qkMemory::getThreadLimit();
                long long systemOld = system.bytes, threadOld = thread.bytes;
                void* p = grow ? qkRealloc(live.back().first, size, tag, step)
                               : qkMalloc(size, tag, step);
                bool sys = crosses(systemLimit, systemOld, system.bytes);
                bool thr = crosses(threadLimit, threadOld, thread.bytes);
                bool handler = qkMemory::_memoryErrorHandler != nullptr;
                crossed[size > 512] += sys || thr;
                auto warning = [&](char const* which) {
                    char line[128];
                    std::snprintf(line, sizeof line, "%s memory limit exceeded (0x%x:%d)\n", which,
                                  static_cast<unsigned>(caller), step);
                    want += line;
                };
                want.clear();
                if (size <= 512) {  // warned always, then the handler hears
                    if (sys) warning("system");
                    if (thr) warning("thread");
                    if (sys && handler) want += "handler system\n";
                    if (thr && handler) want += "handler thread\n";
                } else if (handler) {  // the handler hears, then the warning
                    if (sys) want += "handler system\n", warning("system");
                    if (thr) want += "handler thread\n", warning("thread");
                }
                EXPECT_EQ(journal, want) << "step " << step;
                if (grow) live.pop_back();
                live.emplace_back(p, size);
            }
            systemPeak = std::max(systemPeak, system.bytes);
            threadPeak = std::max(threadPeak, thread.bytes);
            EXPECT_EQ(system.highwater, systemPeak) << "step " << step;
            EXPECT_EQ(thread.highwater, threadPeak) << "step " << step;
            int size = static_cast<int>(rng() % 2000), count = static_cast<int>(rng() % 4);
            long long need = (size + 16) * count, sl = qkMemory::getSystemLimit(),
                      tl = qkMemory::getThreadLimit();
            bool reached = (sl && system.bytes >= 1 && system.bytes + need > sl) ||
                           (tl && thread.bytes >= 1 && thread.bytes + need > tl);
            EXPECT_EQ(qkMemory::systemLimitReached(size, count), reached) << "step " << step;
        }
        for (auto& [p, size] : live)
            qkFree(p, "free", 0);
        EXPECT_GE(crossed[0], 10);
        EXPECT_GE(crossed[1], 10);
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
    qkMemory::warn("outer", "y", 2);
    ASSERT_EQ(printed.size(), 2u);
    EXPECT_EQ(printed[0], std::string(1023, 'm'));
    EXPECT_EQ(printed[1].substr(0, 6), "outer ");
}

}  // namespace
