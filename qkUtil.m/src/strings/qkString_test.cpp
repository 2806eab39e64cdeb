// qkString: a model of the representation rules (null, inline up to 31
// bytes, heap capacity len + 32 from resize and n * 3 / 2 + 32 from appends,
// sharing on assignment, unsharing before every write) over plain
// std::strings and block numbers, run side by side with real strings under
// random operations, sources inside the strings' own texts included; line
// reading against a model of the reads; strings shared across threads; and
// the debugger script's lines.
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <thread>
#include <tuple>

#include "StringTestSupport.h"
#include "qkMemory.h"

struct Model {
    bool null = true;
    std::string text;
    unsigned cap = 0;
    int block = 0;  // 0: null or inline; else the heap block's number
};
Model const emptyInline{false, "", 32, 0};

struct World {
    std::vector<Model> m = std::vector<Model>(6);
    int nextBlock = 1;

    bool shared(Model const& x) const {
        return x.block && std::count_if(m.begin(), m.end(),
                                        [&](Model const& y) { return y.block == x.block; }) > 1;
    }
    void update(Model& x, bool keep) {
        if (!x.null && !shared(x)) return;
        std::string old = x.text;
        x = emptyInline;
        if (keep) resize(x, old.size(), false), x.text = old;
    }
    void resize(Model& x, size_t len, bool keep) {
        update(x, keep);
        if (len >= x.cap)
            x = Model{false, x.text, unsigned(len) + 32, x.block ? x.block : nextBlock++};
        if (x.text.size() > len) x.text.resize(len);
    }
    void append(Model& x, std::string const& t) {
        size_t n = x.text.size() + t.size();
        update(x, true);
        if (n >= x.cap) resize(x, n * 3 / 2, true);
        x.text += t;
    }
    void assign(Model& x, Model const& o) {
        if (&x == &o) return;
        if (o.block) return void(x = o);
        resize(x, o.text.size(), false);  // null gives an empty text, not a null string
        x.text = o.text;
    }
};

std::string randomText(std::mt19937& rng) {
    static unsigned const lengths[] = {0, 1, 5, 30, 31, 32, 33, 47, 48, 49, 100, 300};
    static std::string const alphabet = "abcxyz*?%_\xe9";
    std::string t;
    for (unsigned n = lengths[rng() % 12]; n > 0; --n)
        t += alphabet[rng() % alphabet.size()];
    return t;
}

void checkAgainstModel(std::vector<qkString> const& s, World const& w) {
    for (size_t i = 0; i < s.size(); ++i) {
        Model const& x = w.m[i];
        ASSERT_EQ(std::tuple(s[i].size(), text(s[i]), s[i].hasWild()),
                  std::tuple(x.null ? 0u : x.cap, x.text,
                             x.text.find_first_of("*?") != std::string::npos))
            << "string " << i;
        for (size_t j = 0; j < i; ++j)
            ASSERT_TRUE(x.null || w.m[j].null ||
                        (s[i].sanitize() == s[j].sanitize()) ==
                            (x.block == w.m[j].block && x.block))
                << "strings " << i << " and " << j;
    }
}

TEST(qkStringModel, RandomOperationsFollowTheRules) {
    EXPECT_EQ(qkString(static_cast<char const*>(nullptr)).size(), 0u);  // null, not empty
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::vector<qkString> s(6);
        World w;
        for (int step = 0; step <= 1500; ++step) {
            ASSERT_NO_FATAL_FAILURE(checkAgainstModel(s, w)) << "seed " << seed << " step " << step;
            int i = rng() % 6, j = rng() % 6, op = rng() % 10;
            Model &x = w.m[i], &y = w.m[j];
            std::string t = randomText(rng);
            // A text inside a string's own buffer: the source may move or be
            // shared while the target changes.
            char const* inside = s[j].sanitize() + rng() % (y.text.size() + 1);
            char const* source = rng() % 3 ? t.c_str() : (t = inside, inside);
            if (op == 0) {  // through a copy, a null source gives an empty text
                Model copy = y.null ? emptyInline : y;
                bool viaCopy = rng() % 2;
                viaCopy ? s[i] = qkString(s[j]) : s[i] = s[j];
                w.assign(x, viaCopy ? copy : y);
            } else if (op == 1) {
                s[i] = source;
                w.assign(x, Model{false, t});
            } else if (op == 2) {
                s[i] += source;
                w.append(x, t);
            } else if (op == 3) {
                s[i] += char('A' + step % 26);
                w.append(x, std::string(1, char('A' + step % 26)));
            } else if (op == 4) {
                w.append(x, t + x.text);
                s[i].cat(t.c_str(), nullptr, s[i].sanitize());
            } else if (op == 5) {  // in place: reversed and upper-cased
                s[i].reverse();
                s[i].toUpper();
                w.update(x, true);
                std::reverse(x.text.begin(), x.text.end());
                std::transform(x.text.begin(), x.text.end(), x.text.begin(),
                               [](unsigned char c) { return char(std::toupper(c)); });
            } else if (op == 6 && !x.null) {
                size_t cut = rng() % (x.text.size() + 1);
                s[i].head()[cut] = 0;  // the length is counted again
                w.update(x, true);
                x.text.resize(cut);
            } else if (op == 7) {
                unsigned len = rng() % 120, keep = rng() % 2;
                s[i].resize(len, keep);
                w.resize(x, len, keep);
            } else if (op == 8) {
                // Reading a byte of a null string makes it empty; writing one
                // makes the text private.
                ASSERT_EQ(static_cast<qkString const&>(s[i])[0u], x.text.empty() ? 0 : x.text[0]);
                if (x.null) x = emptyInline;
                if (x.text.empty()) continue;
                s[i][0] = 'w';
                w.update(x, true);
                x.text[0] = 'w';
            } else if (op == 9 && rng() % 3 == 0) {
                s[i] = static_cast<char const*>(nullptr);
                x = Model{};
            } else if (op == 9) {
                // The SQL pattern, one piece per byte, target maybe the
                // source itself: "*" and "?" become "%" and "_", a literal
                // "%" or "_" is escaped with "*".
                std::string from = x.text;
                ASSERT_EQ(s[i].prepareSQL(s[j]), from.find_first_of("%_") != std::string::npos);
                if (x.null) continue;
                w.update(x, true);
                for (char c : from)  // each piece grows the text by the rule
                    w.append(y, std::string(c == '%' || c == '_', '*') + (c == '*'   ? '%'
                                                                          : c == '?' ? '_'
                                                                                     : c));
            }
        }
    }
}

// Each read skips one line feed left by the read before it, then takes up to
// 2047 bytes up to the next line feed; an empty line fails the stream. Every
// read gives the string a fresh text. Output is the stream's ordinary text
// insertion; a null string writes nothing.
TEST(qkStringStreams, ReadsFollowTheModelAndOffsetsAreAppended) {
    std::mt19937 rng(21);
    int const lengths[] = {0, 1, 5, 2046, 2047, 2048, 4094, 4095, 5000};
    for (int round = 0; round < 300; ++round) {
        std::string input;
        for (int lines = rng() % 5 + 1; lines > 0; --lines)
            input += std::string(lengths[rng() % 9], char('a' + rng() % 26)) +
                     (lines > 1 || rng() % 2 ? "\n" : "");
        std::istringstream in(input);
        qkString shared(std::string(100, '-').c_str()), s = shared;
        for (size_t pos = 0, len = 1; pos < input.size() && len > 0; pos += len) {
            pos += input[pos] == '\n';
            len = std::min<size_t>(std::min(input.find('\n', pos), input.size()) - pos, 2047);
            in >> s;
            ASSERT_EQ(text(s), input.substr(pos, len)) << "round " << round;
            ASSERT_EQ(text(shared), std::string(100, '-'));
        }
    }
    std::ostringstream out;
    qkString null, a("abc");
    out << null << "|" << a << "|" << std::setw(6) << a << "|";
    null.printOn(out);
    EXPECT_EQ(out.str(), "|abc|   abc|");
}

// Whatever kind of stream it is, each read skips the line feed that ended
// the line before. Standard input synchronised with stdio keeps no buffer of
// its own, so nothing is ever reported waiting there; it is read in a child
// fed through a pipe, in both modes, with input whole and in pieces (a line
// feed that arrives only after the line was read).
TEST(qkStringStreams, EveryStreamKindReadsLineAfterLine) {
    std::string const expected = "[one]\n[two]\n[three]\n";
    auto run = [](std::string const& feed, char const* mode) {
        std::string command = "(" + feed + ") | " QK_STDIN_READER " " + mode;
        FILE* child = popen(command.c_str(), "r");
        std::string out;
        char chunk[256];
        for (size_t n; child && (n = std::fread(chunk, 1, sizeof chunk, child)) > 0;)
            out.append(chunk, n);
        EXPECT_EQ(child ? pclose(child) : -1, 0) << command;
        return out;
    };
    for (char const* mode : {"sync", "nosync"}) {
        EXPECT_EQ(run("printf 'one\\ntwo\\nthree\\n'", mode), expected) << mode;
        EXPECT_EQ(
            run("printf 'one'; sleep 0.2; printf '\\ntwo\\n'; sleep 0.2; printf 'three'", mode),
            expected)
            << mode;
    }

    char path[] = "/tmp/qkStringLinesXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "one\ntwo\nthree\n";
    std::ifstream file(path);
    std::istringstream string("one\ntwo\nthree");
    for (std::istream* in :
         {static_cast<std::istream*>(&file), static_cast<std::istream*>(&string)}) {
        std::string got;
        for (qkString s; *in >> s;)
            got += "[" + text(s) + "]\n";
        EXPECT_EQ(got, expected);
    }
    unlink(path);
}

// The caller tag in the first warning `what` among the printed lines
// ("<what> (0x<tag>:<line>)"); 0, and a test failure, when there is none.
static unsigned warnedTag(std::string const& warnings, char const* what) {
    std::string head = std::string(what) + " (0x";
    size_t at = warnings.find(head);
    EXPECT_NE(at, std::string::npos) << warnings;
    unsigned tag = 0;
    if (at != std::string::npos) std::sscanf(warnings.c_str() + at + head.size(), "%x:", &tag);
    return tag;
}

// The caller tag of a string's heap block moves up the stack with the
// manager's allocation offset, and only with it. The tag is seen in the
// warning of a crossed thread limit (given with an error handler set).
TEST(qkStringTags, AllocationTagsFollowTheAllocationOffset) {
    if (!qkMemory::getManager()) GTEST_SKIP() << "no memory manager";
    static std::string warnings;
    qkMemory::setPrintFunction([](char const* line) { warnings += line; });
    qkMemory::_memoryErrorHandler = [](qkMemoryErrorId) {};
    auto allocTag = [] {
        // The thread holds something (a crossing is counted from there) and
        // the limit lies just above it.
        void* held = qkMalloc(16, "test", 0);
        qkMemory::setThreadLimit(
            static_cast<unsigned long long>(qkMemory::getThreadStats()->bytes) + 1000);
        warnings.clear();
        {
            qkString s;
            s.resize(5000, 0);  // a large block: its charge crosses the limit
        }
        qkFree(held, "test", 0);
        return warnedTag(warnings, "thread memory limit exceeded");
    };
    std::thread([&] {
        unsigned alloc = allocTag();
        freeStackOffset = 8;
        EXPECT_EQ(allocTag(), alloc);
        freeStackOffset = 0, allocStackOffset = 8;
        EXPECT_NE(allocTag(), alloc);
        allocStackOffset = 0;
        EXPECT_EQ(allocTag(), alloc);
        qkMemory::setThreadLimit(0);
    }).join();
    qkMemory::_memoryErrorHandler = nullptr;
    qkMemory::setPrintFunction(nullptr);
}

// The caller tag of a string's release moves up the stack with the manager's
// free offset, and only with it. The tag is seen in the warning of a
// duplicate free: a bitwise twin of a string releases the heap block that the
// string itself already gave back (the manager reports it and leaves it be).
TEST(qkStringTags, ReleaseTagsFollowTheFreeOffset) {
    if (!qkMemory::getManager()) GTEST_SKIP() << "no memory manager";
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the twin reads a block that the address sanitizer has poisoned";
#endif
    static std::string warnings;
    qkMemory::setPrintFunction([](char const* line) { warnings += line; });
    auto freeTag = [] {
        alignas(qkString) unsigned char twin[sizeof(qkString)];
        {
            qkString s(std::string(100, 'x').c_str());  // a small heap block
            std::memcpy(static_cast<void*>(twin), static_cast<void*>(&s), sizeof s);
            warnings.clear();
        }
        reinterpret_cast<qkString*>(twin)->~qkString();  // the same block again
        return warnedTag(warnings, "duplicate free");
    };
    std::thread([&] {
        unsigned freed = freeTag();
        allocStackOffset = 8;
        EXPECT_EQ(freeTag(), freed);
        allocStackOffset = 0, freeStackOffset = 8;
        EXPECT_NE(freeTag(), freed);
        freeStackOffset = 0;
        EXPECT_EQ(freeTag(), freed);
    }).join();
    qkMemory::setPrintFunction(nullptr);
}

// A heap text is shared only on the thread that made it; every other thread
// copies. Readers copy from strings of the main thread (half of them with a
// length still to be counted) while each shares and changes copies of its
// own. Under the sanitizers a count touched by two threads would show.
TEST(qkStringThreads, ConcurrentReadersCopyAndShareAmongThemselves) {
    auto poolText = [](int i) { return std::string(20 + i * 7, char('a' + i)); };
    std::vector<qkString> pool;
    for (int i = 0; i < 16; ++i) {
        pool.emplace_back(poolText(i).c_str());
        if (i % 2) pool.back().head();
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(t);
            std::vector<qkString> mine(8);
            for (int step = 0; step < 20000; ++step) {
                int p = rng() % 16;
                qkString &m = mine[rng() % 8], &other = mine[rng() % 8];
                if (int op = rng() % 4; op == 0) {  // another thread's text: copied
                    ASSERT_NE((m = pool[p]).sanitize(), pool[p].sanitize());
                } else if (op == 1) {  // this thread's own heap text: shared
                    m = other;
                    ASSERT_TRUE(other.size() <= 32 || m.sanitize() == other.sanitize());
                } else {
                    m += pool[p].sanitize();
                    if (m.length() > 4000) m = "reset";
                }
                ASSERT_EQ(pool[p].length(), 20u + p * 7);
            }
        });
    for (auto& t : threads)
        t.join();
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(text(pool[i]), poolText(i));
    // The debugger script's lines are appended to the file.
    char path[] = "/tmp/qkStringOffsetsXXXXXX";
    close(mkstemp(path));
    qkString::printOffsets(path);
    qkString::printOffsets(path);
    std::ostringstream all;
    all << std::ifstream(path).rdbuf();
    std::remove(path);
    std::string const once =
        "set $qkString_sp = 0x0\nset $qkString_static = 0x8\nset $qkStringRef_reqLen = 0x0\n"
        "set $qkStringRef_allocLen = 0x4\nset $qkStringRef_refCount = 0x8\n"
        "set $qkStringRef_buf = 0x18\nset $qkStringRef_thread = 0x10\n"
        "set $qkStringRef_size = 0x38\n";
    EXPECT_EQ(all.str(), once + once);
    testing::internal::CaptureStdout();
    qkString::printOffsets("/nonexistent-dir/x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error opening /nonexistent-dir/x for append\n");
}
