// qkTimebase: construction, the float second, truncation and comparison.
#include "qkTimebase.h"

#include <cmath>
#include <cstring>

qkTimebase::qkTimebase() : data{} {
    data.nullIndicator = 1;
}

qkTimebase::qkTimebase(qkSQLtimestamp const& t) : data{} {
    data.timestamp = t;
}

qkTimebase& qkTimebase::operator=(qkSQLtimestamp const& t) {
    data.nullIndicator = 0;
    data.timestamp = t;
    return *this;
}

qkTimebase::qkTimebase(qkSQLnull_timestamp const& t) : data(t) {}

qkTimebase& qkTimebase::operator=(qkSQLnull_timestamp const& t) {
    data = t;
    return *this;
}

qkTimebase::qkTimebase(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
                       float second)
    : data{} {
    if (!(second >= 0.0f)) second = 0.0f;  // NaN and negatives
    if (second >= 65536.0f) second = 65535.0f;
    float whole = std::trunc(second);
    float fraction = second - whole;  // float arithmetic throughout
    float thousandths = fraction * 1000.0f;
    qkSQLtimestamp& t = data.timestamp;
    t.year = year;
    t.month = month;
    t.day = day;
    t.hour = hour;
    t.minute = minute;
    t.second = static_cast<uint16_t>(whole);
    t.millisecond = static_cast<uint16_t>(thousandths);
}

float qkTimebase::second() const {
    return static_cast<float>(data.timestamp.second + data.timestamp.millisecond / 1000.0);
}

void qkTimebase::truncateTime() {
    qkSQLtimestamp& t = data.timestamp;
    t.hour = t.minute = t.second = t.millisecond = 0;
}

int qkTimebase::compare(qkTimebase const& other) const {
    bool mineNull = data.nullIndicator != 0, otherNull = other.data.nullIndicator != 0;
    if (mineNull || otherNull) return mineNull == otherNull ? 0 : mineNull ? -1 : 1;
    qkSQLtimestamp const &a = data.timestamp, &b = other.data.timestamp;
    uint16_t const mine[] = {a.year, a.month, a.day, a.hour, a.minute, a.second, a.millisecond};
    uint16_t const theirs[] = {b.year, b.month, b.day, b.hour, b.minute, b.second, b.millisecond};
    for (int i = 0; i < 7; ++i)
        if (mine[i] != theirs[i]) return mine[i] < theirs[i] ? -1 : 1;
    return 0;
}
