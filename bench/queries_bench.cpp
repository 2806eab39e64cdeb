// Query descriptors: copying on the owning thread (a count increment) and
// on another thread (a clone), comparing two descriptors of five
// conditions, and printing the query text.
#include <benchmark/benchmark.h>

#include <thread>

#include "qkOID.h"
#include "qkScalarValues.h"

namespace {

class BenchTable : public qkTable {
  public:
    BenchTable() { pk << 0 << 1; }
    IntList const& primaryColumns() override { return pk; }
    IntList const& indexColumns() override { return none; }
    char const* name() override { return "ORDERS"; }
    int columnCount(int) override { return 8; }
    qkColumnInfo const* columnInfo(int column, int) override {
        static char const* const names[] = {"ID",    "REV",    "CUSTOMER", "STATUS",
                                            "PRICE", "REGION", "DUE",      "NOTE"};
        if (column < 0 || column >= 8) return nullptr;
        info = {names[column], qkValue::Int};
        return &info;
    }
    IntList pk, none;
    qkColumnInfo info{};
};

qkTable& benchTable(int) {
    static BenchTable t;
    return t;
}

// Five conditions: three integers, a text and a range.
qkOID fiveConditions(int last) {
    qkTableUtil::setId2table(benchTable);
    qkOID o(7, 1, 1);
    for (int c = 0; c < 3; ++c) {
        qkIntValue v(c, 1000 + c);
        o.appendCopy(v, 0);
    }
    qkStringValue s(3);
    s.set(qkString("open"));
    o.appendCopy(s, 0);
    qkIntValue price(4, last);
    price.oper(qkValue::LessThan);
    o.appendCopy(price, 0);
    return o;
}

void CopyOnItsThread(benchmark::State& state) {
    qkOID o = fiveConditions(50);
    for (auto _ : state) {
        qkOID copy(o);
        benchmark::DoNotOptimize(&copy);
    }
}

void CopyOnAnotherThread(benchmark::State& state) {
    qkOID* o = nullptr;
    std::thread([&] { o = new qkOID(fiveConditions(50)); }).join();
    for (auto _ : state) {
        qkOID copy(*o);  // the list belongs to the other thread: a clone
        benchmark::DoNotOptimize(&copy);
    }
    std::thread([&] { delete o; }).join();
}

void CompareFiveConditions(benchmark::State& state) {
    qkOID a = fiveConditions(50), b = fiveConditions(60);
    for (auto _ : state)
        benchmark::DoNotOptimize(a.compare(b, 1));
}

void MakeKey(benchmark::State& state) {
    qkOID o = fiveConditions(50);
    qkString text;
    for (auto _ : state) {
        o.makeKey(text, 0);
        benchmark::DoNotOptimize(text.sanitize());
    }
}

}  // namespace

BENCHMARK(CopyOnItsThread);
BENCHMARK(CopyOnAnotherThread);
BENCHMARK(CompareFiveConditions);
BENCHMARK(MakeKey);

BENCHMARK_MAIN();
