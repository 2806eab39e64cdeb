// The two value factories: a copy of a value, and a value made from data.
#include <cstring>

#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkScalarValues.h"

namespace {

qkValue* emptyOf(int column, qkValue::qkDataType type) {
    switch (type) {
        case qkValue::Boolean:
            return new qkBooleanValue(column);
        case qkValue::Int:
            return new qkIntValue(column);
        case qkValue::Double:
            return new qkDoubleValue(column);
        case qkValue::Date:
            return new qkDateValue(column);
        case qkValue::String:
            return new qkStringValue(column);
        case qkValue::Raw:
            return new qkRawValue(column);
        case qkValue::Query:
            return new qkQueryValue(column, 0);
        case qkValue::List:
            return new qkListValue(column);
        case qkValue::Join:
            return new qkJoinValue(column, 0, qkValue::ConstColumnLeft, true, false, true, -1);
        default:
            return nullptr;
    }
}

// A join value with src's join fields, its mapping, lists and texts.
qkJoinValue* joinLike(qkJoinValue& src) {
    auto* v = new qkJoinValue(src.column(), -1, src.getJoinType(), src.forSelect, src.forOrderby,
                              src.ascending, src.orderby);
    if (src.columnsAndTablesMapped) {
        v->columnTables = src.columnTables;
        v->columnsAndTablesMapped = 1;
    }
    v->function = src.function;
    v->condition = src.condition;
    v->secondaryTableNumber = src.secondaryTableNumber;
    return v;
}

}  // namespace

qkValue* qkValue::newValue(qkValue& src, bool withFlags) {
    qkValue* v = nullptr;
    if (src.dataType() == Join) {
        v = joinLike(static_cast<qkJoinValue&>(src));
    } else if (src.dataType() == Query) {
        v = new qkQueryValue(src.column(), -1);
    } else if (src.dataType() != SString_DEPRECATED) {
        v = emptyOf(src.column(), src.dataType());
    }
    if (!v) return nullptr;
    if (src.dataType() == Query || src.dataType() == Join) {
        auto& from = static_cast<qkQueryValue&>(src);
        auto& to = static_cast<qkQueryValue&>(*v);
        to.columns = from.columns, to.selects = from.selects;
        to.kinds = from.kinds, to.opers = from.opers;
    }
    v->copyFrom(src, withFlags);
    return v;
}

qkValue* qkValue::newValue(int column, qkDataType type, void const* data) {
    qkValue* v = emptyOf(column, type);
    if (!v || !data) return v;
    switch (type) {
        case Boolean:
            static_cast<qkBooleanValue*>(v)->value = *static_cast<unsigned char const*>(data);
            break;
        case Int:
            std::memcpy(&static_cast<qkIntValue*>(v)->value, data, sizeof(int32_t));
            break;
        case Double:
            std::memcpy(&static_cast<qkDoubleValue*>(v)->value, data, sizeof(double));
            break;
        case Date:
            static_cast<qkDateValue*>(v)->value = *static_cast<qkSQLnull_timestamp const*>(data);
            break;
        case String:
            static_cast<qkStringValue*>(v)->value = static_cast<char const*>(data);
            break;
        case Raw:
            v->set(qkString(static_cast<char const*>(data)));
            v->update(false);
            break;
        case Query:
        case Join:
            static_cast<qkQueryValue*>(v)->getOID() = *static_cast<qkOID const*>(data);
            break;
        case List:
            static_cast<qkListValue*>(v)->setList(
                const_cast<qkValueListRef*>(static_cast<qkValueListRef const*>(data))->dup());
            break;
        default:
            break;
    }
    return v;
}
