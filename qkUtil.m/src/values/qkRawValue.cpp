// qkRawValue: raw bytes, as text in hexadecimal.
#include "qkScalarValues.h"
#include "values/qkValueInternal.h"

qkRawValue::qkRawValue(int column) : qkValue(column) {
    dataType_ = Raw;
}

int qkRawValue::set(qkVArray_uint8 const& a) {
    value = a;
    markSet();
    return 1;
}

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return 0;  // any other character counts as 0
}

}  // namespace

// Two characters a byte, high nibble first; an odd last one is dropped.
// The empty text makes a null value.
int qkRawValue::set(qkString const& s) {
    unsigned n = s.length();
    char const* text = s.sanitize();
    value.resize(n / 2);
    for (uint32_t i = 0; i < value.length(); ++i)
        value[i] = static_cast<uint8_t>(hexDigit(text[2 * i]) << 4 | hexDigit(text[2 * i + 1]));
    update(true);
    nullvalue(n == 0);
    return 1;
}

int qkRawValue::get(qkVArray_uint8& a) const {
    a = value;
    return 1;
}

int qkRawValue::get(qkString& s) const {
    static char const digits[] = "0123456789ABCDEF";
    uint32_t n = value.length();
    s = "";
    if (n == 0) return 1;
    s.resize(2 * n, 0);
    char* out = s.head();
    for (uint32_t i = 0; i < n; ++i) {
        out[2 * i] = digits[value[i] >> 4];
        out[2 * i + 1] = digits[value[i] & 15];
    }
    out[2 * n] = 0;
    return 1;
}

// Byte-wise over the longer length: where one array ends it is the smaller.
int qkRawValue::compare(qkValue const& other, bool withOperator) const {
    bool decided;
    int r = compareShared(other, withOperator, decided);
    if (decided) return r;
    if (other.dataType() != Raw) return qk::values::mixedClasses(*this, other);
    qkVArray_uint8 const& theirs = static_cast<qkRawValue const&>(other).value;
    uint32_t n = value.length(), m = theirs.length();
    for (uint32_t i = 0; i < n && i < m; ++i)
        if (value[i] != theirs[i]) return value[i] < theirs[i] ? -1 : 1;
    return qk::values::threeWay(n, m);
}

void* qkRawValue::prepare(int n) {
    static uint8_t empty = 0;
    if (n >= 0) value.resize(static_cast<uint32_t>(n));
    return value.length() ? value.data() : &empty;
}
