// Questions a qkOID answers about itself: sub-query depth and breadth, whether the where list
// addresses rows by the primary key or the index, and whether a fetch
// should read every column.
#include <algorithm>

#include "qkCompositeValues.h"
#include "qkOID.h"

namespace {

bool plain(qkValue const& v) {
    return v.dataType() != qkValue::Query && v.dataType() != qkValue::List &&
           v.dataType() != qkValue::Join;
}

// Sub-queries on these tables are skipped with skipUnselective, as on a
// non-selective table.
bool alwaysSkipped(int tableId) {
    return tableId == 46 || tableId == 127;
}

// One step of the in-order match of where values against a key's columns.
void matchKey(IntList const& key, qkValue const& v, int i, int& matched) {
    if (i >= key.count()) return;
    matched = matched == i && v.column() == key[i] ? matched + 1 : -1;
}

}  // namespace

int qkOID::depth(int level, unsigned char skipUnselective) {
    int result = level;
    qkValueListRef& w = where();
    for (int i = 0; i < w.count(); ++i) {
        if (w[i].dataType() != qkValue::Query) continue;
        qkOID& nested = static_cast<qkQueryValue&>(w[i]).getOID();
        if (skipUnselective && (alwaysSkipped(nested.tableId()) || nested.table().selective == 0)) {
            continue;
        }
        result = std::max(result, nested.depth(level + 1, skipUnselective));
    }
    return result;
}

int qkOID::breadth() {
    qkValueListRef& w = where();
    int n = 0;
    for (int i = 0; i < w.count(); ++i)
        n += w[i].dataType() == qkValue::Query;
    return n;
}

IntList const& qkOID::byPrimaryOrIndex(unsigned char& byPrimary, unsigned char& byIndex) {
    qkTable& t = table();
    IntList const& pk = t.primaryColumns();
    IntList const& ix = t.indexColumns();
    int p = 0, x = 0;
    qkValueListRef& w = where();
    for (int i = 0; i < w.count(); ++i) {
        qkValue const& v = w[i];
        if (v.oper() != qkValue::Equal) {
            p = x = -1;
            break;
        }
        if (!plain(v)) p = x = -1;
        matchKey(pk, v, i, p);
        matchKey(ix, v, i, x);
    }
    byPrimary = p != 0 && p == pk.count();
    byIndex = x != 0 && x == ix.count();
    return pk;
}

// A key column constrained twice counts twice.
unsigned char qkOID::isPrimaryKeyInQuery() const {
    IntList const& pk = table().primaryColumns();
    int left = pk.count();
    qkValueListRef& w = where();
    for (int i = 0; i < w.count(); ++i) {
        qkValue const& v = w[i];
        for (int k = 0; k < pk.count(); ++k)
            left -=
                v.dataType() == qkValue::Int && v.column() == pk[k] && v.oper() == qkValue::Equal;
    }
    return left == 0;
}

unsigned char qkOID::allColumns() {
    qkTable& t = table();
    if (t.selective == 0) return 1;
    qkValueListRef& w = where();
    int n = 0;
    for (int i = 0; i < w.count(); ++i)
        n += w[i].dataType() != qkValue::Join;
    int c = t.columnCount(1);
    if (n == 0 || n >= c) return 1;
    if (2 * n >= c) return 0;
    return n + 3 < c;
}
