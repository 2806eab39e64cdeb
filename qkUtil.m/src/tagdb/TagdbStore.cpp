// TagdbStore, first part: construction and destruction, file names, and
// beginning a transaction on the store (lock, version file, node index).
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "Tagdb.h"
#include "TagdbItr.h"
#include "platform/platform.h"
#include "platform/platform_file.h"
#include "qkMemory.h"

namespace {

// The version file is reread this many times (20 ms apart) before a begin
// gives up: a writer truncates and rewrites it, so a reader may see it empty.
// The fuzz build does not pause: its targets are alone on their stores, and
// an unreadable version file would otherwise cost every such input 2 seconds.
#ifndef QK_TAGDB_VERSION_RETRY_MS
#define QK_TAGDB_VERSION_RETRY_MS 20
#endif
constexpr int kVersionAttempts = 100;
constexpr unsigned kVersionRetryMs = QK_TAGDB_VERSION_RETRY_MS;

void pauseBeforeRetry() {
    if (kVersionRetryMs > 0) qk::platform::sleepMs(kVersionRetryMs);
}

// The three tables of a node index, read before they replace the store's.
struct IndexTables {
    long long count = 0;
    long long capacity = 0;
    long long freeHint = 0;
    int* committed = nullptr;
    int* fresh = nullptr;
    int* written = nullptr;

    void free() {
        qkFree(committed, __FILE__, __LINE__);
        qkFree(fresh, __FILE__, __LINE__);
        qkFree(written, __FILE__, __LINE__);
        committed = fresh = written = nullptr;
    }
    // Sizes all three tables to `capacity`: `committed` keeps its first
    // `count` entries, everything else is zero.
    bool allocate() {
        size_t bytes = static_cast<size_t>(capacity) * sizeof(int);
        void* grown = qkRealloc(committed, bytes, __FILE__, __LINE__);
        if (!grown) return false;
        committed = static_cast<int*>(grown);
        std::memset(committed + count, 0, bytes - static_cast<size_t>(count) * sizeof(int));
        fresh = static_cast<int*>(
            qkCalloc(static_cast<size_t>(capacity), sizeof(int), __FILE__, __LINE__));
        written = static_cast<int*>(
            qkCalloc(static_cast<size_t>(capacity), sizeof(int), __FILE__, __LINE__));
        return fresh && written;
    }
};

}  // namespace

TagdbStore::TagdbStore(Tagdb* db, TagdbKeyReader kr, TagdbRecordReader rr, void* ud)
    : owner(db),
      name(nullptr),
      keyReader(kr),
      recordReader(rr),
      userData(ud),
      pathBuffer(nullptr),
      version(0),
      newVersion(0),
      capacity(0),
      nodeCount(0),
      freeHint(0),
      committedVersions(nullptr),
      newVersions(nullptr),
      writtenFlags(nullptr),
      locked(0),
      dirty(0),
      cacheBuckets(nullptr),
      cachedCount(0),
      logName(nullptr),
      file(nullptr),
      nullKey(nullptr),
      nullRecord(nullptr),
      iterators(nullptr),
      iteratorCount(0),
      iteratorCapacity(0),
      indexWritten(0),
      treeFailed(0),
      reloads(0),
      nodeReads(0),
      disorderRefused(false),
      fresh(0),
      versionFloor(0),
      recreating(0),
      recreatedOver(0),
      viewMoved(0),
      logOnDisk(0) {}

TagdbStore* TagdbStore::create(Tagdb* db, char const* storeName, TagdbKeyReader kr,
                               TagdbRecordReader rr, void* ud) {
    if (!db || !storeName || !kr || !rr) return nullptr;
    TagdbStore* s = new (std::nothrow) TagdbStore(db, kr, rr, ud);
    if (!s) return nullptr;
    s->name = qkStrdup(storeName, __FILE__, __LINE__);
    s->pathBuffer = static_cast<char*>(qkMalloc(std::strlen(storeName) + 32, __FILE__, __LINE__));
    s->file = db->fileFactory();
    s->cacheBuckets = new (std::nothrow) LinkedList[s->cacheSize()];
    s->iterators = static_cast<TagdbItr**>(
        qkMalloc(kInitialIterators * sizeof(TagdbItr*), __FILE__, __LINE__));
    s->iteratorCapacity = s->iterators ? kInitialIterators : 0;
    bool ok = s->name && s->pathBuffer && s->file && s->cacheBuckets && s->iterators;
    ok = ok && kr(s->nullKey, nullptr, ud) == Ok && s->nullKey;
    ok = ok && rr(s->nullRecord, nullptr, ud) == Ok && s->nullRecord;
    if (!ok) {
        delete s;
        return nullptr;
    }
    return s;
}

TagdbStore::~TagdbStore() {
    // Iterators may outlive the store: they let go of its nodes now and
    // report NotOpen from here on.
    for (int i = 0; i < iteratorCount; ++i)
        iterators[i]->orphan();
    iteratorCount = 0;
    dropCache();
    delete[] cacheBuckets;
    qkFree(name, __FILE__, __LINE__);
    qkFree(pathBuffer, __FILE__, __LINE__);
    qkFree(committedVersions, __FILE__, __LINE__);
    qkFree(newVersions, __FILE__, __LINE__);
    qkFree(writtenFlags, __FILE__, __LINE__);
    qkFree(logName, __FILE__, __LINE__);
    qkFree(iterators, __FILE__, __LINE__);
    delete file;
    if (nullKey) nullKey->release();
    if (nullRecord) nullRecord->release();
    logFile.close();
}

int TagdbStore::cacheSize() const {
    return owner->cacheSize > 0 ? owner->cacheSize : 1;
}

// ---- File names -------------------------------------------------------------

char const* TagdbStore::versionPath() {
    std::snprintf(pathBuffer, std::strlen(name) + 32, "%s", name);
    return pathBuffer;
}

char const* TagdbStore::indexPath(int v) {
    std::snprintf(pathBuffer, std::strlen(name) + 32, "%s-x-%d", name, v);
    return pathBuffer;
}

// The magnitude of v: a negative version names the id's last file.
char const* TagdbStore::nodePath(long long id, int v) {
    long long magnitude = v < 0 ? -static_cast<long long>(v) : v;
    std::snprintf(pathBuffer, std::strlen(name) + 32, "%s-%lld-%lld", name, id, magnitude);
    return pathBuffer;
}

// ---- Begin ------------------------------------------------------------------

TagdbCommon::Status TagdbStore::begin() {
    if (owner->transMode == Recreate) return beginRecreate();
    if (owner->transMode == Update && !locked) {
        if (file->lock(name) != Ok) return Failed;
        locked = 1;
    }
    int old = version;
    int v = 1;
    if (readVersionFile(v) != Ok) return Failed;
    if (v != old && dirty) {
        // Changes of this transaction rest on the old version's tables: a
        // reload would give their nodes versions (and file names) of the new
        // one. Keep them apart; the commit will fail.
        viewMoved = 1;
        return Failed;
    }
    for (int attempt = 1;; ++attempt) {
        if (v == old) return Ok;  // the cache stays valid
        if (reloadIndex(v) == Ok) {
            version = v;
            return Restart;
        }
        // A reader without the lock may have been overtaken: the index of
        // the version it read is already superseded and removed. Only an
        // index that fails while the version stays put is broken.
        int again = 0;
        if (attempt >= kVersionAttempts || readVersionFile(again) != Ok || again == v) break;
        v = again;
    }
    // The tables still describe the old version; forget which one, so that
    // the next begin reloads.
    version = 0;
    return Failed;
}

// A Recreate starts the store over, empty, without the lock and without
// reading the earlier content. Its nodes and its index are numbered above
// every version the store's files carry, so nothing it writes or removes
// (on eviction, abort or failure) is a file of the earlier content, and its
// commit publishes a version that every reader sees as new.
TagdbCommon::Status TagdbStore::beginRecreate() {
    int floor = highestVersionOnDisk();
    int published = 0;
    if (file->open(versionPath(), ReadMode) == Ok) {
        Status got = file->readInteger(published);
        if (file->close() != Ok || got != Ok || published < 1) published = 0;
    }
    // A failed publication must be able to put the earlier version back: a
    // store with files whose version cannot be read is not started over.
    if (!published && floor > 0) return Failed;
    if (reloadIndex(1) != Ok) return Failed;
    dropCache();  // cached nodes of the earlier content are not this store's
    if (published > floor) floor = published;
    recreating = 1;
    recreatedOver = published;
    versionFloor = floor;
    version = floor >= 1 ? floor : 1;  // the commit publishes version + 1
    return Restart;
}

namespace {

// Parses "<digits>-<digits>" or "x-<digits>" (what follows "N-" in the
// name of a node or index file) into its version; 0 when it is neither.
int versionInName(char const* rest) {
    char const* p = rest;
    if (*p == 'x') {
        ++p;
    } else {
        if (*p < '0' || *p > '9') return 0;
        while (*p >= '0' && *p <= '9')
            ++p;
    }
    if (*p++ != '-' || *p < '0' || *p > '9') return 0;
    long long v = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        v = v * 10 + (*p - '0');
        if (v > INT_MAX) return INT_MAX;
    }
    return *p ? 0 : static_cast<int>(v);
}

struct VersionScan {
    char const* base;
    size_t baseLength;
    int highest;
};

void scanName(char const* entry, void* ctx) {
    VersionScan* scan = static_cast<VersionScan*>(ctx);
    if (std::strncmp(entry, scan->base, scan->baseLength) != 0 || entry[scan->baseLength] != '-')
        return;
    int v = versionInName(entry + scan->baseLength + 1);
    if (v > scan->highest) scan->highest = v;
}

}  // namespace

// The highest version named by a node or index file of this store, leftovers
// of crashed transactions included; 0 when there is none.
int TagdbStore::highestVersionOnDisk() {
    char const* slash = std::strrchr(name, '/');
    VersionScan scan{slash ? slash + 1 : name, 0, 0};
    scan.baseLength = std::strlen(scan.base);
    if (!slash) {
        qk::platform::listDirectory(".", scanName, &scan);
        return scan.highest;
    }
    size_t dirLength = slash == name ? 1 : static_cast<size_t>(slash - name);
    std::snprintf(pathBuffer, std::strlen(name) + 32, "%.*s", static_cast<int>(dirLength), name);
    qk::platform::listDirectory(pathBuffer, scanName, &scan);
    return scan.highest;
}

// Reads the store version from the version file. A store without one is
// new: its version file is created holding 1 (createVersionFile), and the
// file then in place is read, whoever made it. A file just created is empty
// until its creator has written it, so a reader may find it empty for a
// moment; such reads are tried again.
TagdbCommon::Status TagdbStore::readVersionFile(int& v) {
    for (int attempt = 0; attempt < kVersionAttempts; ++attempt) {
        if (file->open(versionPath(), ReadMode) != Ok) {
            Status created = createVersionFile();
            if (file->open(versionPath(), ReadMode) != Ok) {
                // Neither found nor made: the store cannot be reached (a
                // missing directory, no permission, or a failing file system).
                if (created != Ok) return Failed;
                pauseBeforeRetry();
                continue;
            }
        }
        int read = 0;
        Status got = file->readInteger(read);
        if (file->close() == Ok && got == Ok && read >= 1) {
            v = read;
            return Ok;
        }
        pauseBeforeRetry();
    }
    return Failed;
}

// Makes the version file of a new store, holding 1, only where there is
// none. Several processes may find the store without a version file at
// once; one of them creates it, and a writer may then commit (publishing
// version 2, 3, ...) before the others get round to making theirs. A file
// written over unconditionally would put the store back to 1 under
// everyone's feet: those commits lost, and readers seeing an empty store
// after a full one. An open
// that failed for a passing reason while the file exists lands here too,
// and must equally leave the file alone. Exclusive creation does both: it
// fails, touching nothing, wherever a version file is already in place.
// (A file whose write fails stays, possibly empty, rather than be removed:
// a close that reports failure may have written it whole, and another
// process may already have read it and published over it.)
TagdbCommon::Status TagdbStore::createVersionFile() {
    if (file->open(versionPath(), CreateMode) != Ok) return Failed;
    Status wrote = file->writeInteger(1);
    Status closed = file->close();
    return wrote == Ok && closed == Ok ? Ok : Failed;
}

// Loads the node index of version v into new tables, which replace the
// store's only when the whole index was read. Version 1 is the empty store:
// one node, the root, with no file.
TagdbCommon::Status TagdbStore::reloadIndex(int v) {
    IndexTables t;
    if (v == 1) {
        t.count = 1;
        t.capacity = 16;
        if (!t.allocate()) {
            t.free();
            return Failed;
        }
        t.committed[0] = 1;
        t.freeHint = 1;
    } else {
        if (file->open(indexPath(v), ReadMode) != Ok) return Failed;
        long long count = 0;
        Status st = file->readTagDbId(count);
        if (st == Ok && count < 1) st = Failed;  // there is always a root
        t.freeHint = count;
        // The table grows as entries arrive, so that a corrupt count costs
        // no more than the file really holds.
        for (long long id = 0; st == Ok && id < count; ++id) {
            if (id >= t.capacity) {
                t.capacity = t.capacity ? t.capacity * 2 : 64;
                if (t.capacity > count) t.capacity = count;
                void* grown = qkRealloc(t.committed, static_cast<size_t>(t.capacity) * sizeof(int),
                                        __FILE__, __LINE__);
                if (!grown) {
                    st = Failed;
                    break;
                }
                t.committed = static_cast<int*>(grown);
            }
            st = file->readInteger(t.committed[id]);
            if (st == Ok && t.committed[id] < 0 && t.freeHint == count) t.freeHint = id;
        }
        Status closed = file->close();
        if (st == Ok && closed == Ok) {
            // count is now bounded by the size of the file just read.
            t.count = count;
            t.capacity = 2 * count + 2;
        }
        if (st != Ok || closed != Ok || !t.allocate()) {
            t.free();
            return Failed;
        }
    }
    int* oldVersions = committedVersions;
    long long oldCount = nodeCount;
    committedVersions = t.committed;
    qkFree(newVersions, __FILE__, __LINE__);
    newVersions = t.fresh;
    qkFree(writtenFlags, __FILE__, __LINE__);
    writtenFlags = t.written;
    nodeCount = t.count;
    capacity = t.capacity;
    freeHint = t.freeHint;
    fresh = v == 1;
    recreating = 0;
    versionFloor = 0;
    recreatedOver = 0;
    dropMoved(oldVersions, oldCount);
    qkFree(oldVersions, __FILE__, __LINE__);
    ++reloads;
    return Ok;
}

// Drops from the cache every node whose committed version differs between
// the old table and the new one (all of them without an old table).
void TagdbStore::dropMoved(int const* oldVersions, long long oldCount) {
    LinkedList* link = lru.next();
    while (link != &lru) {
        LinkedList* following = link->next();
        TagdbCacheEntry* entry = static_cast<TagdbCacheEntry*>(link->ref());
        long long id = entry->node->id;
        bool same = oldVersions && id < oldCount && id < nodeCount &&
                    oldVersions[id] == committedVersions[id];
        if (!same) deleteEntry(entry);
        link = following;
    }
}
