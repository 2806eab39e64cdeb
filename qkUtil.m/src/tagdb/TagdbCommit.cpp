// TagdbStore, second part: this store's share of commit and abort, and the
// deferred log.
//
// A commit never overwrites a file that the committed version uses: changed
// nodes go to files under new node versions, the node index to N-x-V for the
// new store version V, and only then is the version file rewritten. Until
// that moment a crash or a failure leaves the committed version intact, and
// an abort removes exactly what this transaction wrote.
#include <climits>
#include <cstdio>
#include <cstring>

#include "Tagdb.h"
#include "platform/platform_file.h"
#include "qkMemory.h"

TagdbCommon::Status TagdbStore::writeVersion(int v) {
    if (file->open(versionPath(), WriteMode) != Ok) return Failed;
    Status wrote = file->writeInteger(v);
    Status closed = file->close();
    return wrote == Ok && closed == Ok ? Ok : Failed;
}

TagdbCommon::Status TagdbStore::putBackVersion() {
    if (!recreating) return writeVersion(version);
    if (recreatedOver) return writeVersion(recreatedOver);
    return file->remove(versionPath()) == Ok || file->open(versionPath(), ReadMode) != Ok ? Ok
                                                                                          : Failed;
}

TagdbCommon::Status TagdbStore::prepare() {
    if (treeFailed) return Failed;  // the tree may be half-changed: never publish it
    if (viewMoved) return Failed;   // its changes rest on a version that is gone
    // Changes made straight to the tree without the lock (getRef in Deferred
    // mode) are committed only under the lock and only over the version
    // they were made on.
    if (dirty && !locked && owner->transMode != Recreate && lockUnchanged() != Ok) return Failed;
    if (logOnDisk) {
        Status replayed = replayLog();
        if (replayed != Ok) return replayed;
    }
    if (!dirty) return Ok;
    for (LinkedList* link = lru.next(); link != &lru; link = link->next()) {
        TagdbNode* node = static_cast<TagdbCacheEntry*>(link->ref())->node;
        if (writeNode(node) != Ok) return Failed;  // skips unchanged and freed nodes
    }
    newVersion = nextVersion(version);
    if (file->open(indexPath(newVersion), WriteMode) != Ok) return Failed;
    indexWritten = 1;
    Status wrote = file->writeTagDbId(nodeCount);
    for (long long id = 0; wrote == Ok && id < nodeCount; ++id) {
        wrote = file->writeInteger(effectiveVersion(id));
    }
    Status closed = file->close();
    return wrote == Ok && closed == Ok ? Ok : Failed;
}

TagdbCommon::Status TagdbStore::lockUnchanged() {
    if (file->lock(name) != Ok) return Failed;
    locked = 1;
    int v = 0;
    return readVersionFile(v) == Ok && v == version ? Ok : Failed;
}

// Ends the log with the empty key and record, reads it back and applies
// every pair under the lock, which begin() now takes.
TagdbCommon::Status TagdbStore::replayLog() {
    Status ended = nullKey->write(&logFile);
    if (ended == Ok) ended = nullRecord->write(&logFile);
    if (logFile.close() != Ok || ended != Ok) return Failed;
    if (logFile.open(logName, ReadMode) != Ok) return Failed;
    owner->transMode = Update;
    if (begin() == Failed) return Failed;
    while (true) {
        TagdbKey* key = nullptr;
        TagdbRecord* rec = nullptr;
        if (keyReader(key, &logFile, userData) != Ok) {
            if (key) key->release();
            abort();
            return Aborted;
        }
        if (!key) break;
        if (recordReader(rec, &logFile, userData) != Ok) {
            key->release();
            if (rec) rec->release();
            abort();
            return Aborted;
        }
        Status applied = treeSet(*key, rec);  // as Tagdb::set stores a pair
        key->release();
        if (applied != Ok) return Failed;
    }
    discardLog();
    return Ok;
}

void TagdbStore::cleanUp() {
    if (dirty) {
        // Files written in this transaction for nodes that it freed.
        for (long long id = 0; id < nodeCount; ++id) {
            if (newVersions[id] < 0 && writtenFlags[id])
                file->remove(nodePath(id, newVersions[id]));
        }
    }
    if (locked && file->unlock(name) == Ok) locked = 0;
    if (dirty) {
        // An empty store has no index and no node file, and a Recreate
        // leaves the earlier content's files alone.
        if (!fresh) file->remove(indexPath(version));
        version = newVersion;
        for (long long id = 0; id < nodeCount; ++id) {
            if (!newVersions[id]) continue;
            int old = committedVersions[id];
            if (old > 0 && !fresh) file->remove(nodePath(id, old));
            committedVersions[id] = newVersions[id];
            newVersions[id] = 0;
            writtenFlags[id] = 0;
        }
        fresh = 0;
    } else if (recreating) {
        // A Recreate that changed nothing published nothing: its empty
        // tables describe no version on disk, so the next begin reloads.
        version = 0;
    }
    dirty = 0;
    endTransaction();
}

void TagdbStore::endTransaction() {
    indexWritten = 0;
    treeFailed = 0;
    viewMoved = 0;
    versionFloor = 0;
    recreating = 0;
    recreatedOver = 0;
}

TagdbCommon::Status TagdbStore::abort() {
    discardLog();
    if (dirty || recreating) {
        removeWrittenFiles();
        dropCache();
        version = 0;  // the next begin reloads the index and clears the tables
        dirty = 0;
    }
    endTransaction();
    if (locked && file->unlock(name) == Ok) locked = 0;
    return Aborted;
}

// Every file this transaction created: node files and the new index.
void TagdbStore::removeWrittenFiles() {
    for (long long id = 0; id < nodeCount; ++id) {
        if (writtenFlags[id]) file->remove(nodePath(id, newVersions[id]));
    }
    if (indexWritten) file->remove(indexPath(newVersion));
}

// ---- The deferred log -------------------------------------------------------

TagdbCommon::Status TagdbStore::appendLog(TagdbKey* key, TagdbRecord* rec) {
    if (!logOnDisk && createLog() != Ok) return Failed;
    if (!logFile.isOpen()) return Failed;
    if (!key || key->write(&logFile) != Ok) return Failed;
    return (rec ? rec : nullRecord)->write(&logFile);
}

// Each log is a new file of unique name, created exclusively and readable
// only by its owner, so no other user can place or read it.
TagdbCommon::Status TagdbStore::createLog() {
    char const* dir = qk::platform::tempDirectory();
    size_t size = std::strlen(dir) + sizeof "/tagdbXXXXXX";
    char* pattern = static_cast<char*>(qkMalloc(size, __FILE__, __LINE__));
    if (!pattern) return Failed;
    std::snprintf(pattern, size, "%s/tagdbXXXXXX", dir);
    if (logFile.openUnique(pattern) != Ok) {
        qkFree(pattern, __FILE__, __LINE__);
        return Failed;
    }
    qkFree(logName, __FILE__, __LINE__);
    logName = pattern;
    logOnDisk = 1;
    return Ok;
}

// Whatever happened to the log (a failed end mark, close or reopen), the
// file it left in the temporary directory goes.
void TagdbStore::discardLog() {
    logFile.close();
    if (!logOnDisk) return;
    logFile.remove(logName);
    logOnDisk = 0;
}
