// The member definitions of AbstractList. A source that instantiates the
// template for an element type (IntListList.cpp, the value list) includes
// this header and names the instance with `template class AbstractList<...>`;
// everyone else sees only the declarations in AbstractList.h.
//
// Invariant kept by every operation: the slots count .. size-1 of the active
// pointer array are null. Growth zero-fills the new part, removals clear the
// slot they vacate and a return to the inline storage clears it, so the list
// never holds on to a pointer it no longer counts, and positions that setItem
// passes over read as null rather than as an element deleted long ago.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AbstractList.h"
#include "qkMemory.h"

// The allocation site tag for the pointer arrays: an address inside the list
// operation that asked for memory.
#define QK_LIST_CALLER static_cast<char const*>(getCaller(16))

template <class T, char const* Name>
AbstractList<T, Name>::AbstractList(int n)
    : compareFunction_(nullptr),
      sorted_(1),
      items_(static_),
      static_{},
      size_(kInlineCount),
      count_(0) {
    if (n > kInlineCount) grow(bestNewSize(n));
}

template <class T, char const* Name>
AbstractList<T, Name>::~AbstractList() {
    clear(0);
}

template <class T, char const* Name>
void AbstractList<T, Name>::grow(int newSize) {
    size_t bytes = sizeof(T*) * size_t(newSize);
    T** bigger;
    if (onHeap()) {
        bigger = static_cast<T**>(qkRealloc(items_, bytes, QK_LIST_CALLER, __LINE__));
    } else {
        bigger = static_cast<T**>(qkMalloc(bytes, QK_LIST_CALLER, __LINE__));
        std::memcpy(bigger, static_, sizeof static_);
    }
    std::memset(bigger + count_, 0, sizeof(T*) * size_t(newSize - count_));
    items_ = bigger;
    size_ = newSize;
}

template <class T, char const* Name>
void AbstractList<T, Name>::clear(int from) {
    for (int i = from; i < count_; ++i)
        delete getItem(i);
    removeAllItems();
}

template <class T, char const* Name>
void AbstractList<T, Name>::removeAllItems() {
    if (onHeap()) {
        qkFree(items_, QK_LIST_CALLER, __LINE__);
        items_ = static_;
        size_ = kInlineCount;
    }
    std::memset(static_, 0, sizeof static_);
    count_ = 0;
    sorted_ = 1;
}

template <class T, char const* Name>
void AbstractList<T, Name>::append(AbstractList const& o) {
    // Taken first: appending a list to itself must not chase its own tail.
    int n = o.count_;
    for (int j = 0; j < n; ++j)
        insertItem(count_, o.items_[j], true);
}

template <class T, char const* Name>
void AbstractList<T, Name>::insertItem(int i, T const* p, bool unsort) {
    if (count_ == size_) grow(bestNewSize(count_ + 1));
    if (i < 0) i = 0;
    if (i > count_) i = count_;
    std::memmove(items_ + i + 1, items_ + i, sizeof(T*) * size_t(count_ - i));
    items_[i] = const_cast<T*>(p);
    ++count_;
    if (unsort && count_ >= 2) sorted_ = 0;
}

template <class T, char const* Name>
void AbstractList<T, Name>::setItem(int i, T const* p, bool unsort) {
    // A position no capacity can hold is a range error like a negative one.
    if (i < 0 || i >= kMaxCapacity) BaseList::abort(i, Name, count_);
    if (i >= size_) grow(capacityFor(i));
    items_[i] = const_cast<T*>(p);
    if (i >= count_) count_ = i + 1;
    if (unsort && count_ >= 2) sorted_ = 0;
}

template <class T, char const* Name>
void AbstractList<T, Name>::replaceItem(int i, T const* p, bool deleteOld, bool unsort) {
    T* old = getItem(i);
    if (deleteOld && old != p) delete old;
    items_[i] = const_cast<T*>(p);
    if (unsort && count_ >= 2) sorted_ = 0;
}

template <class T, char const* Name>
void AbstractList<T, Name>::removeItem(int i) {
    getItem(i);
    std::memmove(items_ + i, items_ + i + 1, sizeof(T*) * size_t(count_ - i - 1));
    items_[--count_] = nullptr;
    if (count_ < 2) sorted_ = 1;
}

template <class T, char const* Name>
void AbstractList<T, Name>::removeAndDelete(int i) {
    delete getItem(i);
    removeItem(i);
}

template <class T, char const* Name>
void AbstractList<T, Name>::swap(int i, int j) {
    T* a = getItem(i);
    items_[i] = getItem(j);
    items_[j] = a;
    sorted_ = 0;
}

template <class T, char const* Name>
void AbstractList<T, Name>::setCompareFunction(CompareFunction f, bool isSorted) {
    if (f != compareFunction_) {
        compareFunction_ = f;
        if (count_ > 1) sorted_ = 0;
    }
    if (isSorted) sorted_ = 1;
}

template <class T, char const* Name>
void AbstractList<T, Name>::sort(QsortCompare cmp) {
    if (cmp && count_ > 1) std::qsort(items_, size_t(count_), sizeof(T*), cmp);
}

template <class T, char const* Name>
int AbstractList<T, Name>::insertSorted(T const& x) {
    if (!sorted_ || !compareFunction_) return -1;
    bool found;
    int pos = halve(
        0, count_, [&](int mid) { return compareFunction_(*items_[mid], x); }, found);
    insertItem(pos, &x, false);
    return pos;
}

template <class T, char const* Name>
int AbstractList<T, Name>::findSortedAfter(T const& x, bool& found, int after, bool first) const {
    if (!sorted_ || !compareFunction_) return -2;
    if (after < -1) after = -1;
    // Nothing after the end to search (and after + 1 need not be formed).
    if (after >= count_) {
        found = false;
        return after;
    }
    auto cmpAt = [&](int i) { return compareFunction_(*items_[i], x); };
    int pos = halve(after + 1, count_, cmpAt, found);
    // Not found: halve gives where x belongs, so the element before it is the
    // last one below x (or `after` itself).
    if (!found) return pos - 1;
    if (!first) return pos;
    // The lowest equal element: everything in after+1 .. pos is at most x, so
    // search for the first position that does not compare below it.
    int lo = after + 1;
    while (lo < pos) {
        int mid = lo + (pos - lo) / 2;
        if (cmpAt(mid) < 0)
            lo = mid + 1;
        else
            pos = mid;
    }
    return lo;
}

template <class T, char const* Name>
int AbstractList<T, Name>::insertSortedUniqueAfter(T const& x, bool& found, int after) {
    int below = findSortedAfter(x, found, after, false);
    if (below == -2 || found) return below;
    // The position just after the last element below x, or after + 1 when
    // none in the range is; one past the end (after >= count) inserts at the
    // end like any insert, and still reports after + 1.
    int pos = below < INT_MAX ? below + 1 : below;
    insertItem(pos, &x, false);
    return pos;
}

template <class T, char const* Name>
void AbstractList<T, Name>::printOffsets(char const* path) {
    std::FILE* f = std::fopen(path, "a");
    if (!f) {
        std::printf("error opening %s for append\n", path);
        return;
    }
    std::fprintf(f, "set $AbstractList_compareFunction = 0x%x\n",
                 unsigned(offsetof(AbstractList, compareFunction_)));
    std::fprintf(f, "set $AbstractList_sorted = 0x%x\n", unsigned(offsetof(AbstractList, sorted_)));
    std::fprintf(f, "set $AbstractList_items = 0x%x\n", unsigned(offsetof(AbstractList, items_)));
    std::fprintf(f, "set $AbstractList_static = 0x%x\n", unsigned(offsetof(AbstractList, static_)));
    std::fprintf(f, "set $AbstractList_size = 0x%x\n", unsigned(offsetof(AbstractList, size_)));
    std::fprintf(f, "set $AbstractList_count = 0x%x\n", unsigned(offsetof(AbstractList, count_)));
    std::fclose(f);
}

#undef QK_LIST_CALLER
