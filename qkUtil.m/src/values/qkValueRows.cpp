// Rows of values: the qsort comparator over value pointers, sorting rows by
// one or two columns, and binary search of sorted rows.
#include <cstdlib>

#include "qkMemory.h"
#include "qkValueList.h"

namespace {

// One row while it is sorted: its cells in the sort columns, and the row.
struct SortRecord {
    qkValue const* first;
    qkValue const* second;  // null without a second column
    qkValueList* row;
};

}  // namespace

int qkValue::qsortCompare(void const* a, void const* b) {
    qkValue const* x = *static_cast<qkValue const* const*>(a);
    qkValue const* y = *static_cast<qkValue const* const*>(b);
    return x->compare(*y, false);
}

int qkValue::compare(void const* a, void const* b) {
    auto const* x = static_cast<SortRecord const*>(a);
    auto const* y = static_cast<SortRecord const*>(b);
    int r = x->first->compare(*y->first, false);
    if (r == 0 && x->second && y->second) r = x->second->compare(*y->second, false);
    return r;
}

void qkValue::sort(qkValueList** rows, int n, int column, int column2) {
    if (!rows || n < 1) return;
    auto* records = static_cast<SortRecord*>(
        qkMalloc(sizeof(SortRecord) * static_cast<size_t>(n), __FILE__, __LINE__));
    for (int i = 0; i < n; ++i) {
        qkValueList& row = *rows[i];
        records[i] = {&row[column], column2 >= 0 ? &row[column2] : nullptr, &row};
    }
    std::qsort(records, static_cast<size_t>(n), sizeof(SortRecord), &qkValue::compare);
    for (int i = 0; i < n; ++i)
        rows[i] = records[i].row;
    qkFree(records, __FILE__, __LINE__);
}

// The upper middle each time; key.compare(row) compares the row's cell with
// the key, so a negative answer means the cell is below the key.
int qkValue::lookup(qkValueList** rows, int n, qkValue& key) {
    int lo = 0, hi = n - 1;
    while (lo <= hi) {
        int mid = lo + (hi - lo + 1) / 2;
        int r = key.compare(*rows[mid]);
        if (r == 0) return mid;
        if (r < 0) {
            lo = mid + 1;
        } else {
            hi = mid - 1;
        }
    }
    return -1;
}
