// IntList and IntListList against std::vector, the container a caller would
// otherwise pick: appends across the inline/heap boundary, sorted inserts
// with duplicate elimination, membership tests and positional access, and
// building a list of owned lists (against a vector of owning pointers to the
// same objects, and against a vector of vectors).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "IntList.h"

namespace {

std::vector<int> randomValues(int n) {
    std::mt19937 rng(42);
    std::vector<int> v(static_cast<size_t>(n));
    for (int& x : v)
        x = std::uniform_int_distribution<int>(0, 4 * n)(rng);
    return v;
}

void BM_Append_IntList(benchmark::State& state) {
    int n = int(state.range(0));
    for (auto _ : state) {
        IntList l;
        for (int i = 0; i < n; ++i)
            l.append(i);
        benchmark::DoNotOptimize(l.item(n - 1));
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void BM_Append_StdVector(benchmark::State& state) {
    int n = int(state.range(0));
    for (auto _ : state) {
        std::vector<int> v;
        for (int i = 0; i < n; ++i)
            v.push_back(i);
        benchmark::DoNotOptimize(v[size_t(n) - 1]);
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void BM_InsertSortedUnique_IntList(benchmark::State& state) {
    std::vector<int> values = randomValues(int(state.range(0)));
    for (auto _ : state) {
        IntList l;
        bool found;
        for (int x : values)
            l.insertSortedUnique(x, found);
        benchmark::DoNotOptimize(l.count());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(values.size()));
}

void BM_InsertSortedUnique_StdVector(benchmark::State& state) {
    std::vector<int> values = randomValues(int(state.range(0)));
    for (auto _ : state) {
        std::vector<int> v;
        for (int x : values) {
            auto at = std::lower_bound(v.begin(), v.end(), x);
            if (at == v.end() || *at != x) v.insert(at, x);
        }
        benchmark::DoNotOptimize(v.size());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(values.size()));
}

void BM_Contains_IntList(benchmark::State& state) {
    std::vector<int> values = randomValues(int(state.range(0)));
    IntList l;
    for (int x : values)
        l.append(x);
    l.sort([](void const* a, void const* b) {
        return compareInts(*static_cast<int const*>(a), *static_cast<int const*>(b));
    });
    l.sorted();
    int probe = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(l.isContained(probe));
        probe = (probe + 7) % (4 * int(values.size()));
    }
}

void BM_Contains_StdVector(benchmark::State& state) {
    std::vector<int> v = randomValues(int(state.range(0)));
    std::sort(v.begin(), v.end());
    int probe = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::binary_search(v.begin(), v.end(), probe));
        probe = (probe + 7) % (4 * int(v.size()));
    }
}

void BM_ListOfLists_IntListList(benchmark::State& state) {
    int n = int(state.range(0));
    for (auto _ : state) {
        IntListList ll;
        for (int i = 0; i < n; ++i)
            ll.append(new IntList);
        benchmark::DoNotOptimize(ll.item(n - 1));
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void BM_ListOfLists_VectorOfUniquePtr(benchmark::State& state) {
    int n = int(state.range(0));
    for (auto _ : state) {
        std::vector<std::unique_ptr<IntList>> vp;
        for (int i = 0; i < n; ++i)
            vp.push_back(std::make_unique<IntList>());
        benchmark::DoNotOptimize(vp.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void BM_ListOfLists_StdVector(benchmark::State& state) {
    int n = int(state.range(0));
    for (auto _ : state) {
        std::vector<std::vector<int>> vv;
        for (int i = 0; i < n; ++i)
            vv.emplace_back();
        benchmark::DoNotOptimize(vv.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}

}  // namespace

BENCHMARK(BM_Append_IntList)->Arg(8)->Arg(100)->Arg(10000);
BENCHMARK(BM_Append_StdVector)->Arg(8)->Arg(100)->Arg(10000);
BENCHMARK(BM_InsertSortedUnique_IntList)->Arg(10)->Arg(1000);
BENCHMARK(BM_InsertSortedUnique_StdVector)->Arg(10)->Arg(1000);
BENCHMARK(BM_Contains_IntList)->Arg(10)->Arg(10000);
BENCHMARK(BM_Contains_StdVector)->Arg(10)->Arg(10000);
BENCHMARK(BM_ListOfLists_IntListList)->Arg(8)->Arg(1000);
BENCHMARK(BM_ListOfLists_VectorOfUniquePtr)->Arg(8)->Arg(1000);
BENCHMARK(BM_ListOfLists_StdVector)->Arg(8)->Arg(1000);

BENCHMARK_MAIN();
