// qkDateValue: a timestamp with its null indicator, and the host's tie.
#include <cstdio>

#include "qkMemory.h"
#include "qkScalarValues.h"
#include "values/qkValueInternal.h"

qkDateValue::qkDateValue(int column) : qkValue(column), tie(nullptr) {
    dataType_ = Date;
}

// The tie stays with the value that owns it.
qkDateValue::qkDateValue(qkDateValue const& other)
    : qkValue(other), value(other.value), tie(nullptr) {}

qkDateValue& qkDateValue::operator=(qkDateValue const& other) {
    qkValue::operator=(other);
    value = other.value;
    return *this;
}

qkDateValue::~qkDateValue() {
    clear();
}

int qkDateValue::set(qkTimebase const& t) {
    value = t;
    update(true);
    nullvalue(value.is_null() != 0);
    return 1;
}

// Without the host's parser the timestamp stays as it was, yet the value
// counts as updated; either way it is null exactly when the timestamp is.
int qkDateValue::set(qkString const& s) {
    if (String2time hook = _string2time) {
        hook(s.sanitize(), value);
    } else {
        not_implemented("date");
    }
    update(true);
    nullvalue(value.is_null() != 0);
    return 1;
}

int qkDateValue::set(qkVArray_uint8 const&) {
    std::printf("set to varray!\n");
    return not_implemented("array");
}

int qkDateValue::set(unsigned char) {
    std::printf("set to bool!\n");
    return not_implemented("boolean");
}

int qkDateValue::set(int) {
    std::printf("set to int!\n");
    return not_implemented("int");
}

int qkDateValue::set(double) {
    std::printf("set to double!\n");
    return not_implemented("double");
}

int qkDateValue::get(qkTimebase& t) const {
    t = value;
    return 1;
}

int qkDateValue::get(qkString& s) const {
    if (Time2string hook = _time2string) {
        hook(value, s);
    } else {
        not_implemented("date");
    }
    return 1;
}

bool qkDateValue::isNull() const {
    return (flags_ & NullValue) || value.is_null();
}

int qkDateValue::compare(qkValue const& other, bool withOperator) const {
    bool decided;
    int r = compareShared(other, withOperator, decided);
    if (decided) return r;
    if (other.dataType() != Date) return qk::values::mixedClasses(*this, other);
    return value.compare(static_cast<qkDateValue const&>(other).value);
}

void qkDateValue::clear() {
    if (tie) qkFree(tie, __FILE__, __LINE__);
    tie = nullptr;
}
