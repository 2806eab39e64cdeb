// TagdbStore, fourth part: the node cache. Nodes are found by hashing their
// id into cacheSize bucket chains; a recency list orders them, most recent
// first, so that the least recently used node is evicted in constant time.
// At most cacheSize nodes stay cached; an evicted node that someone still
// holds stays in memory, uncached, until its last holder lets go.
#include <new>

#include "Tagdb.h"

namespace {

// Eviction stops after this many nodes per insertion, bounding the work
// (and the node writes) one insertion can cause.
constexpr int kMaxEvictions = 10;

TagdbCacheEntry* entryOf(LinkedList* link) {
    return static_cast<TagdbCacheEntry*>(link->ref());
}

}  // namespace

TagdbNode* TagdbStore::cacheLookup(long long id) {
    LinkedList& bucket = cacheBuckets[id % cacheSize()];
    for (LinkedList* link = bucket.next(); link != &bucket; link = link->next()) {
        TagdbCacheEntry* entry = entryOf(link);
        if (entry->node->id == id) {
            entry->lruLink.link(&lru, entry);
            return entry->node;
        }
    }
    return nullptr;
}

TagdbCommon::Status TagdbStore::cacheInsert(TagdbNode* node) {
    if (cacheLookup(node->id)) return Ok;
    TagdbCacheEntry* entry = new (std::nothrow) TagdbCacheEntry(node);
    if (!entry) return Failed;
    node->cached = 1;
    ++cachedCount;
    entry->bucketLink.link(&cacheBuckets[node->id % cacheSize()], entry);
    entry->lruLink.link(&lru, entry);
    for (int evicted = 0; cachedCount > cacheSize() && evicted < kMaxEvictions; ++evicted) {
        TagdbCacheEntry* victim = evictionVictim();
        if (!victim) break;  // only changes that must stay in memory are left
        if (evict(victim) != Ok) return Failed;
    }
    return Ok;
}

// The least recently used node that may leave the cache now. A changed node
// is written when it leaves, and before the store is locked another process
// may commit a file under the very name that write would use; so without the
// lock (getRef changes in Deferred mode) changed nodes stay cached until the
// commit has taken the lock and checked that the store did not move on.
TagdbCacheEntry* TagdbStore::evictionVictim() {
    bool mayWrite = locked || owner->transMode == Recreate;
    for (LinkedList* link = lru.prev(); link != &lru; link = link->prev()) {
        TagdbCacheEntry* entry = entryOf(link);
        if (mayWrite || !entry->node->modified) return entry;
    }
    return nullptr;
}

// The entry's node leaves the cache; a changed node is written first, and
// stays cached when that fails.
TagdbCommon::Status TagdbStore::evict(TagdbCacheEntry* entry) {
    TagdbNode* node = entry->node;
    detachIterators(node->id);
    if (node->modified && writeNode(node) != Ok) return Failed;
    delete entry;
    return Ok;
}

TagdbCommon::Status TagdbStore::cacheTouch(TagdbNode* node) {
    if (node->cached && cacheLookup(node->id) == node) return Ok;
    return cacheInsert(node);
}

void TagdbStore::cacheRemove(long long id) {
    LinkedList& bucket = cacheBuckets[id % cacheSize()];
    for (LinkedList* link = bucket.next(); link != &bucket; link = link->next()) {
        if (entryOf(link)->node->id == id) {
            deleteEntry(entryOf(link));
            return;
        }
    }
}

void TagdbStore::dropCache() {
    while (lru.linked())
        deleteEntry(entryOf(lru.prev()));
}

// A node that leaves the cache this way may be stale or about to be: the
// iterators standing on it let go and resume by key.
void TagdbStore::deleteEntry(TagdbCacheEntry* entry) {
    detachIterators(entry->node->id);
    delete entry;
}
