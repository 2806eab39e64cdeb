// qkString on one thread: the three forms, the capacity rules, sharing and
// copy on write, checked against a model of the rules under random
// operations, and the text operations against straightforward oracles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "qkString.h"

namespace {

std::string text(qkString const& s) {
    return std::string(s.sanitize(), s.length());
}

TEST(qkStringForms, NullIsNotEmpty) {
    qkString null, empty, fromNull(static_cast<char const*>(nullptr));
    EXPECT_TRUE(null.length() == 0 && null.size() == 0 && fromNull.size() == 0);
    EXPECT_STREQ(null, "");
    EXPECT_EQ(null.head(), nullptr);
    empty = null;  // a null source gives an empty, not a null, string
    EXPECT_EQ(empty.size(), 32u);
    EXPECT_NE(empty.head(), nullptr);
    empty = static_cast<char const*>(nullptr);
    EXPECT_EQ(empty.size(), 0u);
    qkString const constNull;
    EXPECT_EQ(constNull[0], '\0');  // reading a byte makes it empty
    EXPECT_EQ(constNull.size(), 32u);
}

TEST(qkStringSharing, SelfReferenceIsSafe) {
    qkString s(std::string(40, 'q').c_str());
    s = s;
    EXPECT_EQ(text(s), std::string(40, 'q'));
    for (int i = 0; i < 6; ++i)
        s += s.sanitize();  // the source moves as the string grows
    EXPECT_TRUE(text(s) == std::string(40 << 6, 'q'));
    s[3] = 'x';
    s = s.sanitize() + 2;  // assign from inside the own text
    EXPECT_EQ(s.length(), (40u << 6) - 2);
    EXPECT_TRUE(text(s) == "qx" + std::string((40 << 6) - 4, 'q'));
    qkString t = s;
    t.cat(t.sanitize(), "-", s.sanitize());  // shared, then aliased pieces
    EXPECT_TRUE(text(t) == text(s) + text(s) + "-" + text(s));
    qkString shortOne("0123456789");
    shortOne = shortOne.sanitize() + 4;  // inline, in place
    EXPECT_EQ(text(shortOne), "456789");
    qkString p("a_b");
    p.prepareSQL(p);
    EXPECT_EQ(text(p), "a_ba*_b");
}

TEST(qkStringText, PatternsAgainstOracles) {
    std::mt19937 rng(7);
    std::string alphabet = "ab*?%_Zz09 \x80\xff";
    for (int round = 0; round < 2000; ++round) {
        std::string in;
        int len = rng() % 70;
        for (int i = 0; i < len; ++i)
            in += alphabet[rng() % alphabet.size()];
        qkString s(in.c_str());

        std::string sql;
        bool escaped = false;
        for (char c : in) {
            if (c == '*')
                sql += '%';
            else if (c == '?')
                sql += '_';
            else if (c == '%' || c == '_')
                sql += std::string("*") + c, escaped = true;
            else
                sql += c;
        }
        qkString out("prefix");
        EXPECT_EQ(s.prepareSQL(out), escaped ? 1 : 0);
        EXPECT_EQ(text(out), "prefix" + sql);

        EXPECT_EQ(s.hasWild(), in.find_first_of("*?") != std::string::npos ? 1 : 0);
    }
    qkString null, out;
    EXPECT_EQ(null.prepareSQL(out) + null.hasWild() + out.size(), 0u);
}

// ---- model-based random test ----------------------------------------------
//
// The model restates the representation rules (inline up to 31 bytes, heap
// capacity len + 32 from resize and n * 3 / 2 + 32 from appends, sharing on
// assignment, unsharing before every write) over plain std::strings and
// block numbers, and is run side by side with real strings.

struct Model {
    bool null = true;
    std::string text;
    unsigned cap = 0;
    int block = 0;  // 0: null or inline; else the heap block's number
};

struct World {
    std::vector<Model> m;
    int nextBlock = 1;

    int sharers(int block) const {
        return std::count_if(m.begin(), m.end(), [&](Model const& x) { return x.block == block; });
    }
    void update(Model& x, bool keep) {
        if (x.null) {
            x = Model{false, "", 32, 0};
        } else if (x.block && sharers(x.block) > 1) {
            std::string old = x.text;
            x = Model{false, "", 32, 0};
            if (keep) resize(x, old.size(), false), x.text = old;
        }
    }
    void resize(Model& x, size_t len, bool keep) {
        update(x, keep);
        if (len >= x.cap) {
            if (!x.block) x.block = nextBlock++;
            x.cap = len + 32;
        }
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
        if (o.block) {
            x = o;
        } else if (o.null) {
            resize(x, 0, false);
            x.text.clear();
        } else {
            std::string t = o.text;
            resize(x, t.size(), false);
            x.text = t;
        }
    }
};

std::string randomText(std::mt19937& rng) {
    static const unsigned lengths[] = {0, 1, 5, 30, 31, 32, 33, 47, 48, 49, 100, 300};
    unsigned len = lengths[rng() % 12];
    std::string t;
    for (unsigned i = 0; i < len; ++i)
        t += static_cast<char>('a' + rng() % 26);
    return t;
}

void checkAgainstModel(std::vector<qkString> const& s, World const& w, int step) {
    for (size_t i = 0; i < s.size(); ++i) {
        Model const& x = w.m[i];
        SCOPED_TRACE("step " + std::to_string(step) + " string " + std::to_string(i));
        ASSERT_EQ(s[i].size(), x.null ? 0u : x.cap);
        ASSERT_EQ(text(s[i]), x.text);
        for (size_t j = 0; j < i; ++j) {
            bool shared = x.block && x.block == w.m[j].block;
            bool bothText = !x.null && !w.m[j].null;
            if (bothText) {
                ASSERT_EQ(s[i].sanitize() == s[j].sanitize(), shared);
            }
        }
    }
}

TEST(qkStringModel, RandomOperationsFollowTheRules) {
    constexpr int kStrings = 6;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::vector<qkString> s(kStrings);
        World w;
        w.m.resize(kStrings);
        for (int step = 0; step < 1500; ++step) {
            int i = rng() % kStrings, j = rng() % kStrings;
            Model& x = w.m[i];
            std::string t = randomText(rng);
            switch (rng() % 11) {
                case 0:
                    s[i] = s[j];
                    w.assign(x, w.m[j]);
                    break;
                case 1:
                    s[i] = t.c_str();
                    w.resize(x, t.size(), false);
                    x.text = t;
                    break;
                case 2:
                    s[i] += t.c_str();
                    w.append(x, t);
                    break;
                case 3:
                    s[i] += static_cast<char>('A' + step % 26);
                    w.append(x, std::string(1, static_cast<char>('A' + step % 26)));
                    break;
                case 4: {
                    std::string u = randomText(rng);
                    s[i].cat(t.c_str(), nullptr, u.c_str());
                    w.append(x, t + u);
                    break;
                }
                case 5:
                    s[i].reverse();
                    w.update(x, true);
                    std::reverse(x.text.begin(), x.text.end());
                    break;
                case 6: {
                    if (x.null) break;
                    size_t cut = x.text.empty() ? 0 : rng() % x.text.size();
                    s[i].head()[cut] = 0;
                    w.update(x, true);
                    x.text.resize(std::min(cut, x.text.size()));
                    break;
                }
                case 7: {
                    unsigned len = rng() % 120;
                    s[i].resize(len, 1);
                    w.resize(x, len, true);
                    break;
                }
                case 8:
                    s[i].toUpper();
                    if (x.null) break;
                    w.update(x, true);
                    for (char& c : x.text)
                        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
                    break;
                case 9:
                    if (x.text.empty()) break;
                    s[i][0u] = 'w';  // through the writable byte
                    w.update(x, true);
                    x.text[0] = 'w';
                    break;
                case 10:
                    if (rng() % 4 == 0) {
                        s[i] = static_cast<char const*>(nullptr);
                        x = Model{};
                    }
                    break;
            }
            checkAgainstModel(s, w, step);
            if (HasFatalFailure()) return;
        }
    }
}

// ---- debugger script ----------------------------------------------------------

TEST(qkStringOffsets, LinesAreAppended) {
    char path[] = "/tmp/qkStringOffsetsXXXXXX";
    close(mkstemp(path));
    qkString::printOffsets(path);
    qkString::printOffsets(path);
    std::string all, line;
    for (std::ifstream in(path); std::getline(in, line);)
        all += line + "\n";
    std::remove(path);
    std::string const once =
        "set $qkString_sp = 0x0\nset $qkString_static = 0x8\nset $qkStringRef_reqLen = 0x0\n"
        "set $qkStringRef_allocLen = 0x4\nset $qkStringRef_refCount = 0x8\n"
        "set $qkStringRef_buf = 0x18\nset $qkStringRef_thread = 0x10\nset $qkStringRef_size = "
        "0x38\n";
    EXPECT_EQ(all, once + once);
    testing::internal::CaptureStdout();
    qkString::printOffsets("/nonexistent-dir/x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error opening /nonexistent-dir/x for append\n");
}

}  // namespace
