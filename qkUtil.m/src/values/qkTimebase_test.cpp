// Timestamps: the byte layout shared with the host's structures, the
// carried members across every copy, the float second, and compare as a
// total order against an independent lexicographic oracle.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <tuple>

#include "qkTimebase.h"

namespace {

qkSQLtimestamp stamp(uint16_t y, uint16_t mo, uint16_t d, uint16_t h, uint16_t mi, uint16_t s,
                     uint16_t ms) {
    qkSQLtimestamp t{};
    t.year = y, t.month = mo, t.day = d, t.hour = h, t.minute = mi, t.second = s;
    t.millisecond = ms;
    return t;
}

TEST(qkTimebase, LayoutIsTheHostsAndCopiesCarryEveryByte) {
    EXPECT_EQ(offsetof(qkSQLtimestamp, year), 0u);
    EXPECT_EQ(offsetof(qkSQLtimestamp, month), 2u);
    EXPECT_EQ(offsetof(qkSQLtimestamp, day), 4u);
    EXPECT_EQ(offsetof(qkSQLtimestamp, carried16), 6u);
    EXPECT_EQ(offsetof(qkSQLtimestamp, second), 12u);
    qkSQLtimestamp t = stamp(2024, 2, 29, 23, 59, 59, 250);
    t.carried16 = 0xBEEF, t.carried32 = 0xCAFEF00D;
    qkTimebase tb(t);
    EXPECT_FALSE(tb.is_null());
    // Viewed in place as the null form, and copied through every path.
    qkSQLnull_timestamp& view = tb;
    EXPECT_EQ(reinterpret_cast<void*>(&view), reinterpret_cast<void*>(&tb));
    EXPECT_EQ(view.nullIndicator, 0);
    EXPECT_EQ(std::memcmp(&view.timestamp, &t, sizeof t), 0);
    view.nullIndicator = 7;  // any non-zero byte is null
    qkTimebase copies[] = {qkTimebase(tb), qkTimebase(static_cast<qkSQLnull_timestamp>(tb))};
    for (qkTimebase const& c : copies) {
        EXPECT_EQ(std::memcmp(&c, &tb, sizeof tb), 0);
        EXPECT_TRUE(c.is_null());
    }
    qkTimebase assigned;
    assigned = static_cast<qkSQLtimestamp>(tb);  // the 20 bytes: not null
    EXPECT_FALSE(assigned.is_null());
    EXPECT_EQ(static_cast<qkSQLtimestamp>(assigned).carried32, 0xCAFEF00Du);
}

TEST(qkTimebase, FloatSecondsAndTruncation) {
    qkTimebase t(2024, 2, 29, 23, 59, 59.25f);
    EXPECT_EQ(static_cast<qkSQLtimestamp>(t).second, 59);
    EXPECT_EQ(static_cast<qkSQLtimestamp>(t).millisecond, 250);
    EXPECT_FLOAT_EQ(t.second(), 59.25f);
    EXPECT_EQ(static_cast<qkSQLtimestamp>(qkTimebase(1, 1, 1, 0, 0, 0.7f)).millisecond, 700);
    // Every millisecond read back through second() rebuilds within one.
    for (int ms = 0; ms < 1000; ++ms) {
        qkTimebase a(stamp(2000, 1, 1, 0, 0, 17, static_cast<uint16_t>(ms)));
        qkTimebase b(2000, 1, 1, 0, 0, a.second());
        int back = static_cast<qkSQLtimestamp>(b).millisecond;
        ASSERT_TRUE(back == ms || back == ms - 1) << ms << " came back as " << back;
    }
    // Out-of-range seconds are clamped, never undefined.
    EXPECT_EQ(static_cast<qkSQLtimestamp>(qkTimebase(1, 1, 1, 0, 0, -3.5f)).second, 0);
    EXPECT_EQ(static_cast<qkSQLtimestamp>(qkTimebase(1, 1, 1, 0, 0, 1e9f)).second, 65535);
    EXPECT_EQ(static_cast<qkSQLtimestamp>(qkTimebase(1, 1, 1, 0, 0, NAN)).second, 0);
    t.truncateTime();
    EXPECT_EQ(t.compare(qkTimebase(stamp(2024, 2, 29, 0, 0, 0, 0))), 0);
    EXPECT_EQ(t.hour() + t.minute(), 0);
    EXPECT_EQ(t.day(), 29);
}

// compare against a tuple oracle on random timestamps with few distinct
// field values (so that ties reach every field) and some nulls.
TEST(qkTimebase, CompareIsTheLexicographicOrderWithNullFirst) {
    std::mt19937 rng(3);
    auto any = [&] {
        auto f = [&] { return static_cast<uint16_t>(rng() % 3); };
        qkSQLnull_timestamp n{};
        n.nullIndicator = rng() % 6 == 0 ? static_cast<unsigned char>(1 + rng() % 255) : 0;
        n.timestamp = stamp(f(), f(), f(), f(), f(), f(), f());
        n.timestamp.carried16 = static_cast<uint16_t>(rng());
        n.timestamp.carried32 = rng();
        return qkTimebase(n);
    };
    auto key = [](qkTimebase const& t) {
        qkSQLtimestamp s = t;
        return std::make_tuple(!t.is_null(), s.year, s.month, s.day, s.hour, s.minute, s.second,
                               t.is_null() ? 0 : s.millisecond);
    };
    auto oracle = [&](qkTimebase const& a, qkTimebase const& b) {
        if (a.is_null() && b.is_null()) return 0;
        return key(a) < key(b) ? -1 : key(b) < key(a) ? 1 : 0;
    };
    for (int i = 0; i < 20000; ++i) {
        qkTimebase a = any(), b = any();
        ASSERT_EQ(a.compare(b), oracle(a, b));
        ASSERT_EQ(b.compare(a), -a.compare(b));
    }
    EXPECT_EQ(qkTimebase().compare(qkTimebase(stamp(1900, 1, 1, 0, 0, 0, 0))), -1);
    EXPECT_EQ(
        qkTimebase(stamp(0, 0, 0, 10, 0, 0, 999)).compare(qkTimebase(stamp(0, 0, 0, 10, 0, 1, 0))),
        -1);
}

}  // namespace
