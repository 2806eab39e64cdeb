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

#include "qkString.h"

namespace {

constexpr int kThreads = 4;

std::string text(qkString const& s) {
    return std::string(s.sanitize(), s.length());
}

TEST(qkStringThreads, OtherThreadsCopyAndShareAmongThemselves) {
    qkString made(std::string(64, 'm').c_str());
    qkString sharer = made;
    ASSERT_EQ(made.sanitize(), sharer.sanitize());
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            qkString copy = made;  // another thread's text: copied
            qkString again;
            again = copy;  // this thread's own text: shared
            bool ok = copy.sanitize() != made.sanitize() && again.sanitize() == copy.sanitize() &&
                      text(copy) == std::string(64, 'm');
            again += "!";  // copy on write on this thread
            ok = ok && text(copy) == std::string(64, 'm') && again.sanitize() != copy.sanitize();
            if (!ok) failures.fetch_add(1);
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(made.sanitize(), sharer.sanitize());
}

// Many readers copy from strings of the main thread while each also shares
// and changes its own copies; the main thread's strings are read only.
TEST(qkStringThreads, ConcurrentReadersAndPrivateWriters) {
    std::vector<qkString> pool;
    for (int i = 0; i < 16; ++i) {
        qkString s(std::string(20 + i * 7, static_cast<char>('a' + i)).c_str());
        // Half the pool has an unknown length, so readers fill the cache.
        if (i % 2) s.head();
        pool.push_back(s);
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(t);
            std::vector<qkString> mine(8);
            for (int step = 0; step < 20000; ++step) {
                int p = rng() % 16;
                qkString& m = mine[rng() % 8];
                switch (rng() % 4) {
                    case 0:
                        m = pool[p];
                        if (m.sanitize() == pool[p].sanitize()) failures.fetch_add(1);
                        break;
                    case 1:
                        m = mine[rng() % 8];
                        break;
                    case 2:
                        m += pool[p].sanitize();
                        break;
                    default:
                        if (m.length() > 4000) m = "reset";
                        m.reverse();
                }
                if (pool[p].length() != 20u + p * 7) failures.fetch_add(1);
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(text(pool[i]), std::string(20 + i * 7, static_cast<char>('a' + i)));
}

// A string handed over whole: the receiving thread may change it, share it
// and let it go, since the giver no longer touches it.
TEST(qkStringThreads, HandOverWhole) {
    for (int round = 0; round < 200; ++round) {
        auto* given = new qkString(std::string(100, 'h').c_str());
        qkString copyOfGiven = *given;  // the giver's sharer, also handed over
        auto* alsoGiven = new qkString(copyOfGiven);
        copyOfGiven = static_cast<char const*>(nullptr);
        std::string seen;
        std::thread receiver([&] {
            qkString local = *given;  // made by the other thread: copied
            *given += "+";            // changes the shared text: copied first
            seen = text(*given) + text(*alsoGiven) + text(local);
            delete given;
            delete alsoGiven;  // the last sharer frees the block
        });
        receiver.join();
        std::string h(100, 'h');
        ASSERT_EQ(seen, h + "+" + h + h);
    }
}

}  // namespace
