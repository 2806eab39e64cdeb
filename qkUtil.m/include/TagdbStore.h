// TagdbStore: the state of one store opened by a Tagdb, and the operations
// on its files: beginning a transaction on it, committing and aborting its
// part, the deferred log, and its nodes (loading, writing, new ids, the
// node cache).
//
// Files of a store with base name N (N is used as a path):
//   N          version file: int32, the current store version
//   N-lock     lock file: exists while a process holds the store
//   N-x-V      node index of version V: int64 node count, then one int32
//              version per node id (negative: the id is free)
//   N-id-v     one node at node version v
// A store at version 1 is empty and has no index and no node file; the
// first process to find it without a version file creates one holding 1,
// exclusively, so that no process ever writes 1 over a version file another
// has created and moved on meanwhile. A change never overwrites a file the
// committed version uses: changed nodes go to new files, then a new index,
// and the commit is published by rewriting the version file last, so a
// reader that sees the new version finds every file it names. Superseded
// files are removed after that.
//
// Deferred writes go to a log in $TMPDIR (else /tmp): a file of unique name
// "tagdbXXXXXX" created exclusively (as mkstemp does) with mode 0600, a new
// one each time a transaction starts logging. Commit ends it with the empty
// key and record, replays it under the lock and removes it; abort removes it.
//
// Ownership: the store owns its name, tables, file objects, cache entries and
// its empty key and record. Nodes are held through TagdbNodeRef.
// The store is created and destroyed by its Tagdb; the tree and the
// iterators work on its fields directly.
//
// Thread-safety: none; a store belongs to its Tagdb's thread.
#pragma once

#include "LinkedList.h"
#include "TagdbFile.h"
#include "TagdbKey.h"
#include "TagdbNode.h"

class Tagdb;
class TagdbItr;

class QK_EXPORT TagdbStore : public TagdbCommon {
  public:
    static constexpr int kInitialIterators = 16;

    // A new store of owner under name with its readers; null when memory,
    // the file factory or a reader's empty instance fails.
    static TagdbStore* create(Tagdb* owner, char const* name, TagdbKeyReader keyReader,
                              TagdbRecordReader recordReader, void* userData);
    // Frees everything the store owns; closes but does not remove the
    // deferred log, and does not touch the lock file.
    ~TagdbStore() override;
    TagdbStore(TagdbStore const&) = delete;
    TagdbStore& operator=(TagdbStore const&) = delete;

    // ---- Transactions (driven by Tagdb) --------------------------------
    // Takes the lock (Update), reads the version file and, when the version
    // moved, reloads the node index and drops the nodes that changed from
    // the cache: then Restart. Ok when nothing moved, Failed on failure (a
    // reader overtaken while loading an index rereads the version first).
    Status begin();
    // Replays the deferred log, writes the changed nodes and the new index.
    Status prepare();
    // Rewrites the version file with v.
    Status writeVersion(int v);
    // After a failed publication: the version file as this transaction found
    // it (removed again when a Recreate found none).
    Status putBackVersion();
    // After publication: removes superseded files, releases the lock and
    // takes the new version as committed.
    void cleanUp();
    // Rolls this store back: removes the files this transaction wrote,
    // drops its cache if it changed, releases the lock. Returns Aborted.
    Status abort();
    // Appends (key, rec) to the deferred log (nullRecord for a null rec).
    // The caller keeps ownership of both.
    Status appendLog(TagdbKey* key, TagdbRecord* rec);

    // ---- Nodes ---------------------------------------------------------
    // newVersions[id] when non-zero, else committedVersions[id].
    int effectiveVersion(long long id) const;
    // ref = node id (from the cache or its file, then cached). A failed read
    // rereads the version file and tries again when another process moved
    // the store on. Failed when the id is out of range or the node cannot
    // be read.
    Status loadNode(long long id, TagdbNodeRef& ref);
    // Writes a modified node to the file of its effective version (a node
    // without entries is not written).
    Status writeNode(TagdbNode* node);
    // Gives the node a new version for this transaction (once) and marks it
    // and the store changed.
    void markModified(TagdbNode* node);
    // ref = a new empty leaf under a free id (the lowest at or above
    // freeHint) or a new id; not cached.
    Status newNode(TagdbNodeRef& ref);
    // Frees the node's id at commit: marks it modified, makes its new
    // version negative and lowers freeHint.
    void freeNode(TagdbNode* node);

    // ---- The node tree ---------------------------------------------------
    // The tree of the store: a B+-tree whose root is node 0. Inner entries
    // hold the greatest key of their child's subtree; the last entry of
    // every node has no key; a leaf's last entry holds the record of the key
    // stored as separator in its nearest ancestor entry with a key.
    // rec = the record under key (owned by the tree), null when absent.
    Status treeGet(TagdbKey& key, TagdbRecord*& rec);
    // ref = the leaf entry of key, inserted (a copy, no record) if absent.
    Status treeGetRef(TagdbKey& key, TagdbNodeRef& ref);
    // Stores rec (taking it over) or, for a null rec, deletes key.
    Status treeSet(TagdbKey& key, TagdbRecord* rec);
    // The position of key in node n searched with tie value `tie` taking the
    // place of an equal comparison (0: find the key, 1: go past it); found
    // is set when an entry compared equal. A node of one entry gives 0.
    static int search(TagdbNode* n, TagdbKey& key, int tie, int& found);
    // The separators that bound a subtree, held from the nodes on the path
    // above it: every key below lies above `low` and below `high` (an empty
    // reference bounds nothing on that side).
    struct Bounds {
        TagdbNodeRef low, high;
    };
    // ref = the child of inner node n at pos, and `bounds` (n's on entry)
    // become the child's. Failed when it cannot be loaded, is not one level
    // below n, or, read from its file just now, holds a key outside its
    // bounds or, a leaf at the end of the tree, a record in its last entry
    // (a damaged store). Restart when the store moved on to a newer
    // version while the child was loaded: n and the path above it are of
    // the older version and may no longer lead to the keys sought, so the
    // descent starts over from the root.
    Status loadChild(TagdbNode* n, int pos, TagdbNodeRef& ref, Bounds& bounds);
    // ref = the root; Failed when its level is beyond any reachable height,
    // or when it is a leaf whose last entry (the end of the tree) holds a
    // record.
    Status loadRoot(TagdbNodeRef& ref);
    // One descent from the root to the leaf entry of the first key >= key
    // (tie 0) or > key (tie 1): leaf = that entry, found = an entry compared
    // equal on the way, parent (when given) = the last inner entry with a
    // key on the path, which holds the greatest key of the leaf. leaf and
    // parent are released first. Restart as loadChild; run it in descend.
    Status findLeaf(TagdbKey& key, int tie, TagdbNodeRef& leaf, TagdbNodeRef* parent, int& found);
    // A root splits only when full, so each level of height at least doubles
    // the keys ever inserted: a root level above this can only come from a
    // damaged file, and refusing it bounds every descent.
    static constexpr int kMaxHeight = 64;
    // Store and node versions grow by one per change and continue at 2
    // rather than pass the int32 maximum (1 is the empty store's).
    static int nextVersion(int v) { return v >= 0x7fffffff ? 2 : v + 1; }
    // Runs descent() again while it returns Restart, 100 times at most; a
    // reader overtaken again and again then gets Failed.
    template <class Descent>
    static Status descend(Descent descent) {
        Status st = Restart;
        for (int attempt = 0; st == Restart && attempt < 100; ++attempt)
            st = descent();
        return st == Restart ? Failed : st;
    }
    // How many node indexes the store has taken over: a walk that sees it
    // change holds nodes of more than one version.
    int reloadCount() const { return reloads; }
    // Whether the last node refused by a load was read whole but broke the
    // order of its keys (rather than missing, short or out of range).
    bool lastRefusalWasDisorder() const { return disorderRefused; }

    // ---- Node cache ----------------------------------------------------
    // The cached node with id (moved to the front of the recency list), or null.
    TagdbNode* cacheLookup(long long id);
    // Caches node (or moves it to the front), then evicts from the back
    // while more than cacheSize are cached, at most 10: a modified node is
    // written first (Failed leaves it cached).
    Status cacheInsert(TagdbNode* node);
    // Moves a cached node to the front, or inserts it.
    Status cacheTouch(TagdbNode* node);
    void cacheRemove(long long id);
    void dropCache();

    // ---- Iterators -----------------------------------------------------
    Status addIterator(TagdbItr* itr);
    void removeIterator(TagdbItr* itr);
    // Detaches the iterators that stand on node nodeId before it changes
    // shape or leaves memory.
    void detachIterators(long long nodeId);

    // ---- File names, composed in pathBuffer ------------------------------
    char const* versionPath();
    char const* indexPath(int v);
    char const* nodePath(long long id, int v);

    Tagdb* owner;
    char* name;
    TagdbKeyReader keyReader;
    TagdbRecordReader recordReader;
    void* userData;
    char* pathBuffer;  // strlen(name) + 32 bytes
    int version;       // version the tables reflect; 0 unknown, 1 new and empty
    int newVersion;    // version being committed
    long long capacity;
    long long nodeCount;
    long long freeHint;  // no id below it is free
    int* committedVersions;
    int* newVersions;
    int* writtenFlags;
    int locked;
    int dirty;
    LinkedList* cacheBuckets;  // cacheSize chains
    LinkedList lru;            // most recent first
    int cachedCount;
    char* logName;
    TagdbFile* file;
    TagdbKey* nullKey;
    TagdbRecord* nullRecord;
    TagdbLocalFile logFile;
    TagdbItr** iterators;
    int iteratorCount;
    int iteratorCapacity;

  private:
    TagdbStore(Tagdb* owner, TagdbKeyReader keyReader, TagdbRecordReader recordReader,
               void* userData);

    int cacheSize() const;
    Status readVersionFile(int& v);
    // Creates the version file holding 1 unless one exists (then Failed,
    // and the file is left as it is).
    Status createVersionFile();
    Status reloadIndex(int v);
    void dropMoved(int const* oldVersions, long long oldCount);
    Status readNode(TagdbNode* node);
    Status readEntries(TagdbNode* node);
    static bool entriesInOrder(TagdbNode const* node);
    static bool withinBounds(TagdbNode const* node, Bounds& bounds);
    // A leaf whose last entry holds a record: only a leaf below a separator
    // may, since that record belongs to the separator's key.
    static bool endHoldsRecord(TagdbNode const* node);
    TagdbCacheEntry* evictionVictim();
    Status evict(TagdbCacheEntry* entry);
    bool growTables();
    Status replayLog();
    // Takes the lock for a commit of changes made without it (Deferred mode)
    // and checks that no other process committed meanwhile.
    Status lockUnchanged();
    Status insertBelow(TagdbNode* x, Bounds& bounds, TagdbKey& key, int found, TagdbNodeRef& ref,
                       TagdbKey*& sep, TagdbNodeRef& sibling);
    Status insertEntry(TagdbNode* x, int i, TagdbKey* key, long long value, TagdbNodeRef* ref,
                       TagdbKey*& sep, TagdbNodeRef& sibling);
    Status splitNode(TagdbNode* x, int i, TagdbNodeRef* ref, TagdbKey*& sep, TagdbNodeRef& sibling);
    Status growRoot(TagdbNode* oldRoot, TagdbKey* sep, TagdbNode* sibling);
    Status removeKey(TagdbKey& key);
    void deleteEntry(TagdbCacheEntry* entry);
    Status createLog();
    void discardLog();
    void removeWrittenFiles();

    Status beginRecreate();
    void endTransaction();
    int highestVersionOnDisk();

    int indexWritten;      // this transaction wrote N-x-newVersion
    int treeFailed;        // a tree change failed part-way: commit must not publish
    int reloads;           // node indexes taken over (reloadIndex)
    long long nodeReads;   // nodes read from their files (a cache miss)
    bool disorderRefused;  // see lastRefusalWasDisorder
    // The tables describe an empty store whose root has no file: version 1,
    // or a Recreate.
    int fresh;
    // A Recreate numbers every node and the store above this version, the
    // highest any file of the store already carries, so that it never
    // writes, and an abort never removes, a file of the earlier content.
    int versionFloor;
    int recreating;     // this transaction is a Recreate of the store
    int recreatedOver;  // the published version it started over (0: none)
    // Another process committed while this transaction held changes made
    // without the lock: its view is gone and its commit must fail.
    int viewMoved;
    int logOnDisk;  // logName names a log of this transaction still on disk
};
