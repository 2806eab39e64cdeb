// LinkedList against a model: rings held as vectors of node numbers. Random
// links (behind heads or behind members of any ring, moving nodes between
// rings), unlinks, re-inits and destructions; after every step each ring must
// match its model in both directions, every ref must be the one last given,
// and every node outside the rings must be a ring of itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "LinkedList.h"

namespace {

constexpr int kHeads = 4, kNodes = 28;  // nodes 0 .. kHeads-1 are ring heads

TEST(LinkedList, RandomOperationsKeepEveryRingConsistent) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::unique_ptr<LinkedList> node[kNodes];
        for (auto& n : node)
            n = std::make_unique<LinkedList>();
        std::vector<int> ring[kHeads];  // the members behind each head, in order
        uintptr_t ref[kNodes] = {};     // the ref each node must hold
        // The ring and position of a member, or {-1, -1}.
        auto where = [&](int id) {
            for (int r = 0; r < kHeads; ++r)
                if (auto it = std::find(ring[r].begin(), ring[r].end(), id); it != ring[r].end())
                    return std::pair{r, int(it - ring[r].begin())};
            return std::pair{-1, -1};
        };
        auto take = [&](int id) {
            if (auto [r, at] = where(id); r >= 0) ring[r].erase(ring[r].begin() + at);
        };
        for (int step = 1; step <= 3000; ++step) {
            int id = kHeads + int(rng() % (kNodes - kHeads)), anchor = int(rng() % kNodes);
            switch (rng() % 3) {
                case 0: {  // directly behind a head or a member, out of any former ring
                    if (anchor == id || (anchor >= kHeads && where(anchor).first < 0)) break;
                    node[id]->link(node[anchor].get(), reinterpret_cast<void*>(ref[id] = step));
                    take(id);
                    auto [r, at] = anchor < kHeads ? std::pair{anchor, -1} : where(anchor);
                    ring[r].insert(ring[r].begin() + (at + 1), id);
                    break;
                }
                case 1:  // the ref stays; an unlinked node is left alone; init clears it
                    node[id]->unlink();
                    take(id);
                    if (rng() % 4 == 0) node[id]->init(), ref[id] = 0;
                    break;
                default:  // the destructor unlinks
                    node[id] = std::make_unique<LinkedList>();
                    take(id);
                    ref[id] = 0;
            }
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
            for (int h = 0; h < kHeads; ++h) {
                LinkedList* n = node[h].get();
                ASSERT_EQ(n->linked() != 0, !ring[h].empty());
                for (int member : ring[h]) {
                    ASSERT_EQ(n->next()->prev(), n);
                    n = n->next();
                    ASSERT_EQ(n, node[member].get()) << "ring " << h;
                }
                ASSERT_EQ(n->next(), node[h].get());
                ASSERT_EQ(node[h]->prev(), n);
            }
            for (int i = 0; i < kNodes; ++i) {
                LinkedList const* n = node[i].get();
                ASSERT_EQ(n->ref(), reinterpret_cast<void*>(ref[i])) << i;
                if (i >= kHeads && where(i).first < 0) {
                    ASSERT_TRUE(!n->linked() && n->next() == n && n->prev() == n) << i;
                }
            }
        }
    }
}

}  // namespace
