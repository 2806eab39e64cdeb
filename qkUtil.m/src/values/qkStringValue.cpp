// qkStringValue: a text, compared by the host's collation or byte-wise.
#include <cstring>

#include "qkScalarValues.h"
#include "values/qkValueInternal.h"

qkStringValue::qkStringValue(int column) : qkValue(column), value("") {
    dataType_ = String;
}

// A private copy of the text (a null string stays null).
int qkStringValue::set(qkString const& s) {
    value = s.size() ? s.sanitize() : static_cast<char const*>(nullptr);
    markSet();
    return 1;
}

int qkStringValue::get(qkString& s) const {
    s = value;
    return 1;
}

int qkStringValue::compare(qkValue const& other, bool withOperator) const {
    bool decided;
    int r = compareShared(other, withOperator, decided);
    if (decided) return r;
    if (other.dataType() != String) return qk::values::mixedClasses(*this, other);
    char const* theirs = static_cast<qkStringValue const&>(other).value.sanitize();
    if (Stringcompare hook = _stringcompare) return hook(value.sanitize(), theirs);
    int c = std::strcmp(value.sanitize(), theirs);  // unsigned bytes
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

void* qkStringValue::prepare(int n) {
    if (value.size() == 0) value = "";  // a null string gets a buffer
    if (n >= 0) value.resize(static_cast<unsigned>(n), 1);
    return value.head();
}

void qkStringValue::clear() {
    value = "";
}
