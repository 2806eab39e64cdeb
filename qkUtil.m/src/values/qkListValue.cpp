// qkListValue: a value holding a shared list of values.
#include "qkCompositeValues.h"
#include "values/qkValueInternal.h"

qkListValue::qkListValue(int column) : qkValue(column), value(nullptr), ident_(0), sorted_(0) {
    dataType_ = List;
    operator_ = Member;
}

qkListValue::~qkListValue() {
    qkValueListRef::release(value);
}

qkValueListRef& qkListValue::getList() {
    if (!value) value = new qkValueListRef;
    return *value;
}

void qkListValue::setList(qkValueListRef* l) {
    if (l == value) return;
    qkValueListRef::release(value);
    value = l;
}

int qkListValue::get(qkString& s) const {
    if (ident_) {
        s.sprintf("LIST%d", ident_);
        return 1;
    }
    qkString text("("), element;
    for (int i = 0; value && i < value->count(); ++i) {
        if (i) text += ",";
        (*value)[i].get(element);
        text += element.sanitize();
    }
    text += ")";
    s = text;
    return 1;
}

// Lists sort before every other kind; a named list equals itself; the
// longer list is the larger; then element by element.
int qkListValue::compare(qkValue const& other, bool withOperator) const {
    if (other.dataType() != List) return -1;
    if (withOperator && oper() != other.oper()) return oper() > other.oper() ? 1 : -1;
    auto& theirs = const_cast<qkListValue&>(static_cast<qkListValue const&>(other));
    if (ident_ && ident_ == theirs.ident_) return 0;
    qkValueListRef& a = const_cast<qkListValue*>(this)->getList();
    qkValueListRef& b = theirs.getList();
    if (a.count() != b.count()) return a.count() > b.count() ? 1 : -1;
    for (int i = 0; i < a.count(); ++i)
        if (int r = a[i].compare(b[i], withOperator)) return r;
    return 0;
}

int qkListValue::compare(qkValueList const& row) const {
    for (int i = 0; value && i < value->count(); ++i)
        if (int r = (*value)[i].compare(row)) return r;
    return 0;
}
