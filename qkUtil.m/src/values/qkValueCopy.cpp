// qkValue::copyFrom: the content of a value of the same type, by this
// value's own data type, always with the operator.
#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkScalarValues.h"

namespace {

template <class V>
void copyContent(qkValue& to, qkValue& from) {
    static_cast<V&>(to).value = static_cast<V&>(from).value;
}

// The descriptor (sharing its where list), the four lists and the skip flag.
void copyQuery(qkQueryValue& to, qkQueryValue& from) {
    *to.value = *from.value;
    to.columns = from.columns, to.selects = from.selects;
    to.kinds = from.kinds, to.opers = from.opers;
    to.skipSimplify_ = from.skipSimplify_;
}

// What a query copies, the texts, the join fields and the projection.
void copyJoin(qkJoinValue& to, qkJoinValue& from) {
    copyQuery(to, from);
    to.function = from.function, to.condition = from.condition;
    to.type = from.type, to.forSelect = from.forSelect, to.forOrderby = from.forOrderby;
    to.ascending = from.ascending, to.forceFullProjection = from.forceFullProjection;
    to.orderby = from.orderby, to.secondaryTableNumber = from.secondaryTableNumber;
    to.columnsAndTablesMapped = from.columnsAndTablesMapped;
    to.columnTables = from.columnTables;
}

// A reference to the source's list (a clone on another thread), releasing
// the one held before; then the ident and the sorted note.
void copyList(qkListValue& to, qkListValue& from) {
    to.setList(from.getList().dup());
    to.ident_ = from.ident_;
    to.sorted_ = from.sorted_;
}

}  // namespace

// A source of another class (which callers must not pass) gives only its
// operator and flags: its content is never read as this class's.
void qkValue::copyFrom(qkValue& src, bool withFlags) {
    bool sameClass = src.dataType_ == dataType_ || (dataType_ == Query && src.dataType_ == Join);
    switch (sameClass ? static_cast<int>(dataType_) : static_cast<int>(SString_DEPRECATED)) {
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
            copyQuery(static_cast<qkQueryValue&>(*this), static_cast<qkQueryValue&>(src));
            break;
        case List:
            copyList(static_cast<qkListValue&>(*this), static_cast<qkListValue&>(src));
            break;
        case Join:
            copyJoin(static_cast<qkJoinValue&>(*this), static_cast<qkJoinValue&>(src));
            break;
    }
    operator_ = src.operator_;
    if (withFlags) flags_ = src.flags_;
}
