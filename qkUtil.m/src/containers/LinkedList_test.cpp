// LinkedList against a model that keeps each node's successor: random links
// behind any node (moving nodes between rings), unlinks, re-inits of unlinked
// nodes and destructions. After every step every node's next and prev agree
// with the model, linked() says whether it is in a ring of more than itself,
// and its ref is the one last given (unlink keeps it).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>

#include "LinkedList.h"

namespace {

TEST(LinkedList, RandomOperationsKeepEveryRingConsistent) {
    constexpr int kNodes = 24;
    std::mt19937 rng(7);
    std::unique_ptr<LinkedList> node[kNodes];
    int succ[kNodes];  // the model: a permutation whose cycles are the rings
    uintptr_t ref[kNodes] = {};
    for (int i = 0; i < kNodes; ++i)
        node[i] = std::make_unique<LinkedList>(), succ[i] = i;
    auto takeOut = [&](int id) {
        int pred = int(std::find(succ, succ + kNodes, id) - succ);
        succ[pred] = succ[id], succ[id] = id;
    };
    for (int step = 1; step <= 40000; ++step) {
        int id = int(rng() % kNodes), anchor = int(rng() % kNodes), op = int(rng() % 8);
        if (op < 4 && anchor != id) {
            node[id]->link(node[anchor].get(), reinterpret_cast<void*>(ref[id] = step));
            takeOut(id);
            succ[id] = succ[anchor], succ[anchor] = id;
        } else if (op < 6) {
            node[id]->unlink();
            takeOut(id);
            if (op == 5) node[id]->init(), ref[id] = 0;
        } else {
            node[id] = std::make_unique<LinkedList>();  // the old node unlinks itself
            takeOut(id);
            ref[id] = 0;
        }
        for (int i = 0; i < kNodes; ++i) {
            ASSERT_TRUE(node[i]->next() == node[succ[i]].get() &&
                        node[i]->next()->prev() == node[i].get() &&
                        (node[i]->linked() != 0) == (succ[i] != i) &&
                        node[i]->ref() == reinterpret_cast<void*>(ref[i]))
                << step << " " << i;
        }
    }
}

}  // namespace
