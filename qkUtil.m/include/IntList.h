// IntList, IntListList and the subset generators.
//
// - IntList is a growable array of 32-bit integers with a compare function
//   (compareInts unless changed) and a flag saying whether the list is known
//   to be sorted in that order. The first 12 elements live inside the object;
//   beyond that the array comes from the library's allocator (operator new)
//   and grows to capacities 28, 60, 124, ... (2^k - 4). It never shrinks
//   except by clear().
// - IntListList is the owning list of IntList pointers (AbstractList.h says
//   what it owns and when it deletes); IntListList_Iterator walks it.
// - createAllIntListProperSubsets / createAllIntSubsetsOfSpecifiedSize append
//   newly made IntLists, owned by the output list, one per subset.
//
// The sorted flag is a promise, not a check: appending or inserting into a
// list of two or more elements clears it (even when the order happens to
// hold), sort() leaves it alone, sorted() sets it, and a list of fewer than
// two elements after a removal is sorted again. The sorted operations answer
// -1 and change nothing on a list that is not flagged sorted or has no
// compare function.
//
// Not thread-safe: a list belongs to one thread at a time. Copies are deep.
//
// Choices made here beyond the basic contract:
// - setItem with a negative position is a range error.
// - Positions at or above count always read 0 (removals clear the slots they
//   vacate), so the positions setItem passes over hold 0.
// - insert(i, list) clamps i to 0 .. count once, so the inserted elements
//   stand together in their order even when i lies beyond the end; inserting
//   or appending a list into itself works on a copy of it.
// - Without a compare function isContained is false, as the sorted searches.
// - createAllIntSubsetsOfSpecifiedSize adds nothing for k < 1 or k >= count,
//   so the proper subsets of a set of 0 or 1 elements are none.
// - IntList can also be moved (a heap array changes hands; the source is left
//   empty); IntListList can be neither copied nor moved.
#pragma once

#include "AbstractList.h"
#include "qkExport.h"

class QK_EXPORT IntList : public BaseList {
  public:
    using CompareFunction = int (*)(int const&, int const&);
    using QsortCompare = int (*)(void const*, void const*);

    // Empty, inline, sorted, compareInts.
    IntList();
    // As IntList(), but with room for n elements on the heap when n > 12.
    explicit IntList(int n);
    // The copy holds o's elements, compare function and sorted flag, in the
    // smallest capacity the growth rule gives for them.
    IntList(IntList const& o);
    IntList& operator=(IntList const& o);
    IntList(IntList&& o) noexcept;
    IntList& operator=(IntList&& o) noexcept;
    ~IntList();

    // Empties the list and returns to the inline storage; the compare
    // function stays.
    void clear();

    int count() const { return count_; }
    int capacity() const { return size_; }
    bool isSorted() const { return sorted_; }
    CompareFunction getCompareFunction() const { return compareFunction_; }

    // Element access, range-checked.
    int& operator[](int i) {
        check(i);
        return items_[i];
    }
    int const& operator[](int i) const { return constItem(i); }
    int const& constItem(int i) const {
        check(i);
        return items_[i];
    }
    int item(int i) const { return constItem(i); }

    // Insertions. Each one leaves a list of two or more elements unsorted.
    void append(int const& v) {
        int value = v;
        int n = count_;
        if (QK_LIKELY(n < size_)) {
            // Element first, then count: the int store may alias the count,
            // and this order lets the compiler keep the count in a register.
            items_[n] = value;
            count_ = n + 1;
        } else {
            appendGrowing(value);
        }
        // Test before storing: a byte store would force every field to be
        // read again on the next append.
        if (n >= 1 && sorted_) sorted_ = 0;
    }
    void append(int const* v) { append(*v); }
    IntList& operator<<(int const& v) {
        append(v);
        return *this;
    }
    IntList& operator<<(int const* v) {
        append(*v);
        return *this;
    }
    void prepend(int const& v) { insert(0, &v); }
    void prepend(int const* v) { insert(0, v); }
    // i below 0 counts as 0, at or beyond count as count.
    void insert(int i, int const& v) { insert(i, &v); }
    void insert(int i, int const* v) {
        insertItem(i, v);
        unsortIfMany();
    }
    void append(IntList const& o);
    IntList& operator<<(IntList const& o) {
        append(o);
        return *this;
    }
    // Puts o's elements at i .. i + o.count() - 1, in o's order.
    void insert(int i, IntList const& o);

    // Stores v at i >= 0, growing the array when i is beyond the capacity;
    // count becomes at least i + 1. The pointer form clears the sorted flag
    // only when asked (unsort); the value form always does once the list
    // holds two or more elements.
    void setItem(int i, int const* v, bool unsort = true);
    void setItem(int i, int const& v, bool unsort = true) {
        setItem(i, &v, unsort);
        unsortIfMany();
    }

    // Removes element i (range-checked).
    void remove(int i) { removeItem(i); }
    // Removes every element after position p, the last first; p = -1 empties
    // the list, and p below -1 ends in the range error of remove(-1).
    void removeAfter(int p);

    // A different compare function makes a list of two or more unsorted.
    void setCompareFunction(CompareFunction f);
    // Sorts in place with qsort and cmp (null: nothing); the sorted flag
    // stays as it was.
    void sort(QsortCompare cmp);
    // Declares the list sorted.
    void sorted() { sorted_ = 1; }

    // Sorted operations (see the file comment for -1).
    //
    // Inserts x at the position the binary search ends on (in front of an
    // equal element it meets) and returns that position.
    int insertSorted(int const& x);
    // found = true and the position of an equal element, or found = false
    // and the position at which x would be inserted.
    int findSortedUnique(int const& x, bool& found) const;
    // findSortedUnique, then x is inserted there when it was not found.
    int insertSortedUnique(int const& x, bool& found);
    // Binary search on a sorted list, a linear scan otherwise.
    bool isContained(int const& x) const;

  protected:
    using BaseList::bestNewSize;
    // The one insertion primitive: grows when full, clamps i to 0 .. count,
    // shifts the tail up; leaves the sorted flag alone.
    void insertItem(int i, int const* v);
    void removeItem(int i);

  private:
    void check(int i) const {
        if (QK_UNLIKELY(unsigned(i) >= unsigned(count_))) BaseList::abort(i, nullptr, count_);
    }
    void unsortIfMany() {
        if (count_ > 1) sorted_ = 0;
    }
    bool searchable() const { return sorted_ && compareFunction_; }
    bool onHeap() const { return items_ != static_; }
    void toInline();
    void copyElements(IntList const& o);
    void takeStorage(IntList& o);
    QK_NOINLINE void grow(int newSize);
    // append's slow path; by value, so the caller's variable stays in a register.
    QK_NOINLINE void appendGrowing(int value);

    int* items_;
    int static_[kInlineCount];
    int32_t size_;
    int32_t count_;
    CompareFunction compareFunction_;
    uint8_t sorted_;
};

// -1 if a < b, 1 if a > b, 0 if equal: the default order of every IntList.
QK_EXPORT_C int compareInts(int const& a, int const& b);

inline constexpr char kIntListListName[] = "IntListList";

extern template class QK_EXPORT AbstractList<IntList, kIntListListName>;

// An owning list of IntLists; deleting an element frees its storage and then
// the IntList object.
class QK_EXPORT IntListList : public AbstractList<IntList, kIntListListName> {
  public:
    explicit IntListList(int n = 0) : AbstractList(n) {}
};

using IntListList_Iterator = AbstractList_Iterator<IntListList>;

// Appends to out every non-empty proper subset of `set`, grouped by size
// (1, 2, ..., count-1), each group in the order of
// createAllIntSubsetsOfSpecifiedSize.
QK_EXPORT_C void createAllIntListProperSubsets(IntList const& set, IntListList& out);
// Appends to out one new IntList per k-element subset of the positions of
// `set` (1 <= k < count), holding set's elements at those positions in
// position order. The subsets come in co-lexicographic order of their
// positions: {0,1}, {0,2}, {1,2}, {0,3}, {1,3}, {2,3} for 4 elements and k 2.
QK_EXPORT_C void createAllIntSubsetsOfSpecifiedSize(IntList const& set, int k, IntListList& out);
