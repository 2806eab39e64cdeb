// TagdbItr: prefix iteration over a store's tree, with replacement and
// deletion of the current entry, and resumption after a saved key when the
// iterator loses its place.
//
// Position: the leaf entry (node, index) and `parent`, the last inner entry
// with a key on the path. The current key is the entry's own key, or for a
// leaf's last entry the key held in `parent`. Moving past a leaf's last
// entry is a new descent from the root to the first key above the current
// one, so the walk never depends on links between leaves.
#include "TagdbItr.h"

#include <cstring>
#include <utility>

#include "tagdb/TagdbBlob.h"

TagdbItr::TagdbItr(Tagdb* db, TagdbKey& key, Boolean copy)
    : tagdb(db),
      store(nullptr),
      prefixKey(copy ? key.copy() : &key),
      ownsKey(copy ? 1 : 0),
      busy(0),
      detached(0),
      savedKey(nullptr),
      finished(0) {
    bind(db);
}

TagdbItr::TagdbItr(Tagdb* db, char const* prefix)
    : tagdb(db),
      store(nullptr),
      prefixKey(TagdbStringKey::newInstance(prefix ? prefix : "")),
      ownsKey(1),
      busy(0),
      detached(0),
      savedKey(nullptr),
      finished(0) {
    bind(db);
}

TagdbItr::TagdbItr(TagdbItr const& other)
    : TagdbNodeRef(other),
      tagdb(other.tagdb),
      store(nullptr),
      parent(other.parent),
      prefixKey(other.ownsKey && other.prefixKey ? other.prefixKey->copy() : other.prefixKey),
      ownsKey(other.ownsKey),
      busy(0),
      detached(other.detached),
      savedKey(other.savedKey ? other.savedKey->copy() : nullptr),
      finished(other.finished) {
    if (other.store && prefixKey && other.store->addIterator(this) == Ok) store = other.store;
    if (!store) unposition();
}

TagdbItr& TagdbItr::operator=(TagdbItr const& other) {
    if (this == &other) return *this;
    if (store != other.store) {
        if (store) store->removeIterator(this);
        store = nullptr;
        if (other.store && other.store->addIterator(this) == Ok) store = other.store;
    }
    TagdbKey* prefix = other.ownsKey && other.prefixKey ? other.prefixKey->copy() : other.prefixKey;
    TagdbKey* saved = other.savedKey ? other.savedKey->copy() : nullptr;
    if (ownsKey && prefixKey) prefixKey->release();
    if (savedKey) savedKey->release();
    tagdb = other.tagdb;
    prefixKey = prefix;
    ownsKey = other.ownsKey;
    savedKey = saved;
    detached = other.detached;
    finished = other.finished;
    busy = 0;
    TagdbNodeRef::operator=(other);
    parent = other.parent;
    if (!store || !prefixKey) unposition();
    return *this;
}

TagdbItr::~TagdbItr() {
    if (store) store->removeIterator(this);
    unposition();
    if (ownsKey && prefixKey) prefixKey->release();
    if (savedKey) savedKey->release();
}

void TagdbItr::bind(Tagdb* db) {
    store = db && prefixKey ? db->getCurrent() : nullptr;
    if (store && store->addIterator(this) != Ok) store = nullptr;
}

TagdbCommon::Status TagdbItr::usable() const {
    if (!store || !prefixKey) return NotOpen;
    if (!tagdb->inTransaction()) return NoTransaction;
    return Ok;
}

void TagdbItr::unposition() {
    parent.release();
    release();
}

void TagdbItr::orphan() {
    unposition();
    store = nullptr;
}

// An attached iterator with a saved key has just deleted that key and stands
// on the entry before it; the deleted key is its position.
TagdbKey* TagdbItr::currentKey() {
    if (detached || savedKey) return savedKey;
    if (!node) return nullptr;
    if (index < node->count - 1) return node->keys[index];
    return parent.node ? parent.node->keys[parent.index] : nullptr;
}

TagdbKey* TagdbItr::getKey() {
    return currentKey();
}

// ---- Moving -----------------------------------------------------------------

// Descends to the first key >= key (tie 0) or > key (tie 1). The iterator is
// busy meanwhile: the loads on the way may evict the nodes it is passing,
// and it must not detach from a position it is still building. When the
// store moves on to a newer version under the descent, it starts over.
TagdbCommon::Status TagdbItr::seek(TagdbKey* key, int tie) {
    busy = 1;
    int found = 0;
    Status st =
        TagdbStore::descend([&] { return store->findLeaf(*key, tie, *this, &parent, found); });
    busy = 0;
    if (st != Ok) unposition();
    return st;
}

// Moves past the current entry; unpositioned at the end of the tree.
TagdbCommon::Status TagdbItr::advance() {
    if (index < node->count - 1) {
        ++index;
        return Ok;
    }
    if (!parent.node) {  // the end entry of the tree
        unposition();
        return Ok;
    }
    // Holding parent's node keeps its key alive while the seek lets go.
    TagdbNodeRef from(parent);
    TagdbKey* key = from.key();
    Status st = seek(key, 1);
    if (st != Ok) return st;
    TagdbKey* now = currentKey();
    int c = now ? now->compare(key) : 0;
    if (c < 0) return walkBroken();
    if (c == 0) unposition();
    return Ok;
}

// A seek for the first key above K landed at or below K: the nodes on the
// way are not in order (damage, or keys whose order changed). Going on
// could visit the same keys for ever, so the walk ends here, failed.
TagdbCommon::Status TagdbItr::walkBroken() {
    unposition();
    if (savedKey) savedKey->release();
    savedKey = nullptr;
    detached = 0;
    finished = 1;
    return Failed;
}

TagdbCommon::Status TagdbItr::next(int& more) {
    more = 0;
    Status st = usable();
    if (st != Ok || finished) return st;
    if (detached && !savedKey) {  // lost its place without a key to resume from
        finished = 1;
        return Ok;
    }
    if (detached) {
        st = seek(savedKey, 1);
        if (st != Ok) return st;  // still detached: the next call tries again
        detached = 0;
        TagdbKey* left = std::exchange(savedKey, nullptr);
        TagdbKey* now = currentKey();
        bool behind = now && now->compare(left) <= 0;  // must land above the key it left
        left->release();
        if (behind) return walkBroken();
    } else if (!node) {
        st = seek(prefixKey, 0);
    } else {
        st = advance();
        if (st == Ok && savedKey) {  // past the deleted key now
            savedKey->release();
            savedKey = nullptr;
        }
    }
    while (st == Ok && node) {
        TagdbKey* key = currentKey();
        if (!key || !prefixKey->match(key)) break;
        if (node->values[index].record) {
            more = 1;
            return Ok;
        }
        st = advance();  // an entry without a record: skipped
    }
    if (st != Ok) return st;
    unposition();
    finished = 1;
    return Ok;
}

// ---- Losing and finding the place -------------------------------------------

void TagdbItr::restartIterator(long long nodeId) {
    if (busy || detached) return;
    if ((node && node->id == nodeId) || (parent.node && parent.node->id == nodeId)) detach();
}

void TagdbItr::detach() {
    if (!detached && savedKey) {  // resume after the key it deleted
        detached = 1;
        unposition();
        return;
    }
    TagdbKey* key = currentKey();
    TagdbKey* copy = key ? key->copy() : nullptr;
    if (savedKey) savedKey->release();
    savedKey = copy;
    detached = 1;
    unposition();
}

TagdbCommon::Status TagdbItr::reposition() {
    TagdbKey* key = savedKey;
    if (!key) return Failed;
    savedKey = nullptr;
    detached = 0;
    Status st = seek(key, 0);
    if (st == Ok && (!currentKey() || currentKey()->compare(key) != 0)) st = Failed;
    if (st != Ok) {
        unposition();
        detached = 1;
        savedKey = key;
        return Failed;
    }
    key->release();
    return Ok;
}

// ---- Reading and changing the current entry ----------------------------------

TagdbCommon::Status TagdbItr::get(TagdbRecord*& rec) {
    rec = nullptr;
    if (detached && usable() == Ok && !finished) reposition();
    if (node && !detached && !savedKey) rec = node->values[index].record;
    return Ok;
}

TagdbCommon::Status TagdbItr::get(char const*& text) {
    void const* data = nullptr;
    int n = 0;
    get(data, n);
    text = static_cast<char const*>(data);
    return Ok;
}

TagdbCommon::Status TagdbItr::get(void const*& data, int& n) {
    TagdbRecord* rec = nullptr;
    get(rec);
    qk::tagdb::blobData(rec, data, n);
    return Ok;
}

TagdbCommon::Status TagdbItr::set(TagdbRecord* rec) {
    Status st = usable();
    TagdbKey* key = st == Ok ? currentKey() : nullptr;
    if (st == Ok && (!key || (!detached && savedKey))) st = Failed;  // not on an entry
    if (st == Ok && tagdb->getTransMode() == Deferred) {
        st = store->appendLog(key, rec);
    } else if (st == Ok && (!detached || reposition() == Ok)) {
        // An attached iterator's node is cached (eviction detaches it first);
        // the change itself moves the node to the front of the cache.
        if (rec) return TagdbNodeRef::set(rec);
        return remove();
    } else if (st == Ok) {
        st = Failed;  // the entry has gone
    }
    if (rec) rec->release();
    return st;
}

// Deletes the current entry so that next() lands on the one that followed.
TagdbCommon::Status TagdbItr::remove() {
    if (index < node->count - 1) {
        if (index == 0) {
            // No entry before it to stand on: resume after the deleted key.
            TagdbNodeRef entry(*this);
            detach();
            return entry.remove();
        }
        // The entry before becomes the position, so next() lands on the one
        // that moves into this place; the deleted key is kept as the place
        // to resume from should the iterator be detached before that.
        TagdbKey* gone = node->keys[index]->copy();
        if (!gone) return Failed;
        busy = 1;
        Status st = TagdbNodeRef::remove();
        --index;
        busy = 0;
        savedKey = gone;
        return st;
    }
    // The leaf's last entry: the removal moves the separator in parent (or
    // frees the leaf); the iterator resumes after the key it stood on.
    TagdbNodeRef entry(*this), above(parent);
    detach();
    return entry.remove(above);
}

TagdbCommon::Status TagdbItr::set(void const* data, int n) {
    if (!data) return set(static_cast<TagdbRecord*>(nullptr));
    if (n < 0) return Failed;
    TagdbRecord* rec = TagdbBlobRecord::newInstance(data, n);
    return rec ? set(rec) : Failed;
}

TagdbCommon::Status TagdbItr::set(char const* text) {
    if (!text) return set(static_cast<TagdbRecord*>(nullptr));
    return set(text, static_cast<int>(std::strlen(text) + 1));
}
