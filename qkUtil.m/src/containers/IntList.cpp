// IntList: construction, growth, insertion and removal, and the sorted
// operations.
//
// Invariant kept by every operation: the slots count .. size-1 of the active
// array hold 0. Growth zero-fills the new part, removals clear the slot they
// vacate and a return to the inline storage clears it, so setItem beyond the
// end exposes zeros and never a stale element.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "IntList.h"

int compareInts(int const& a, int const& b) {
    return a < b ? -1 : (a > b ? 1 : 0);
}

IntList::IntList()
    : items_(static_),
      static_{},
      size_(kInlineCount),
      count_(0),
      compareFunction_(compareInts),
      sorted_(1) {}

IntList::IntList(int n) : IntList() {
    if (n > kInlineCount) grow(bestNewSize(n));
}

IntList::IntList(IntList const& o) : IntList() {
    copyElements(o);
}

IntList& IntList::operator=(IntList const& o) {
    if (this != &o) {
        toInline();
        copyElements(o);
    }
    return *this;
}

IntList::IntList(IntList&& o) noexcept : IntList() {
    takeStorage(o);
}

IntList& IntList::operator=(IntList&& o) noexcept {
    if (this != &o) {
        toInline();
        takeStorage(o);
    }
    return *this;
}

IntList::~IntList() {
    if (onHeap()) delete[] items_;
}

void IntList::clear() {
    toInline();
    sorted_ = 1;
}

// Frees a heap array and leaves the list empty on zeroed inline storage.
void IntList::toInline() {
    if (onHeap()) {
        delete[] items_;
        items_ = static_;
        size_ = kInlineCount;
    }
    std::memset(static_, 0, sizeof static_);
    count_ = 0;
}

// Fills an empty inline list with o's elements, sized as if they had been
// appended one by one, and takes o's compare function and flag.
void IntList::copyElements(IntList const& o) {
    if (o.count_ > size_) grow(bestNewSize(o.count_ - 1));
    std::memcpy(items_, o.items_, sizeof(int) * size_t(o.count_));
    count_ = o.count_;
    compareFunction_ = o.compareFunction_;
    sorted_ = o.sorted_;
}

// Takes o's elements (its heap array itself when it has one) and leaves o
// empty and inline, with its compare function.
void IntList::takeStorage(IntList& o) {
    if (o.onHeap()) {
        items_ = o.items_;
        size_ = o.size_;
        o.items_ = o.static_;
        o.size_ = kInlineCount;
    } else {
        std::memcpy(static_, o.static_, sizeof static_);
    }
    count_ = o.count_;
    compareFunction_ = o.compareFunction_;
    sorted_ = o.sorted_;
    o.toInline();
    o.sorted_ = 1;
}

void IntList::grow(int newSize) {
    int* bigger = new int[size_t(newSize)];
    std::memcpy(bigger, items_, sizeof(int) * size_t(count_));
    std::memset(bigger + count_, 0, sizeof(int) * size_t(newSize - count_));
    if (onHeap()) delete[] items_;
    items_ = bigger;
    size_ = newSize;
}

void IntList::insertItem(int i, int const* v) {
    // Read the value first: v may point into the array that growth frees.
    int value = *v;
    if (count_ == size_) grow(bestNewSize(count_ + 1));
    if (i < 0) i = 0;
    if (i > count_) i = count_;
    std::memmove(items_ + i + 1, items_ + i, sizeof(int) * size_t(count_ - i));
    items_[i] = value;
    ++count_;
}

void IntList::appendGrowing(int value) {
    insertItem(count_, &value);
}

void IntList::append(IntList const& o) {
    if (this == &o) {
        IntList copy(o);
        append(copy);
        return;
    }
    for (int j = 0; j < o.count_; ++j)
        append(o.items_[j]);
}

void IntList::insert(int i, IntList const& o) {
    if (this == &o) {
        IntList copy(o);
        insert(i, copy);
        return;
    }
    if (i > count_) i = count_;
    for (int j = o.count_ - 1; j >= 0; --j)
        insert(i, &o.items_[j]);
}

void IntList::setItem(int i, int const* v, bool unsort) {
    // A position no capacity can hold is a range error like a negative one.
    if (i < 0 || i >= kMaxCapacity) BaseList::abort(i, nullptr, count_);
    int value = *v;
    if (i >= size_) grow(capacityFor(i));
    items_[i] = value;
    if (i >= count_) count_ = i + 1;
    if (unsort && count_ >= 2) sorted_ = 0;
}

void IntList::removeItem(int i) {
    check(i);
    std::memmove(items_ + i, items_ + i + 1, sizeof(int) * size_t(count_ - i - 1));
    items_[--count_] = 0;
    if (count_ < 2) sorted_ = 1;
}

// One position at a time, as remove would: below -1 the walk reaches a
// negative position, which is the range error.
void IntList::removeAfter(int p) {
    for (int i = count_ - 1; i > p; --i)
        removeItem(i);
}

void IntList::setCompareFunction(CompareFunction f) {
    if (f == compareFunction_) return;
    compareFunction_ = f;
    unsortIfMany();
}

void IntList::sort(QsortCompare cmp) {
    if (cmp && count_ > 1) std::qsort(items_, size_t(count_), sizeof(int), cmp);
}

int IntList::findSortedUnique(int const& x, bool& found) const {
    if (!searchable()) return -1;
    // The default order is compared inline rather than through the pointer.
    if (compareFunction_ == compareInts) {
        return halve(
            0, count_, [&](int pos) { return (items_[pos] > x) - (items_[pos] < x); }, found);
    }
    return halve(
        0, count_, [&](int pos) { return compareFunction_(items_[pos], x); }, found);
}

int IntList::insertSorted(int const& x) {
    bool found;
    int pos = findSortedUnique(x, found);
    if (pos >= 0) insertItem(pos, &x);
    return pos;
}

int IntList::insertSortedUnique(int const& x, bool& found) {
    int pos = findSortedUnique(x, found);
    if (pos >= 0 && !found) insertItem(pos, &x);
    return pos;
}

bool IntList::isContained(int const& x) const {
    if (!compareFunction_) return false;
    if (sorted_) {
        bool found;
        findSortedUnique(x, found);
        return found;
    }
    for (int j = 0; j < count_; ++j)
        if (compareFunction_(items_[j], x) == 0) return true;
    return false;
}
