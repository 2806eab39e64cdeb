// The keys under which the result cache files single rows: the primary key
// (a row named by its table's primary-key values) and the index key (named
// by its index values). Each is built from a query descriptor, whose
// leading where values are the key values, or from a row, whose values in
// the key columns are, so that a query and the row it finds give the same
// key. Layout (0x01 separates fields; numbers are lower-case hexadecimal
// without leading zeros; values as FlashKey::addValue writes them):
//
//   G        the group field (FlashKey::setGroup(pos, oid))
//   primary  main key:   G 01 modifier 01 partition 01 value0
//            offset key: tableId [01 value1 [01 value2 ...]]
//   index    G 'I' 01 tableId 01 modifier 01 partition [01 value ...]
#pragma once

#include "qkFlashKey.h"

class qkOID;
class qkString;
class qkValueList;

// The main key is the object itself; the offset key is its second member.
class QK_EXPORT PrimaryKey : public FlashKey {
  public:
    // From oid: 0, with the header fields written and count untouched, when
    // oid's where list has fewer values than the table has primary-key
    // columns; else count = the primary-key column count and 1. The where
    // values are taken in list order (see qkOID::byPrimaryOrIndex).
    int set(qkOID& oid, int& count, qkString* ignored);
    // From oid's table, modifier and partition and row's values in the
    // primary-key columns (range-checked; a null row counts as empty).
    void set(qkOID& oid, qkValueList* row);
    // Both texts as given (null empties).
    void set(char const* key, char const* offset);
    FlashKey& getOffset() { return offset_; }
    FlashKey const& getOffset() const { return offset_; }

  private:
    void writeHeader(qkTable& table, qkOID& oid, int& pos, int& offsetPos);

    FlashKey offset_;
};

class QK_EXPORT IndexKey : public FlashKey {
  public:
    // As PrimaryKey::set with the table's index columns.
    int set(qkOID& oid, int& count, qkString* ignored);
    // As PrimaryKey::set; a table without index columns leaves the key
    // empty.
    void set(qkOID& oid, qkValueList* row);
    void set(char const* text) { FlashKey::set(text); }

  private:
    void writeHeader(qkTable& table, qkOID& oid, int& pos);
};
