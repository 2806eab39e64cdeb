// SuperSetKey and RowSetKey: the keys of query results and of positions in
// sorted results.
#include "qkSuperSetKey.h"

#include <cstring>

#include "qkCompositeValues.h"
#include "qkKeyRows.h"
#include "qkNumberText.h"
#include "qkOID.h"
#include "qkTable.h"
#include "qkValueList.h"

// ---- SuperSetKey --------------------------------------------------------------

void SuperSetKey::setRoot(int& pos, qkOID& oid) {
    setGroup(pos, oid);
    addString(pos, 'O', nullptr);
    addInt(pos, kFieldTag, oid.tableId(), 0);
    addInt(pos, kFieldTag, oid.modifier(), 0);
    addInt(pos, kFieldTag, oid.partition(), 0);
}

void SuperSetKey::set(qkOID& oid) {
    int pos = 0;
    setRoot(pos, oid);
    qkValueList& where = oid.where();
    for (int i = 0; i < where.count(); ++i) {
        qkValue& w = where[i];
        // 01 'c' column operator: "c%d%s" without the formatting call.
        char const* op = w.opStr();
        size_t opLength = std::strlen(op);
        char text[2 + qk::keys::kDecimalDigits + 1];
        char* end = text + sizeof text;
        char* first = qk::keys::writeSignedDecimal(end, w.column());
        *--first = 'c';
        *--first = kFieldTag;
        appendBytes(pos, first, size_t(end - first));
        appendBytes(pos, op, opLength);
        addValue(pos, 0, w);
    }
}

unsigned char SuperSetKey::trim() {
    char* text = head();
    char* last = std::strrchr(text, kFieldTag);
    if (!last) return 0;
    *last = 0;
    // An inline text cut to nothing is the empty form; an outside buffer
    // stays with the key.
    if (last == text && !isOutside()) reset();
    return 1;
}

// ---- RowSetKey ----------------------------------------------------------------

// G 'E' 01 ident 01 column 01 thenColumn.
void RowSetKey::writeHeader(qkOID& oid, int ident, int column, int thenColumn, int& pos) {
    pos = 0;
    setGroup(pos, oid);
    addString(pos, 'E', nullptr);
    addInt(pos, kFieldTag, ident, 0);
    addInt(pos, kFieldTag, column, 0);
    addInt(pos, kFieldTag, thenColumn, 0);
}

void RowSetKey::setEntry(qkOID& oid, int ident, int column, int thenColumn, qkValueList* row,
                         int entryNumber) {
    int pos;
    writeHeader(oid, ident, column, thenColumn, pos);
    if (column >= 0) addValue(pos, kFieldTag, qk::keys::rowValue(row, column));
    if (thenColumn >= 0) addValue(pos, kFieldTag, qk::keys::rowValue(row, thenColumn));
    addInt(pos, kFieldTag, entryNumber, 0);
}

void RowSetKey::setIterator(qkOID& oid, int ident, int column, int thenColumn, qkValue* value) {
    int pos;
    writeHeader(oid, ident, column, thenColumn, pos);
    if (value && value->dataType() == qkValue::List) {
        qkValueList& members = static_cast<qkListValue*>(value)->getList();
        for (int i = 0; i < members.count(); ++i)
            addValue(pos, kFieldTag, members[i]);
    } else if (value) {
        addValue(pos, kFieldTag, *value);
    }
    addString(pos, kFieldTag, nullptr);
}
