// KorSysSimpleHashTable: the host framework's generic hash table of
// elements it does not own. The caller gives a hash function and an
// equality function over elements; a probe given to Locate is an element
// (or anything the two functions accept in its place).
//
// Elements chain per slot; the slots double when the elements outnumber
// them. Size() and Get(i) reach every element: Size() is the number of
// elements and Get(i) the i-th of them in an order of the table's own,
// which a Remove changes (the last element takes the removed one's place),
// so the elements are not to be removed while walked that way.
#pragma once

#include <cstdint>

class __attribute__((visibility("default"))) KorSysSimpleHashTable {
  public:
    using HashFunction = unsigned int (*)(void* element);
    using CompareFunction = int (*)(void* a, void* b);  // non-zero when equal

    // `size` slots to start with (at least 1).
    KorSysSimpleHashTable(int size, HashFunction hash, CompareFunction equal);
    // Releases the table's storage, not the elements.
    virtual ~KorSysSimpleHashTable();
    KorSysSimpleHashTable(KorSysSimpleHashTable const&) = delete;
    KorSysSimpleHashTable& operator=(KorSysSimpleHashTable const&) = delete;

    // Stores the element: non-zero; 0 when an equal one is present (that one
    // stays).
    int Insert(void* element);
    // The stored element equal to the probe, or null.
    void* Locate(void* probe) const;
    // Takes the element (the very one stored) out; null or an element not
    // stored is ignored.
    void Remove(void* element);
    // The number of elements, and the i-th of them (null outside 0..Size()-1).
    int Size() const;
    void* Get(int i) const;

  private:
    struct Entry {
        void* element;
        uint32_t hash;
        int32_t next;  // the next entry of the slot's chain, -1 at its end
    };

    int32_t* slotOf(uint32_t hash) const { return &slots_[hash & (slotCount_ - 1)]; }
    void grow();
    // The link that points at entry `index` in its chain.
    int32_t* linkTo(int32_t index);

    HashFunction hash_;
    CompareFunction equal_;
    int32_t* slots_;      // chain heads, -1 for an empty slot
    uint32_t slotCount_;  // a power of two
    Entry* entries_;      // the elements, densely
    int32_t count_ = 0;
    int32_t capacity_ = 0;
};
