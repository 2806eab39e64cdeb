// Row sets: a query's result. A qkRowSet is the query's descriptor (it is a
// qkOID) plus an ordered array of counted references (qkRowRef) to rows
// (qkRowHolder). A row is a value list with one typed value per column of
// its table, its primary-key and index cache keys, and two reference counts:
// refCount1 counts the references that hold it (row-set entries included)
// and dup1 calls; refCount2 counts its dependants, rows extracted from it
// and dup2 calls. A row is destroyed when one count falls to 0 with the
// other already 0. Rows are shared, never copied behind the caller's back:
// one row may stand in several sets at once, and a sub-row made by extract
// borrows its parent's values and keeps the parent alive.
//
// A row's values are normally built in one block (the blob): every value is
// constructed in place from a per-type prototype, so a row of n columns costs
// one allocation rather than n.
//
// Copying:
// - A row is not copied by value (its copy constructor and assignment are
//   deleted): share it through references, or make a new row with clone().
// - Copying a row set copies its descriptor by the descriptor's rules and
//   gives the copy an array of its own whose entries refer to the same rows
//   (each row's refCount1 raised by one) with the same update marks; nrows,
//   arows and both flags are copied. Assignment first releases what the
//   target held. Every array and every row is thus released exactly once.
//
// Counts are plain integers: a set, its rows and their references belong to
// one thread at a time (or to a caller that locks them). The prototypes and
// the shared empty reference are made once per process, safely on any
// thread.
#pragma once

#include <cstdint>

#include "qkExport.h"
#include "qkOID.h"
#include "qkPrimaryKey.h"
#include "qkString.h"
#include "qkTable.h"
#include "qkValueList.h"

class QK_EXPORT qkRowHolder : public qkValueList {
  public:
    // An empty row with room for n values, empty keys, both counts 0.
    explicit qkRowHolder(int n = 0);
    // A sub-row lets go of its parent (destroying it when that was its last
    // hold); a blob row destroys its values in place and frees the blob;
    // any other row deletes its values.
    ~qkRowHolder();
    qkRowHolder(qkRowHolder const&) = delete;
    qkRowHolder& operator=(qkRowHolder const&) = delete;

    // A new row (counts 0, empty keys, no parent) with this row's values
    // copied with their flags into a blob, each given its position as its
    // column; federate is copied.
    qkRowHolder* clone();
    // A new row whose values are this row's values start .. start+count-1
    // (the same objects; positions range-checked); it holds this row through
    // refCount2 until it is destroyed.
    qkRowHolder* extract(int start, int count);

    void dup1() { ++refCount1; }
    void dup2() { ++refCount2; }
    // One count down; the row is destroyed when that count reaches 0 with
    // the other at 0. Null is ignored.
    static void release1(qkRowHolder* h);
    static void release2(qkRowHolder* h);

    PrimaryKey& primaryKey() { return primaryKey_; }
    IndexKey& indexKey() { return indexKey_; }
    unsigned char& isFederate() { return federate; }

    // A line per value appended to `out`: "<out> Column c,
    // updated../literal../constant../feder../operStr../isNull.. Value <type
    // and text>\n". "<No Row set>" for a row without a blob.
    void prettyRow(qkString& out);
    static void printOffsets(char const* path);

    int32_t refCount1 = 0;
    int32_t refCount2 = 0;
    uint8_t federate = 0;
    void* blob = nullptr;           // the values' block, owned; null if none
    qkRowHolder* parent = nullptr;  // the row whose values this one borrows

  protected:
    // Builds the row's values: n = table's column count (else model's value
    // count); each column's type from the table (else the model's value).
    // The six scalar types are copies of their prototypes, placed one after
    // another in one blob at multiples of 8 bytes. A column of another type
    // gets a value of its own class, allocated apart and owned by the row
    // (a type without a class: a null String value).
    void allocate(qkTable* table, qkValueList* model);

  private:
    void destroyValues();
    bool inBlob(qkValue const* v) const;

    PrimaryKey primaryKey_;
    IndexKey indexKey_;
    int32_t blobSize_ = 0;

    friend class qkRowSet;
};

// A counted reference to a row, with the caller's marks.
class QK_EXPORT qkRowRef {
  public:
    qkRowRef() = default;
    ~qkRowRef() { unsafeSet(nullptr, 0); }

    // Lets go of the row held (as release1), holds h (refCount1 + 1 unless
    // null) with the given update mark.
    void unsafeSet(qkRowHolder* h, unsigned char update);
    qkRowHolder* values() const { return holder_; }
    static void printOffsets(char const* path);

    uint8_t update = 0;  // the caller's mark, carried with the reference
    uint8_t remove = 0;  // the caller's mark; never read here

  protected:
    // The same row (refCount1 + 1) and update mark.
    qkRowRef(qkRowRef const& other);
    qkRowRef& operator=(qkRowRef const& other);
    void set(qkRowHolder* h, unsigned char update) { unsafeSet(h, update); }

  private:
    qkRowHolder* holder_ = nullptr;

    friend class qkRowSet;
};

class QK_EXPORT qkRowSet : public qkOID {
  public:
    qkRowSet() = default;
    explicit qkRowSet(qkOID const& oid) : qkOID(oid) {}
    qkRowSet(qkRowSet const& other);
    qkRowSet& operator=(qkRowSet const& other);
    ~qkRowSet() override { clearRows(); }

    qkOID& oid() const { return const_cast<qkRowSet&>(*this); }
    int nrows() const { return nrows_; }
    unsigned char& dirty() { return anyUpdate_; }

    // ---- rows -------------------------------------------------------------------
    // Moves ref's row and update mark into a new last entry; ref is left
    // empty (the count moves with it).
    void appendRow(qkRowRef* ref);
    // Marks h federate (or not) and appends a new reference to it with
    // update 0. h must not be null.
    void appendRow(qkRowHolder* h, unsigned char federate);
    // The entry at i; outside 0 .. nrows-1 the one shared empty reference.
    qkRowRef& ref(int i);
    // ref(i)'s row; null outside 0 .. nrows-1.
    qkRowHolder* row(int i) { return ref(i).values(); }
    // A new row (not appended) for this query on `table` (this set's table
    // when null): every column from its prototype, all of them null when
    // allNull; each Equal where value copied into its column, then marked
    // Updated and not null (allNull) or Constant.
    qkRowHolder* makeRow(unsigned char allNull, qkTable* table);
    // Releases entry i and closes the gap; nothing outside 0 .. nrows-1.
    void removeRow(int i);
    // Releases the entries from `count` on and keeps `count` rows. A count
    // above nrows changes nothing; a negative one counts as 0.
    void trim(int count);
    // Releases every row and frees the array; both flags 0.
    void clearRows();
    // clearRows(), then takes over other's array, counts and anyUpdate;
    // other keeps only its anyRemove. No reference count changes.
    void replace(qkRowSet* other);

    // ---- order ------------------------------------------------------------------
    // Orders the rows ascending by the value at `column`, then at
    // `thenColumn` (when not negative); nothing for fewer than 2 rows or a
    // negative column. Equal rows end in no defined order.
    void sort(int column, int thenColumn);
    // The comparison of sort's records, for qsort.
    static int qcompare(void const* a, void const* b);
    // Binary search over rows sorted by the key's column(s): the position of
    // a row the key compares equal with (the lowest such with `first`), -1
    // if none.
    int lookup(qkValue& key, unsigned char first);

    static void printOffsets(char const* path);

  private:
    void appendRow(qkRowRef& ref);
    qkRowRef* newEntry();
    void copyRowsFrom(qkRowSet const& other);

    qkRowRef* rows_ = nullptr;  // arows_ entries; the first nrows_ in use
    int32_t nrows_ = 0;
    int32_t arows_ = 0;
    uint8_t anyUpdate_ = 0;
    uint8_t anyRemove_ = 0;
};
