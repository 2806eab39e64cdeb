// qkString across threads: a heap text is shared only on the thread that
// made it; every other thread copies. Run under ThreadSanitizer and
// AddressSanitizer these tests also prove the counts are never touched by
// two threads (a race, a double free or a leak would show).
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "StringTestSupport.h"

namespace {

// Readers copy from strings of the main thread (half of them with a length
// still to be counted) while each shares and changes copies of its own; the
// main thread's strings are only read.
TEST(qkStringThreads, ConcurrentReadersCopyAndShareAmongThemselves) {
    std::vector<qkString> pool;
    for (int i = 0; i < 16; ++i) {
        qkString s(std::string(20 + i * 7, char('a' + i)).c_str());
        if (i % 2) s.head();
        pool.push_back(s);
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(t);
            std::vector<qkString> mine(8);
            for (int step = 0; step < 20000; ++step) {
                int p = rng() % 16;
                qkString& m = mine[rng() % 8];
                qkString const& other = mine[rng() % 8];
                switch (rng() % 4) {
                    case 0:  // another thread's text: copied
                        m = pool[p];
                        failures += m.sanitize() == pool[p].sanitize();
                        break;
                    case 1:  // this thread's own heap text: shared
                        m = other;
                        failures += other.size() > 32 && m.sanitize() != other.sanitize();
                        break;
                    case 2:
                        m += pool[p].sanitize();
                        break;
                    default:
                        if (m.length() > 4000) m = "reset";
                        m.reverse();
                }
                failures += pool[p].length() != 20u + p * 7;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(text(pool[i]), std::string(20 + i * 7, char('a' + i)));
}

}  // namespace
