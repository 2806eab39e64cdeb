// UTF-8 conversion of qkString: valid text against the C library's iconv,
// broken text against a reference decoder built by enumerating every code
// point's encoding, and the bounds the output must stay within.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <cwchar>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <iconv.h>

#include "qkMemory.h"
#include "qkString.h"

namespace {

// Converts bytes between two encodings with iconv; the oracle for valid text.
std::string iconvBytes(char const* to, char const* from, void const* in, size_t bytes) {
    iconv_t cd = iconv_open(to, from);
    EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
    std::string out(bytes * 4 + 16, '\0');
    char* src = static_cast<char*>(const_cast<void*>(in));
    char* dst = out.data();
    size_t inLeft = bytes, outLeft = out.size();
    EXPECT_NE(iconv(cd, &src, &inLeft, &dst, &outLeft), static_cast<size_t>(-1));
    iconv_close(cd);
    out.resize(out.size() - outLeft);
    return out;
}

char32_t randomScalar(std::mt19937& rng) {
    for (;;) {
        // Mostly small values, where the encoding lengths change.
        char32_t c = rng() % 4 == 0 ? rng() % 0x110000 : rng() % (1u << (rng() % 17 + 1));
        if (c != 0 && (c < 0xD800 || c > 0xDFFF)) return c;
    }
}

TEST(qkStringUtf, RandomValidTextRoundTripsLikeIconv) {
    std::mt19937 rng(3);
    for (int round = 0; round < 3000; ++round) {
        std::u32string cps;
        int n = rng() % 40 + 1;
        for (int i = 0; i < n; ++i)
            cps += randomScalar(rng);

        std::wstring w(cps.begin(), cps.end());
        std::string want = iconvBytes("UTF-8", "UTF-32LE", cps.data(), cps.size() * 4);
        qkString s;
        s.convertToUTF8FromUnicode(w.c_str());
        ASSERT_EQ(std::string(s.sanitize(), s.length()), want);

        std::string u16 = iconvBytes("UTF-16LE", "UTF-32LE", cps.data(), cps.size() * 4);
        std::u16string w16(reinterpret_cast<char16_t const*>(u16.data()), u16.size() / 2);
        qkString t;
        t.convertToUTF8FromUnicode(w16.c_str());
        ASSERT_EQ(std::string(t.sanitize(), t.length()), want);

        std::vector<wchar_t> back(s.length() + 1, L'#');
        s.convertFromUTF8ToUnicode(back.data());
        ASSERT_EQ(std::wstring(back.data()), w);
        std::vector<char16_t> back16(s.length() + 1, u'#');
        s.convertFromUTF8ToUnicode(back16.data());
        ASSERT_EQ(std::u16string(back16.data()), w16);
    }
}

// ---- broken input ----------------------------------------------------------------

// Every prefix of every code point's UTF-8 form, mapped to the code point
// when the prefix is the whole form, else to -1. Built by plain arithmetic,
// independently of the library's table of lead and continuation bytes.
std::unordered_map<uint64_t, int64_t> const& utf8Prefixes() {
    static std::unordered_map<uint64_t, int64_t> map = [] {
        std::unordered_map<uint64_t, int64_t> m;
        m.reserve(1300000);
        for (uint32_t c = 0; c < 0x110000; ++c) {
            if (c >= 0xD800 && c <= 0xDFFF) continue;
            int len = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
            uint8_t b[4];
            static const uint8_t leads[] = {0, 0, 0xC0, 0xE0, 0xF0};
            for (int i = len - 1; i > 0; --i)
                b[i] = 0x80 | ((c >> (6 * (len - 1 - i))) & 0x3F);
            b[0] = len == 1 ? c : leads[len] | (c >> (6 * (len - 1)));
            uint64_t key = 0;
            for (int i = 0; i < len; ++i) {
                key = (key << 8) | b[i];
                uint64_t tagged = key | (uint64_t(i + 1) << 40);
                if (i + 1 == len)
                    m[tagged] = c;
                else
                    m.emplace(tagged, -1);
            }
        }
        return m;
    }();
    return map;
}

// Decodes with one U+FFFD per maximal ill-formed subpart: at each position
// take the longest run of bytes that begins some code point's form.
std::u32string referenceDecode(std::string const& bytes) {
    auto const& prefixes = utf8Prefixes();
    std::u32string out;
    size_t i = 0;
    while (i < bytes.size()) {
        uint64_t key = 0;
        int best = 0;
        int64_t value = -1;
        for (int k = 1; k <= 4 && i + k <= bytes.size(); ++k) {
            key = (key << 8) | static_cast<uint8_t>(bytes[i + k - 1]);
            auto it = prefixes.find(key | (uint64_t(k) << 40));
            if (it == prefixes.end()) break;
            best = k;
            value = it->second;
        }
        out += value >= 0 ? static_cast<char32_t>(value) : U'\xFFFD';
        i += best ? best : 1;
    }
    return out;
}

std::u32string decodeWithString(std::string const& bytes) {
    qkString s(bytes.c_str());
    std::vector<wchar_t> out(bytes.size() + 2, L'#');
    out[bytes.size() + 1] = L'!';  // the unit past the promised bound
    s.convertFromUTF8ToUnicode(out.data());
    EXPECT_EQ(out[bytes.size() + 1], L'!');
    std::wstring w(out.data());
    return std::u32string(w.begin(), w.end());
}

TEST(qkStringUtf, BrokenUtf8GivesReplacementsLikeTheReference) {
    // The example the Unicode standard gives for maximal subparts.
    std::string sample = "\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64";
    EXPECT_EQ(decodeWithString(sample),
              U"a\xFFFD\xFFFD\xFFFD"
              U"b\xFFFD"
              U"c\xFFFD\xFFFD"
              U"d");
    // Overlong forms, surrogates, values above U+10FFFF, truncated tails.
    EXPECT_EQ(
        decodeWithString("\xC0\xAF|\xE0\x80\xAF|\xED\xA0\x80|\xF4\x90\x80\x80|\xE2\x82"),
        U"\xFFFD\xFFFD|\xFFFD\xFFFD\xFFFD|\xFFFD\xFFFD\xFFFD|\xFFFD\xFFFD\xFFFD\xFFFD|\xFFFD");

    std::mt19937 rng(5);
    std::string const pieces[] = {"a",
                                  "\xC3\xA9",
                                  "\xE2\x82\xAC",
                                  "\xF0\x9F\x98\x80",
                                  "\xF4\x8F\xBF\xBF",
                                  "\xED\x9F\xBF",
                                  "\xEE\x80\x80"};
    for (int round = 0; round < 20000; ++round) {
        std::string bytes;
        int n = rng() % 12 + 1;
        for (int i = 0; i < n; ++i) {
            if (rng() % 3) {
                bytes += pieces[rng() % 7];
            } else {
                char b = static_cast<char>(rng() % 255 + 1);  // no zero: it ends the text
                bytes += b;
            }
            if (rng() % 8 == 0 && !bytes.empty()) bytes.pop_back();  // cut a form short
        }
        ASSERT_EQ(decodeWithString(bytes), referenceDecode(bytes)) << round;
    }
}

TEST(qkStringUtf, BrokenUtf16GivesReplacements) {
    std::mt19937 rng(9);
    char16_t const units[] = {u'a', 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xD83D, 0xDE00, 0xFFFF, 0x7FF};
    for (int round = 0; round < 20000; ++round) {
        std::u16string in;
        int n = rng() % 10 + 1;
        for (int i = 0; i < n; ++i)
            in += units[rng() % 9];
        // Reference: a lead surrogate followed by a trail one is a pair,
        // every other surrogate stands alone and is replaced.
        std::u32string want;
        for (size_t i = 0; i < in.size(); ++i) {
            char32_t u = in[i];
            bool lead = u >= 0xD800 && u <= 0xDBFF;
            bool trail = u >= 0xDC00 && u <= 0xDFFF;
            if (lead && i + 1 < in.size() && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
                want += 0x10000 + ((u - 0xD800) << 10) + (in[i + 1] - 0xDC00);
                ++i;
            } else {
                want += lead || trail ? U'\xFFFD' : u;
            }
        }
        qkString s;
        s.convertToUTF8FromUnicode(in.c_str());
        ASSERT_EQ(decodeWithString(std::string(s.sanitize(), s.length())), want) << round;
    }
    // UTF-32 units that are no code points.
    wchar_t const bad[] = {0x41, 0xD800, 0x110000, -1, 0x10FFFF, 0};
    qkString s;
    s.convertToUTF8FromUnicode(bad);
    EXPECT_EQ(std::string(s.sanitize()), "A\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xF4\x8F\xBF\xBF");
}

TEST(qkStringUtf, NullAndEmptyInputsChangeNothing) {
    qkString s("keep"), null;
    s.convertToUTF8FromUnicode(static_cast<wchar_t const*>(nullptr));
    s.convertToUTF8FromUnicode(u"");
    EXPECT_STREQ(s, "keep");
    wchar_t out[1] = {L'#'};
    null.convertFromUTF8ToUnicode(out);
    EXPECT_TRUE(out[0] == L'#' && null.size() == 0);
    EXPECT_EQ(qkString::convertToLPSTR(nullptr), nullptr);
}

TEST(qkStringUtf, ToLocaleMultibyte) {
    std::setlocale(LC_ALL, "C");
    char* c = qkString::convertToLPSTR(L"abc\u00E9\u20AC!");
    EXPECT_STREQ(c,
                 "abc?"
                 "?!");
    qkFree(c, "test", __LINE__);
    if (!std::setlocale(LC_ALL, "C.UTF-8")) GTEST_SKIP() << "no C.UTF-8 locale";
    // wcslen + 1 bytes: the UTF-8 form is cut at a character boundary.
    char* u = qkString::convertToLPSTR(L"ab\u00E9\u20AC");
    EXPECT_STREQ(u, "ab\xC3\xA9");
    qkFree(u, "test", __LINE__);
    char* v = qkString::convertToLPSTR(L"\U0001F600xyzw");  // 4 bytes, then room for 1
    EXPECT_STREQ(v, "\xF0\x9F\x98\x80x");
    qkFree(v, "test", __LINE__);
    std::setlocale(LC_ALL, "C");
}

}  // namespace
