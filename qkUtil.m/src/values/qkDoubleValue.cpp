// qkDoubleValue: a double with the text it was set from (the cache).
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qkScalarValues.h"
#include "values/qkValueInternal.h"

qkDoubleValue::qkDoubleValue(int column) : qkValue(column), value(0.0), haveString(0) {
    dataType_ = Double;
}

int qkDoubleValue::set(double d) {
    value = d;
    string = "";
    markSet();
    return 1;
}

// Without the host's conversion the text is read in single precision, as
// stof reads it, and widened: 0.1 gives the double nearest the float 0.1.
int qkDoubleValue::set(qkString const& s) {
    if (String2double hook = _string2double) {
        hook(s.sanitize(), value);
    } else {
        char const* text = s.length() ? s.sanitize() : "0";
        char* end = nullptr;
        errno = 0;
        float f = std::strtof(text, &end);
        if (end == text || errno == ERANGE) {
            return qkSignalCallBack(qkErrorLevelValue, qkErrorValueOutOfRange, nullptr, text);
        }
        value = f;
    }
    string = s;
    markSet();
    return 1;
}

int qkDoubleValue::get(double& d) const {
    d = value;
    return 1;
}

int qkDoubleValue::get(qkString& s) const {
    if (string.length() == 0) {
        if (Double2string hook = _double2string) {
            hook(value, string);
        } else {
            string.sprintf("%f", value);
        }
    }
    s = string;
    return 1;
}

// A NaN equals everything.
int qkDoubleValue::compare(qkValue const& other, bool withOperator) const {
    bool decided;
    int r = compareShared(other, withOperator, decided);
    if (decided) return r;
    if (other.dataType() != Double) return qk::values::mixedClasses(*this, other);
    double theirs = static_cast<qkDoubleValue const&>(other).value;
    return value > theirs ? 1 : theirs > value ? -1 : 0;
}

// The text form for the host, its decimal separator made the host's.
void* qkDoubleValue::prepare(int) {
    if (string.length() == 0) {
        qkString filled;
        get(filled);
    }
    char* text = string.head();
    if (char symbol = _decimalSymbol) {
        char* at = std::strchr(text, symbol == '.' ? ',' : '.');
        if (at) *at = symbol;
    }
    return text;
}

int qkDoubleValue::size() {
    unsigned n = string.length();
    return n ? static_cast<int>(n) : 1;
}

void qkDoubleValue::clear() {
    string = "";
}
