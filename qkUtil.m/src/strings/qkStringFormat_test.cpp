// The formatting engine against the C library's snprintf: a grid of single
// directives, random whole formats, and the places where the engine means to
// differ (refusals, %c, %p, null texts, backslashes, double-byte lead bytes).
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "qkString.h"

namespace {

std::string text(qkString const& s) {
    return std::string(s.sanitize(), s.length());
}

template <class... A>
std::string cFormat(char const* format, A... args) {
    int n = std::snprintf(nullptr, 0, format, args...);
    std::string out(n, '\0');
    std::snprintf(out.data(), n + 1, format, args...);
    return out;
}

// Every spelling of a directive the engine accepts: flags from " #+-" in
// any subset, an optional 0 before the width, a width and a precision.
std::vector<std::string> directiveHeads() {
    std::vector<std::string> heads;
    char const* flags = " #+-";
    char const* widths[] = {"", "1", "7", "25", "0", "08"};
    char const* precisions[] = {"", ".", ".0", ".2", ".9", ".30"};
    for (int mask = 0; mask < 16; ++mask) {
        std::string f;
        for (int b = 0; b < 4; ++b)
            if (mask & (1 << b)) f += flags[b];
        for (char const* w : widths)
            for (char const* p : precisions)
                heads.push_back("%" + f + w + p);
    }
    return heads;
}

// Every head with every conversion of convs and every value, through the
// engine and through snprintf ("S" is a narrow text here: "s" for the C
// library). Unsigned values stand for the unsigned conversions: the engine
// reads the same 32 bits either way.
template <class T>
void expectGridMatches(char const* convs, std::vector<T> const& values) {
    qkString s;
    for (auto const& head : directiveHeads())
        for (char const* c = convs; *c; ++c)
            for (T v : values) {
                std::string dir = head + *c, cdir = head + (*c == 'S' ? 's' : *c);
                ASSERT_EQ(s.sprintf(dir.c_str(), v), 1) << dir;
                ASSERT_TRUE(text(s) == cFormat(cdir.c_str(), v)) << dir << " of " << v;
            }
}

TEST(qkStringFormatGrid, DirectivesMatchTheCLibrary) {
    std::vector<int> ints = {0, 1, -1, 7, 42, -42, 255, 65535, 123456789, INT_MAX, INT_MIN};
    expectGridMatches("di", ints);
    expectGridMatches("ouxX", std::vector<unsigned>(ints.begin(), ints.end()));
    expectGridMatches("eEfgG",
                      std::vector<double>{0.0,       -0.0,     1.0,       -1.5,       3.14159,
                                          0.5,       2.5,      1e-20,     1e300,      -1e308,
                                          DBL_MAX,   DBL_MIN,  4.9e-324,  123456.789, 1e15 + 0.3,
                                          9.9999995, INFINITY, -INFINITY, NAN,        0.000123456});
    std::string const longText(5000, 'L');
    expectGridMatches("sS",
                      std::vector<char const*>{"", "a", "hello", "with space", longText.c_str()});
    // A precision lets the text be an unterminated array.
    char const unterminated[3] = {'x', 'y', 'z'};
    qkString s;
    ASSERT_EQ(s.sprintf("[%.3s]", unterminated), 1);
    EXPECT_EQ(text(s), "[xyz]");
}

// The bare and precision-only directives are written without the C runtime;
// they must give its bytes for any value, halfway cases (ties) included.
TEST(qkStringFormatGrid, PlainDirectivesMatchTheCLibraryOnRandomValues) {
    std::mt19937_64 rng(13);
    qkString s;
    for (int round = 0; round < 200000; ++round) {
        double v;
        if (round % 2) {
            uint64_t bits = rng();
            std::memcpy(&v, &bits, sizeof v);  // any double, NaNs and infinities too
        } else {
            // Multiples of a power of two: many are exact ties when rounded.
            v = std::ldexp(static_cast<double>(static_cast<int64_t>(rng() % 20001) - 10000),
                           -static_cast<int>(rng() % 12));
        }
        char conv = "feE"[rng() % 3];
        std::string dir =
            rng() % 4 ? "%." + std::to_string(rng() % 42) + conv : std::string("%") + conv;
        ASSERT_EQ(s.sprintf(dir.c_str(), v), 1);
        ASSERT_EQ(text(s), cFormat(dir.c_str(), v)) << dir << " of " << v;

        int i = static_cast<int>(rng());
        ASSERT_EQ(s.sprintf("%d|%i|%u|%x|%X|%o", i, i, i, i, i, i), 1);
        ASSERT_EQ(text(s), cFormat("%d|%i|%u|%x|%X|%o", i, i, unsigned(i), unsigned(i), unsigned(i),
                                   unsigned(i)));
    }
}

// ---- whole formats -----------------------------------------------------------

using Arg = std::variant<int, double, char const*>;

// Calls f with the arguments of args spread out (at most four).
template <class F, class... A>
auto spread(F const& f, std::vector<Arg> const& args, size_t i, A... a) {
    if constexpr (sizeof...(A) < 4) {
        if (i < args.size())
            return std::visit([&](auto v) { return spread(f, args, i + 1, a..., v); }, args[i]);
    }
    return f(a...);
}

TEST(qkStringFormatRandom, WholeFormatsMatchTheCLibrary) {
    std::mt19937 rng(11);
    auto heads = directiveHeads();
    std::string const literals = "abc XYZ=()[]:;,.0123456789/";
    qkString s;
    for (int round = 0; round < 20000; ++round) {
        std::string format;
        std::vector<Arg> args;
        int directives = rng() % 5;
        for (int d = 0; d <= directives; ++d) {
            int lit = rng() % 6;
            for (int i = 0; i < lit; ++i)
                format += literals[rng() % literals.size()];
            if (d == directives) break;
            format += heads[rng() % heads.size()];
            switch (rng() % 3) {
                case 0:
                    format += "dixX"[rng() % 4];
                    args.push_back(static_cast<int>(rng()));
                    break;
                case 1:
                    format += "eEfgG"[rng() % 5];
                    args.push_back(std::ldexp(static_cast<double>(rng()) - 2e9,
                                              static_cast<int>(rng() % 200) - 100));
                    break;
                default:
                    format += 's';
                    args.push_back(literals.c_str() + rng() % literals.size());
            }
        }
        int ok = spread([&](auto... a) { return s.sprintf(format.c_str(), a...); }, args, 0);
        std::string want =
            spread([&](auto... a) { return cFormat(format.c_str(), a...); }, args, 0);
        ASSERT_EQ(ok, 1) << format;
        ASSERT_EQ(text(s), want) << format;
    }
}

TEST(qkStringFormatRandom, LongOutputsAreSizedSafely) {
    qkString s;
    ASSERT_EQ(s.sprintf("%.0f", 1e300), 1);
    EXPECT_EQ(text(s), cFormat("%.0f", 1e300));
    EXPECT_EQ(s.length(), 301u);
    // The size estimate from the magnitude falls short for a tiny value with
    // a long precision; the engine must still give the whole text.
    ASSERT_EQ(s.sprintf("%.60f|%.300e|%.500g", 1e-300, 1e-300, DBL_MIN), 1);
    EXPECT_EQ(text(s), cFormat("%.60f|%.300e|%.500g", 1e-300, 1e-300, DBL_MIN));
    ASSERT_EQ(s.sprintf("%5000d|%-3000.2000x|%.9999f", 1, 2, 0.5), 1);
    EXPECT_TRUE(text(s) == cFormat("%5000d|%-3000.2000x|%.9999f", 1, 2, 0.5));
    std::string big(100000, 'b');
    ASSERT_EQ(s.sprintf("<%s><%s>", big.c_str(), big.c_str()), 1);
    EXPECT_EQ(s.length(), 200004u);
}

// ---- deliberate differences ----------------------------------------------------

TEST(qkStringFormatRules, OwnConversions) {
    qkString s;
    char const* null = nullptr;
    ASSERT_EQ(s.sprintf("%c%c|%5c|%-3.1C|%c.[%s][%10s]", 'o', 'k', 'x', 'y', 0, null, null), 1);
    EXPECT_EQ(text(s), "ok|x|y|.[][]");  // the byte alone; a zero byte or null text: nothing
    ASSERT_EQ(s.sprintf("%p %-30p", reinterpret_cast<void*>(0xab12), nullptr), 1);
    EXPECT_EQ(text(s), "000000000000AB12 0000000000000000");
}

TEST(qkStringFormatRules, BackslashEscapesTheNextByte) {
    qkString s;
    ASSERT_EQ(s.sprintf("a\\%d b\\\\%d", 5), 1);
    EXPECT_EQ(text(s), "a\\%d b\\\\5");
    ASSERT_EQ(s.sprintf("end\\"), 1);
    EXPECT_EQ(text(s), "end\\");
}

TEST(qkStringFormatRules, RefusalsLeaveTheStringAsItWas) {
    char const* refused[] = {"%%", "a%ld", "%lf",   "%5",  "%",    "%*d", "%n",
                             "%q", "%hd",  "%0-5d", "%.3", "%1$d", "x %", "%z"};
    for (char const* f : refused) {
        qkString s(std::string(40, 'k').c_str());
        qkString sharer = s;
        char const* before = s.sanitize();
        EXPECT_EQ(s.sprintf(f, 1, 2, 3), 0) << f;
        EXPECT_EQ(s.sanitize(), before) << f;
        EXPECT_EQ(text(s), std::string(40, 'k')) << f;
        qkString null;
        EXPECT_EQ(null.sprintf(f, 1), 0) << f;
        EXPECT_EQ(null.size(), 0u) << f;
    }
    qkString s("kept");
    EXPECT_EQ(s.sprintf(nullptr), 0);
    EXPECT_EQ(text(s), "kept");
    EXPECT_EQ(s.sprintf("%d then %%", 1), 0);  // a late refusal drops the early output
    EXPECT_EQ(text(s), "kept");
}

TEST(qkStringFormatRules, ResultIsSharedByTheTarget) {
    qkString s, null;
    ASSERT_EQ(s.sprintf("%s", std::string(40, 'r').c_str()), 1);
    EXPECT_EQ(s.size(), 92u);  // the result grew by appending: 40 * 3 / 2 + 32
    ASSERT_EQ(null.sprintf(""), 1);
    EXPECT_EQ(null.size(), 32u);  // empty, not null
    s = "abc";                    // arguments may be the target's own text
    ASSERT_EQ(s.sprintf("%s-%s", s.sanitize(), s.sanitize()), 1);
    EXPECT_EQ(text(s), "abc-abc");
}

// ---- double-byte lead bytes and LANG -------------------------------------------

std::string formatWithLang(char const* lang, char const* format) {
    if (lang)
        setenv("LANG", lang, 1);
    else
        unsetenv("LANG");
    qkString s;
    if (!s.sprintf(format, 7)) return "refused";
    return text(s);
}

TEST(qkStringFormatLang, LeadBytesHideTheNextByte) {
    struct Case {
        char const* lang;  // null: unset
        char const* format;
        char const* want;  // "\x37" is the 7 the directive prints
    } const cases[] = {
        // Under C (or no LANG) high bytes are ordinary characters.
        {nullptr, "\x93%d", "\x93\x37"},
        {"C", "\x93%d", "\x93\x37"},
        // Elsewhere the byte after a high byte is its trail byte, even a "%".
        {"ja_JP.SJIS", "\x93%d", "\x93%d"},
        {"C.UTF-8", "\x93%d %d", "\x93%d 7"},
        {"C.UTF-8", "\x93\\%d", "\x93\\7"},  // the trail hides the "\"
        {"C.UTF-8", "ab\x93", "ab\x93"},     // a lead byte at the end
        // SJIS: 0xA0..0xDF are single-byte characters, other high bytes lead.
        {"SJIS", "\xB1%d", "\xB1\x37"},
        {"SJIS", "\xDF\xA0%d", "\xDF\xA0\x37"},
        {"SJIS", "\x93%d", "\x93%d"},
        {"SJIS", "\xE0%d", "\xE0%d"},
        // An exact match is needed.
        {"sjis", "\xB1%d", "\xB1%d"},
        {"C ", "\x93%d", "\x93%d"},
        // Without any high byte LANG is not consulted at all.
        {"C.UTF-8", "%d%%", "refused"},
    };
    for (Case const& c : cases)
        EXPECT_EQ(formatWithLang(c.lang, c.format), c.want) << (c.lang ? c.lang : "unset");
}

}  // namespace
