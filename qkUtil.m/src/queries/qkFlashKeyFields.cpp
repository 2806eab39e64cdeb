// FlashKey: the typed fields (dates, values) and the group field.
#include "qkFlashKey.h"
#include "qkNumberText.h"
#include "qkOID.h"
#include "qkString.h"
#include "qkTable.h"
#include "qkTimebase.h"
#include "qkValue.h"

namespace {

// "%04d.%02d.%02d.%02d.%02d.%02d" of the date's fields, written backwards
// from `end`; returns the first byte.
char* writeDate(char* end, qkSQLtimestamp const& t) {
    uint16_t const fields[] = {t.year, t.month, t.day, t.hour, t.minute, t.second};
    char* p = end;
    for (int i = 5; i >= 0; --i) {
        p = qk::keys::writeDecimal(p, fields[i], i == 0 ? 4 : 2);
        if (i) *--p = '.';
    }
    return p;
}

}  // namespace

void FlashKey::addDate(int& pos, char tag, qkSQLnull_timestamp& t) {
    if (pos == 0) reset();
    // A tag, five separators and six fields of at most five digits.
    char text[1 + 5 + 6 * 5];
    char* end = text + sizeof text;
    char* first = end;
    if (t.nullIndicator) {
        *--first = '@';
    } else {
        first = writeDate(end, t.timestamp);
    }
    if (tag) *--first = tag;
    appendBytes(pos, first, size_t(end - first));
}

void FlashKey::addValue(int& pos, char tag, qkValue& v) {
    switch (v.dataType()) {
        case qkValue::Int: {
            int i = 0;
            v.get(i);
            addInt(pos, tag, i, 1);
            return;
        }
        case qkValue::Date: {
            qkTimebase t;
            v.get(t);
            addDate(pos, tag, t);
            return;
        }
        case qkValue::String:
            addString(pos, tag, static_cast<char const*>(v.pointer()));
            return;
        default: {
            qkString s;
            v.get(s);
            addString(pos, tag, s);
            return;
        }
    }
}

void FlashKey::setGroup(int& pos, int group, int version) {
    // Truncating division: a negative version gives bytes below ' ', and a
    // zero byte among them ends the text there.
    char const text[5] = {char('@' + group), char(' ' + version % 100),
                          char(' ' + version / 100 % 100), char(' ' + version / 10000 % 100), 0};
    addString(pos, 0, text);
}

void FlashKey::setGroup(int& pos, qkOID& oid) {
    addGroupField(pos, qkTableUtil::id2Table(oid.tableId()), oid);
}

void FlashKey::addGroupField(int& pos, qkTable& table, qkOID& oid) {
    if (table.versionIndex >= 0 && oid.distributed()) {
        setGroup(pos, table.group, qkTableUtil::groupVersion(oid.tableId(), oid.partition()));
    } else {
        addString(pos, char('@' + table.group), nullptr);
    }
}
