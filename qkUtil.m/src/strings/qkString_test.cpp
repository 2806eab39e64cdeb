// qkString on one thread: a model of the representation rules (null, inline
// up to 31 bytes, heap capacity len + 32 from resize and n * 3 / 2 + 32 from
// appends, sharing on assignment, unsharing before every write) over plain
// std::strings and block numbers, run side by side with real strings under
// random operations, sources inside the strings' own texts included; and the
// debugger script's lines.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "StringTestSupport.h"

namespace {

struct Model {
    bool null = true;
    std::string text;
    unsigned cap = 0;
    int block = 0;  // 0: null or inline; else the heap block's number
};

struct World {
    std::vector<Model> m;
    int nextBlock = 1;

    bool shared(Model const& x) const {
        return x.block && std::count_if(m.begin(), m.end(),
                                        [&](Model const& y) { return y.block == x.block; }) > 1;
    }
    void update(Model& x, bool keep) {
        if (x.null || shared(x)) {
            std::string old = x.null ? "" : x.text;
            x = Model{false, "", 32, 0};
            if (keep) resize(x, old.size(), false), x.text = old;
        }
    }
    void resize(Model& x, size_t len, bool keep) {
        update(x, keep);
        if (len >= x.cap) {
            if (!x.block) x.block = nextBlock++;
            x.cap = unsigned(len) + 32;
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
        if (o.block) return void(x = o);
        std::string t = o.text;  // null gives an empty text, not a null string
        resize(x, t.size(), false);
        x.text = t;
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

// The SQL pattern of a text, one piece per byte: "*" and "?" become "%" and
// "_", a literal "%" or "_" is escaped with "*".
std::vector<std::string> sqlPieces(std::string const& in) {
    std::vector<std::string> out;
    for (char c : in)
        out.push_back(c == '*' ? "%" : c == '?' ? "_" : std::string(c == '%' || c == '_', '*') + c);
    return out;
}

void checkAgainstModel(std::vector<qkString> const& s, World const& w) {
    for (size_t i = 0; i < s.size(); ++i) {
        Model const& x = w.m[i];
        SCOPED_TRACE("string " + std::to_string(i));
        ASSERT_EQ(s[i].size(), x.null ? 0u : x.cap);
        ASSERT_EQ(text(s[i]), x.text);
        ASSERT_EQ(s[i].hasWild(), x.text.find_first_of("*?") != std::string::npos);
        for (size_t j = 0; j < i; ++j)
            if (!x.null && !w.m[j].null) {
                ASSERT_EQ(s[i].sanitize() == s[j].sanitize(), x.block && x.block == w.m[j].block);
            }
    }
}

TEST(qkStringModel, RandomOperationsFollowTheRules) {
    EXPECT_EQ(qkString(static_cast<char const*>(nullptr)).size(), 0u);  // null, not empty
    constexpr int kStrings = 6;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::vector<qkString> s(kStrings);
        World w;
        w.m.resize(kStrings);
        for (int step = 0; step < 1500; ++step) {
            int i = rng() % kStrings, j = rng() % kStrings;
            Model& x = w.m[i];
            std::string t = randomText(rng), other = w.m[j].text;
            // A text inside a string's own buffer: the source may move or be
            // shared while the target changes.
            char const* inside = s[j].sanitize() + rng() % (other.size() + 1);
            bool fromInside = rng() % 3 == 0;
            switch (rng() % 12) {
                case 0: {
                    // Through a copy: a null source gives it an empty text.
                    bool viaCopy = rng() % 2;
                    Model copy = w.m[j].null ? Model{false, "", 32, 0} : w.m[j];
                    viaCopy ? s[i] = qkString(s[j]) : s[i] = s[j];
                    w.assign(x, viaCopy ? copy : w.m[j]);
                    break;
                }
                case 1:
                    if (fromInside) t = inside;
                    s[i] = fromInside ? inside : t.c_str();
                    w.resize(x, t.size(), false);
                    x.text = t;
                    break;
                case 2:
                    if (fromInside) t = inside;
                    s[i] += fromInside ? inside : t.c_str();
                    w.append(x, t);
                    break;
                case 3:
                    s[i] += static_cast<char>('A' + step % 26);
                    w.append(x, std::string(1, static_cast<char>('A' + step % 26)));
                    break;
                case 4: {
                    std::string mine = x.text;
                    s[i].cat(t.c_str(), nullptr, s[i].sanitize());
                    w.append(x, t + mine);
                    break;
                }
                case 5:
                    s[i].reverse();
                    w.update(x, true);
                    std::reverse(x.text.begin(), x.text.end());
                    break;
                case 6: {
                    if (x.null) {
                        ASSERT_EQ(s[i].head(), nullptr);
                        break;
                    }
                    size_t cut = x.text.empty() ? 0 : rng() % x.text.size();
                    s[i].head()[cut] = 0;  // the length is counted again
                    w.update(x, true);
                    x.text.resize(std::min(cut, x.text.size()));
                    break;
                }
                case 7: {
                    unsigned len = rng() % 120;
                    bool keep = rng() % 2;
                    s[i].resize(len, keep);
                    w.resize(x, len, keep);
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
                    // Reading a byte of a null string makes it empty; writing one
                    // makes the text private.
                    ASSERT_EQ(static_cast<qkString const&>(s[i])[0u],
                              x.text.empty() ? 0 : x.text[0]);
                    if (x.null) x = Model{false, "", 32, 0};
                    if (x.text.empty()) break;
                    s[i][0] = 'w';
                    w.update(x, true);
                    x.text[0] = 'w';
                    break;
                case 10:
                    s[i] = static_cast<char const*>(nullptr);
                    x = Model{};
                    break;
                default: {
                    // The target may be the source itself.
                    std::string from = x.text;
                    bool wasNull = x.null;
                    ASSERT_EQ(s[i].prepareSQL(s[j]), from.find_first_of("%_") != std::string::npos);
                    if (wasNull) break;
                    w.update(x, true);
                    for (std::string const& piece : sqlPieces(from))
                        w.append(w.m[j], piece);  // each piece grows the text by the rule
                }
            }
            ASSERT_NO_FATAL_FAILURE(checkAgainstModel(s, w)) << "seed " << seed << " step " << step;
        }
    }
}

TEST(qkStringOffsets, LinesAreAppended) {
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

}  // namespace
