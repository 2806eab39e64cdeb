// TagdbStore, fifth part: where the store meets the node tree and the
// iterators. The store keeps the list of iterators registered on it; the
// iterators and the tree supply detaching and applying a replayed pair.
#include <cstring>

#include "Tagdb.h"
#include "qkMemory.h"

TagdbCommon::Status TagdbStore::addIterator(TagdbItr* itr) {
    if (iteratorCount == iteratorCapacity) {
        int grown = iteratorCapacity ? iteratorCapacity * 2 : kInitialIterators;
        void* p = qkRealloc(iterators, static_cast<size_t>(grown) * sizeof(TagdbItr*), __FILE__,
                            __LINE__);
        if (!p) return Failed;
        iterators = static_cast<TagdbItr**>(p);
        iteratorCapacity = grown;
    }
    iterators[iteratorCount++] = itr;
    return Ok;
}

// Later iterators move down, keeping the order of registration.
void TagdbStore::removeIterator(TagdbItr* itr) {
    for (int i = 0; i < iteratorCount; ++i) {
        if (iterators[i] != itr) continue;
        std::memmove(iterators + i, iterators + i + 1,
                     static_cast<size_t>(iteratorCount - i - 1) * sizeof(TagdbItr*));
        --iteratorCount;
        return;
    }
}

// ---- Supplied by the iterators and the node tree ----------------------------
// The iterator class and the tree are built on top of this layer. Until they
// are, no iterator can stand on a node, and a replayed pair cannot be stored:
// a commit with deferred writes fails and rolls back.

void TagdbStore::detachIterators(long long) {}

TagdbCommon::Status TagdbStore::applyLogged(TagdbKey&, TagdbRecord* rec) {
    if (rec) rec->release();
    return Failed;
}
