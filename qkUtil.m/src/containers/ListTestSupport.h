// Test support for the lists: a small random source; Probe, an element type
// with a virtual destructor that registers every live instance, with
// ProbeList, an AbstractList instance over it (the shape the value list has:
// elements of several classes deleted through the base); and SeqModel, the
// rules every list kind shares, as a model for the model-based tests.
#pragma once

#include <algorithm>
#include <memory>
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
    Probe(Probe const&) = delete;
    Probe& operator=(Probe const&) = delete;

    // Every Probe not yet destroyed.
    static std::set<Probe const*>& live() {
        static std::set<Probe const*> all;
        return all;
    }

    int key;
};

// A derived class whose destructor frees memory of its own: deleting it as a
// Probe without the virtual destructor would leak (and the leak checker says so).
struct BigProbe : Probe {
    explicit BigProbe(int k) : Probe(k), payload(std::make_unique<std::vector<int>>(64, k)) {}
    std::unique_ptr<std::vector<int>> payload;
};

inline constexpr char kProbeListName[] = "ProbeList";
using ProbeList = AbstractList<Probe, kProbeListName>;

// The capacity the growth rule gives a list that must hold more than n
// elements, counted up through 2^k - 4 from 28.
inline int capacityAbove(int n) {
    int cap = 28;
    while (cap <= n)
        cap = (cap + 4) * 2 - 4;
    return cap;
}

inline int keyOf(int v) {
    return v;
}
inline int keyOf(Probe const* p) {
    return p->key;
}

// What every list kind shares: positions clamped on insertion, growth when
// full, the sorted flag's rules, and the order of the compare function, kept
// as a direction over the elements' keys.
template <class E>
struct SeqModel {
    std::vector<E> items;
    int capacity = 12;
    bool sorted = true;
    int order = 0;  // 1 ascending, -1 descending, 0 no compare function

    explicit SeqModel(int order = 0, int room = 0)
        : capacity(initialCapacity(room)), order(order) {}
    // The capacity a list built with room for n has.
    static int initialCapacity(int n) { return n <= 12 ? 12 : capacityAbove(n); }

    int count() const { return int(items.size()); }
    void insertAt(int i, E v, bool unsort = true) {
        if (count() == capacity) capacity = capacityAbove(count() + 1);
        items.insert(items.begin() + std::clamp(i, 0, count()), v);
        if (unsort && count() >= 2) sorted = false;
    }
    void removeAt(int i) {
        items.erase(items.begin() + i);
        if (count() < 2) sorted = true;
    }
    // setItem at i >= 0: grows to hold i, fills what it passes over with E{}.
    void setAt(int i, E v, bool unsort) {
        if (i >= capacity) capacity = capacityAbove(i + 1);
        if (i >= count()) items.resize(size_t(i) + 1, E{});
        items[size_t(i)] = v;
        if (unsort && count() >= 2) sorted = false;
    }

    // A new compare function makes a list of two or more unsorted.
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
        auto begin = items.begin() + std::min(std::max(from, 0), count());
        if (!order) return {int(begin - items.begin()), int(begin - items.begin())};
        auto lb = std::lower_bound(begin, items.end(), x,
                                   [&](E a, int key) { return compare(a, key) < 0; });
        auto ub =
            std::upper_bound(lb, items.end(), x, [&](int key, E a) { return compare(a, key) > 0; });
        return {int(lb - items.begin()), int(ub - items.begin())};
    }
};
