// qkRowRef and qkRowSet: counted references, the rows array and its entries.
#include <cstring>
#include <new>

#include "qkMemory.h"
#include "qkRowSet.h"

// ---- qkRowRef -----------------------------------------------------------------

qkRowRef::qkRowRef(qkRowRef const& other) : update(other.update), holder_(other.holder_) {
    if (holder_) holder_->dup1();
}

qkRowRef& qkRowRef::operator=(qkRowRef const& other) {
    if (this != &other) unsafeSet(other.holder_, other.update);
    return *this;
}

// The new row is counted before the old one is let go, so setting the row
// a reference already holds cannot destroy it on the way.
void qkRowRef::unsafeSet(qkRowHolder* h, unsigned char mark) {
    if (h) h->dup1();
    qkRowHolder::release1(holder_);
    holder_ = h;
    update = mark;
}

// ---- the rows array ---------------------------------------------------------------

// Entries are plain records (a pointer and two marks) that no one points
// into, so the array moves with a reallocation; entries past nrows are kept
// empty.
qkRowRef* qkRowSet::newEntry() {
    if (nrows_ >= arows_) {
        int grown = arows_ ? arows_ * 2 : 32;
        size_t bytes = sizeof(qkRowRef) * static_cast<size_t>(grown);
        rows_ = static_cast<qkRowRef*>(qkRealloc(rows_, bytes, __FILE__, __LINE__));
        for (int i = arows_; i < grown; ++i)
            new (&rows_[i]) qkRowRef;
        arows_ = grown;
    }
    return &rows_[nrows_++];
}

void qkRowSet::appendRow(qkRowRef* ref) {
    qkRowRef* e = newEntry();
    e->holder_ = ref->holder_;  // the count moves with the row
    e->update = ref->update;
    ref->holder_ = nullptr;
}

void qkRowSet::appendRow(qkRowHolder* h, unsigned char federate) {
    h->federate = federate;
    newEntry()->unsafeSet(h, 0);
}

void qkRowSet::appendRow(qkRowRef& ref) {
    newEntry()->unsafeSet(ref.holder_, ref.update);
}

qkRowRef& qkRowSet::ref(int i) {
    static qkRowRef empty;
    if (i < 0 || i >= nrows_) return empty;
    return rows_[i];
}

void qkRowSet::removeRow(int i) {
    if (i < 0 || i >= nrows_) return;
    qkRowHolder* h = rows_[i].holder_;
    for (int j = i; j + 1 < nrows_; ++j) {
        rows_[j].holder_ = rows_[j + 1].holder_;
        rows_[j].update = rows_[j + 1].update;
    }
    --nrows_;
    rows_[nrows_].holder_ = nullptr;
    rows_[nrows_].update = 0;
    qkRowHolder::release1(h);
}

void qkRowSet::trim(int count) {
    if (count > nrows_) return;
    if (count < 0) count = 0;
    // The count drops first, so the set is consistent whatever a row's
    // destruction does.
    int was = nrows_;
    nrows_ = count;
    for (int i = count; i < was; ++i)
        rows_[i].unsafeSet(nullptr, 0);
}

void qkRowSet::clearRows() {
    trim(0);
    for (int i = 0; i < arows_; ++i)
        rows_[i].~qkRowRef();
    qkFree(rows_, __FILE__, __LINE__);
    rows_ = nullptr;
    arows_ = 0;
    anyUpdate_ = anyRemove_ = 0;
}

void qkRowSet::replace(qkRowSet* other) {
    if (other == this) return;
    clearRows();
    rows_ = other->rows_, nrows_ = other->nrows_, arows_ = other->arows_;
    anyUpdate_ = other->anyUpdate_;
    other->rows_ = nullptr;
    other->nrows_ = other->arows_ = 0;
    other->anyUpdate_ = 0;
}

// ---- copies -------------------------------------------------------------------

void qkRowSet::copyRowsFrom(qkRowSet const& other) {
    for (int i = 0; i < other.nrows_; ++i)
        appendRow(other.rows_[i]);
    if (arows_ < other.arows_) {
        // Keep the other array's capacity, as the copied arows says.
        size_t bytes = sizeof(qkRowRef) * static_cast<size_t>(other.arows_);
        rows_ = static_cast<qkRowRef*>(qkRealloc(rows_, bytes, __FILE__, __LINE__));
        for (int i = arows_; i < other.arows_; ++i)
            new (&rows_[i]) qkRowRef;
        arows_ = other.arows_;
    }
    anyUpdate_ = other.anyUpdate_;
    anyRemove_ = other.anyRemove_;
}

qkRowSet::qkRowSet(qkRowSet const& other) : qkOID(other) {
    copyRowsFrom(other);
}

qkRowSet& qkRowSet::operator=(qkRowSet const& other) {
    if (this != &other) {
        qkOID::operator=(other);
        clearRows();
        copyRowsFrom(other);
    }
    return *this;
}
