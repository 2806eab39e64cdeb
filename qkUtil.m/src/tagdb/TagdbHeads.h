// The search heads of a node (TagdbSearchHeads in TagdbNode.h): built when a
// node is read or split, kept up to date by every change of a key, and used
// by the binary search of the tree. Internal to the tag database.
//
// Heads are an index only: a node whose heads are not valid (keys of a
// class other than TagdbStringKey) is searched through its keys, with the
// same result.
#pragma once

#include "TagdbKey.h"
#include "TagdbNode.h"

namespace qk::tagdb {

// Computes every head of n afresh, with the longest prefix its keys share.
void rebuildHeads(TagdbNode* n);
// Entry i was inserted (entries from i on moved up by one; count grown).
void headsInserted(TagdbNode* n, int i);
// Entry i was removed (entries after it moved down by one; count shrunk).
void headsRemoved(TagdbNode* n, int i);
// The key of entry i was replaced.
void headsChanged(TagdbNode* n, int i);
// Empties the heads of a node left with no keys to search.
void resetHeads(TagdbNode* n);

// A search key as the heads of one node see it.
struct HeadProbe {
    bool usable;  // the key is a string key that starts with the node's prefix
    unsigned long long head;
};
HeadProbe probeHeads(TagdbNode const* n, TagdbKey& key);

// The order of key (as probed) and keys[i]: -1, 0 or 1, as key.compare would
// give it.
inline int compareAt(TagdbNode* n, HeadProbe const& probe, TagdbKey& key, int i) {
    if (probe.usable) {
        unsigned long long h = n->heads.head[i];
        if (probe.head != h) return probe.head < h ? -1 : 1;
    }
    return key.compare(n->keys[i]);
}

// Whether every valid head of n is what rebuildHeads would compute for its
// prefix (for the tree check).
bool headsAgree(TagdbNode const* n);

}  // namespace qk::tagdb
