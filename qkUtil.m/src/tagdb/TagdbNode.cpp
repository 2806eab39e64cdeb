// TagdbNode, the counted TagdbNodeRef and the TagdbCacheEntry that holds a
// node in its store's cache.
#include "TagdbNode.h"

#include <cstring>

#include "TagdbKey.h"
#include "TagdbStore.h"
#include "tagdb/TagdbHeads.h"

// ---- TagdbNode ------------------------------------------------------------

TagdbNode::TagdbNode(TagdbStore* s, long long nodeId)
    : store(s), type(Leaf), id(nodeId), level(1), count(0), refCount(0), modified(0), cached(0) {
    std::memset(keys, 0, sizeof keys);
    std::memset(values, 0, sizeof values);
    qk::tagdb::resetHeads(this);
}

TagdbNode::~TagdbNode() {
    clear();
}

void TagdbNode::clear() {
    for (int i = 0; i < count; ++i) {
        if (keys[i]) keys[i]->release();
        keys[i] = nullptr;
        if (type == Leaf && values[i].record) values[i].record->release();
        values[i].id = 0;
    }
    count = 0;
    qk::tagdb::resetHeads(this);
}

// ---- TagdbNodeRef ---------------------------------------------------------

namespace {

void hold(TagdbNode* n) {
    if (n) ++n->refCount;
}

void drop(TagdbNode* n) {
    if (n && --n->refCount <= 0) delete n;
}

}  // namespace

TagdbNodeRef::TagdbNodeRef(TagdbNodeRef const& other)
    : TagdbCommon(other), node(other.node), index(other.index) {
    hold(node);
}

TagdbNodeRef& TagdbNodeRef::operator=(TagdbNodeRef const& other) {
    dup(other.node, other.index);
    return *this;
}

TagdbNodeRef::~TagdbNodeRef() {
    drop(node);
}

void TagdbNodeRef::dup(TagdbNode* n, int i) {
    if (n != node) {
        hold(n);  // before the drop: n may be kept alive only by node
        drop(node);
        node = n;
    }
    index = i;
}

TagdbCommon::Status TagdbNodeRef::release() {
    TagdbNode* n = node;
    node = nullptr;
    index = 0;
    drop(n);
    return Ok;
}

TagdbCommon::Status TagdbNodeRef::get(TagdbRecord*& rec) {
    rec = node ? node->values[index].record : nullptr;
    return Ok;
}

// set, update and the two removals are the tree's (TagdbTree.cpp).

// ---- TagdbCacheEntry ------------------------------------------------------

TagdbCacheEntry::TagdbCacheEntry(TagdbNode* n) {
    dup(n, 0);
}

TagdbCacheEntry::~TagdbCacheEntry() {
    if (node) {
        node->cached = 0;
        --node->store->cachedCount;
    }
    bucketLink.unlink();
    lruLink.unlink();
    release();
}
