// qkStringHashTable: entries of two strings in the host's hash table.
#include "qkStringHashTable.h"

#include <cstring>

qkStringHashTable::qkStringHashTable(int size)
    : KorSysSimpleHashTable(size, &qkStringHashTable::hashString, &qkStringHashTable::cmpString) {}

qkStringHashTable::~qkStringHashTable() {
    for (int i = 0; i < Size(); ++i)
        delete static_cast<Entry*>(Get(i));
}

qkStringHashTable::Entry* qkStringHashTable::Insert(qkString const& key, qkString const& value) {
    auto* entry = new Entry{key, value};
    if (KorSysSimpleHashTable::Insert(entry)) return entry;
    delete entry;
    Entry* present = Locate(key);
    present->value = value;
    return present;
}

qkStringHashTable::Entry* qkStringHashTable::Locate(qkString const& key) const {
    return static_cast<Entry*>(KorSysSimpleHashTable::Locate(const_cast<qkString*>(&key)));
}

void qkStringHashTable::Remove(qkString const& key) {
    Entry* entry = Locate(key);
    KorSysSimpleHashTable::Remove(entry);
    delete entry;
}

unsigned int qkStringHashTable::hashString(void* p) {
    if (!p) return 0;
    auto const& s = *static_cast<qkString const*>(p);
    unsigned length = s.length();
    char const* text = s;
    unsigned step = length < 400 ? 1 : length / 64;
    uint32_t h = 0;
    for (unsigned i = 0; i < length; i += step)
        h = h * 37 + uint32_t(int32_t(static_cast<signed char>(text[i])));
    return h & 0x7fffffffu;
}

int qkStringHashTable::cmpString(void* a, void* b) {
    if (!a || !b) return a == b;
    auto const& x = *static_cast<qkString const*>(a);
    auto const& y = *static_cast<qkString const*>(b);
    unsigned n = x.length();
    return n == y.length() &&
           std::memcmp(static_cast<char const*>(x), static_cast<char const*>(y), n) == 0;
}
