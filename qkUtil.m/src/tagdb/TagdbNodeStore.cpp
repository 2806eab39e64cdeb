// TagdbStore, third part: nodes on disk. Loading a node by id (with the retry
// for readers that another process overtakes), writing it, marking it
// changed, and handing out node ids.
//
// Node file: int32 type (1 leaf, 0 inner), int32 level, int32 count (1 to
// 512), then count entries: the key in its stored form (the last entry's is
// the empty key), then in a leaf the record in its stored form (the empty
// record where there is none), in an inner node the child's int64 id.
#include <algorithm>
#include <climits>
#include <new>

#include "Tagdb.h"
#include "tagdb/TagdbHeads.h"
#include "qkMemory.h"

namespace {

// Reads of a node file that fail are retried, after the version file has
// been reread, this many times in all.
constexpr int kLoadAttempts = 100;

int magnitude(int v) {
    return v == INT_MIN ? INT_MAX : v < 0 ? -v : v;
}

}  // namespace

int TagdbStore::effectiveVersion(long long id) const {
    if (id < 0 || id >= nodeCount) return 0;
    return newVersions[id] ? newVersions[id] : committedVersions[id];
}

TagdbCommon::Status TagdbStore::loadNode(long long id, TagdbNodeRef& ref) {
    if (id < 0 || id >= nodeCount) return Failed;
    if (TagdbNode* hit = cacheLookup(id)) {
        ref.dup(hit, 0);
        return Ok;
    }
    TagdbNode* node = new (std::nothrow) TagdbNode(this, id);
    if (!node) return Failed;
    ref.dup(node, 0);
    for (int attempt = 1;; ++attempt) {
        if (readNode(node) == Ok) return cacheInsert(node);
        // A reader without the lock may find a file already superseded:
        // when the version moved on, the tables were reloaded; read again.
        // A Recreate has no other version to turn to.
        if (attempt >= kLoadAttempts || owner->transMode == Recreate || begin() != Restart ||
            id >= nodeCount) {
            break;
        }
    }
    ref.release();
    return Failed;
}

TagdbCommon::Status TagdbStore::readNode(TagdbNode* node) {
    node->clear();
    node->type = TagdbNode::Leaf;
    node->level = 1;
    if (node->id == 0 && fresh && !writtenFlags[0]) {
        node->count = 1;  // the empty root: the end entry alone
        return Ok;
    }
    if (file->open(nodePath(node->id, effectiveVersion(node->id)), ReadMode) != Ok) return Failed;
    Status read = readEntries(node);
    Status closed = file->close();
    bool whole = read == Ok && closed == Ok;
    disorderRefused = whole && !entriesInOrder(node);
    if (whole && !disorderRefused) {
        ++nodeReads;
        qk::tagdb::rebuildHeads(node);
        return Ok;
    }
    node->clear();
    return Failed;
}

// Everything read is checked before the tree can rely on it: the header
// ranges, an empty key exactly in the last entry, child ids that name an
// existing node other than the root.
TagdbCommon::Status TagdbStore::readEntries(TagdbNode* node) {
    int type, level, count;
    if (file->readInteger(type) != Ok || file->readInteger(level) != Ok ||
        file->readInteger(count) != Ok) {
        return Failed;
    }
    if (type != TagdbNode::Leaf && type != TagdbNode::Inner) return Failed;
    if (level < 1 || (type == TagdbNode::Leaf) != (level == 1)) return Failed;
    if (count < 1 || count > TagdbNode::kMaxEntries) return Failed;
    node->type = type;
    node->level = level;
    for (int i = 0; i < count; ++i) {
        TagdbKey* key = nullptr;
        Status st = keyReader(key, file, userData);
        node->keys[i] = key;
        node->values[i].id = 0;
        node->count = i + 1;  // from here on clear() releases the entry
        if (st != Ok || (i == count - 1) != (key == nullptr)) return Failed;
        if (type == TagdbNode::Leaf) {
            TagdbRecord* rec = nullptr;
            st = recordReader(rec, file, userData);
            node->values[i].record = rec;
            if (st != Ok) return Failed;
        } else {
            long long child = 0;
            if (file->readTagDbId(child) != Ok || child < 1 || child >= nodeCount) return Failed;
            node->values[i].id = child;
        }
    }
    return Ok;
}

// What a node must be for the tree to build on it, as far as the node alone
// can tell: keys strictly ascending (the last entry's empty key ends them),
// and in an inner node no child named twice. A node read from a damaged
// file that breaks this is refused, so that no change is made over it.
bool TagdbStore::entriesInOrder(TagdbNode const* node) {
    for (int i = 1; i + 1 < node->count; ++i)
        if (node->keys[i - 1]->compare(node->keys[i]) >= 0) return false;
    if (node->isLeaf()) return true;
    long long ids[TagdbNode::kMaxEntries];
    for (int i = 0; i < node->count; ++i)
        ids[i] = node->values[i].id;
    std::sort(ids, ids + node->count);
    return std::adjacent_find(ids, ids + node->count) == ids + node->count;
}

// A node just read from its file holds only keys within the separators
// that led to it. Without a separator above it, it lies on the rightmost
// path, and a leaf there ends the tree: its last entry holds no record.
bool TagdbStore::withinBounds(TagdbNode const* node, Bounds& bounds) {
    TagdbKey* low = bounds.low.node ? bounds.low.key() : nullptr;
    TagdbKey* high = bounds.high.node ? bounds.high.key() : nullptr;
    if (!high && endHoldsRecord(node)) return false;
    if (node->count < 2) return true;
    if (low && low->compare(node->keys[0]) >= 0) return false;
    return !high || node->keys[node->count - 2]->compare(high) < 0;
}

bool TagdbStore::endHoldsRecord(TagdbNode const* node) {
    return node->isLeaf() && node->count >= 1 && node->values[node->count - 1].record;
}

// A node without entries, or whose id this transaction freed, has nothing
// worth keeping and is not written.
TagdbCommon::Status TagdbStore::writeNode(TagdbNode* node) {
    if (!node->modified) return Ok;
    int v = effectiveVersion(node->id);
    if (node->count == 0 || v <= 0) return Ok;
    // Never over a file the committed version uses (nor, in a Recreate, one
    // of the earlier content's): that file is what readers and a crash
    // recovery rely on.
    if (newVersions[node->id] <= 0 || (!fresh && v == committedVersions[node->id]) ||
        (versionFloor && v <= versionFloor)) {
        return Failed;
    }
    if (file->open(nodePath(node->id, v), WriteMode) != Ok) return Failed;
    // The file exists from here on: an abort must find and remove it.
    writtenFlags[node->id] = 1;
    Status st = file->writeInteger(node->type);
    if (st == Ok) st = file->writeInteger(node->level);
    if (st == Ok) st = file->writeInteger(node->count);
    for (int i = 0; st == Ok && i < node->count; ++i) {
        TagdbKey* key = node->keys[i] ? node->keys[i] : nullKey;
        st = key->write(file);
        if (st != Ok) break;
        if (node->type == TagdbNode::Leaf) {
            TagdbRecord* rec = node->values[i].record;
            st = (rec ? rec : nullRecord)->write(file);
        } else {
            st = file->writeTagDbId(node->values[i].id);
        }
    }
    Status closed = file->close();
    if (st != Ok || closed != Ok) return Failed;
    node->modified = 0;
    return Ok;
}

// The first change of a node in a transaction gives it the next version, so
// its new content always goes to a file name no committed version uses.
void TagdbStore::markModified(TagdbNode* node) {
    node->modified = 1;
    long long id = node->id;
    if (id < 0 || id >= nodeCount) return;  // a node the reloaded index no longer has
    if (newVersions[id] == 0) {
        int base = magnitude(committedVersions[id]);
        newVersions[id] = nextVersion(base > versionFloor ? base : versionFloor);
    }
    dirty = 1;
}

TagdbCommon::Status TagdbStore::newNode(TagdbNodeRef& ref) {
    long long id = -1;
    for (; freeHint < nodeCount; ++freeHint) {
        if (effectiveVersion(freeHint) < 0) {
            id = freeHint++;
            break;
        }
    }
    if (id >= 0) {
        // A free id comes back under the version of its last file, which
        // was removed when the id was freed (or is this transaction's own).
        cacheRemove(id);
        newVersions[id] = magnitude(effectiveVersion(id));
    } else {
        if (nodeCount >= capacity && !growTables()) return Failed;
        id = nodeCount++;
        committedVersions[id] = newVersions[id] = writtenFlags[id] = 0;
        freeHint = nodeCount;
    }
    TagdbNode* node = new (std::nothrow) TagdbNode(this, id);
    if (!node) return Failed;
    ref.dup(node, 0);
    return Ok;
}

// Doubles the three tables.
bool TagdbStore::growTables() {
    long long grown = capacity > 0 ? capacity * 2 : 16;
    size_t bytes = static_cast<size_t>(grown) * sizeof(int);
    int** tables[] = {&committedVersions, &newVersions, &writtenFlags};
    for (int** table : tables) {
        void* p = qkRealloc(*table, bytes, __FILE__, __LINE__);
        if (!p) return false;  // the tables grown so far are merely larger
        *table = static_cast<int*>(p);
    }
    capacity = grown;
    return true;
}

void TagdbStore::freeNode(TagdbNode* node) {
    markModified(node);
    long long id = node->id;
    if (id < 0 || id >= nodeCount) return;
    if (newVersions[id] > 0) newVersions[id] = -newVersions[id];
    if (id < freeHint) freeHint = id;
}
