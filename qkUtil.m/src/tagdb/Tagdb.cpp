// Tagdb: the stores it has open and the transaction that runs across them.
#include "Tagdb.h"

#include <cstring>

namespace {

// A node holds at most 512 entries on disk (the reader refuses more) and a
// split needs at least three.
int clampEntries(int me) {
    return me < 3 ? 3 : me > 512 ? 512 : me;
}

}  // namespace

Tagdb::Tagdb(int cs, int me, TagdbFile* (*factory)())
    : cacheSize(cs < 1 ? 1 : cs),
      maxEntries(clampEntries(me)),
      storeCount(0),
      depth(0),
      transMode(Update),
      current(nullptr),
      stores{},
      fileFactory(factory ? factory : TagdbLocalFile::newInstance) {}

Tagdb::~Tagdb() {
    close();
}

TagdbCommon::Status Tagdb::open(char const* name, TagdbKeyReader keyReader,
                                TagdbRecordReader recordReader, void* userData) {
    if (storeCount >= kMaxStores) return Failed;
    TagdbStore* store = TagdbStore::create(this, name, keyReader, recordReader, userData);
    if (!store) return Failed;
    stores[storeCount++] = store;
    current = store;
    return Ok;
}

TagdbCommon::Status Tagdb::activate(char const* name, int newMaxEntries) {
    current = nullptr;
    for (int i = 0; name && i < storeCount; ++i) {
        if (std::strcmp(stores[i]->name, name) == 0) {
            current = stores[i];
            break;
        }
    }
    if (newMaxEntries >= 3 && newMaxEntries <= 512) maxEntries = newMaxEntries;
    return current ? Ok : NotOpen;
}

TagdbCommon::Status Tagdb::start(TransMode mode) {
    if (!current) return NotOpen;
    if (depth) return Ok;
    transMode = mode;
    depth = 1;
    for (int i = 0; i < storeCount; ++i) {
        if (stores[i]->begin() == Failed) {
            abortStores();
            return Aborted;
        }
    }
    return Ok;
}

// Prepare every store, publish by rewriting the version files, clean up.
// Nothing the committed versions use is touched before the publication.
TagdbCommon::Status Tagdb::commit() {
    if (!current) return NotOpen;
    if (!depth) return NoTransaction;
    for (int i = 0; i < storeCount; ++i) {
        if (stores[i]->prepare() != Ok) {
            abortStores();
            return Aborted;
        }
    }
    Status published = publish();
    if (published != Ok) return published;
    for (int i = 0; i < storeCount; ++i)
        stores[i]->cleanUp();
    depth = 0;
    return Ok;
}

TagdbCommon::Status Tagdb::publish() {
    for (int i = 0; i < storeCount; ++i) {
        TagdbStore* s = stores[i];
        if (s->dirty && s->writeVersion(s->newVersion) != Ok) return rollbackPublish(i);
    }
    return Ok;
}

// Puts the old version back into the version files rewritten so far (and
// the one that failed, which may have been cut short). Every store is tried
// even after one fails, to leave as few stores moved as possible.
TagdbCommon::Status Tagdb::rollbackPublish(int failed) {
    bool restored = true;
    for (int i = 0; i <= failed; ++i) {
        TagdbStore* s = stores[i];
        if (s->dirty && s->putBackVersion() != Ok) restored = false;
    }
    if (!restored) return RollbackFailed;  // the transaction stays open
    abortStores();
    return Aborted;
}

TagdbCommon::Status Tagdb::abort() {
    if (!current) return NotOpen;
    if (!depth) return NoTransaction;
    abortStores();
    return Aborted;
}

void Tagdb::abortStores() {
    for (int i = 0; i < storeCount; ++i)
        stores[i]->abort();
    depth = 0;
}

TagdbCommon::Status Tagdb::close() {
    if (depth) abortStores();
    for (int i = 0; i < storeCount; ++i) {
        delete stores[i];
        stores[i] = nullptr;
    }
    storeCount = 0;
    current = nullptr;
    return Ok;
}
