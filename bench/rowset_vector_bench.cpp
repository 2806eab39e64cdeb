// The std::vector side of the row set benchmarks in a program of its own,
// which does not link the library: here the global operator new is this
// file's, malloc behind a counter, so the vector side's blocks come from
// the C library's malloc and every one of them is counted. (In
// rowset_bench the library's operator new serves the whole process, and
// the manager's counts cannot see a large block that is given back within
// the work, such as the table's array after each regrowth.)
//
// Before timing, one counted pass does the work of each case once and
// counts the operator new calls; it stops the program unless the sorted
// table is in key order and every present key is found and no missing one.
// The program has one thread, so the counter is a plain integer. The
// over-aligned forms of new are not replaced (no type here asks for them).
#include <cstdlib>
#include <new>

#include "rowset_bench_data.h"

using namespace rowset_bench;

namespace {

long long newCalls = 0;

void* counted(std::size_t n) {
    ++newCalls;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}

void* countedNoThrow(std::size_t n) noexcept {
    ++newCalls;
    return std::malloc(n ? n : 1);
}

}  // namespace

void* operator new(std::size_t n) {
    return counted(n);
}
void* operator new[](std::size_t n) {
    return counted(n);
}
void* operator new(std::size_t n, std::nothrow_t const&) noexcept {
    return countedNoThrow(n);
}
void* operator new[](std::size_t n, std::nothrow_t const&) noexcept {
    return countedNoThrow(n);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::nothrow_t const&) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::nothrow_t const&) noexcept {
    std::free(p);
}

namespace {

constexpr char kProgram[] = "rowset_vector_bench";

struct Prepared {
    Input in = makeInput();
    VectorTable unsorted;
    VectorTable sorted;
    std::vector<VectorKey> keys = vectorKeys(in);
    long long build = 0, sort = 0, lookup = 0;

    Prepared() {
        long long before = newCalls;
        buildVector(in, unsorted);
        build = newCalls - before;
        sorted = unsorted;
        before = newCalls;
        sortVector(sorted);
        sort = newCalls - before;
        std::vector<int> found(keys.size());
        before = newCalls;
        for (size_t k = 0; k < keys.size(); ++k)
            found[k] = lookupVector(sorted, keys[k]);
        lookup = newCalls - before;

        if (!std::is_sorted(sorted.begin(), sorted.end(), vectorLess))
            fail(kProgram, "the table is not in key order");
        requireFoundAsMade(kProgram, found);
    }
};

Prepared& prepared() {
    static Prepared* p = new Prepared;  // kept until the process ends
    return *p;
}

void reportAllocations(benchmark::State& state, long long calls, int per) {
    state.counters["allocs"] = double(calls) / per;
    state.SetLabel("malloc");
}

void Build_Vector(benchmark::State& state) {
    Prepared& p = prepared();
    timeVectorBuild(state, p.in);
    reportAllocations(state, p.build, kRows);
}

void Sort_Vector(benchmark::State& state) {
    Prepared& p = prepared();
    timeVectorSort(state, p.unsorted);
    reportAllocations(state, p.sort, kRows);
}

void Lookup_Vector(benchmark::State& state) {
    Prepared& p = prepared();
    timeVectorLookup(state, p.sorted, p.keys);
    reportAllocations(state, p.lookup, kLookups);
}

}  // namespace

BENCHMARK(Build_Vector);
BENCHMARK(Sort_Vector);
BENCHMARK(Lookup_Vector);

BENCHMARK_MAIN();
