// Tagdb: the front object of the tag database, an embedded transactional
// store of records under keys, kept in small versioned files.
//
// A Tagdb opens up to 16 stores (open), one of which is active (activate),
// and runs one transaction at a time across all of them:
//   start(Update)    takes each store's lock file and reads its version;
//   start(Deferred)  takes no lock; writes go to a log (a private file in
//                    $TMPDIR, else /tmp) that commit replays under the lock;
//   start(Recreate)  takes no lock and starts every store over, empty;
//   commit()         writes changed nodes and a new node index per store,
//                    then publishes by rewriting each store's version file,
//                    then removes superseded files and the locks;
//   abort()          removes what the transaction wrote and drops the
//                    changed nodes.
// Inside a transaction get, set and getRef read and change the active
// store's tree; TagdbItr (TagdbItr.h) walks it in key order.
// A start or commit that fails rolls back and returns Aborted; a commit whose
// rollback could not restore every version file returns RollbackFailed and
// leaves the transaction open.
//
// Ownership: the Tagdb owns its stores; close() (or the destructor) aborts
// an open transaction and destroys them. A Tagdb cannot be copied: two
// owners of one set of stores would destroy them twice.
//
// Thread-safety: none; a Tagdb is used by one thread at a time. Processes
// exclude each other through the stores' lock files.
#pragma once

#include "TagdbCommon.h"
#include "TagdbFile.h"
#include "TagdbKey.h"
#include "TagdbNode.h"
#include "TagdbStore.h"

class QK_EXPORT Tagdb : public TagdbCommon {
  public:
    static constexpr int kMaxStores = 16;

    // cacheSize: hash buckets and nodes kept in memory per store (below 1
    // counts as 1); maxEntries: most entries of a node, clamped to 3..512
    // (a node file holds at most 512 entries, and a split needs three).
    explicit Tagdb(int cacheSize = 32, int maxEntries = 512,
                   TagdbFile* (*fileFactory)() = TagdbLocalFile::newInstance);
    ~Tagdb() override;
    Tagdb(Tagdb const&) = delete;
    Tagdb& operator=(Tagdb const&) = delete;

    // Adds a store under name and makes it active; Failed with 16 open.
    // No file is touched until a transaction starts.
    Status open(char const* name, TagdbKeyReader keyReader, TagdbRecordReader recordReader,
                void* userData);
    // Makes the first store opened under name active (NotOpen and no active
    // store when there is none); a newMaxEntries of 3 to 512 also replaces
    // maxEntries.
    Status activate(char const* name, int newMaxEntries = 0);
    // A start while a transaction is open returns Ok and changes nothing.
    Status start(TransMode mode);
    Status commit();
    Status abort();
    Status close();

    // ---- Records of the active store (NotOpen without one, NoTransaction
    // outside a transaction, Failed when a node cannot be read or written) --
    // rec = the record stored under key, owned by the tree and valid until
    // the key is set again or removed or its node leaves memory; null (and
    // Ok) when the key is absent.
    Status get(TagdbKey& key, TagdbRecord*& rec);
    Status get(char const* name, TagdbRecord*& rec);
    // The record's bytes as text / as bytes and length (null, 0 without a
    // record, or for records that are not TagdbBlobRecords).
    Status get(char const* name, char const*& text);
    Status get(char const* name, void const*& data, int& n);
    // ref = the leaf entry of key, inserting key (a copy, with no record)
    // when it is absent. Changes the tree in every mode, Deferred included.
    // The reference is good until the next operation on the store: store
    // through it (ref.set) at once.
    Status getRef(TagdbKey& key, TagdbNodeRef& ref);
    Status getRef(char const* name, TagdbNodeRef& ref);
    // Stores rec under key, or deletes key when rec is null. The Tagdb takes
    // ownership of rec in every case, also when the call fails. In Deferred
    // mode the pair goes to the log and is applied at commit.
    Status set(TagdbKey& key, TagdbRecord* rec);
    Status set(char const* name, TagdbRecord* rec);
    // A copy of the n bytes (null data: a record without data, which reads
    // back as no record).
    Status set(char const* name, void const* data, int n);
    // The text with its NUL; a null text is set(name, null, 0).
    Status set(char const* name, char const* text);

    TagdbStore* getCurrent() const { return current; }
    int getStoreCount() const { return storeCount; }
    TagdbStore* getStore(int i) const { return i >= 0 && i < storeCount ? stores[i] : nullptr; }
    int inTransaction() const { return depth; }
    TransMode getTransMode() const { return transMode; }
    int getCacheSize() const { return cacheSize; }
    int getMaxEntries() const { return maxEntries; }

  protected:
    int cacheSize;
    int maxEntries;
    int storeCount;
    int depth;  // 1 while a transaction is open
    TransMode transMode;
    TagdbStore* current;
    TagdbStore* stores[kMaxStores];
    TagdbFile* (*fileFactory)();

  private:
    friend class TagdbStore;
    friend class TagdbItr;

    // NotOpen / NoTransaction as the record operations report them.
    Status usable() const;
    Status publish();
    Status rollbackPublish(int failed);
    void abortStores();
};
