// The node tree of a store: search, lookup, find-or-insert with node splits
// and growth at the root, and deletion with the separator swap and the
// freeing of an emptied leaf.
//
// Every node changed by an operation is touched in the cache after its last
// change: an evicted node that is still held stays in memory uncached, and a
// change made to it would otherwise never reach a file. Eviction writes a
// changed node early, so a node may be written several times in one
// transaction; the last write before commit wins.
#include <cstring>
#include <utility>

#include "Tagdb.h"
#include "tagdb/TagdbHeads.h"

int TagdbStore::search(TagdbNode* n, TagdbKey& key, int tie, int& found) {
    int low = 0, high = n->count - 2;  // the last entry's key is never compared
    qk::tagdb::HeadProbe probe = qk::tagdb::probeHeads(n, key);
    while (low <= high) {
        int mid = (low + high + 1) / 2;
        int c = qk::tagdb::compareAt(n, probe, key, mid);
        if (c == 0) c = tie;
        if (c == 0) {
            found = 1;
            return mid;
        }
        if (c < 0) {
            high = mid - 1;
        } else {
            low = mid + 1;
        }
    }
    return low;
}

TagdbCommon::Status TagdbStore::loadRoot(TagdbNodeRef& ref) {
    if (loadNode(0, ref) != Ok) return Failed;
    if (ref.node->level > kMaxHeight || ref.node->count < 1 || endHoldsRecord(ref.node)) {
        ref.release();
        return Failed;
    }
    return Ok;
}

// Levels fall by exactly one on the way down, so a damaged file cannot lead
// the descent in a circle. A reader without the lock may find the child's
// file superseded; the load then moves the whole store on to the newer
// version, under which n's entry may lead to a node of other keys.
// A child read from its file (not found in the cache) must also lie within
// the separators on its path: damage that keeps each node in order but puts
// a node under the wrong parent is refused before anything builds on it.
// So is a leaf that such damage makes the end of the tree while its last
// entry holds the record of a separator key above it no longer.
TagdbCommon::Status TagdbStore::loadChild(TagdbNode* n, int pos, TagdbNodeRef& ref,
                                          Bounds& bounds) {
    // The bounds hold n (ref may hold its only reference) and its keys.
    if (pos > 0) bounds.low.dup(n, pos - 1);
    if (n->keys[pos]) bounds.high.dup(n, pos);
    int level = n->level;
    int reloadsBefore = reloads;
    long long readsBefore = nodeReads;
    if (loadNode(n->values[pos].id, ref) != Ok) return Failed;
    if (reloads != reloadsBefore) {
        ref.release();
        return Restart;
    }
    TagdbNode* child = ref.node;
    if (child->level != level - 1 || child->count < 1 ||
        (nodeReads != readsBefore && !withinBounds(child, bounds))) {
        // Not kept in the cache either: the next descent reads and refuses
        // it again rather than finding it there unchecked.
        if (!child->modified) cacheRemove(child->id);
        ref.release();
        return Failed;
    }
    return Ok;
}

// ---- Lookup -----------------------------------------------------------------

// Once the key is found in an inner node it is the greatest key of that
// entry's subtree, and so sits in the last entry of every node below.
TagdbCommon::Status TagdbStore::findLeaf(TagdbKey& key, int tie, TagdbNodeRef& leaf,
                                         TagdbNodeRef* parent, int& found) {
    leaf.release();
    if (parent) parent->release();
    found = 0;
    TagdbNodeRef cur;
    Bounds bounds;
    if (loadRoot(cur) != Ok) return Failed;
    while (true) {
        TagdbNode* n = cur.node;
        int pos = found ? n->count - 1 : search(n, key, tie, found);
        if (n->isLeaf()) {
            leaf.dup(n, pos);
            return Ok;
        }
        if (parent && n->keys[pos]) parent->dup(n, pos);
        if (Status st = loadChild(n, pos, cur, bounds); st != Ok) return st;
    }
}

TagdbCommon::Status TagdbStore::treeGet(TagdbKey& key, TagdbRecord*& rec) {
    TagdbNodeRef leaf;
    int found = 0;
    Status st = descend([&] { return findLeaf(key, 0, leaf, nullptr, found); });
    rec = st == Ok && found ? leaf.node->values[leaf.index].record : nullptr;
    return st;
}

// ---- Find or insert ---------------------------------------------------------

// Nothing changes before the descent reaches the leaf, so a Restart on the
// way down leaves the tree as it was.
TagdbCommon::Status TagdbStore::treeGetRef(TagdbKey& key, TagdbNodeRef& ref) {
    Status st = descend([&] {
        TagdbNodeRef root;
        if (loadRoot(root) != Ok) return Failed;
        TagdbKey* sep = nullptr;
        TagdbNodeRef sibling;
        Bounds bounds;
        return insertBelow(root.node, bounds, key, 0, ref, sep, sibling);
    });
    return st == Ok ? Ok : Failed;  // the root grows in place: no Split reaches here
}

// Applies find-or-insert to the subtree of x. Split means x split: sep and
// sibling are what x's parent must take in.
TagdbCommon::Status TagdbStore::insertBelow(TagdbNode* x, Bounds& bounds, TagdbKey& key, int found,
                                            TagdbNodeRef& ref, TagdbKey*& sep,
                                            TagdbNodeRef& sibling) {
    int pos = found ? x->count - 1 : search(x, key, 0, found);
    if (x->isLeaf()) {
        if (found) {
            ref.dup(x, pos);
            return Ok;
        }
        TagdbKey* copy = key.copy();
        if (!copy) return Failed;
        return insertEntry(x, pos, copy, 0, &ref, sep, sibling);
    }
    TagdbNodeRef child;
    Bounds below = bounds;
    if (Status loaded = loadChild(x, pos, child, below); loaded != Ok) return loaded;
    TagdbKey* childSep = nullptr;
    TagdbNodeRef childSibling;
    Status st = insertBelow(child.node, below, key, found, ref, childSep, childSibling);
    if (st != Split) return st;
    // The child kept the keys up to childSep: the entry that led to it now
    // leads to its new right sibling, and (childSep, child) goes before it.
    x->values[pos].id = childSibling.node->id;
    return insertEntry(x, pos, childSep, child.node->id, nullptr, sep, sibling);
}

// Inserts (key, value) at i, taking over key; splits x when it overflows.
TagdbCommon::Status TagdbStore::insertEntry(TagdbNode* x, int i, TagdbKey* key, long long value,
                                            TagdbNodeRef* ref, TagdbKey*& sep,
                                            TagdbNodeRef& sibling) {
    if (x->count >= TagdbNode::kSlots) {  // only a node that was already over-full
        key->release();
        treeFailed = 1;
        return Failed;
    }
    detachIterators(x->id);
    size_t moved = static_cast<size_t>(x->count - i);
    std::memmove(&x->keys[i + 1], &x->keys[i], moved * sizeof x->keys[0]);
    std::memmove(&x->values[i + 1], &x->values[i], moved * sizeof x->values[0]);
    x->keys[i] = key;
    x->values[i].id = value;
    ++x->count;
    qk::tagdb::headsInserted(x, i);
    markModified(x);
    if (x->count <= owner->maxEntries) {
        if (ref) ref->dup(x, i);
        if (cacheTouch(x) == Ok) return Ok;
        treeFailed = 1;
        return Failed;
    }
    return splitNode(x, i, ref, sep, sibling);
}

// x keeps entries 0 to half, the new sibling the rest; the key at half
// becomes the separator and leaves x, whose last entry has no key.
TagdbCommon::Status TagdbStore::splitNode(TagdbNode* x, int i, TagdbNodeRef* ref, TagdbKey*& sep,
                                          TagdbNodeRef& sibling) {
    if (newNode(sibling) != Ok) {
        treeFailed = 1;
        return Failed;
    }
    TagdbNode* y = sibling.node;
    y->type = x->type;
    y->level = x->level;
    int half = x->count / 2;
    int moved = x->count - half - 1;
    for (int k = 0; k < moved; ++k) {
        y->keys[k] = x->keys[half + 1 + k];
        y->values[k] = x->values[half + 1 + k];
        x->keys[half + 1 + k] = nullptr;
        x->values[half + 1 + k].id = 0;
    }
    y->count = moved;
    sep = x->keys[half];
    x->keys[half] = nullptr;
    x->count = half + 1;
    qk::tagdb::rebuildHeads(x);
    qk::tagdb::rebuildHeads(y);
    markModified(x);
    markModified(y);
    if (ref) {
        if (i > half) {
            ref->dup(y, i - half - 1);
        } else {
            ref->dup(x, i);
        }
    }
    if (cacheInsert(y) != Ok || cacheTouch(x) != Ok) {
        treeFailed = 1;
        return Failed;
    }
    if (x->id == 0) return growRoot(x, sep, y);
    return Split;
}

// The root keeps id 0: the old root moves to a new id and a new root one
// level higher takes id 0 over the two halves.
TagdbCommon::Status TagdbStore::growRoot(TagdbNode* oldRoot, TagdbKey* sep, TagdbNode* sibling) {
    TagdbNodeRef fresh;
    if (newNode(fresh) != Ok) {
        sep->release();
        treeFailed = 1;
        return Failed;
    }
    TagdbNode* root = fresh.node;
    long long movedId = root->id;
    cacheRemove(0);
    oldRoot->id = movedId;
    root->id = 0;
    root->type = TagdbNode::Inner;
    root->level = oldRoot->level + 1;
    root->count = 2;
    root->keys[0] = sep;
    root->values[0].id = movedId;
    root->keys[1] = nullptr;
    root->values[1].id = sibling->id;
    qk::tagdb::rebuildHeads(root);
    markModified(oldRoot);
    markModified(root);
    if (cacheInsert(oldRoot) != Ok || cacheInsert(root) != Ok) {
        treeFailed = 1;
        return Failed;
    }
    return Ok;
}

// ---- Store and delete -------------------------------------------------------

TagdbCommon::Status TagdbStore::treeSet(TagdbKey& key, TagdbRecord* rec) {
    if (!rec) return removeKey(key);
    TagdbNodeRef ref;
    if (treeGetRef(key, ref) != Ok) {
        rec->release();
        return Failed;
    }
    Status st = ref.set(rec);
    if (st != Ok) treeFailed = 1;
    return st;
}

// The leaf entry is removed given the parent entry the descent noted.
TagdbCommon::Status TagdbStore::removeKey(TagdbKey& key) {
    TagdbNodeRef cur, parent;
    int found = 0;
    Status st = descend([&] { return findLeaf(key, 0, cur, &parent, found); });
    if (st != Ok || !found) return st;
    st = cur.remove(parent);
    if (st != Ok) treeFailed = 1;
    return st;
}

// ---- Editing through a reference --------------------------------------------

TagdbCommon::Status TagdbNodeRef::set(TagdbRecord* rec) {
    if (!node) {
        if (rec) rec->release();
        return Failed;
    }
    TagdbRecord*& slot = node->values[index].record;
    if (rec != slot) {
        if (slot) slot->release();
        slot = rec;
    }
    return update();
}

TagdbCommon::Status TagdbNodeRef::update() {
    if (!node) return Ok;
    node->store->markModified(node);
    return node->store->cacheTouch(node);
}

TagdbCommon::Status TagdbNodeRef::remove() {
    if (!node || index < 0 || index >= node->count) return Failed;
    TagdbNodeRef self(*this);  // detaching may let go of this very reference
    TagdbNode* n = self.node;
    int i = self.index;
    TagdbStore* store = n->store;
    store->detachIterators(n->id);
    if (n->keys[i]) n->keys[i]->release();
    if (n->isLeaf() && n->values[i].record) n->values[i].record->release();
    size_t moved = static_cast<size_t>(n->count - i - 1);
    std::memmove(&n->keys[i], &n->keys[i + 1], moved * sizeof n->keys[0]);
    std::memmove(&n->values[i], &n->values[i + 1], moved * sizeof n->values[0]);
    --n->count;
    n->keys[n->count] = nullptr;
    n->values[n->count].id = 0;
    qk::tagdb::headsRemoved(n, i);
    return self.update();
}

TagdbCommon::Status TagdbNodeRef::remove(TagdbNodeRef& parentRef) {
    if (!node || !node->isLeaf() || index < 0 || index >= node->count) return Failed;
    TagdbNodeRef leaf(*this), parent(parentRef);  // detaching may drop the originals
    TagdbNode* l = leaf.node;
    int i = leaf.index;
    if (i < l->count - 1) return leaf.remove();
    TagdbNode* p = parent.node;
    if (!p || p->isLeaf() || parent.index < 0 || parent.index >= p->count - 1 ||
        !p->keys[parent.index]) {
        return Failed;  // the last entry's key lives in parent: without it, no removal
    }
    TagdbStore* store = l->store;
    store->detachIterators(l->id);
    store->detachIterators(p->id);
    if (i > 0) {
        // The entry before becomes the leaf's greatest: its key moves up as
        // separator, and the old separator comes down to be removed with
        // the record being deleted.
        std::swap(p->keys[parent.index], l->keys[i - 1]);
        std::swap(l->values[i - 1], l->values[i]);
        qk::tagdb::headsChanged(p, parent.index);
        qk::tagdb::headsChanged(l, i - 1);
        store->markModified(p);
        leaf.index = i - 1;
        if (leaf.remove() != Ok) return Failed;
        return store->cacheTouch(p);
    }
    if (p->values[parent.index].id != l->id) {
        // The leaf hangs below parent through entries without keys: it must
        // stay, so only its record goes.
        return leaf.set(nullptr);
    }
    // The leaf's only entry goes: the leaf is freed and its entry in parent
    // removed, which merges its key range into the next child's.
    store->freeNode(l);
    l->clear();
    return parent.remove();
}
