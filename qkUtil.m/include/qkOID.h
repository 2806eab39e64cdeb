// qkOID: the descriptor of one query against one table of the host's
// schema: the table, its variant (the modifier), the partition and the
// where-conditions, a list of typed values (each with the column it
// constrains, an operator and the operand; a query value nests a
// descriptor). Descriptors compare, print as readable query text, and tell
// whether they address rows by the primary key or the index.
//
// The where list is shared by reference count between copies made on the
// thread that created it (a copy on another thread gets a clone), and every
// change first makes it private (copy on write). A descriptor is used by one
// thread at a time. The table lookups go through qkTableUtil's hooks.
#pragma once

#include <cstdint>

#include "IntList.h"
#include "qkExport.h"
#include "qkString.h"
#include "qkTable.h"
#include "qkValueList.h"

class QK_EXPORT qkOID {
  public:
    using Getpartition = int (*)();
    using Serversetup = int (*)(qkOID const&, Server&, Server&, qkString&, qkMode);

    // Table 0, modifier 1, distributed, partition from the hook (0 without).
    qkOID();
    // A modifier of 0 is stored as 1; distributed as 0 or 1.
    qkOID(int tableId, int modifier, unsigned char distributed);
    // Shares other's where list (made in other first if absent); the copy
    // is never a remove descriptor.
    qkOID(qkOID const& other);
    // Shares other's where list and keeps its remove flag.
    qkOID& operator=(qkOID const& other);
    virtual ~qkOID();

    // Table, modifier, partition, distributed and remove flag only.
    void setBase(qkOID const& other);

    int tableId() const { return tableId_; }
    int modifier() const { return modifier_; }
    void setModifier(int const& m) { modifier_ = m; }
    int partition() const { return partition_; }
    void partition(int p) { partition_ = p; }
    unsigned char distributed() const { return distributed_; }
    void distributed(unsigned char d) { distributed_ = d ? 1 : 0; }
    void dontUseCachedList() { dontUseCachedList_ = 1; }
    unsigned char isRemove() const { return removeFlag_; }
    void setRemoveOperation(unsigned char r) { removeFlag_ = r; }
    // The where list, made empty first when there is none.
    qkValueListRef& where() const;

    // ---- the where list ---------------------------------------------------------
    // Makes a shared where list private (a clone), so that a change reaches
    // no other descriptor.
    void dataCopy();
    // Appends v itself (the list takes it over).
    void append(qkValue* v);
    // Appends newValue(v, flag).
    void appendCopy(qkValue& v, unsigned char flag);
    // The first where value on `column`; null if none.
    qkValue* findWhereColumn(int column) const;
    // The position of the first Equal, non-join where value on `column`; -1.
    int specifies(int column);

    // ---- comparison -------------------------------------------------------------
    // -1, 0 or 1 on the first difference: table, modifier, partition; the
    // same list is equal; the longer list is greater; then value by value
    // the columns and, unless `other` is a remove descriptor, the values.
    int compare(qkOID const& other, unsigned char withOperator) const;
    int compareTable(qkOID const& other) const;
    unsigned char operator==(qkOID const& other) const { return compare(other, 0) == 0; }

    // ---- questions --------------------------------------------------------------
    // The nesting depth of sub-queries from `level`; with skipUnselective,
    // sub-queries on non-selective tables (and tables 46 and 127) are skipped.
    int depth(int level, unsigned char skipUnselective);
    // The number of direct sub-queries.
    int breadth();
    // Whether the where list gives the full primary key (byPrimary) or the
    // full index (byIndex) in order as Equal conditions on plain values;
    // returns the primary-key columns.
    IntList const& byPrimaryOrIndex(unsigned char& byPrimary, unsigned char& byIndex);
    // Every primary-key column constrained by an Equal integer, exactly.
    unsigned char isPrimaryKeyInQuery() const;
    // Whether a fetch should read every column.
    unsigned char allColumns();

    // ---- text -------------------------------------------------------------------
    // The table's name (a variant's from the name as a format and the
    // modifier in "%08x"), then printed into `format` when one is given.
    void tableName(qkString& out, char const* format);
    // Readable query text: the table name, then " where " and the pieces
    // column name, operator, value text joined by " and ". expandLists
    // prints named lists by their members.
    void makeKey(qkString& out, unsigned char expandLists);
    static void printOffsets(char const* path);

    // ---- hooks ------------------------------------------------------------------
    static void setGetpartition(Getpartition f) { _getpartition = f; }
    static void setServersetup(Serversetup f) { _serversetup = f; }
    static Getpartition _getpartition;
    static Serversetup _serversetup;  // stored for the host's other modules

  private:
    qkTable& table() const { return qkTableUtil::id2Table(tableId_); }

    mutable qkValueListRef* where_;  // shared; null until needed
    int32_t tableId_;
    int32_t modifier_;
    int32_t partition_;
    uint8_t dontUseCachedList_;
    uint8_t distributed_;
    uint8_t removeFlag_;

    friend struct qkOIDOffsets;
};
