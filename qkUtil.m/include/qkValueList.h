// qkValueList: the owning list of values (the pointer-list template over
// qkValue). Elements are deleted through the value's virtual destructor, so
// a list of mixed value classes deletes each correctly; its range errors
// name "qkValueList".
#pragma once

#include <cstdint>

#include "AbstractList.h"
#include "qkValue.h"

inline constexpr char kValueListName[] = "qkValueList";

extern template class QK_EXPORT AbstractList<qkValue, kValueListName>;

class QK_EXPORT qkValueList : public AbstractList<qkValue, kValueListName> {
  public:
    explicit qkValueList(int n = 0) : AbstractList(n) {}
};

using qkValueList_Iterator = AbstractList_Iterator<qkValueList>;

// A value list shared by reference count within the thread that made it.
// Any other thread that asks for it (dup) gets a deep copy of its own, so
// the count is a plain integer that one thread touches. A list must be
// released on the thread that holds the reference.
class QK_EXPORT qkValueListRef : public qkValueList {
  public:
    // Empty, owned by the calling thread, one reference.
    qkValueListRef();
    // Deletes every value.
    ~qkValueListRef();
    // Lists are shared by reference, never copied by value.
    qkValueListRef(qkValueListRef const&) = delete;
    qkValueListRef& operator=(qkValueListRef const&) = delete;

    // A new list owned by the calling thread, one reference, holding a copy
    // of each value without its flags and table id (newValue(v, false)); no
    // compare function, and unsorted from two values on.
    qkValueListRef* clone() const;
    // On the owner thread: one more reference to this list; elsewhere a clone.
    qkValueListRef* dup();
    // Drops one reference; the last deletes the values and the list. Null
    // is ignored.
    static void release(qkValueListRef* r);

    void* ownerThread;  // qkThread::id() of the thread that made it
    int32_t refCount;   // holders
};
