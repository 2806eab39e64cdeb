// Test support for the lists: Probe, an element type with a virtual
// destructor that registers every live instance, and ProbeList, an
// AbstractList instance over it (the shape the value list has: elements of
// several classes deleted through the base).
#pragma once

#include <memory>
#include <set>
#include <vector>

#include "AbstractList.h"

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

// The capacity the growth rule gives a list that must hold more than n
// elements, counted up through 2^k - 4 from 28.
inline int capacityAbove(int n) {
    int cap = 28;
    while (cap <= n)
        cap = (cap + 4) * 2 - 4;
    return cap;
}

inline constexpr char kProbeListName[] = "ProbeList";
using ProbeList = AbstractList<Probe, kProbeListName>;
