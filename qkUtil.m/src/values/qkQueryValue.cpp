// qkQueryValue and qkJoinValue: sub-queries as values.
#include "qkCompositeValues.h"
#include "qkOID.h"
#include "values/qkValueInternal.h"

qkQueryValue::qkQueryValue(int column, int select)
    : qkValue(column), value(new qkOID), alt(nullptr), skipSimplify_(0) {
    dataType_ = Query;
    operator_ = Member;
    columns << column;
    selects << select;
    kinds << 0;
    opers << 0;
}

qkQueryValue::~qkQueryValue() {
    delete value;
    delete alt;
}

void qkQueryValue::column(int c) {
    column_ = c;
    columns.clear();
    columns << c;
}

void qkQueryValue::setALT(qkOID* a) {
    if (a == alt) return;
    delete alt;
    alt = a;
}

int qkQueryValue::get(qkString& s) const {
    qkString key;
    value->makeKey(key, 0);
    s.sprintf("in(c%d of %s)", selects[0], key.sanitize());
    return 1;
}

// After every other kind; then the operators, the selected columns and the
// descriptors.
int qkQueryValue::compare(qkValue const& other, bool withOperator) const {
    if (other.dataType() != dataType()) return 1;
    if (withOperator && oper() != other.oper()) return oper() > other.oper() ? 1 : -1;
    auto const& theirs = static_cast<qkQueryValue const&>(other);
    if (selects.count() != theirs.selects.count()) {
        return selects.count() < theirs.selects.count() ? -1 : 1;
    }
    for (int i = 0; i < selects.count(); ++i)
        if (selects[i] != theirs.selects[i]) return selects[i] < theirs.selects[i] ? -1 : 1;
    return value->compare(*theirs.value, withOperator);
}

// ---- qkJoinValue ---------------------------------------------------------------

qkJoinValue::qkJoinValue(int column, int select, char const* fn, char const* cond)
    : qkJoinValue(column, select, ExistsColumn, true, false, false, -1) {
    function = fn ? fn : "";
    condition = cond ? cond : "";
}

qkJoinValue::qkJoinValue(int column, int select, qkJoinType t, bool sel, bool ord, bool asc,
                         int position)
    : qkQueryValue(column, select),
      type(t),
      forSelect(sel),
      forOrderby(ord),
      ascending(asc),
      forceFullProjection(0),
      orderby(position),
      function(""),
      condition(""),
      columnsAndTablesMapped(0),
      secondaryTableNumber(-1) {
    dataType_ = Join;
}

qkJoinValue::qkJoinValue(ColumnTableID ct, int select, qkJoinType t, bool sel, bool ord, bool asc,
                         int position)
    : qkJoinValue(ct.column, select, t, sel, ord, asc, position) {
    columnTables << ct.table;
    columnsAndTablesMapped = 1;
}

bool qkJoinValue::appendColumnAndTable(ColumnTableID const& ct) {
    if (!columnsAndTablesMapped) return false;
    columns << ct.column;
    columnTables << ct.table;
    return true;
}
