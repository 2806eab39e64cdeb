// Tagdb: reading and changing records of the active store. The forms that
// take a name build a string key in place around it (no copy, no
// allocation); only an insertion copies the key into the tree.
#include <cstring>

#include "Tagdb.h"
#include "tagdb/TagdbBlob.h"
#include "tagdb/TagdbNameKey.h"

using qk::tagdb::NameKey;

TagdbCommon::Status Tagdb::usable() const {
    if (!current) return NotOpen;
    if (!depth) return NoTransaction;
    return Ok;
}

TagdbCommon::Status Tagdb::get(TagdbKey& key, TagdbRecord*& rec) {
    rec = nullptr;
    Status st = usable();
    return st == Ok ? current->treeGet(key, rec) : st;
}

TagdbCommon::Status Tagdb::get(char const* name, TagdbRecord*& rec) {
    rec = nullptr;
    if (!name) return usable() == Ok ? Failed : usable();
    NameKey key(name);
    return get(key, rec);
}

TagdbCommon::Status Tagdb::get(char const* name, char const*& text) {
    void const* data = nullptr;
    int n = 0;
    Status st = get(name, data, n);
    text = static_cast<char const*>(data);
    return st;
}

TagdbCommon::Status Tagdb::get(char const* name, void const*& data, int& n) {
    TagdbRecord* rec = nullptr;
    Status st = get(name, rec);
    qk::tagdb::blobData(rec, data, n);
    return st;
}

TagdbCommon::Status Tagdb::getRef(TagdbKey& key, TagdbNodeRef& ref) {
    Status st = usable();
    return st == Ok ? current->treeGetRef(key, ref) : st;
}

TagdbCommon::Status Tagdb::getRef(char const* name, TagdbNodeRef& ref) {
    if (!name) return usable() == Ok ? Failed : usable();
    NameKey key(name);
    return getRef(key, ref);
}

// The record is the Tagdb's from here on, whatever the outcome.
TagdbCommon::Status Tagdb::set(TagdbKey& key, TagdbRecord* rec) {
    Status st = usable();
    if (st == Ok && transMode == Deferred) {
        st = current->appendLog(&key, rec);
        if (rec) rec->release();
        return st;
    }
    if (st == Ok) return current->treeSet(key, rec);
    if (rec) rec->release();
    return st;
}

TagdbCommon::Status Tagdb::set(char const* name, TagdbRecord* rec) {
    if (!name) {
        if (rec) rec->release();
        return usable() == Ok ? Failed : usable();
    }
    NameKey key(name);
    return set(key, rec);
}

TagdbCommon::Status Tagdb::set(char const* name, void const* data, int n) {
    // An open store and a transaction are checked before the arguments.
    if (usable() != Ok) return usable();
    if (n < 0 || (!data && n != 0)) return Failed;
    TagdbRecord* rec = TagdbBlobRecord::newInstance(data, n);
    if (!rec) return Failed;
    return set(name, rec);
}

TagdbCommon::Status Tagdb::set(char const* name, char const* text) {
    if (!text) return set(name, nullptr, 0);
    return set(name, text, static_cast<int>(std::strlen(text) + 1));
}
