// Test support for the lists: a random source; Probe, an element with a
// virtual destructor that registers every live instance, and ProbeList over
// it; and SeqModel, the rules every list kind shares (clamped insertion
// positions, growth, the sorted flag, the order of the compare function).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "AbstractList.h"
#include "IntList.h"

struct Rng {
    std::mt19937 gen;
    int operator()(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(gen); }
    bool coin() { return (*this)(0, 1) == 1; }
};

struct Probe {
    explicit Probe(int k) : key(k) { live().insert(this); }
    virtual ~Probe() { live().erase(this); }
    static std::set<Probe const*>& live() {
        static std::set<Probe const*> all;
        return all;
    }
    int key;
};
inline constexpr char kProbeListName[] = "ProbeList";
using ProbeList = AbstractList<Probe, kProbeListName>;

template <class E>
struct SeqModel {
    std::vector<E> items;
    int order;  // 1 ascending, -1 descending, 0 no compare function
    int capacity;
    bool sorted = true;

    // The capacity the growth rule gives a list that must hold more than n
    // elements: 28, 60, 124, ... (2^k - 4).
    static int above(int n) {
        int cap = 28;
        while (cap <= n)
            cap = cap * 2 + 4;
        return cap;
    }
    explicit SeqModel(int order = 0, int room = 0)
        : order(order), capacity(room > 12 ? above(room) : 12) {}

    static int keyOf(int v) { return v; }
    static int keyOf(Probe const* p) { return p->key; }
    int count() const { return int(items.size()); }
    void insertAt(int i, E v, bool unsort = true) {
        if (count() == capacity) capacity = above(count() + 1);
        items.insert(items.begin() + std::clamp(i, 0, count()), v);
        if (unsort && count() >= 2) sorted = false;
    }
    void removeAt(int i) {
        items.erase(items.begin() + i);
        if (count() < 2) sorted = true;
    }
    // setItem at i >= 0: grows to hold i; what it passes over reads as E{}.
    void setAt(int i, E v, bool unsort) {
        if (i >= capacity) capacity = above(i + 1);
        if (i >= count()) items.resize(size_t(i) + 1, E{});
        items[size_t(i)] = v;
        if (unsort && count() >= 2) sorted = false;
    }
    void setOrder(int o, bool declareSorted) {
        if (o != order && count() > 1) sorted = false;
        order = o;
        sorted = sorted || declareSorted;
    }
    int compare(E a, int key) const { return order * compareInts(keyOf(a), key); }
    bool searchable() const { return sorted && order != 0; }
    bool inOrder() const {
        return std::is_sorted(items.begin(), items.end(),
                              [&](E a, E b) { return compare(a, keyOf(b)) < 0; });
    }
    // The equal run [lb, ub) of key x among positions from .. count-1 of a
    // list in order.
    std::pair<int, int> run(int x, int from = 0) const {
        int lb = std::clamp(from, 0, count()), ub;
        while (lb < count() && compare(items[size_t(lb)], x) < 0)
            ++lb;
        for (ub = lb; ub < count() && compare(items[size_t(ub)], x) == 0;)
            ++ub;
        return {lb, ub};
    }
};

// The list holds exactly the model's elements, count, capacity, sorted flag
// and compare function (function maps the model's order to the latter).
template <class L, class E, class F>
void expectSame(L const& list, SeqModel<E> const& m, F function) {
    ASSERT_EQ(list.count(), m.count());
    ASSERT_EQ(list.capacity(), m.capacity);
    ASSERT_EQ(list.isSorted(), m.sorted);
    ASSERT_EQ(list.getCompareFunction(), function(m.order));
    for (int j = 0; j < m.count(); ++j)
        ASSERT_EQ(list.item(j), m.items[size_t(j)]) << "at " << j;
}
