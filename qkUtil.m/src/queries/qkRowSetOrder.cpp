// qkRowSet: new rows for the query, sorting and binary search.
#include <cstdlib>

#include "qkMemory.h"
#include "qkRowSet.h"

namespace {

// What sort orders: an entry's row and mark with the values it is ordered by.
struct SortRecord {
    qkRowHolder* holder;
    uint8_t update;
    qkValue* first;
    qkValue* second;  // null when there is no second column
};

}  // namespace

qkRowHolder* qkRowSet::makeRow(unsigned char allNull, qkTable* table) {
    if (!table) table = &qkTableUtil::id2Table(tableId());
    auto* row = new qkRowHolder(table->columnCount(1));
    row->allocate(table, nullptr);
    if (allNull) {
        for (int i = 0; i < row->count(); ++i)
            (*row)[i].setFlag(qkValue::NullValue, true);
    }
    qkValueList& conditions = where();
    for (int i = 0; i < conditions.count(); ++i) {
        qkValue& w = conditions[i];
        if (w.oper() != qkValue::Equal) continue;
        qkValue& v = (*row)[w.column()];
        v.copyFrom(w, false);
        if (allNull) {
            v.setFlag(qkValue::Updated, true);
            v.setFlag(qkValue::NullValue, false);
        } else {
            v.setFlag(qkValue::Constant, true);
        }
    }
    return row;
}

// An entry without a row (an empty reference appended) sorts first.
int qkRowSet::qcompare(void const* a, void const* b) {
    auto const* x = static_cast<SortRecord const*>(a);
    auto const* y = static_cast<SortRecord const*>(b);
    if (!x->first || !y->first) return (x->first != nullptr) - (y->first != nullptr);
    int c = x->first->compare(*y->first, false);
    if (c != 0 || !x->second || !y->second) return c;
    return x->second->compare(*y->second, false);
}

void qkRowSet::sort(int column, int thenColumn) {
    if (nrows_ < 2 || column < 0) return;
    size_t n = static_cast<size_t>(nrows_);
    auto* records = static_cast<SortRecord*>(qkMalloc(sizeof(SortRecord) * n, __FILE__, __LINE__));
    for (size_t i = 0; i < n; ++i) {
        qkRowHolder* row = rows_[i].holder_;
        records[i] = {row, rows_[i].update, nullptr, nullptr};
        if (!row) continue;
        records[i].first = &(*row)[column];
        if (thenColumn >= 0) records[i].second = &(*row)[thenColumn];
    }
    std::qsort(records, n, sizeof(SortRecord), &qkRowSet::qcompare);
    // The remove marks stay with the positions.
    for (size_t i = 0; i < n; ++i) {
        rows_[i].holder_ = records[i].holder;
        rows_[i].update = records[i].update;
    }
    qkFree(records, __FILE__, __LINE__);
}

// The upper middle each time; key.compare(row) compares the row's value
// with the key, so a negative answer means the row's value is below it.
int qkRowSet::lookup(qkValue& key, unsigned char first) {
    int lo = 0, hi = nrows_ - 1, found = -1;
    while (lo <= hi) {
        int mid = (lo + 1 + hi) / 2;
        qkRowHolder* row = rows_[mid].holder_;
        int c = row ? key.compare(*row) : -1;  // rowless entries sort first
        if (c == 0) {
            found = mid;
            if (!first) break;
            hi = mid - 1;
        } else if (c < 0) {
            lo = mid + 1;
        } else {
            hi = mid - 1;
        }
    }
    return found;
}
