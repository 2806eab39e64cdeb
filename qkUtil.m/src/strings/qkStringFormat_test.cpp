// The formatting engine against the C library's snprintf over random whole
// formats, and the places where the engine means to differ (refusals, %c, %p, null texts,
// backslashes, double-byte lead bytes).
#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <variant>

#include "StringTestSupport.h"

// A directive up to its conversion: flags from " #+-", an optional 0 before
// the width, a width and a precision, each there or not; or, half the time,
// a bare "%" or a precision alone, which the engine writes itself.
std::string randomHead(std::mt19937_64& rng) {
    static char const* const widths[] = {"", "1", "7", "25", "0", "08"};
    std::string head = "%";
    if (rng() % 2) return rng() % 2 ? head : "%." + std::to_string(rng() % 42);
    for (char flag : std::string(" #+-"))
        if (rng() % 2) head += flag;
    head += widths[rng() % 6];
    return rng() % 2 ? head : head + "." + (rng() % 2 ? std::to_string(rng() % 35) : "");
}

using Arg = std::variant<int, double, char const*>;

// Calls f with the arguments of args spread out (at most four).
template <class F, class... A>
auto spread(F const& f, std::vector<Arg> const& args, size_t i, A... a) {
    if constexpr (sizeof...(A) < 4)
        if (i < args.size())
            return std::visit([&](auto v) { return spread(f, args, i + 1, a..., v); }, args[i]);
    return f(a...);
}

// Any double (NaNs and infinities too), or a multiple of a power of two,
// many of which are exact ties when rounded.
double randomDouble(std::mt19937_64& rng) {
    return rng() % 2 ? std::bit_cast<double>(uint64_t(rng()))
                     : std::ldexp(double(int64_t(rng() % 20001) - 10000), -int(rng() % 12));
}

// Whole formats of literal text and up to four directives, each with any
// flags, width and precision or none (the bare and precision-only ones are
// written without the C runtime), of values from the edges of their types,
// random bits and rounding ties. "S" is a narrow text: "s" for the C library.
TEST(qkStringFormat, RandomFormatsMatchTheCLibrary) {
    std::mt19937_64 rng(11);
    std::string const literals = "abc XYZ=()[]:;,.0123456789/", longText(5000, 'L');
    std::string const conversions[] = {"diuoxX", "sS", "eEfgG", "eEfgG"};
    int const ints[] = {0, -1, 7, INT_MAX, INT_MIN};
    // Tiny values with long precisions outgrow the size estimated from the magnitude.
    double const doubles[] = {0.0,      -0.0,      2.5,      1e-20,     1e300, DBL_MAX,
                              4.9e-324, 9.9999995, INFINITY, -INFINITY, NAN};
    qkString s;
    for (int round = 0; round < 120000; ++round) {
        std::string format;
        std::vector<Arg> args;
        for (int d = rng() % 5;; --d) {
            for (int n = rng() % 6; n > 0; --n)
                format += literals[rng() % literals.size()];
            if (d == 0) break;
            int kind = rng() % 4;
            format += randomHead(rng) + conversions[kind][rng() % conversions[kind].size()];
            char const* str =
                rng() % 8 ? literals.c_str() + rng() % literals.size() : longText.c_str();
            args.push_back(kind == 0   ? Arg(rng() % 4 ? int(rng()) : ints[rng() % 5])
                           : kind == 1 ? Arg(str)
                                       : Arg(rng() % 4 ? randomDouble(rng) : doubles[rng() % 11]));
        }
        std::string want = spread([&](auto... a) { return cFormat(format, a...); }, args, 0);
        ASSERT_EQ(spread([&](auto... a) { return fmt(s, format.c_str(), a...); }, args, 0), want)
            << format;
    }
}

TEST(qkStringFormat, OwnRulesRefusalsAndLeadBytes) {
    qkString s, null2;
    char const* null = nullptr;
    char const unterminated[3] = {'x', 'y', 'z'};
    // %c: the byte alone, nothing for a zero byte; a null text: nothing. A
    // precision lets the text be an unterminated array. A backslash keeps
    // itself and the next byte as literal text.
    EXPECT_EQ(fmt(s, "%c%c|%5c|%-3.1C|%c.[%s][%10s]", 'o', 'k', 'x', 'y', 0, null, null),
              "ok|x|y|.[][]");
    EXPECT_EQ(fmt(s, "%p %-30p", reinterpret_cast<void*>(0xab12), nullptr),
              "000000000000AB12 0000000000000000");
    EXPECT_EQ(fmt(s, "[%.3s]", unterminated), "[xyz]");
    EXPECT_EQ(fmt(s, "a\\%d b\\\\%d end\\", 5), "a\\%d b\\\\5 end\\");
    // The result replaces the text by the sharing rule: grown by appending,
    // and empty (not null) when there is no text at all. The arguments may be
    // the target's own text.
    EXPECT_EQ(fmt(s, "%s", std::string(40, 'r').c_str()), std::string(40, 'r'));
    EXPECT_EQ(s.size(), 92u);  // 40 * 3 / 2 + 32
    s = "abc";
    EXPECT_EQ(fmt(s, "%s-%s", s.sanitize(), s.sanitize()), "abc-abc");
    EXPECT_TRUE(fmt(null2, "") == "" && null2.size() == 32u);
    // A refused format leaves the string as it was.
    for (char const* f :
         {"%%", "a%ld", "%5", "%", "%*d", "%n", "%hd", "%.3", "%0-5d", "%d then %%"}) {
        qkString k(std::string(40, 'k').c_str()), sharer = k, none;
        char const* before = k.sanitize();
        EXPECT_EQ(k.sprintf(f, 1, 2, 3), 0) << f;
        EXPECT_TRUE(k.sanitize() == before && text(k) == std::string(40, 'k')) << f;
        EXPECT_TRUE(none.sprintf(f, 1) == 0 && none.size() == 0) << f;
    }
    EXPECT_TRUE(s.sprintf(nullptr) == 0 && text(s) == "abc-abc");
    // Last, as it sets LANG: a lead byte hides the next byte unless LANG is
    // unset or "C". Triples of LANG (null: unset), format and result; "\x37" is the 7 the directive
    // prints. In SJIS 0xA0..0xDF are single-byte characters and other high bytes lead; "sjis" and
    // "C " are neither "SJIS" nor "C".
    char const* const cases[] = {
        nullptr,   "\x93%d",       "\x93\x37",     "C",       "\x93%d",       "\x93\x37",
        "C.UTF-8", "\x93%d %d",    "\x93%d 7",     "C.UTF-8", "\x93\\%d",     "\x93\\7",
        "C.UTF-8", "ab\x93",       "ab\x93",       "SJIS",    "\xA0%d\xDF%d", "\xA0\x37\xDF\x37",
        "SJIS",    "\x9F%d\xE0%d", "\x9F%d\xE0%d", "sjis",    "\xB1%d",       "\xB1%d",
        "C ",      "\x93%d",       "\x93%d"};
    for (size_t i = 0; i < std::size(cases); i += 3) {
        char const *lang = cases[i], *format = cases[i + 1];
        lang ? setenv("LANG", lang, 1) : unsetenv("LANG");
        EXPECT_EQ(fmt(s, format, 7, 7), cases[i + 2]) << (lang ? lang : "unset");
    }
}
