// Unicode conversion of qkString: wide text (broken units included) against
// the C library's iconv, broken UTF-8 against a reference decoder of its own
// making, the bounds the output must stay within, and the locale's multibyte
// form.
#include <clocale>
#include <cwchar>
#include <tuple>

#include <iconv.h>

#include "StringTestSupport.h"
#include "qkMemory.h"

// Converts UTF-32 text to another encoding with iconv; the oracle for valid text.
std::string iconvFrom32(char const* to, std::u32string in) {
    iconv_t cd = iconv_open(to, "UTF-32LE");
    std::string out(in.size() * 4 + 16, '\0');
    char *src = reinterpret_cast<char*>(in.data()), *dst = out.data();
    size_t inLeft = in.size() * 4, outLeft = out.size();
    EXPECT_NE(iconv(cd, &src, &inLeft, &dst, &outLeft), size_t(-1)) << to;
    iconv_close(cd);
    return out.substr(0, out.size() - outLeft);
}

// The string's text as wide units, each widened to 32 bits. The output may
// take length + 1 units; the unit past them must stay as it was.
template <class Unit>
std::u32string decode(qkString& s) {
    std::vector<Unit> out(s.length() + 2, Unit('#'));
    out.back() = Unit('!');
    s.convertFromUTF8ToUnicode(out.data());
    EXPECT_EQ(out.back(), Unit('!'));
    return std::u32string(out.data(), out.data() + std::char_traits<Unit>::length(out.data()));
}

char32_t randomScalar(std::mt19937& rng) {
    for (;;) {
        // Mostly small values, where the encoding lengths change.
        char32_t c = rng() % 4 == 0 ? rng() % 0x110000 : rng() % (1u << (rng() % 17 + 1));
        if (c != 0 && c != 0xFFFD && (c < 0xD800 || c > 0xDFFF)) return c;
    }
}

// Wide text against iconv: random code points, and now and then a broken
// unit (a lone surrogate, or a value above U+10FFFF), which becomes U+FFFD.
// The UTF-8 result then goes back to both wide forms.
TEST(qkStringUtf, WideTextConvertsLikeIconv) {
    std::mt19937 rng(3);
    for (int round = 0; round < 3000; ++round) {
        std::u32string clean;  // the text with U+FFFD for each broken unit
        std::wstring w;
        for (int n = rng() % 40 + 1; n > 0; --n) {
            // A trail right after a lone lead would make a pair: then a lead.
            bool broken = rng() % 8 == 0, afterLead = !w.empty() && (w.back() & 0xFC00) == 0xD800;
            char32_t c = !broken     ? randomScalar(rng)
                         : rng() % 2 ? 0xD800 + rng() % (afterLead ? 0x400 : 0x800)
                                     : 0x110000 + rng() % 0x1000;
            w += wchar_t(c);
            clean += broken ? 0xFFFD : c;
        }
        std::string want = iconvFrom32("UTF-8", clean), bytes16 = iconvFrom32("UTF-16LE", clean);
        auto units16 = reinterpret_cast<char16_t const*>(bytes16.data());
        qkString s;
        s.convertToUTF8FromUnicode(w.c_str());
        ASSERT_EQ(text(s), want);
        ASSERT_EQ(decode<wchar_t>(s), clean);
        ASSERT_EQ(decode<char16_t>(s), std::u32string(units16, units16 + bytes16.size() / 2));
    }
}

// Decodes with one U+FFFD per maximal ill-formed subpart: at each position
// the longest run of bytes that begins some code point's form. A run can be
// such a beginning when the code points it could start (its bits followed
// by any continuation bits) overlap those that a form of its lead's length
// holds, and not only in the surrogates.
std::u32string referenceDecode(std::string const& in) {
    static uint32_t const lowest[] = {0, 0, 0x80, 0x800, 0x10000};
    static uint32_t const highest[] = {0, 0x7F, 0x7FF, 0xFFFF, 0x10FFFF};
    static uint8_t const leadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    std::u32string out;
    for (size_t i = 0, best; i < in.size(); i += best) {
        auto b = [&](size_t k) { return uint8_t(in[i + k]); };
        // The form's length by the lead's top five bits; 0: not a lead.
        int len = "11111111111111110000000022223340"[b(0) >> 3] - '0';
        uint32_t bits = b(0) & leadBits[len], cp = 0xFFFD;
        best = 1;
        for (int k = 1; len > 0 && k <= len && i + k <= in.size(); ++k) {
            if (k > 1 && (b(k - 1) & 0xC0) != 0x80) break;
            if (k > 1) bits = bits << 6 | (b(k - 1) & 0x3F);
            int rest = 6 * (len - k);
            uint32_t lo = bits << rest, hi = lo | ((1u << rest) - 1);
            if (hi < lowest[len] || lo > highest[len] || (lo >= 0xD800 && hi <= 0xDFFF)) break;
            best = size_t(k);
            if (k == len) cp = lo;
        }
        out += cp;
    }
    return out;
}

TEST(qkStringUtf, BrokenUtf8LikeTheReferenceAndEdges) {
    std::mt19937 rng(5);
    // Well-formed text up to the edges of the ranges; slices of it start and
    // end inside forms.
    std::string const valid =
        "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\xED\x9F\xBF\xEE\x80\x80\xDF\xBF";
    // Where the ranges of lead and continuation bytes begin and end.
    std::string const edges =
        "\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xED\xEF\xF0\xF4\xF5\xF8\xFF";
    for (int round = 0; round < 100000; ++round) {
        std::string bytes;
        for (int n = rng() % 12 + 1; n > 0; --n) {
            int kind = rng() % 4;  // no zero byte: it ends the text
            bytes += kind == 0   ? std::string(1, char(rng() % 255 + 1))
                     : kind == 1 ? std::string(1, edges[rng() % edges.size()])
                                 : valid.substr(rng() % valid.size(), rng() % 5 + 1);
        }
        qkString s(bytes.c_str());
        ASSERT_EQ(decode<wchar_t>(s), referenceDecode(bytes)) << round;
    }
    // A null or empty input changes nothing. In the C locale the locale's
    // multibyte form shows what it cannot express as "?"; in C.UTF-8 it is cut
    // at a character boundary within wcslen + 1 bytes.
    qkString s("keep");
    s.convertToUTF8FromUnicode(static_cast<wchar_t const*>(nullptr));
    s.convertToUTF8FromUnicode(u"");
    EXPECT_STREQ(s, "keep");
    EXPECT_EQ(qkString::convertToLPSTR(nullptr), nullptr);
    std::tuple<char const*, wchar_t const*, char const*> const cases[] = {
        {"C", L"abc\u00E9\u20AC!", "abc?\?!"},
        {"C.UTF-8", L"ab\u20AC", "ab"},
        {"C.UTF-8", L"\U0001F600xyzw", "\xF0\x9F\x98\x80x"}};
    for (auto const& [locale, in, out] : cases) {
        if (!std::setlocale(LC_ALL, locale)) continue;
        char* got = qkString::convertToLPSTR(in);
        EXPECT_STREQ(got, out);
        qkFree(got, "test", __LINE__);
    }
    std::setlocale(LC_ALL, "C");
}
