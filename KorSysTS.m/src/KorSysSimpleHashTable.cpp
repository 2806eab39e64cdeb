// KorSysSimpleHashTable: chained slots over a dense array of entries.
#include "KorSysSimpleHashTable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

uint32_t powerOfTwoAtLeast(int n) {
    uint32_t p = 1;
    while (p < uint32_t(n > 0 ? n : 1) && p < (1u << 30))
        p <<= 1;
    return p;
}

// Out of memory is the end, as for the library's own allocations.
void* checked(void* p) {
    if (!p) {
        std::fputs("KorSysSimpleHashTable: out of memory\n", stderr);
        std::abort();
    }
    return p;
}

template <class T>
T* allocate(size_t n) {
    return static_cast<T*>(checked(std::malloc(n * sizeof(T))));
}

}  // namespace

KorSysSimpleHashTable::KorSysSimpleHashTable(int size, HashFunction hash, CompareFunction equal)
    : hash_(hash), equal_(equal), slotCount_(powerOfTwoAtLeast(size)) {
    slots_ = allocate<int32_t>(slotCount_);
    std::memset(slots_, 0xff, slotCount_ * sizeof(int32_t));
    capacity_ = int32_t(slotCount_);
    entries_ = allocate<Entry>(size_t(capacity_));
}

KorSysSimpleHashTable::~KorSysSimpleHashTable() {
    std::free(slots_);
    std::free(entries_);
}

int KorSysSimpleHashTable::Insert(void* element) {
    uint32_t h = hash_(element);
    for (int32_t i = *slotOf(h); i >= 0; i = entries_[i].next) {
        if (entries_[i].hash == h && equal_(entries_[i].element, element)) return 0;
    }
    if (uint32_t(count_) >= slotCount_) grow();
    if (count_ == capacity_) {
        capacity_ *= 2;
        entries_ =
            static_cast<Entry*>(checked(std::realloc(entries_, size_t(capacity_) * sizeof(Entry))));
    }
    int32_t* slot = slotOf(h);
    entries_[count_] = {element, h, *slot};
    *slot = count_++;
    return 1;
}

void* KorSysSimpleHashTable::Locate(void* probe) const {
    uint32_t h = hash_(probe);
    for (int32_t i = *slotOf(h); i >= 0; i = entries_[i].next) {
        if (entries_[i].hash == h && equal_(entries_[i].element, probe)) return entries_[i].element;
    }
    return nullptr;
}

int32_t* KorSysSimpleHashTable::linkTo(int32_t index) {
    int32_t* link = slotOf(entries_[index].hash);
    while (*link != index)
        link = &entries_[*link].next;
    return link;
}

void KorSysSimpleHashTable::Remove(void* element) {
    if (!element) return;
    uint32_t h = hash_(element);
    int32_t* link = slotOf(h);
    while (*link >= 0 && entries_[*link].element != element)
        link = &entries_[*link].next;
    int32_t index = *link;
    if (index < 0) return;
    *link = entries_[index].next;
    // The last entry moves into the gap; its chain is told where it went.
    int32_t last = --count_;
    if (index != last) {
        *linkTo(last) = index;
        entries_[index] = entries_[last];
    }
}

void KorSysSimpleHashTable::grow() {
    uint32_t count = slotCount_ * 2;
    int32_t* slots = allocate<int32_t>(count);
    std::memset(slots, 0xff, count * sizeof(int32_t));
    std::free(slots_);
    slots_ = slots;
    slotCount_ = count;
    for (int32_t i = 0; i < count_; ++i) {
        int32_t* slot = slotOf(entries_[i].hash);
        entries_[i].next = *slot;
        *slot = i;
    }
}

int KorSysSimpleHashTable::Size() const {
    return count_;
}

void* KorSysSimpleHashTable::Get(int i) const {
    return i >= 0 && i < count_ ? entries_[i].element : nullptr;
}
