// qkIntValue: a 32-bit integer, and its decimal text.
#include <cctype>
#include <climits>

#include "qkScalarValues.h"
#include "values/qkValueInternal.h"

qkIntValue::qkIntValue(int column) : qkIntValue(column, 0) {}

qkIntValue::qkIntValue(int column, int v) : qkValue(column), value(v) {
    dataType_ = Int;
}

int qkIntValue::set(int i) {
    value = i;
    markSet();
    return 1;
}

namespace {

// Reads a decimal integer as stoi does: blanks, a sign, digits up to the
// first character that cannot continue the number. False when it does not
// fit 32 bits; a text without digits reads as 0.
bool parseInt(char const* p, int32_t& out) {
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    int64_t magnitude = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        magnitude = magnitude * 10 + (*p - '0');
        if (magnitude > int64_t{INT_MAX} + 1) return false;
    }
    int64_t n = negative ? -magnitude : magnitude;
    if (n > INT_MAX || n < INT_MIN) return false;
    out = static_cast<int32_t>(n);
    return true;
}

}  // namespace

int qkIntValue::set(qkString const& s) {
    char const* text = s.length() ? s.sanitize() : "0";
    int32_t n = 0;
    if (!parseInt(text, n)) {
        return qkSignalCallBack(qkErrorLevelValue, qkErrorValueOutOfRange, nullptr, text);
    }
    value = n;
    markSet();
    return 1;
}

int qkIntValue::get(unsigned char& b) const {
    b = value != 0;
    return 1;
}

int qkIntValue::get(int& i) const {
    i = value;
    return 1;
}

// Formats without the C runtime: the text fits the string's inline buffer,
// so reading a number back allocates nothing.
int qkIntValue::get(qkString& s) const {
    if (flags_ & NullValue) {
        s = "null";
        return 1;
    }
    char digits[12], *end = digits + sizeof digits, *p = end;
    *--p = 0;
    uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : value;
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    if (value < 0) *--p = '-';
    s = p;
    return 1;
}

int qkIntValue::compare(qkValue const& other, bool withOperator) const {
    bool decided;
    int r = compareShared(other, withOperator, decided);
    if (decided) return r;
    if (other.dataType() != Int) return qk::values::mixedClasses(*this, other);
    return qk::values::threeWay(value, static_cast<qkIntValue const&>(other).value);
}
