// PrimaryKey and IndexKey: the single-row keys, from a descriptor or a row.
#include "qkPrimaryKey.h"

#include "IntList.h"
#include "qkKeyRows.h"
#include "qkOID.h"
#include "qkTable.h"
#include "qkValueList.h"

using qk::keys::rowValue;

// ---- PrimaryKey ---------------------------------------------------------------

// Main key: G 01 modifier 01 partition; offset key: the table id.
void PrimaryKey::writeHeader(qkTable& table, qkOID& oid, int& pos, int& offsetPos) {
    pos = 0;
    addGroupField(pos, table, oid);
    addInt(pos, kFieldTag, oid.modifier(), 0);
    addInt(pos, kFieldTag, oid.partition(), 0);
    offsetPos = 0;
    offset_.addInt(offsetPos, 0, oid.tableId(), 0);
}

int PrimaryKey::set(qkOID& oid, int& count, qkString*) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    int pos, offsetPos;
    writeHeader(table, oid, pos, offsetPos);
    IntList const& columns = table.primaryColumns();
    qkValueList& where = oid.where();
    if (columns.count() > where.count()) return 0;
    count = 0;
    for (int i = 0; i < columns.count(); ++i) {
        if (i == 0) {
            addValue(pos, kFieldTag, where[i]);
        } else {
            offset_.addValue(offsetPos, kFieldTag, where[i]);
        }
        count = i + 1;
    }
    return 1;
}

void PrimaryKey::set(qkOID& oid, qkValueList* row) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    int pos, offsetPos;
    writeHeader(table, oid, pos, offsetPos);
    IntList const& columns = table.primaryColumns();
    for (int i = 0; i < columns.count(); ++i) {
        qkValue& v = rowValue(row, columns[i]);
        if (i == 0) {
            addValue(pos, kFieldTag, v);
        } else {
            offset_.addValue(offsetPos, kFieldTag, v);
        }
    }
}

void PrimaryKey::set(char const* key, char const* offset) {
    FlashKey::set(key);
    offset_.set(offset);
}

// ---- IndexKey -----------------------------------------------------------------

// G 'I' 01 tableId 01 modifier 01 partition.
void IndexKey::writeHeader(qkTable& table, qkOID& oid, int& pos) {
    pos = 0;
    addGroupField(pos, table, oid);
    addString(pos, 'I', nullptr);
    addInt(pos, kFieldTag, oid.tableId(), 0);
    addInt(pos, kFieldTag, oid.modifier(), 0);
    addInt(pos, kFieldTag, oid.partition(), 0);
}

int IndexKey::set(qkOID& oid, int& count, qkString*) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    int pos;
    writeHeader(table, oid, pos);
    IntList const& columns = table.indexColumns();
    qkValueList& where = oid.where();
    if (columns.count() > where.count()) return 0;
    count = 0;
    for (int i = 0; i < columns.count(); ++i) {
        addValue(pos, kFieldTag, where[i]);
        count = i + 1;
    }
    return 1;
}

void IndexKey::set(qkOID& oid, qkValueList* row) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    IntList const& columns = table.indexColumns();
    if (columns.count() == 0) {
        reset();
        return;
    }
    int pos;
    writeHeader(table, oid, pos);
    for (int i = 0; i < columns.count(); ++i)
        addValue(pos, kFieldTag, rowValue(row, columns[i]));
}
