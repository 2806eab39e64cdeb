// The composite values: a list of values (compound keys, membership
// conditions), a sub-query on another table, and a sub-query that joins.
//
// Copying: these values hold a shared list or an owned descriptor, so
// their copy constructors and assignments are deleted (a copy that shared
// the pointer would free it twice). Copies are made with qkValue::newValue
// and copyFrom, which take a reference to the list (a clone on another
// thread) and assign the descriptor.
#pragma once

#include <cstdint>

#include "IntList.h"
#include "qkString.h"
#include "qkValue.h"
#include "qkValueList.h"

class qkOID;

// A value that is a list of values. Lists sort before every other value;
// two lists with the same non-zero ident are the same named list.
class QK_EXPORT qkListValue : public qkValue {
  public:
    explicit qkListValue(int column = 0);  // operator Member
    ~qkListValue() override;
    qkListValue(qkListValue const&) = delete;
    qkListValue& operator=(qkListValue const&) = delete;

    // The held list, made empty first when there is none.
    qkValueListRef& getList();
    // Holds l (one reference, taken over from the caller), releasing the
    // list held before.
    void setList(qkValueListRef* l);
    void ident(int i) { ident_ = i; }
    int getIdent() const { return ident_; }
    void sorted(bool s) { sorted_ = s; }
    bool isSorted() const { return sorted_ != 0; }

    // "LIST<ident>" for a named list, else "(" the elements' texts joined
    // by "," ")".
    int get(qkString& s) const override;
    using qkValue::get;
    int compare(qkValue const& other, bool withOperator) const override;
    // The first non-zero comparison of an element with the row (a compound
    // key over several columns), else 0.
    int compare(qkValueList const& row) const override;
    void* prepare(int) override { return pointer(); }
    void* pointer() override { return value; }  // null when none is held
    int size() override { return 1; }
    void clear() override {}
    static void printOffsets(char const* path);

    qkValueListRef* value;  // one reference, null until needed
    int32_t ident_;         // a named list's identity, 0 for anonymous
    uint8_t sorted_;        // the holder's note that the list is sorted
};

// A value that is a sub-query on another table: the condition binds
// `columns` of this table to the sub-query's `selects`.
class QK_EXPORT qkQueryValue : public qkValue {
  public:
    qkQueryValue(int column, int select);  // operator Member, an empty descriptor
    ~qkQueryValue() override;
    qkQueryValue(qkQueryValue const&) = delete;
    qkQueryValue& operator=(qkQueryValue const&) = delete;

    void column(int c) override;  // and columns becomes [c]
    using qkValue::column;
    qkOID& getOID() { return *value; }
    qkOID const& getOID() const { return *value; }
    // The alternative descriptor; only while one is held (hasALT).
    qkOID& getALT() { return *alt; }
    bool hasALT() const { return alt != nullptr; }
    // Installs an alternative descriptor, which the value then owns (the one
    // held before is deleted).
    void setALT(qkOID* a);
    IntList& getColumns() { return columns; }
    IntList& getSelects() { return selects; }
    IntList& getKinds() { return kinds; }
    IntList& getOpers() { return opers; }
    int getSelect() const { return selects[0]; }
    void skipSimplify() { skipSimplify_ = 1; }
    bool isSkipSimplify() const { return skipSimplify_ != 0; }

    // "in(c<first select> of <the descriptor's query text>)".
    int get(qkString& s) const override;
    using qkValue::get;
    int compare(qkValue const& other, bool withOperator) const override;
    using qkValue::compare;
    void* prepare(int) override { return pointer(); }
    void* pointer() override { return value; }
    int size() override { return 1; }
    void clear() override {}
    static void printOffsets(char const* path);

    qkOID* value;  // owned
    qkOID* alt;    // owned, null unless installed
    IntList columns;
    IntList selects;
    IntList kinds;
    IntList opers;
    uint8_t skipSimplify_;
};

// A sub-query that joins: the query value's condition plus the join's kind,
// projection and ordering.
class QK_EXPORT qkJoinValue : public qkQueryValue {
  public:
    struct ColumnTableID {
        int32_t column;
        int32_t table;
    };

    qkJoinValue(int column, int select, char const* function, char const* condition);
    qkJoinValue(int column, int select, qkJoinType type, bool forSelect, bool forOrderby,
                bool ascending, int orderby);
    // Mapped: columnTables runs parallel to columns, starting with ct's table.
    qkJoinValue(ColumnTableID ct, int select, qkJoinType type, bool forSelect, bool forOrderby,
                bool ascending, int orderby);

    // Only when mapped: appends ct's column and table; false otherwise.
    bool appendColumnAndTable(ColumnTableID const& ct);
    qkJoinType getJoinType() const { return static_cast<qkJoinType>(type); }
    bool getForSelect() const { return forSelect; }
    bool getForOrderby() const { return forOrderby; }
    bool getAscending() const { return ascending; }
    int getOrderby() const { return orderby; }
    char const* getFunction() const { return function.sanitize(); }
    char const* getCondition() const { return condition.sanitize(); }
    bool getForceFullProjection() const { return forceFullProjection; }
    void setForceFullProjection(bool on) { forceFullProjection = on; }
    int getSecondaryTableNumber() const { return secondaryTableNumber; }
    void setSecondaryTableNumber(int n) { secondaryTableNumber = n; }
    IntList& getColumnTables() { return columnTables; }
    bool getColumnsAndTablesMapped() const { return columnsAndTablesMapped; }
    static void printOffsets(char const* path);

    int32_t type;
    uint8_t forSelect;
    uint8_t forOrderby;
    uint8_t ascending;
    uint8_t forceFullProjection;
    int32_t orderby;
    qkString function;
    qkString condition;
    uint8_t columnsAndTablesMapped;
    IntList columnTables;
    int32_t secondaryTableNumber;
};
