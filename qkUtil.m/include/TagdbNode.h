// Nodes of the tag database's tree, the counted references that hold them,
// and their places in a store's node cache.
//
// TagdbNode: one node, loaded from (and written to) a file of its own. It
// holds up to 513 entries (512 between operations, one more during an
// insertion); each entry is a key and a 64-bit value: in a leaf a record
// pointer, in an inner node a child's node id. The last entry's key is always
// null. A node owns its keys and, in a leaf, its records, and releases them
// when it is deleted.
//
// TagdbNodeRef: a counted reference to one entry (node, index). Holding a
// node adds one to its refCount; dropping it subtracts one, and the node is
// deleted when the count reaches 0. Copies count as holders of their own.
//
// TagdbCacheEntry: a node's place in its store's cache, linked into one hash
// bucket and the recency list; the entry itself holds the node.
//
// Thread-safety: none; nodes belong to their store, which belongs to one
// thread at a time.
#pragma once

#include "LinkedList.h"
#include "TagdbCommon.h"

class TagdbKey;
class TagdbStore;

// A node's value slot: a record in a leaf, a child id in an inner node.
union TagdbNodeValue {
    long long id;
    TagdbRecord* record;
};

// Search heads of a node whose keys are TagdbStringKeys: the eight bytes of
// each key that follow the `prefixLength` bytes all the node's keys begin
// with, read as one big-endian number, in an array of their own. Two keys
// whose heads differ are ordered by their heads, so a binary search reads a
// key's text only where the heads are equal. Kept by the tree wherever it
// changes keys (qk::tagdb heads functions); `valid` 0 means the node is
// searched through its keys alone.
struct TagdbSearchHeads {
    static constexpr int kPrefixMax = 32;
    int valid;         // head[i] is the head of keys[i] for i < count - 1
    int prefixLength;  // at most kPrefixMax
    unsigned char prefix[kPrefixMax];
    unsigned long long head[513];
};

class QK_EXPORT TagdbNode : public TagdbCommon {
  public:
    enum NodeType { Inner = 0, Leaf = 1 };
    static constexpr int kSlots = 513;       // entry slots of a node
    static constexpr int kMaxEntries = 512;  // most entries a stored node holds

    // An empty leaf (level 1, no entries, not held, not cached).
    TagdbNode(TagdbStore* store, long long id);
    // Releases every key in use and, in a leaf, every record in use.
    ~TagdbNode() override;
    TagdbNode(TagdbNode const&) = delete;
    TagdbNode& operator=(TagdbNode const&) = delete;

    // Releases every entry and leaves the node with count 0.
    void clear();
    int isLeaf() const { return type == Leaf; }

    TagdbStore* store;
    int type;      // Leaf or Inner
    long long id;  // 0 is the root
    int level;     // 1 for leaves, one above the children otherwise
    int count;     // entries in use
    int refCount;  // holders (TagdbNodeRef objects, cache entries included)
    int modified;  // the node differs from its file
    int cached;    // the node is in its store's cache
    TagdbKey* keys[kSlots];
    TagdbNodeValue values[kSlots];
    TagdbSearchHeads heads;
};

class QK_EXPORT TagdbNodeRef : public TagdbCommon {
  public:
    TagdbNodeRef() : node(nullptr), index(0) {}
    TagdbNodeRef(TagdbNodeRef const& other);
    TagdbNodeRef& operator=(TagdbNodeRef const& other);
    ~TagdbNodeRef() override;

    // Holds n (dropping the node held before unless it is the same) at index i.
    void dup(TagdbNode* n, int i);
    // Drops the node; Ok.
    Status release();

    // The entry's key slot and its value slot read as a record.
    TagdbKey*& key() { return node->keys[index]; }
    TagdbRecord*& ptr() { return node->values[index].record; }
    // 1 when the entry is its node's last.
    int lastKey() const { return node && index == node->count - 1; }
    // rec = the entry's record, or null without a node; Ok.
    Status get(TagdbRecord*& rec);
    // Stores rec in the entry, releasing the record it replaces, and marks
    // the node modified.
    Status set(TagdbRecord* rec);
    // Marks the node modified after a change made through ptr() or key().
    Status update();
    // Removes the entry: its key and (in a leaf) its record are released
    // and the later entries move down. Iterators on the node are detached.
    Status remove();
    // Removes the entry of a leaf, given parent, the ancestor entry that
    // holds the leaf's greatest key (the last inner entry with a key on the
    // path). Removing the last entry moves that separator down to the new
    // greatest key; a leaf that loses its only entry directly under parent
    // is freed and parent's entry removed instead.
    Status remove(TagdbNodeRef& parent);

    TagdbNode* node;
    int index;
};

class QK_EXPORT TagdbCacheEntry : public TagdbNodeRef {
  public:
    // Holds node; the store links the entry into its lists.
    explicit TagdbCacheEntry(TagdbNode* node);
    // Clears the node's cached flag, counts the entry out of its store's
    // cache, drops the node and unlinks both links.
    ~TagdbCacheEntry() override;

    LinkedList bucketLink;  // the hash chain of id mod cacheSize
    LinkedList lruLink;     // the recency list, most recent first
};
