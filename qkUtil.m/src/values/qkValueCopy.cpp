// qkValue::copyFrom: the content of a value of the same type, by this
// value's own data type, always with the operator.
#include "qkScalarValues.h"

namespace {

template <class V>
void copyContent(qkValue& to, qkValue& from) {
    static_cast<V&>(to).value = static_cast<V&>(from).value;
}

}  // namespace

void qkValue::copyFrom(qkValue& src, bool withFlags) {
    switch (dataType_) {
        case Boolean:
            copyContent<qkBooleanValue>(*this, src);
            break;
        case Int:
            copyContent<qkIntValue>(*this, src);
            break;
        case Double:  // the number and its text cache
            copyContent<qkDoubleValue>(*this, src);
            static_cast<qkDoubleValue&>(*this).string = static_cast<qkDoubleValue&>(src).string;
            break;
        case Date:  // the timestamp with its null indicator; the tie stays
            copyContent<qkDateValue>(*this, src);
            break;
        case String:  // shared, as a string assignment shares
            copyContent<qkStringValue>(*this, src);
            break;
        case Raw:
            copyContent<qkRawValue>(*this, src);
            break;
        case SString_DEPRECATED:
            break;
        case Query:
        case List:
        case Join:
            // The composite values (sub-queries, lists, joins) bring their
            // own content copy with the value lists; until then only the
            // operator and the flags are copied.
            break;
    }
    operator_ = src.operator_;
    if (withFlags) flags_ = src.flags_;
}
