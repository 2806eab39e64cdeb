// The scalar values: text conversions against the C library's own readers
// as oracles, comparison as a total order on random values, the flag rules
// after every successful and failed set, the host hooks, copying, and bad
// input of every kind.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qkMemory.h"
#include "qkScalarValues.h"

namespace {

std::string textOf(qkValue const& v) {
    qkString s;
    v.get(s);
    return s.sanitize();
}

std::string randomText(std::mt19937& rng, char const* alphabet, size_t maxLength) {
    std::string s(rng() % (maxLength + 1), ' ');
    size_t n = std::strlen(alphabet);
    for (char& c : s)
        c = alphabet[rng() % n];
    return s;
}

// Standard output of f, which must print nothing unless it fails.
std::string printed(std::function<void()> const& f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

TEST(qkIntValueText, ReadsAsTheCLibraryReadsDecimalIntegers) {
    std::mt19937 rng(1);
    for (int i = 0; i < 20000; ++i) {
        std::string text = randomText(rng, "0123456789999 \t+-x.a", 14);
        if (i % 7 == 0)
            text = std::to_string(static_cast<long long>(rng()) - (1ll << 31) + (i % 3) * 3);
        qkIntValue v(0, 77);
        v.nullvalue(true);
        std::string out;
        int result = 0;
        out = printed([&] { result = v.set(qkString(text.c_str())); });
        char const* oracleText = text.empty() ? "0" : text.c_str();
        errno = 0;
        long long expected = std::strtoll(oracleText, nullptr, 10);
        bool fits = errno != ERANGE && expected >= INT_MIN && expected <= INT_MAX;
        if (fits) {
            ASSERT_EQ(result, 1) << text;
            ASSERT_EQ(v.value, expected) << text;
            ASSERT_EQ(v.flags(), qkValue::Updated) << text;  // marked set
            ASSERT_EQ(out, "");
        } else {
            ASSERT_EQ(result, 0) << text;
            ASSERT_EQ(v.value, 77) << text;  // value and flags stay
            ASSERT_EQ(v.flags(), qkValue::NullValue);
            ASSERT_EQ(out, "Value out of range " + text + "\n");
        }
    }
    // The integer's own text reads back, extremes included; a null prints
    // "null" whatever it holds.
    for (int n : {0, -1, 7, INT_MAX, INT_MIN, 1000000}) {
        qkIntValue v(0, n), back;
        EXPECT_EQ(back.set(qkString(textOf(v).c_str())), 1);
        EXPECT_EQ(back.value, n);
    }
    qkIntValue null(0, 5);
    null.nullvalue(true);
    EXPECT_EQ(textOf(null), "null");
    EXPECT_EQ(printed([] { qkIntValue().set(qkString(std::string(100000, '9').c_str())); }),
              "Value out of range " + std::string(100000, '9') + "\n");
}

TEST(qkDoubleValueText, ReadsInSinglePrecisionAndKeepsTheText) {
    std::mt19937 rng(2);
    for (int i = 0; i < 20000; ++i) {
        std::string text = randomText(rng, "0123456789.,e-+ xinfa", 12);
        qkDoubleValue v;
        v.set(2.5);
        int result = 0;
        std::string out = printed([&] { result = v.set(qkString(text.c_str())); });
        char const* oracleText = text.empty() ? "0" : text.c_str();
        char* end = nullptr;
        errno = 0;
        float f = std::strtof(oracleText, &end);
        if (end != oracleText && errno != ERANGE) {
            ASSERT_EQ(result, 1) << text;
            ASSERT_TRUE(v.value == static_cast<double>(f) || (std::isnan(f) && std::isnan(v.value)))
                << text;
            ASSERT_EQ(textOf(v), text.empty() ? "0.000000" : text);  // the text as given
        } else {
            ASSERT_EQ(result, 0) << text;
            ASSERT_EQ(v.value, 2.5);
            ASSERT_EQ(textOf(v), "2.500000");
            ASSERT_EQ(out, "Value out of range " + text + "\n");
        }
    }
    qkDoubleValue v;
    v.set(qkString("0.1"));
    EXPECT_EQ(v.value, static_cast<double>(0.1f));
    EXPECT_NE(v.value, 0.1);
    v.set(qkString("1,5"));
    EXPECT_EQ(v.value, 1.0);
    EXPECT_EQ(textOf(v), "1,5");
    EXPECT_EQ(printed([&] { v.set(qkString("1e-60")); }), "Value out of range 1e-60\n");
}

TEST(qkDoubleValueText, DecimalSymbolAndHooks) {
    qkDoubleValue v;
    v.set(2.5);
    qkValue::setDecimalSymbol(',');
    EXPECT_STREQ(static_cast<char*>(v.prepare(0)), "2,500000");
    EXPECT_EQ(v.size(), 8);
    v.set(qkString("2,5"));
    qkValue::setDecimalSymbol('.');
    EXPECT_STREQ(static_cast<char*>(v.prepare(0)), "2.5");
    qkValue::setDecimalSymbol(0);
    v.clear();
    EXPECT_EQ(v.size(), 1);
    qkValue::setString2double([](char const* s, double& d) { d = std::strtod(s, nullptr) * 2; });
    qkValue::setDouble2string([](double d, qkString& s) { s.sprintf("<%g>", d); });
    EXPECT_EQ(v.set(qkString("0.1")), 1);
    EXPECT_EQ(v.value, 0.2);  // the host's conversion, in double precision
    EXPECT_EQ(textOf(v), "0.1");
    v.set(3.0);
    EXPECT_EQ(textOf(v), "<3>");
    qkValue::setString2double(nullptr);
    qkValue::setDouble2string(nullptr);
    EXPECT_EQ(textOf(v), "<3>");  // the cache stays until the next set
}

TEST(qkBooleanValueText, OnlyTrueIsTrueWithoutAHook) {
    std::map<std::string, int> texts = {{"TRUE", 1}, {"true", 0},  {"TRUE ", 0},
                                        {"", 0},     {"FALSE", 0}, {"1", 0}};
    for (auto const& [text, expected] : texts) {
        qkBooleanValue b;
        EXPECT_EQ(b.set(qkString(text.c_str())), 1);
        EXPECT_EQ(b.value, expected) << text;
        EXPECT_EQ(b.flags(), qkValue::Updated);
    }
    qkBooleanValue b;
    b.set(65536);
    EXPECT_EQ(textOf(b), "FALSE");
    b.set(256);
    unsigned char low = 9;
    int wide = 0;
    b.get(low), b.get(wide);
    EXPECT_EQ(std::make_tuple(textOf(b), low, wide), std::make_tuple("TRUE", 0, 256));
    b.set(0x18000);
    b.get(wide);
    EXPECT_EQ(wide, -32768);  // sign-extended from 16 bits
    qkValue::setString2boolean([](char const* s, unsigned char& out) { out = *s == 'y'; });
    b.set(qkString("yes"));
    EXPECT_EQ(b.value, 1);
    qkValue::setString2boolean(nullptr);
}

// Hex text both ways against a byte oracle; odd and non-hex characters.
TEST(qkRawValueText, HexBothWays) {
    std::mt19937 rng(4);
    for (int i = 0; i < 2000; ++i) {
        std::vector<uint8_t> bytes(rng() % 40);
        qkVArray_uint8 a;
        a.resize(static_cast<uint32_t>(bytes.size()));
        std::string hex;
        for (size_t k = 0; k < bytes.size(); ++k) {
            a[static_cast<uint32_t>(k)] = bytes[k] = static_cast<uint8_t>(rng());
            char two[3];
            std::snprintf(two, sizeof two, rng() % 2 ? "%02X" : "%02x", bytes[k]);
            hex += two;
        }
        qkRawValue r, fromText;
        r.set(a);
        EXPECT_EQ(fromText.set(qkString(hex.c_str())), 1);
        ASSERT_EQ(fromText.compare(r, false), 0) << hex;
        std::string upper = hex;
        for (char& c : upper)
            c = static_cast<char>(std::toupper(c));
        ASSERT_EQ(textOf(fromText), upper);
        ASSERT_EQ(fromText.isNull(), bytes.empty());
    }
    qkRawValue r;
    r.set(qkString("abc"));
    EXPECT_EQ(textOf(r), "AB");
    r.set(qkString("zz"));
    EXPECT_EQ(textOf(r), "00");
    EXPECT_EQ(*static_cast<uint8_t*>(r.prepare(-1)), 0);
    r.clear();
    EXPECT_EQ(r.size(), 0);
    EXPECT_NE(r.prepare(-1), nullptr);  // a static empty byte
}

// ---- comparison as a total order --------------------------------------------------

using Maker = std::function<std::unique_ptr<qkValue>(std::mt19937&)>;

// Few distinct contents, so that ties are common.
std::vector<std::pair<char const*, Maker>> makers() {
    return {
        {"boolean",
         [](std::mt19937& g) {
             auto v = std::make_unique<qkBooleanValue>();
             v->set(static_cast<int>(g() % 4) - 1);  // -1, 0, 1, 2
             return v;
         }},
        {"int",
         [](std::mt19937& g) {
             int n =
                 g() % 9 == 0 ? INT_MIN + static_cast<int>(g() % 2) : static_cast<int>(g() % 5) - 2;
             return std::make_unique<qkIntValue>(0, n);
         }},
        {"double",
         [](std::mt19937& g) {
             auto v = std::make_unique<qkDoubleValue>();
             v->set(std::ldexp(static_cast<double>(g() % 7) - 3, static_cast<int>(g() % 3)));
             return v;
         }},
        {"date",
         [](std::mt19937& g) {
             auto v = std::make_unique<qkDateValue>();
             if (g() % 5) {
                 qkSQLtimestamp t{};
                 t.year = static_cast<uint16_t>(2000 + g() % 2),
                 t.day = static_cast<uint16_t>(g() % 3);
                 t.millisecond = static_cast<uint16_t>(g() % 2);
                 v->set(qkTimebase(t));
             }
             return v;
         }},
        {"string",
         [](std::mt19937& g) {
             auto v = std::make_unique<qkStringValue>();
             v->set(qkString(randomText(g, "ab\xff", 3).c_str()));
             return v;
         }},
        {"raw",
         [](std::mt19937& g) {
             auto v = std::make_unique<qkRawValue>();
             v->set(qkString(randomText(g, "0F", 6).c_str()));
             return v;
         }},
    };
}

TEST(qkScalarCompare, EveryClassIsATotalOrderConsistentWithEquality) {
    std::mt19937 rng(5);
    for (auto const& [name, make] : makers()) {
        SCOPED_TRACE(name);
        for (int i = 0; i < 3000; ++i) {
            auto a = make(rng), b = make(rng), c = make(rng);
            int ab = a->compare(*b, false), bc = b->compare(*c, false), ac = a->compare(*c, false);
            ASSERT_TRUE(ab >= -1 && ab <= 1);
            ASSERT_EQ(b->compare(*a, false), -ab);
            ASSERT_EQ(a->compare(*a, false), 0);
            if (ab <= 0 && bc <= 0) {
                ASSERT_LE(ac, 0) << "not transitive";
            }
            if (ab == 0 && bc == 0) {
                ASSERT_EQ(ac, 0);
            }
            ASSERT_EQ(*a == *b, ab == 0);
            // With operators: the operator decides first.
            b->oper(qkValue::MoreThan);
            ASSERT_EQ(a->compare(*b, true), -1);
            ASSERT_EQ(b->compare(*a, true), 1);
        }
    }
}

TEST(qkScalarCompare, ClassRules) {
    qkRawValue a, b;
    a.set(qkString("0102")), b.set(qkString("010200"));
    EXPECT_EQ(a.compare(b, false), -1);
    a.set(qkString("02")), b.set(qkString("01FF"));
    EXPECT_EQ(a.compare(b, false), 1);
    qkDoubleValue nan, one;
    nan.set(std::nan("")), one.set(1.0);
    EXPECT_EQ(nan.compare(one, false), 0);
    EXPECT_EQ(one.compare(nan, false), 0);
    qkStringValue high, low;
    high.set(qkString("\xff")), low.set(qkString("a"));
    EXPECT_EQ(high.compare(low, false), 1);  // unsigned bytes
    qkValue::setStringcompare([](char const* x, char const* y) { return 40 + (*x - *y); });
    EXPECT_EQ(high.compare(low, false), 40 + ('\xff' - 'a'));  // passed on unchanged
    qkValue::setStringcompare(nullptr);
    // A null date sorts before every date; a null integer compares by content.
    qkDateValue never, some;
    some.set(qkTimebase(1900, 1, 1, 0, 0, 0));
    EXPECT_EQ(never.compare(some, false), -1);
    EXPECT_TRUE(never.isNull());
    qkIntValue n(0, 3), m(0, 3);
    n.nullvalue(true);
    EXPECT_EQ(n.compare(m, false), 0);
    // Classes mixed (outside the contract): ordered by type, never a crash.
    EXPECT_EQ(qkIntValue().compare(qkStringValue(), false), -1);
    EXPECT_EQ(qkRawValue().compare(qkBooleanValue(), false), 1);
}

// ---- flags, dates, strings, copying -----------------------------------------------

TEST(qkScalarFlags, SetsMarkUpdatedAndClearNullExceptWhereTheyDerive) {
    auto fresh = [](qkValue& v) { v.setFlag(0xFF, false), v.nullvalue(true), v.constant(true); };
    qkIntValue i;
    qkStringValue s;
    qkRawValue r;
    qkBooleanValue b;
    qkDoubleValue d;
    std::vector<std::pair<qkValue*, std::function<int()>>> sets = {
        {&i, [&] { return i.set(5); }},
        {&i, [&] { return i.set(qkString("x")); }},
        {&s, [&] { return s.set(qkString("x")); }},
        {&s, [&] { return s.set(qkString()); }},
        {&r, [&] { return r.set(qkString("00")); }},
        {&b, [&] { return b.set(static_cast<unsigned char>(1)); }},
        {&d, [&] { return d.set(qkString("1.5")); }},
    };
    for (auto& [v, set] : sets) {
        fresh(*v);
        EXPECT_EQ(set(), 1);
        EXPECT_EQ(v->flags(), qkValue::Updated | qkValue::Constant) << v->getDataType();
    }
    fresh(r);  // the empty text makes a null raw value
    r.set(qkString(""));
    EXPECT_EQ(r.flags(), qkValue::Updated | qkValue::NullValue | qkValue::Constant);
    // A date is null exactly when its timestamp is, however it was set.
    qkDateValue date;
    date.set(qkTimebase(2020, 1, 1, 0, 0, 0));
    EXPECT_EQ(date.flags(), qkValue::Updated);
    date.set(qkTimebase());
    EXPECT_TRUE(date.flags() & qkValue::NullValue);
    std::string out = printed([&] { EXPECT_EQ(date.set(qkString("2020-01-01")), 1); });
    EXPECT_EQ(out, "not implemented: table -1 column 0 datatype date (not date)\n");
    EXPECT_TRUE(date.isNull());  // unchanged timestamp, still null
}

TEST(qkDateValueBehaviour, HooksUnsupportedSetsAndTheTie) {
    qkDateValue date(2);
    std::string out = printed([&] {
        EXPECT_EQ(date.set(1), 0);
        EXPECT_EQ(date.set(2.0), 0);
        EXPECT_EQ(date.set(static_cast<unsigned char>(1)), 0);
        EXPECT_EQ(date.set(qkVArray_uint8()), 0);
        qkString s;
        EXPECT_EQ(date.get(s), 1);  // 1 in every case
    });
    EXPECT_EQ(out,
              "set to int!\nnot implemented: table -1 column 2 datatype date (not int)\n"
              "set to double!\nnot implemented: table -1 column 2 datatype date (not double)\n"
              "set to bool!\nnot implemented: table -1 column 2 datatype date (not boolean)\n"
              "set to varray!\nnot implemented: table -1 column 2 datatype date (not array)\n"
              "not implemented: table -1 column 2 datatype date (not date)\n");
    qkValue::setString2time([](char const* s, qkTimebase& t) {
        unsigned y = 0, m = 0, d = 0;
        std::sscanf(s, "%u-%u-%u", &y, &m, &d);
        t = qkTimebase(static_cast<uint16_t>(y), static_cast<uint16_t>(m), static_cast<uint16_t>(d),
                       0, 0, 0);
    });
    qkValue::setTime2string([](qkTimebase const& t, qkString& s) {
        s.sprintf("%04u-%02u-%02u", t.year(), t.month(), t.day());
    });
    EXPECT_EQ(date.set(qkString("2024-02-29")), 1);
    EXPECT_EQ(textOf(date), "2024-02-29");
    EXPECT_FALSE(date.isNull());
    EXPECT_EQ(date.size(), 1);
    qkValue::setString2time(nullptr);
    qkValue::setTime2string(nullptr);
    // The tie is the value's own: copies start without one, clear frees it
    // (the sanitizer build catches a double free or a leak).
    date.tie = qkMalloc(64, "tie", 1);
    qkDateValue copy(date), assigned;
    assigned = date;
    EXPECT_EQ(copy.tie, nullptr);
    EXPECT_EQ(assigned.tie, nullptr);
    EXPECT_EQ(copy.compare(date, false), 0);
    assigned.tie = qkMalloc(8, "tie", 2);
    assigned.copyFrom(date, true);
    EXPECT_NE(assigned.tie, date.tie);  // copyFrom keeps the target's tie
    date.clear();
    EXPECT_EQ(date.tie, nullptr);
    EXPECT_FALSE(date.isNull());  // the timestamp stays
}

TEST(qkScalarCopy, CopyFromTakesContentAndOperatorAndFlagsOnRequest) {
    std::mt19937 rng(6);
    for (auto const& [name, make] : makers()) {
        SCOPED_TRACE(name);
        for (int i = 0; i < 200; ++i) {
            auto src = make(rng), dst = make(rng);
            src->oper(qkValue::Member), src->column(5), src->setTableId(8), src->literal(true);
            dst->column(1), dst->update(false), dst->nullvalue(false);
            bool withFlags = i % 2;
            uint8_t before = dst->flags();
            dst->copyFrom(*src, withFlags);
            ASSERT_EQ(dst->compare(*src, true), 0);
            ASSERT_EQ(textOf(*dst), textOf(*src));
            ASSERT_EQ(dst->column(), 1);
            ASSERT_EQ(dst->getTableId(), -1);
            ASSERT_EQ(dst->flags(), withFlags ? src->flags() : before);
        }
    }
}

TEST(qkStringValueBehaviour, PrivateCopiesSharedReadsAndPrepare) {
    qkString text("a text longer than the inline buffer of a string");
    qkStringValue v;
    v.set(text);
    EXPECT_NE(v.value.sanitize(), text.sanitize());  // a copy of its own
    qkString out;
    v.get(out);
    EXPECT_EQ(out.sanitize(), v.value.sanitize());  // shared
    char* buffer = static_cast<char*>(v.prepare(3));
    EXPECT_EQ(v.size(), 3);
    std::memcpy(buffer, "xyz", 3);
    EXPECT_EQ(textOf(v), "xyz");
    v.set(qkString());  // a null text
    EXPECT_NE(v.pointer(), nullptr);
    v.clear();
    EXPECT_EQ(v.size(), 0);
}

// Input no caller should send still gives a defined answer: a null text to
// every set, impossible calendar fields (stored as given, compared field by
// field), NaN and infinities, the integer extremes, long texts.
TEST(qkScalarBadInput, DefinedResultsNeverACrash) {
    qkString null;
    std::string out = printed([&] {
        qkIntValue i(0, 5);
        EXPECT_EQ(i.set(null), 1);
        EXPECT_EQ(i.value, 0);
        qkDoubleValue d;
        EXPECT_EQ(d.set(null), 1);
        EXPECT_EQ(d.value, 0.0);
        qkBooleanValue b;
        EXPECT_EQ(b.set(null), 1);
        qkRawValue r;
        EXPECT_EQ(r.set(null), 1);
        EXPECT_TRUE(r.isNull());
        qkStringValue s;
        EXPECT_EQ(s.set(null), 1);
        EXPECT_EQ(textOf(s), "");
    });
    EXPECT_EQ(out, "");
    qkTimebase feb30(2023, 2, 30, 0, 0, 0), month13(2023, 13, 0, 25, 61, 61.5f);
    EXPECT_EQ(std::make_tuple(month13.month(), month13.day(), month13.hour(), month13.minute()),
              std::make_tuple(13, 0, 25, 61));
    EXPECT_EQ(feb30.compare(month13), -1);
    qkDateValue date;
    date.set(month13);
    EXPECT_FALSE(date.isNull());
    qkDoubleValue d;
    for (double x : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e308, -0.0}) {
        EXPECT_EQ(d.set(x), 1);
        qkString text;
        EXPECT_EQ(d.get(text), 1);
        EXPECT_GT(text.length(), 0u);
    }
    EXPECT_EQ(textOf(d), "-0.000000");
    d.set(1e308);
    EXPECT_EQ(textOf(d).size(), 316u);     // every digit of %f
    EXPECT_EQ(d.set(qkString("inf")), 1);  // strtof reads it, and it is in range
    EXPECT_TRUE(std::isinf(d.value));
    std::string longHex(100001, 'f');
    qkRawValue r;
    EXPECT_EQ(r.set(qkString(longHex.c_str())), 1);
    EXPECT_EQ(r.size(), 50000);
    EXPECT_EQ(textOf(r), std::string(100000, 'F'));
}

}  // namespace
