// BaseList, AbstractList and AbstractList_Iterator: the common ground of the
// library's small lists.
//
// - BaseList carries no data. It holds the fatal range error that every list
//   raises for a position outside 0 .. count-1 (BaseList::abort), the growth
//   rule shared by all list kinds (capacities 12, 28, 60, 124, ...: 12 inline,
//   then 2^k - 4) and the binary search of the sorted operations.
// - AbstractList<T, Name> is an owning list of T pointers. The first 12
//   pointers live inside the object; beyond that the pointer array comes from
//   qkMalloc/qkRealloc/qkFree. `Name` is the text its range errors print.
//   Instances: IntListList (IntList.h) and the value list.
// - AbstractList_Iterator<List> is the forward iterator over such a list.
//
// Ownership: the list owns every element whose pointer it holds. append,
// prepend, insert, insertItem and setItem store the very pointer (or the
// address of the very object) they are given, which from then on belongs to
// the list. The destructor, freeAll, clear, removeAndDelete and replaceItem
// (when asked) delete elements with `delete`, so an element type with a
// virtual destructor is destroyed as its own class; remove and removeAll only
// drop them. append(const AbstractList&) shares the other list's pointers:
// exactly one of the two lists may go on owning them.
//
// Lists are not thread-safe: a list belongs to one thread at a time, or to a
// caller that locks it. A list points into itself while it uses its inline
// storage, so it is never copied; copying or assigning one is refused.
//
// Choices made here beyond the basic contract:
// - setItem with a negative position is a range error, like any other bad
//   position.
// - Slots at or above count always hold null, so positions that setItem
//   passes over read as null, never as a stale or deleted element.
// - replaceItem with deleteOld does not delete the old element when it is the
//   very pointer being stored.
// - After removeCur() the iterator steps back one place and takes one off its
//   count, so the next next() lands on the element that moved into the
//   removed one's place and the scan ends where it would have.
#pragma once

#include <cstdint>

#include "qkExport.h"

class QK_EXPORT BaseList {
  public:
    // Writes "internal error: <listname> index <index> out of range " to
    // standard output ("list" when listname is null), then for a named list
    // "(range: 0 - <count-1>)\n" or "(list is empty)", then a newline, flushes
    // and ends the process abnormally.
    [[noreturn]] static void abort(int index, char const* listname, int count);
    // Ends the process abnormally at once, without a message.
    [[noreturn]] static void abort();

    // Elements kept inside the object before a list goes to the heap.
    static constexpr int kInlineCount = 12;
    // The largest capacity the growth rule can produce (2^31 - 4).
    static constexpr int kMaxCapacity = 0x7FFFFFFC;

  protected:
    // The smallest value 2^k - 4 (k >= 5) strictly greater than n: 12 -> 28,
    // 28 -> 60, 60 -> 124. A list that would need more than kMaxCapacity
    // elements is a fatal error.
    static int bestNewSize(int n) {
        if (n < 28) return 28;
        if (QK_UNLIKELY(n >= kMaxCapacity)) abort(n, nullptr, 0);
        // 2^k - 4 > n  <=>  2^k > n + 4: the power of two above n + 4.
        unsigned above = unsigned(n) + 4;
        return int((2u << (31 - __builtin_clz(above))) - 4);
    }

    // The capacity setItem grows to for a position i (0 <= i < kMaxCapacity)
    // beyond the current one: bestNewSize(i + 1), and for the last position,
    // whose i + 1 no larger capacity exceeds, the largest capacity itself.
    static int capacityFor(int i) {
        return i < kMaxCapacity - 1 ? bestNewSize(i + 1) : kMaxCapacity;
    }

    // Binary search over positions lo .. hi-1 of a sorted range, where
    // cmpAt(pos) compares the element at pos with the probe (element first).
    // Stops at whichever equal element the halving meets first: found is set
    // and that position returned. Otherwise found is cleared and the position
    // at which the probe would be inserted (the final lo) is returned.
    template <class CmpAt>
    static int halve(int lo, int hi, CmpAt cmpAt, bool& found) {
        found = false;
        while (lo < hi) {
            int mid = lo + (hi - lo) / 2;
            int c = cmpAt(mid);
            if (c < 0) {
                lo = mid + 1;
            } else if (c > 0) {
                hi = mid;
            } else {
                found = true;
                return mid;
            }
        }
        return lo;
    }
};

template <class T, char const* Name>
class AbstractList : public BaseList {
  public:
    using Element = T;
    using CompareFunction = int (*)(T const&, T const&);
    // qsort comparator; it receives pointers to element pointers.
    using QsortCompare = int (*)(void const*, void const*);

    static constexpr char const* _listname = Name;

    // Empty and sorted, no compare function. More than 12 expected elements
    // (n) start on a heap array of bestNewSize(n) pointers.
    explicit AbstractList(int n = 0);
    ~AbstractList();
    AbstractList(AbstractList const&) = delete;
    AbstractList& operator=(AbstractList const&) = delete;

    using BaseList::bestNewSize;

    // Deletes every element and empties the list.
    void freeAll() { clear(0); }
    // Deletes the elements at from .. count-1 (each position range-checked),
    // drops those before `from` undeleted, and returns to the inline storage:
    // empty, capacity 12, sorted.
    void clear(int from);
    // Drops every element without deleting it; back to the inline storage.
    void removeAll() { removeAllItems(); }

    int count() const { return count_; }
    int capacity() const { return size_; }
    bool isSorted() const { return sorted_; }
    CompareFunction getCompareFunction() const { return compareFunction_; }

    // The element at i, range-checked.
    T& operator[](int i) { return *getItem(i); }
    T const& operator[](int i) const { return *getItem(i); }
    T* item(int i) { return getItem(i); }
    T const* item(int i) const { return getItem(i); }

    // Take ownership of x (the object itself, not a copy).
    void append(T const& x) { insertItem(count_, &x, true); }
    void append(T const* p) { insertItem(count_, p, true); }
    void prepend(T const& x) { insertItem(0, &x, true); }
    void prepend(T const* p) { insertItem(0, p, true); }
    void insert(int i, T const& x) { insertItem(i, &x, true); }
    void insert(int i, T const* p) { insertItem(i, p, true); }
    // Appends o's element pointers themselves, not copies.
    void append(AbstractList const& o);

    // Inserts p at i (below 0 counts as 0, beyond count as count); the list
    // turns unsorted when `unsort` is set and it holds two or more elements.
    void insertItem(int i, T const* p, bool unsort = true);
    // Stores p at i >= 0 without deleting what was there, growing the array
    // as needed; count becomes at least i + 1.
    void setItem(int i, T const* p, bool unsort = true);
    // Stores p at the existing position i, deleting the old element first
    // when deleteOld is set.
    void replaceItem(int i, T const* p, bool deleteOld = true, bool unsort = true);
    // Drops element i without deleting it.
    void remove(int i) { removeItem(i); }
    // Deletes element i and drops it.
    void removeAndDelete(int i);
    // Exchanges two elements; the list turns unsorted.
    void swap(int i, int j);

    // A new compare function makes a list of two or more elements unsorted;
    // isSorted then declares it sorted.
    void setCompareFunction(CompareFunction f, bool isSorted = false);
    // Reorders the pointers with qsort and cmp (null: nothing); the sorted
    // flag stays as it was.
    void sort(QsortCompare cmp);
    // Declares the list sorted.
    void sorted() { sorted_ = 1; }

    // Sorted operations. Each returns -2 (-1 for insertSorted) and changes
    // nothing when the list is unsorted or has no compare function.
    //
    // insertSorted takes ownership of x, inserts it in order (in front of an
    // equal element the search meets) and returns its position.
    int insertSorted(T const& x);
    // Searches positions after+1 .. count-1 (after below -1 counts as -1).
    // On an equal element: found = true and its position (with `first`, the
    // lowest equal position in that range). Otherwise found = false and the
    // position of the last element below x, or `after` when there is none:
    // the insertion position is one past the result.
    int findSortedAfter(T const& x, bool& found, int after, bool first = false) const;
    int findSortedUnique(T const& x, bool& found, bool first = false) const {
        return findSortedAfter(x, found, -1, first);
    }
    // When no element equals x, takes ownership of x and inserts it in
    // order; returns the insertion position, or the equal element's position
    // with found = true (x then stays the caller's).
    int insertSortedUnique(T const& x, bool& found) {
        return insertSortedUniqueAfter(x, found, -1);
    }
    // The same over positions after + 1 .. count-1; when none there is below
    // x the position reported is after + 1 (an after at or past the end
    // inserts at the end).
    int insertSortedUniqueAfter(T const& x, bool& found, int after);

    // Appends "set $AbstractList_<field> = 0x<offset>" debugger lines for
    // every field to the file at path.
    static void printOffsets(char const* path);

  private:
    T* getItem(int i) const {
        if (QK_UNLIKELY(unsigned(i) >= unsigned(count_))) BaseList::abort(i, Name, count_);
        return items_[i];
    }
    void removeItem(int i);
    void removeAllItems();
    QK_NOINLINE void grow(int newSize);
    bool onHeap() const { return items_ != static_; }

    CompareFunction compareFunction_;
    uint8_t sorted_;
    T** items_;
    T* static_[kInlineCount];
    int32_t size_;
    int32_t count_;
};

// Forward iterator over an AbstractList (or a class derived from one):
//
//   for (IntListList_Iterator it(list); it.next();) use(*it);
//
// The iterator takes the list's count when the scan begins; removeCur() is
// the only change to the list that it follows.
template <class List>
class AbstractList_Iterator {
  public:
    using Element = typename List::Element;

    AbstractList_Iterator() = default;
    explicit AbstractList_Iterator(List& l) { scan(l); }

    // Starts a new scan over l, before its first element.
    void scan(List& l) {
        list = &l;
        cur = -1;
        n = l.count();
    }
    bool more() const { return cur + 1 < n; }
    bool next() { return ++cur < n; }

    Element& curRef() const {
        if (QK_UNLIKELY(!list)) BaseList::abort(cur, List::_listname, 0);
        return (*list)[cur];
    }
    Element& operator*() const { return curRef(); }
    Element* operator->() const { return &curRef(); }

    // Drops (without deleting) the current element from the list; the next
    // next() reaches the element that took its place.
    void removeCur() {
        if (QK_UNLIKELY(!list)) BaseList::abort(cur, List::_listname, 0);
        list->remove(cur);
        --cur;
        --n;
    }

  private:
    List* list = nullptr;
    int32_t cur = -1;
    int32_t n = 0;
};
