// Timestamps: the host database interface's timestamp structures and
// qkTimebase, the library's date-and-time value, which has exactly their
// layout so that it converts to and from them by plain copies and can be
// viewed as either structure in place.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qkExport.h"

// A calendar timestamp, 20 bytes. The two carried members belong to the
// host's structure: copied with it, never set nor read here.
struct qkSQLtimestamp {
    uint16_t year;
    uint16_t month;  // 1 to 12
    uint16_t day;    // day of the month
    uint16_t carried16;
    uint16_t hour;         // 0 to 23
    uint16_t minute;       // 0 to 59
    uint16_t second;       // whole seconds
    uint16_t millisecond;  // thousandths of the second
    uint32_t carried32;
};

// A timestamp with a null indicator: non-zero means null (1 is written for
// null, 0 otherwise; any non-zero byte read counts as null).
struct qkSQLnull_timestamp {
    unsigned char nullIndicator;
    unsigned char alignment[3];  // written as zeros, ignored when read
    qkSQLtimestamp timestamp;
};

static_assert(sizeof(qkSQLtimestamp) == 20);
static_assert(offsetof(qkSQLtimestamp, hour) == 8 && offsetof(qkSQLtimestamp, millisecond) == 14);
static_assert(offsetof(qkSQLtimestamp, carried32) == 16);
static_assert(sizeof(qkSQLnull_timestamp) == 24 && offsetof(qkSQLnull_timestamp, timestamp) == 4);

class QK_EXPORT qkTimebase {
  public:
    // Null, every field 0.
    qkTimebase();
    // Not null; the 20 bytes copied.
    qkTimebase(qkSQLtimestamp const& t);
    qkTimebase& operator=(qkSQLtimestamp const& t);
    // All 24 bytes copied, the null indicator included.
    qkTimebase(qkTimebase const& t) = default;
    qkTimebase(qkSQLnull_timestamp const& t);
    qkTimebase& operator=(qkTimebase const& t) = default;
    qkTimebase& operator=(qkSQLnull_timestamp const& t);
    // Not null. Whole seconds are `second` truncated toward zero and the
    // millisecond the remaining fraction times 1000, truncated, both in
    // single precision (59.25f gives 59 and 250, 0.7f gives 0 and 700).
    // A second below 0 or NaN counts as 0, one of 65536 or more as 65535.
    qkTimebase(uint16_t year, uint16_t month, uint16_t day, uint16_t hour, uint16_t minute,
               float second);
    ~qkTimebase() = default;

    // The embedded timestamp, and the whole object as the null form.
    operator qkSQLtimestamp&() { return data.timestamp; }
    operator qkSQLtimestamp() const { return data.timestamp; }
    operator qkSQLnull_timestamp&() { return data; }
    operator qkSQLnull_timestamp() const { return data; }

    uint16_t year() const { return data.timestamp.year; }
    uint16_t month() const { return data.timestamp.month; }
    uint16_t day() const { return data.timestamp.day; }
    uint16_t hour() const { return data.timestamp.hour; }
    uint16_t minute() const { return data.timestamp.minute; }
    // Whole seconds plus the millisecond, in double precision, as a float.
    float second() const;
    int is_null() const { return data.nullIndicator; }
    int is_current() const { return 0; }

    // Midnight of the same day; the date and the null indicator stay.
    void truncateTime();
    // -1, 0 or 1: a null timestamp first, then year, month, day, hour,
    // minute, second and millisecond in turn (the carried members never).
    int compare(qkTimebase const& other) const;

  private:
    qkSQLnull_timestamp data;
};

static_assert(sizeof(qkTimebase) == sizeof(qkSQLnull_timestamp));
