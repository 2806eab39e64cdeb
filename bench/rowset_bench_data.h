// The input of the row set benchmarks and their std::vector side, shared by
// rowset_bench (which links the library and times both sides) and
// rowset_vector_bench (which does not link it, so that it can count the
// vector side's allocations with an operator new of its own).
//
// The table has ten columns, four Int, three String and three Double, in
// mixed order. The input is 100,000 rows made from a fixed seed: ids 0 ..
// n-1, a group of 0 .. 999 (about 100 rows each), names, cities and codes
// of 8 to 20 lower-case letters, and 100,000 lookup keys (group, name), one
// in two taken from a row and the others made missing by putting a digit,
// which no name contains, into a row's name. The same seed gives the same
// input in both programs (built with the same standard library, whose
// distributions they both use).
//
// The vector side keeps a row as std::vector<std::variant<int, std::string,
// double>> and the table as a vector of such rows. It compares cells with
// the variant's own <=>, which dispatches on the alternative held, as the
// row set's values dispatch on their class.
#pragma once

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <compare>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <variant>
#include <vector>

namespace rowset_bench {

constexpr int kRows = 100000;
constexpr int kLookups = 100000;
constexpr int kGroups = 1000;

// The columns. A row is sorted by group, then name.
enum Column {
    kId = 0,        // Int
    kGroup = 1,     // Int, about 100 rows per value
    kName = 2,      // String
    kAmount = 3,    // Double
    kQuantity = 4,  // Int
    kCity = 5,      // String
    kPrice = 6,     // Double
    kFlags = 7,     // Int
    kCode = 8,      // String
    kWeight = 9,    // Double
    kColumns = 10
};

// One row's values, grouped by type: ints are id, group, quantity, flags;
// texts are name, city, code; doubles are amount, price, weight.
struct InputRow {
    int ints[4];
    std::string texts[3];
    double doubles[3];
};

struct Key {
    int group;
    std::string name;
};

struct Input {
    std::vector<InputRow> rows;
    std::vector<Key> keys;  // even positions present, odd ones missing
};

inline std::string randomText(std::mt19937& rng) {
    std::uniform_int_distribution<int> length(8, 20), letter('a', 'z');
    std::string s(size_t(length(rng)), ' ');
    for (char& c : s)
        c = char(letter(rng));
    return s;
}

inline Input makeInput() {
    std::mt19937 rng(20261124);
    std::uniform_int_distribution<int> group(0, kGroups - 1), quantity(0, 9999), flags(0, 15);
    std::uniform_real_distribution<double> money(0.0, 10000.0), weight(0.0, 50.0);
    Input in;
    in.rows.resize(kRows);
    for (int i = 0; i < kRows; ++i) {
        InputRow& r = in.rows[size_t(i)];
        r.ints[0] = i;
        r.ints[1] = group(rng);
        r.ints[2] = quantity(rng);
        r.ints[3] = flags(rng);
        for (std::string& t : r.texts)
            t = randomText(rng);
        r.doubles[0] = money(rng);
        r.doubles[1] = money(rng);
        r.doubles[2] = weight(rng);
    }
    std::uniform_int_distribution<int> pick(0, kRows - 1), digit('0', '9');
    in.keys.resize(kLookups);
    for (int k = 0; k < kLookups; ++k) {
        InputRow const& r = in.rows[size_t(pick(rng))];
        Key& key = in.keys[size_t(k)];
        key.group = r.ints[1];
        key.name = r.texts[0];
        if (k % 2 == 1) {
            std::uniform_int_distribution<size_t> at(0, key.name.size() - 1);
            key.name[at(rng)] = char(digit(rng));
        }
    }
    return in;
}

[[noreturn]] inline void fail(char const* program, char const* what) {
    std::fprintf(stderr, "%s: %s\n", program, what);
    std::abort();
}

// ---- the std::vector side ------------------------------------------------------

using Cell = std::variant<int, std::string, double>;
using VectorRow = std::vector<Cell>;
using VectorTable = std::vector<VectorRow>;

// A key as two cells, made before timing as the row set's keys are.
struct VectorKey {
    Cell group;
    Cell name;
};

// Each row reserves its ten cells, then takes them in column order; the
// table grows as the row set's array does, without knowing the count.
inline void buildVector(Input const& in, VectorTable& table) {
    for (InputRow const& r : in.rows) {
        VectorRow row;
        row.reserve(kColumns);
        row.emplace_back(r.ints[0]);
        row.emplace_back(r.ints[1]);
        row.emplace_back(r.texts[0]);
        row.emplace_back(r.doubles[0]);
        row.emplace_back(r.ints[2]);
        row.emplace_back(r.texts[1]);
        row.emplace_back(r.doubles[1]);
        row.emplace_back(r.ints[3]);
        row.emplace_back(r.texts[2]);
        row.emplace_back(r.doubles[2]);
        table.push_back(std::move(row));
    }
}

inline bool vectorLess(VectorRow const& a, VectorRow const& b) {
    auto c = a[kGroup] <=> b[kGroup];
    if (c != 0) return c < 0;
    return (a[kName] <=> b[kName]) < 0;
}

inline void sortVector(VectorTable& table) {
    std::sort(table.begin(), table.end(), vectorLess);
}

// The row's (group, name) against the key's, as the variant's <=> orders
// them.
inline auto compareWithKey(VectorRow const& row, VectorKey const& key) {
    auto c = row[kGroup] <=> key.group;
    if (c != 0) return c;
    return row[kName] <=> key.name;
}

// The position of the first row equal to the key, -1 if none.
inline int lookupVector(VectorTable const& table, VectorKey const& key) {
    auto at = std::lower_bound(
        table.begin(), table.end(), key,
        [](VectorRow const& row, VectorKey const& k) { return compareWithKey(row, k) < 0; });
    if (at == table.end() || compareWithKey(*at, key) != 0) return -1;
    return int(at - table.begin());
}

inline std::vector<VectorKey> vectorKeys(Input const& in) {
    std::vector<VectorKey> keys;
    keys.reserve(in.keys.size());
    for (Key const& k : in.keys)
        keys.push_back({Cell(k.group), Cell(k.name)});
    return keys;
}

// Stops the program unless every present key was found and no missing one.
template <class Results>
void requireFoundAsMade(char const* program, Results const& results) {
    for (size_t k = 0; k < results.size(); ++k) {
        bool found = results[k] >= 0;
        if (found != (k % 2 == 0))
            fail(program, "a lookup found a missing key or missed a present one");
    }
}

// ---- the timed loops of the vector side ------------------------------------------

// Time per row (per lookup) as a counter, from the time of the whole batch.
inline void reportPer(benchmark::State& state, char const* name, int count) {
    state.counters[name] = benchmark::Counter(
        double(count), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The minor page faults taken while the timer runs, reported per row (per
// lookup): memory that the C library gave back to the system when the
// previous iteration released its blocks is faulted in again page by page.
class PageFaults {
  public:
    void start() { at_ = now(); }
    void stop() { total_ += now() - at_; }
    void report(benchmark::State& state, int count) const {
        state.counters["page_faults"] =
            benchmark::Counter(double(total_) / count, benchmark::Counter::kAvgIterations);
    }

  private:
    static long now() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_minflt;
    }
    long at_ = 0;
    long total_ = 0;
};

// Building: the table is released while the timer is paused.
inline void timeVectorBuild(benchmark::State& state, Input const& in) {
    PageFaults faults;
    for (auto _ : state) {
        faults.start();
        VectorTable table;
        buildVector(in, table);
        benchmark::DoNotOptimize(table.data());
        faults.stop();
        state.PauseTiming();
        VectorTable().swap(table);
        state.ResumeTiming();
    }
    reportPer(state, "time_per_row", kRows);
    faults.report(state, kRows);
}

// Sorting a copy of the table in input order; copying and releasing the
// copy happen while the timer is paused.
inline void timeVectorSort(benchmark::State& state, VectorTable const& unsorted) {
    PageFaults faults;
    for (auto _ : state) {
        state.PauseTiming();
        VectorTable table = unsorted;
        state.ResumeTiming();
        faults.start();
        sortVector(table);
        benchmark::DoNotOptimize(table.data());
        faults.stop();
        state.PauseTiming();
        VectorTable().swap(table);
        state.ResumeTiming();
    }
    reportPer(state, "time_per_row", kRows);
    faults.report(state, kRows);
}

inline void timeVectorLookup(benchmark::State& state, VectorTable const& sorted,
                             std::vector<VectorKey> const& keys) {
    PageFaults faults;
    for (auto _ : state) {
        faults.start();
        long found = 0;
        for (VectorKey const& k : keys)
            found += lookupVector(sorted, k);
        benchmark::DoNotOptimize(found);
        faults.stop();
    }
    reportPer(state, "time_per_lookup", kLookups);
    faults.report(state, kLookups);
}

}  // namespace rowset_bench
