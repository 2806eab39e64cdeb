// What the key builders share: reading a row's value at a column.
#pragma once

#include "AbstractList.h"
#include "qkValueList.h"

namespace qk::keys {

// The row's value at `column`, through the list's range check (fatal
// outside the row). A null row is an empty one.
inline qkValue& rowValue(qkValueList* row, int column) {
    if (!row) BaseList::abort(column, kValueListName, 0);
    return (*row)[column];
}

}  // namespace qk::keys
