// Row sets: building 100,000 rows of ten columns (makeRow, ten sets,
// appendRow), sorting them by two columns (group, then name) and 100,000
// lookups by both columns with `first` set, each beside the same work on a
// std::vector of rows of std::variant cells (rowset_bench_data.h has the
// input and the vector side).
//
// The program creates the memory manager before anything else, as a host
// does, so the row set's blocks and the vector's (through the library's
// operator new, which serves the whole process) both come from it. Before
// anything is timed, one counted pass does each side's work once and:
// - counts the blocks it asks the manager for. Small requests (up to 512
//   bytes) are read from the manager's per-size request counts, which take
//   every small request until the manager has tuned its last bucket (the
//   pass stops the program if the tuning had ended); the program has one
//   thread, so no count is lost. Large blocks are read from the growth of the thread's
//   large-block count (stats[24]), which counts the blocks held: one taken
//   and given back within the work does not show. The sort's record array
//   is such a block, so the pass measures the sort's peak instead, by the
//   thread's high-water mark of charged bytes.
// - stops the program unless both sides hold the input's values, sort to
//   the same key order and find the same positions (present keys found,
//   missing ones not).
// Then the manager is brought to its steady state (its buckets tuned, as
// in memory_bench) and the timed loops run. The counted figures are given
// as counters of the timed cases, per row (per lookup for the lookups),
// beside the minor page faults taken while each timer ran.
#include <benchmark/benchmark.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "KorSysSchema.h"
#include "qkCompositeValues.h"
#include "qkMemory.h"
#include "qkRowSet.h"
#include "qkScalarValues.h"
#include "qkString.h"
#include "rowset_bench_data.h"

using namespace rowset_bench;

namespace {

// The host's start-up: the manager exists before this program allocates
// anything (the benchmark registrations below included).
[[maybe_unused]] bool const managerMade = (qkMemory::setPassthru(0, nullptr), true);

constexpr char kProgram[] = "rowset_bench";

// ---- counting ---------------------------------------------------------------

// The entry of MEMORY_THREAD::stats that counts large blocks (qkMemory.h).
constexpr int kLargeStats = 24;

struct Blocks {
    long long small = 0;  // small requests made
    long long large = 0;  // growth of the large blocks held
};

Blocks blocksNow() {
    qkMemory* m = qkMemory::getManager();
    Blocks b;
    for (int n : m->countBySize)
        b.small += n;
    b.large = qkMemory::loadStats(&qkMemoryThread()->stats[kLargeStats]).count;
    return b;
}

Blocks since(Blocks const& before) {
    Blocks now = blocksNow();
    return {now.small - before.small, now.large - before.large};
}

// The per-size counts stop when the last bucket is tuned; until then they
// have seen every small request.
void requireCounting() {
    qkMemory* m = qkMemory::getManager();
    if (m->buckets >= int(std::size(m->bucketSize)))
        fail(kProgram, "the manager had finished tuning: small requests were not all counted");
}

// Small requests of 1 .. 512 bytes until the manager has tuned its last
// bucket (200,000 + 400,000 + ... + 25,600,000 requests), so that the
// timed loops run on its steady state.
void warmUp() {
    for (long i = 0; i < 52000000; ++i) {
        void* p = qkMalloc(static_cast<size_t>(1 + i % 512), __FILE__, __LINE__);
        benchmark::DoNotOptimize(p);
        qkFree(p, __FILE__, __LINE__);
    }
    qkMemory* m = qkMemory::getManager();
    if (m->buckets != int(std::size(m->bucketSize)))
        fail(kProgram, "the warm-up did not finish the manager's tuning");
}

// ---- the row set side -------------------------------------------------------

std::unique_ptr<KorSysSchema::SchemaTable> benchTable() {
    KorSysSchema::TableLayout layout;
    layout.name = "BENCH_ROWS";
    layout.columns = {{"ID", qkValue::Int},       {"GRP", qkValue::Int},
                      {"NAME", qkValue::String},  {"AMOUNT", qkValue::Double},
                      {"QTY", qkValue::Int},      {"CITY", qkValue::String},
                      {"PRICE", qkValue::Double}, {"FLAGS", qkValue::Int},
                      {"CODE", qkValue::String},  {"WEIGHT", qkValue::Double}};
    layout.primary = {kId};
    return std::make_unique<KorSysSchema::SchemaTable>(layout);
}

void buildRowSet(Input const& in, qkTable* table, qkRowSet& set) {
    for (InputRow const& r : in.rows) {
        qkRowHolder* row = set.makeRow(0, table);
        qkValueList& v = *row;
        v[kId].set(r.ints[0]);
        v[kGroup].set(r.ints[1]);
        v[kName].set(qkString(r.texts[0].c_str()));
        v[kAmount].set(r.doubles[0]);
        v[kQuantity].set(r.ints[2]);
        v[kCity].set(qkString(r.texts[1].c_str()));
        v[kPrice].set(r.doubles[1]);
        v[kFlags].set(r.ints[3]);
        v[kCode].set(qkString(r.texts[2].c_str()));
        v[kWeight].set(r.doubles[2]);
        set.appendRow(row, 0);
    }
}

// A key of two members, each compared with the row's value in its column.
std::unique_ptr<qkListValue> rowSetKey(Key const& k) {
    auto key = std::make_unique<qkListValue>(0);
    key->getList().append(new qkIntValue(kGroup, k.group));
    auto* name = new qkStringValue(kName);
    name->set(qkString(k.name.c_str()));
    key->getList().append(name);
    return key;
}

// ---- the check --------------------------------------------------------------

bool sameValue(qkValue& v, Cell const& c) {
    if (auto const* i = std::get_if<int>(&c)) {
        int got = 0;
        return v.dataType() == qkValue::Int && v.get(got) && got == *i;
    }
    if (auto const* d = std::get_if<double>(&c)) {
        double got = 0;
        return v.dataType() == qkValue::Double && v.get(got) && got == *d;
    }
    qkString got;
    return v.dataType() == qkValue::String && v.get(got) &&
           std::strcmp(got.sanitize(), std::get<std::string>(c).c_str()) == 0;
}

// Row by row, the given columns of the set and of the table hold the same
// values.
void requireSameRows(qkRowSet& set, VectorTable const& table, std::vector<int> const& columns,
                     char const* what) {
    if (set.nrows() != int(table.size())) fail(kProgram, what);
    for (int i = 0; i < set.nrows(); ++i) {
        qkValueList& row = *set.row(i);
        for (int c : columns)
            if (!sameValue(row[c], table[size_t(i)][size_t(c)])) fail(kProgram, what);
    }
}

// ---- the prepared state -------------------------------------------------------

struct Prepared {
    Input in = makeInput();
    std::unique_ptr<KorSysSchema::SchemaTable> table = benchTable();
    qkRowSet unsorted;
    qkRowSet sorted;  // the same rows, sorted
    std::vector<std::unique_ptr<qkListValue>> keys;
    VectorTable vectorUnsorted;
    VectorTable vectorSorted;
    std::vector<VectorKey> vectorKeys;

    Blocks rowSetBuild, rowSetSort, rowSetLookup;
    Blocks vectorBuild, vectorSort, vectorLookup;
    long long sortPeakBytes = 0;
    size_t blobBytes = 0;
    size_t holderBytes = 0;

    Prepared();
};

// The counted pass and the check; see the top of the file.
Prepared::Prepared() {
    for (Key const& k : in.keys)
        keys.push_back(rowSetKey(k));
    vectorKeys = rowset_bench::vectorKeys(in);

    Blocks before = blocksNow();
    buildRowSet(in, table.get(), unsorted);
    rowSetBuild = since(before);

    // Every row's values are one large block of the six-value prototypes'
    // sizes rounded to 8 bytes; the row object itself is a small block.
    auto slot = [](size_t n) { return (n + 7) & ~size_t{7}; };
    size_t expected = 4 * slot(sizeof(qkIntValue)) + 3 * slot(sizeof(qkStringValue)) +
                      3 * slot(sizeof(qkDoubleValue));
    blobBytes = qkMemSize(unsorted.row(0)->blob);
    holderBytes = qkMemSize(unsorted.row(0));
    if (blobBytes != expected || blobBytes <= 512)
        fail(kProgram, "a row's values are not the one large block expected");
    if (holderBytes > 512) fail(kProgram, "the row object is not a small block");

    sorted = unsorted;
    before = blocksNow();
    qkMemory::setSystemHighwater();
    long long bytesBefore = qkMemory::loadStats(qkMemory::getThreadStats()).bytes;
    sorted.sort(kGroup, kName);
    sortPeakBytes = qkMemory::loadStats(qkMemory::getThreadStats()).highwater - bytesBefore;
    rowSetSort = since(before);

    std::vector<int> found(keys.size());
    before = blocksNow();
    for (size_t k = 0; k < keys.size(); ++k)
        found[k] = sorted.lookup(*keys[k], 1);
    rowSetLookup = since(before);

    before = blocksNow();
    buildVector(in, vectorUnsorted);
    vectorBuild = since(before);
    vectorSorted = vectorUnsorted;
    before = blocksNow();
    sortVector(vectorSorted);
    vectorSort = since(before);
    std::vector<int> vectorFound(vectorKeys.size());
    before = blocksNow();
    for (size_t k = 0; k < vectorKeys.size(); ++k)
        vectorFound[k] = lookupVector(vectorSorted, vectorKeys[k]);
    vectorLookup = since(before);
    requireCounting();

    requireSameRows(unsorted, vectorUnsorted,
                    {kId, kGroup, kName, kAmount, kQuantity, kCity, kPrice, kFlags, kCode, kWeight},
                    "the row set and the vector hold different values");
    requireSameRows(sorted, vectorSorted, {kGroup, kName},
                    "the row set and the vector sort to different key orders");
    if (found != vectorFound) fail(kProgram, "the row set and the vector find different positions");
    requireFoundAsMade(kProgram, found);

    warmUp();
}

Prepared& prepared() {
    static Prepared* p = new Prepared;  // kept until the process ends
    return *p;
}

void reportBlocks(benchmark::State& state, Blocks const& b, int per) {
    state.counters["small_blocks"] = double(b.small) / per;
    state.counters["large_blocks"] = double(b.large) / per;
}

// ---- 1. building ------------------------------------------------------------------

void Build_RowSet(benchmark::State& state) {
    Prepared& p = prepared();
    PageFaults faults;
    for (auto _ : state) {
        faults.start();
        qkRowSet set;
        buildRowSet(p.in, p.table.get(), set);
        benchmark::DoNotOptimize(set.nrows());
        faults.stop();
        state.PauseTiming();
        set.clearRows();
        state.ResumeTiming();
    }
    reportPer(state, "time_per_row", kRows);
    faults.report(state, kRows);
    reportBlocks(state, p.rowSetBuild, kRows);
    state.SetLabel("values " + std::to_string(p.blobBytes) + " B, row " +
                   std::to_string(p.holderBytes) + " B");
}

void Build_Vector(benchmark::State& state) {
    Prepared& p = prepared();
    timeVectorBuild(state, p.in);
    reportBlocks(state, p.vectorBuild, kRows);
}

// ---- 2. sorting ---------------------------------------------------------------------

// A copy of the set in input order shares its rows; making and releasing
// it happen while the timer is paused.
void Sort_RowSet(benchmark::State& state) {
    Prepared& p = prepared();
    PageFaults faults;
    for (auto _ : state) {
        state.PauseTiming();
        auto set = std::make_unique<qkRowSet>(p.unsorted);
        state.ResumeTiming();
        faults.start();
        set->sort(kGroup, kName);
        benchmark::DoNotOptimize(set->row(0));
        faults.stop();
        state.PauseTiming();
        set.reset();
        state.ResumeTiming();
    }
    reportPer(state, "time_per_row", kRows);
    faults.report(state, kRows);
    reportBlocks(state, p.rowSetSort, kRows);
    state.counters["peak_bytes"] = double(p.sortPeakBytes) / kRows;
}

void Sort_Vector(benchmark::State& state) {
    Prepared& p = prepared();
    timeVectorSort(state, p.vectorUnsorted);
    reportBlocks(state, p.vectorSort, kRows);
}

// ---- 3. lookups ----------------------------------------------------------------------

void Lookup_RowSet(benchmark::State& state) {
    Prepared& p = prepared();
    PageFaults faults;
    for (auto _ : state) {
        faults.start();
        long found = 0;
        for (auto const& k : p.keys)
            found += p.sorted.lookup(*k, 1);
        benchmark::DoNotOptimize(found);
        faults.stop();
    }
    reportPer(state, "time_per_lookup", kLookups);
    faults.report(state, kLookups);
    reportBlocks(state, p.rowSetLookup, kLookups);
}

void Lookup_Vector(benchmark::State& state) {
    Prepared& p = prepared();
    timeVectorLookup(state, p.vectorSorted, p.vectorKeys);
    reportBlocks(state, p.vectorLookup, kLookups);
}

}  // namespace

BENCHMARK(Build_RowSet);
BENCHMARK(Build_Vector);
BENCHMARK(Sort_RowSet);
BENCHMARK(Sort_Vector);
BENCHMARK(Lookup_RowSet);
BENCHMARK(Lookup_Vector);

BENCHMARK_MAIN();
