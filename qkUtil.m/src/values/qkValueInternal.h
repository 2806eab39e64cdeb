// Helpers the value classes share: the comparison of a content after the
// shared steps, and the three-way sign.
#pragma once

#include "qkValue.h"

namespace qk::values {

template <class T>
inline int threeWay(T const& a, T const& b) {
    return a < b ? -1 : b < a ? 1 : 0;
}

// Values of two different classes (outside the comparison contract) order
// by their data type numbers, so that a mix never reads one class's
// content as another's.
inline int mixedClasses(qkValue const& a, qkValue const& b) {
    return threeWay(static_cast<int>(a.dataType()), static_cast<int>(b.dataType()));
}

}  // namespace qk::values
