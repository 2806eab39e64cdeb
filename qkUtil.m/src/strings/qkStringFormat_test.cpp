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

TEST(qkStringFormatGrid, IntegersMatchTheCLibrary) {
    int const values[] = {0, 1, -1, 7, 42, -42, 255, 65535, 123456789, INT_MAX, INT_MIN};
    qkString s;
    for (auto const& head : directiveHeads())
        for (char conv : std::string("diouxX"))
            for (int v : values) {
                std::string dir = head + conv;
                ASSERT_EQ(s.sprintf(dir.c_str(), v), 1) << dir;
                bool isSigned = conv == 'd' || conv == 'i';
                std::string want = isSigned ? cFormat(dir.c_str(), v)
                                            : cFormat(dir.c_str(), static_cast<unsigned>(v));
                ASSERT_EQ(text(s), want) << dir << " of " << v;
            }
}

TEST(qkStringFormatGrid, DoublesMatchTheCLibrary) {
    double const values[] = {0.0,       -0.0,     1.0,       -1.5,       3.14159,
                             0.5,       2.5,      1e-20,     1e300,      -1e308,
                             DBL_MAX,   DBL_MIN,  4.9e-324,  123456.789, 1e15 + 0.3,
                             9.9999995, INFINITY, -INFINITY, NAN,        0.000123456};
    qkString s;
    for (auto const& head : directiveHeads())
        for (char conv : std::string("eEfgG"))
            for (double v : values) {
                std::string dir = head + conv;
                ASSERT_EQ(s.sprintf(dir.c_str(), v), 1) << dir;
                ASSERT_EQ(text(s), cFormat(dir.c_str(), v)) << dir << " of " << v;
            }
}

TEST(qkStringFormatGrid, TextsMatchTheCLibrary) {
    std::string const longText(5000, 'L');
    char const* values[] = {"", "a", "hello", "with space", longText.c_str()};
    qkString s;
    for (auto const& head : directiveHeads())
        for (char conv : std::string("sS"))
            for (char const* v : values) {
                std::string dir = head + conv;
                ASSERT_EQ(s.sprintf(dir.c_str(), v), 1) << dir;
                std::string cdir = head + 's';  // "S" is a narrow text here
                ASSERT_TRUE(text(s) == cFormat(cdir.c_str(), v)) << dir << " of " << strlen(v);
            }
    // A precision lets the text be an unterminated array.
    char const unterminated[3] = {'x', 'y', 'z'};
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
    ASSERT_EQ(s.sprintf("%5d|%-4s|%.2f", 42, "ab", 3.14159), 1);
    EXPECT_EQ(text(s), "   42|ab  |3.14");
    ASSERT_EQ(s.sprintf("%c%c|%5c|%-3.1C|%c.", 'o', 'k', 'x', 'y', 0), 1);
    EXPECT_EQ(text(s), "ok|x|y|.");  // byte alone; a zero byte appends nothing
    ASSERT_EQ(s.sprintf("[%s][%10s]", static_cast<char const*>(nullptr),
                        static_cast<char const*>(nullptr)),
              1);
    EXPECT_EQ(text(s), "[][]");
    ASSERT_EQ(s.sprintf("%p %-30p", reinterpret_cast<void*>(0xab12), nullptr), 1);
    EXPECT_EQ(text(s), "000000000000AB12 0000000000000000");
    // Only the low 32 bits of an integer argument count.
    ASSERT_EQ(s.sprintf("%x %08X %d", 255, 255, -7), 1);
    EXPECT_EQ(text(s), "ff 000000FF -7");
    ASSERT_EQ(s.sprintf("%f", 1e-20), 1);
    EXPECT_EQ(text(s), "0.000000");
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
    qkString s;
    ASSERT_EQ(s.sprintf("%s", std::string(40, 'r').c_str()), 1);
    EXPECT_EQ(s.size(), 92u);  // the result grew by appending: 40 * 3 / 2 + 32
    qkString null;
    ASSERT_EQ(null.sprintf(""), 1);
    EXPECT_EQ(null.size(), 32u);  // empty, not null
    ASSERT_EQ(s.sprintf(""), 1);
    EXPECT_EQ(s.length(), 0u);
    EXPECT_EQ(s.size(), 92u);  // a private block is cut, not given up
    // Arguments may be the target's own text.
    s = "abc";
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
    // Under C (or no LANG) high bytes are ordinary characters.
    EXPECT_EQ(formatWithLang(nullptr, "\x93%d"),
              "\x93"
              "7");
    EXPECT_EQ(formatWithLang("C", "\x93%d"),
              "\x93"
              "7");
    // Elsewhere the byte after a high byte is its trail byte, even a "%".
    EXPECT_EQ(formatWithLang("ja_JP.SJIS", "\x93%d"), "\x93%d");
    EXPECT_EQ(formatWithLang("C.UTF-8", "\x93%d %d"), "\x93%d 7");
    EXPECT_EQ(formatWithLang("C.UTF-8", "\x93\\%d"), "\x93\\7");  // the trail hides the "\"
    EXPECT_EQ(formatWithLang("C.UTF-8", "ab\x93"), "ab\x93");     // last byte
    // SJIS: 0xA0..0xDF are single-byte characters, other high bytes lead.
    EXPECT_EQ(formatWithLang("SJIS", "\xB1%d"),
              "\xB1"
              "7");
    EXPECT_EQ(formatWithLang("SJIS", "\xDF\xA0%d"),
              "\xDF\xA0"
              "7");
    EXPECT_EQ(formatWithLang("SJIS", "\x93%d"), "\x93%d");
    EXPECT_EQ(formatWithLang("SJIS", "\xE0%d"), "\xE0%d");
    // An exact match is needed.
    EXPECT_EQ(formatWithLang("sjis", "\xB1%d"), "\xB1%d");
    EXPECT_EQ(formatWithLang("C ", "\x93%d"), "\x93%d");
    // Without any high byte LANG is not consulted at all.
    EXPECT_EQ(formatWithLang("C.UTF-8", "%d%%"), "refused");
}

}  // namespace
