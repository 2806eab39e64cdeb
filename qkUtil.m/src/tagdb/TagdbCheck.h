// Checking a store's tree: every node it needs loads, and the tree's
// invariants hold. Used by the `tagdb check` and `tagdb stat` commands and
// by the tests; internal to the tag database.
//
// The walk reads the active transaction's view of the store through its
// node cache. It holds the nodes of one root-to-leaf path at a time.
#pragma once

#include <string>
#include <vector>

#include "Tagdb.h"

namespace qk::tagdb {

struct TreeReport {
    int height = 0;         // the root's level
    long long nodes = 0;    // nodes reached from the root
    long long liveIds = 0;  // node ids in use by the store
    long long entries = 0;  // keys with a record
    long long keys = 0;     // keys in the tree, with or without a record
    std::vector<std::string> problems;
};

// Walks the tree of `store` and fills `report`. Ok when the tree is whole
// and sound; Failed when a node cannot be loaded or an invariant is broken
// (each problem is described in report.problems). A node may hold at most
// maxEntries entries. `progress`, when given, is called with the count of
// nodes visited so far.
QK_EXPORT TagdbCommon::Status checkTree(TagdbStore* store, int maxEntries, TreeReport& report,
                                        void (*progress)(void* context, long long nodes) = nullptr,
                                        void* context = nullptr);

}  // namespace qk::tagdb
