// Values: a row of typed values is built, converted to text and back, and
// sorted by comparison; then the host's hooks are installed (its own date
// format and double format, a signal callback) and the same conversions run
// through them.
#include <cstdarg>
#include <cstdio>
#include <initializer_list>

#include "demo.h"
#include "qkScalarValues.h"
#include "qkValueList.h"

namespace {

void show(char const* label, qkValue const& v) {
    qkString text;
    v.get(text);
    std::printf("    %s%s%-7s column %d: \"%s\"%s\n", label, *label ? ": " : "", v.getDataType(),
                v.column(), text.sanitize(), v.isNull() ? " (null)" : "");
}

// The host's conversions: ISO dates and doubles with two decimals.
void parseDate(char const* s, qkTimebase& t) {
    unsigned y = 0, mo = 0, d = 0, h = 0, mi = 0;
    float sec = 0;
    if (std::sscanf(s, "%u-%u-%u %u:%u:%f", &y, &mo, &d, &h, &mi, &sec) >= 3) {
        t = qkTimebase(static_cast<uint16_t>(y), static_cast<uint16_t>(mo),
                       static_cast<uint16_t>(d), static_cast<uint16_t>(h),
                       static_cast<uint16_t>(mi), sec);
    }
}
void formatDate(qkTimebase const& t, qkString& s) {
    if (t.is_null()) {
        s = "";
        return;
    }
    s.sprintf("%04u-%02u-%02u %02u:%02u:%06.3f", t.year(), t.month(), t.day(), t.hour(), t.minute(),
              static_cast<double>(t.second()));
}
void formatDouble(double d, qkString& s) {
    s.sprintf("%.2f", d);
}
int hostSignal(qkErrorLevel level, qkError const& error, char const*, va_list args) {
    char text[256];
    std::vsnprintf(text, sizeof text, error.format, args);
    std::printf("  [host callback] level %d, error %d: %s\n", level, error.number, text);
    return 0;
}

}  // namespace

void demoValues() {
    std::printf("\n== Values: typed cells, conversions, comparison, host hooks ==\n");
    qkIntValue id(0, 1042);
    qkStringValue name(1);
    name.set(qkString("widget, blue"));
    qkDoubleValue price(2);
    price.set(qkString("19.90"));
    qkBooleanValue inStock(3);
    inStock.set(qkString("TRUE"));
    qkRawValue tag(4);
    tag.set(qkString("c0ffee"));
    qkDateValue added(5);
    added.set(qkTimebase(2026, 11, 24, 9, 30, 15.5f));
    std::printf("  without host hooks:\n");
    for (qkValue const* v :
         std::initializer_list<qkValue const*>{&id, &name, &price, &inStock, &tag})
        show("", *v);
    std::printf("  a date without the host's format takes the not-implemented path:\n");
    show("", added);

    std::printf("  text in, number out:\n");
    qkIntValue parsed(0);
    for (char const* text : {"  -17 apples", "abc", "", "99999999999"}) {
        int result = parsed.set(qkString(text));
        std::printf("    int \"%s\" -> %d (result %d)\n", text, parsed.value, result);
    }

    std::printf("  comparison (-1, 0, 1) and operators:\n");
    qkIntValue a(0, 5), b(0, 7);
    b.oper(qkValue::LessThan);
    std::printf("    5 vs 7: %d; with operators \"%s\" vs \"%s\": %d; equal? %s\n",
                a.compare(b, false), a.opStr(), b.opStr(), a.compareWithOperator(b),
                a == b ? "yes" : "no");

    std::printf("  with the host's hooks installed:\n");
    qkValue::setString2time(parseDate);
    qkValue::setTime2string(formatDate);
    qkValue::setDouble2string(formatDouble);
    qkValue::setQkSignalCallBack(hostSignal);
    added.set(qkString("2026-11-24 18:05:59.250"));
    show("date through the host's format", added);
    price.set(2.5);
    show("double through the host's format", price);
    parsed.set(qkString("99999999999"));
    qkValue::setString2time(nullptr);
    qkValue::setTime2string(nullptr);
    qkValue::setDouble2string(nullptr);
    qkValue::setQkSignalCallBack(nullptr);

    // A row as a value list: each cell compared with the row's own cell.
    qkValueList row;
    row.append(new qkIntValue(0, 1042));
    row.append(new qkStringValue(1));
    row[1].set(qkString("widget, blue"));
    std::printf("  row cell 0 vs id %d: %d; vs 1000: %d\n", id.value, id.compare(row),
                qkIntValue(0, 1000).compare(row));
    row.freeAll();
}
