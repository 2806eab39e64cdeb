// qkStringHashTable: qkString keys to qkString values over the host's
// generic hash table. The table owns its entries; an entry's key comes
// first, so an Entry* serves where the hash and equality functions expect a
// qkString*.
#pragma once

#include "KorSysSimpleHashTable.h"
#include "qkExport.h"
#include "qkString.h"

class QK_EXPORT qkStringHashTable : public KorSysSimpleHashTable {
  public:
    struct Entry {
        qkString key;
        qkString value;
    };

    explicit qkStringHashTable(int size = 256);
    // Destroys every entry.
    ~qkStringHashTable() override;

    // A new entry with copies of key and value; when the key is present,
    // its entry takes the value instead. Returns the key's entry.
    Entry* Insert(qkString const& key, qkString const& value);
    Entry* Locate(qkString const& key) const;
    void Remove(qkString const& key);

    // Over the key's bytes (every byte of keys below 400 bytes, every
    // length/64-th byte of longer ones): h = h * 37 + the byte as a signed
    // char; bit 31 cleared. 0 for null.
    static unsigned int hashString(void* p);
    // 1 when both keys are null or hold the same bytes, else 0.
    static int cmpString(void* a, void* b);
};
