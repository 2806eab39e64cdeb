// TagdbItr: walks the entries of a store in ascending key order, restricted
// to the keys a prefix key matches (for string keys: the keys that begin
// with a text), and reads, replaces or deletes the entry it stands on.
//
//   TagdbItr it(&db, "user/");
//   int more = 0;
//   while (it.next(more) == TagdbCommon::Ok && more) { it.getKey(); it.get(rec); }
//
// An iterator is bound to the store that was active when it was made and
// registers with it. When the node it stands on changes shape (an insertion
// or removal shifts its entries) or leaves the cache, the iterator keeps a
// copy of its current key and resumes at the first key after it: keys
// inserted behind that point are visited, keys at or before it are not
// visited again. Entries without a record are skipped.
//
// Ownership: the iterator owns its prefix key when it made or copied it, and
// its saved key; keys and records it hands out belong to the tree and stay
// valid until the next change of the store. A copy is independent: it
// registers itself and copies the keys it owns.
// It may outlive its store (after Tagdb::close every operation returns
// NotOpen), but not its Tagdb.
//
// Thread-safety: none; an iterator belongs to its Tagdb's thread.
#pragma once

#include "Tagdb.h"

class QK_EXPORT TagdbItr : public TagdbNodeRef {
  public:
    // Visits the keys that key matches; copy = True iterates over a copy of
    // key, otherwise key must outlive the iterator.
    TagdbItr(Tagdb* db, TagdbKey& key, Boolean copy);
    // Visits the string keys that begin with prefix (every key for a null or
    // empty prefix).
    TagdbItr(Tagdb* db, char const* prefix);
    TagdbItr(TagdbItr const& other);
    TagdbItr& operator=(TagdbItr const& other);
    ~TagdbItr() override;

    // Moves to the next entry with a record: more = 1 when there is one,
    // 0 at the end (and after it). NotOpen without a store, NoTransaction
    // outside a transaction, Failed when a node cannot be read.
    Status next(int& more);
    // The current key (owned by the tree or the iterator), or null.
    TagdbKey* getKey();
    // The current entry's record (null when not positioned); always Ok.
    Status get(TagdbRecord*& rec);
    // The record's bytes as text / as bytes and length (null, 0 without).
    Status get(char const*& text);
    Status get(void const*& data, int& n);
    // Replaces (rec non-null) or deletes (null) the current entry, taking
    // over rec. After a delete, next() moves to the entry that followed.
    // In Deferred mode the change goes to the log, as Tagdb::set's do.
    Status set(TagdbRecord* rec);
    // A copy of the n bytes; null data deletes the entry.
    Status set(void const* data, int n);
    // The text with its NUL; a null text deletes the entry.
    Status set(char const* text);

  protected:
    // Detaches the iterator when it stands on node nodeId (or its parent
    // entry does) and is neither busy nor detached.
    void restartIterator(long long nodeId);

    Tagdb* tagdb;
    TagdbStore* store;
    TagdbNodeRef parent;  // last inner entry with a key on the path: the leaf's greatest key
    TagdbKey* prefixKey;
    int ownsKey;
    int busy;            // the iterator is changing its own node
    int detached;        // the position is held only as savedKey
    TagdbKey* savedKey;  // detached: where to resume; attached: the key just deleted

  private:
    int finished;  // the range has been walked to its end
    friend class TagdbStore;

    void bind(Tagdb* db);
    Status usable() const;
    // Drops the position (node and parent).
    void unposition();
    // The store is going away: let go of everything that belongs to it.
    void orphan();
    Status seek(TagdbKey* key, int tie);
    Status advance();
    Status walkBroken();
    TagdbKey* currentKey();
    void detach();
    // Stands on savedKey again, when it is still in the tree.
    Status reposition();
    Status remove();
};
