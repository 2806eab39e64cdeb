// qkBooleanValue: a 16-bit truth value.
#include <cstring>

#include "qkScalarValues.h"
#include "values/qkValueInternal.h"

qkBooleanValue::qkBooleanValue(int column) : qkValue(column), value(0) {
    dataType_ = Boolean;
}

int qkBooleanValue::set(unsigned char b) {
    value = b;
    markSet();
    return 1;
}

int qkBooleanValue::set(int i) {
    value = static_cast<int16_t>(static_cast<uint16_t>(i));  // the low 16 bits
    markSet();
    return 1;
}

int qkBooleanValue::set(qkString const& s) {
    if (String2boolean hook = _string2boolean) {
        unsigned char b = 0;
        hook(s.sanitize(), b);
        value = b;
    } else {
        value = std::strcmp(s.sanitize(), "TRUE") == 0 ? 1 : 0;
    }
    markSet();
    return 1;
}

int qkBooleanValue::get(unsigned char& b) const {
    b = static_cast<unsigned char>(value);
    return 1;
}

int qkBooleanValue::get(int& i) const {
    i = value;
    return 1;
}

int qkBooleanValue::get(qkString& s) const {
    s = value ? "TRUE" : "FALSE";
    return 1;
}

// False before true; any two non-zero numbers are the same truth.
int qkBooleanValue::compare(qkValue const& other, bool withOperator) const {
    bool decided;
    int r = compareShared(other, withOperator, decided);
    if (decided) return r;
    if (other.dataType() != Boolean) return qk::values::mixedClasses(*this, other);
    bool mine = value != 0, theirs = static_cast<qkBooleanValue const&>(other).value != 0;
    return qk::values::threeWay(mine, theirs);
}
