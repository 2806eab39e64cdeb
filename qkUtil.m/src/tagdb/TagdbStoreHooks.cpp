// TagdbStore, fifth part: where the store meets the node tree and the
// iterators. The store keeps the list of iterators registered on it and
// detaches them when the tree changes under them.
#include <cstring>

#include "Tagdb.h"
#include "TagdbItr.h"
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

// ---- Where the tree and the iterators come in ------------------------------

// Every iterator standing on the node, or below an entry of it, saves its
// current key and lets go of its position; it resumes after that key.
void TagdbStore::detachIterators(long long nodeId) {
    for (int i = 0; i < iteratorCount; ++i)
        iterators[i]->restartIterator(nodeId);
}
