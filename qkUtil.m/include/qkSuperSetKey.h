// The keys under which the result cache files whole query results and
// positions in sorted results. Layout (0x01 separates fields; numbers are
// lower-case hexadecimal of the unsigned 32-bit form, so -1 is ffffffff;
// values as FlashKey::addValue writes them; G the group field):
//
//   superset root  G 'O' 01 tableId 01 modifier 01 partition
//   superset key   the root, then per where value: 01 'c' column (decimal)
//                  operator text, value
//   row-set entry  G 'E' 01 ident 01 column 01 thenColumn
//                  [01 row[column]] [01 row[thenColumn]] 01 entryNumber
//   row-set iter.  G 'E' 01 ident 01 column 01 thenColumn [values] 01
//
// Cutting a superset key's last condition (trim) gives the key of a query
// with one condition fewer, whose result holds the first one's. An iterator
// key whose list value holds a row's values at the two columns is a prefix
// of every entry key of that row, whatever the entry number.
#pragma once

#include "qkFlashKey.h"

class qkOID;
class qkValue;
class qkValueList;

class QK_EXPORT SuperSetKey : public FlashKey {
  public:
    // Appends the root at pos (pos 0 starts a new key).
    void setRoot(int& pos, qkOID& oid);
    // A new key: the root, then every where condition in list order.
    void set(qkOID& oid);
    // A stored key text back into the key.
    using FlashKey::set;
    // Cuts the text at its last 0x01 (that byte and all after it go); false,
    // with the key unchanged, when there is none. The storage stays: a
    // caller that appends afterwards takes the new length as its cursor.
    unsigned char trim();
};

class QK_EXPORT RowSetKey : public FlashKey {
  public:
    // The entry key of a row; the row is read at column and thenColumn
    // where they are not negative, through the list's range check.
    void setEntry(qkOID& oid, int ident, int column, int thenColumn, qkValueList* row,
                  int entryNumber);
    // The iterator key: after the header, nothing for a null value, each
    // member of a List value, or the value itself; then a final 0x01.
    void setIterator(qkOID& oid, int ident, int column, int thenColumn, qkValue* value);

  private:
    void writeHeader(qkOID& oid, int ident, int column, int thenColumn, int& pos);
};
