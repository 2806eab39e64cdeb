// qkValueList: the owning list of values (the pointer-list template over
// qkValue). Elements are deleted through the value's virtual destructor, so
// a list of mixed value classes deletes each correctly; its range errors
// name "qkValueList".
#pragma once

#include "AbstractList.h"
#include "qkValue.h"

inline constexpr char kValueListName[] = "qkValueList";

extern template class QK_EXPORT AbstractList<qkValue, kValueListName>;

class QK_EXPORT qkValueList : public AbstractList<qkValue, kValueListName> {
  public:
    explicit qkValueList(int n = 0) : AbstractList(n) {}
};

using qkValueList_Iterator = AbstractList_Iterator<qkValueList>;
