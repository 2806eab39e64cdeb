// Test support for the lists: a random source, and Probe, an element with a
// virtual destructor that registers every live instance, with ProbeList over it.
#pragma once

#include <random>
#include <set>

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
