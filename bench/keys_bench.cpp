// Cache keys: a primary key from a query descriptor and from a row, an index
// key from a descriptor, and superset keys of a long and of a short
// descriptor, each beside the same text formatted with snprintf into a
// std::string. Both sides read the same inputs (the table through the
// schema hook, the where values or the row values through their getters);
// they differ in how the text is written and where it is kept.
//
// Every case reports the time per key and the counter allocs_per_key: for
// the keys the growth of FlashKey::allocations() over the run, for the
// strings one per string whose capacity went past the 15 bytes a
// std::string keeps inside itself. Before timing, each case builds its key
// and its string once and stops the program unless the two texts are the
// same bytes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "KorSysSchema.h"
#include "qkOID.h"
#include "qkPrimaryKey.h"
#include "qkScalarValues.h"
#include "qkString.h"
#include "qkSuperSetKey.h"
#include "qkTable.h"
#include "qkTimebase.h"
#include "qkValueList.h"

namespace {

// The stand-in schema's tables used here.
constexpr int kCustomer = 1;  // primary 0; group 1, no version
constexpr int kItem = 3;      // primary 0, index 2,1; group 2, no version
constexpr int kStock = 4;     // primary 0,1; group 3 with its version

// ---- inputs -----------------------------------------------------------------

// A distributed descriptor on partition 2; every case starts here, so the
// schema hooks are installed here too.
qkOID descriptor(int tableId) {
    KorSysSchema::install();
    qkOID o(tableId, 1, 1);
    o.partition(2);
    return o;
}

void addInt(qkOID& o, int column, int value, qkValue::qkOperator op = qkValue::Equal) {
    qkIntValue v(column, value);
    v.oper(op);
    o.appendCopy(v, 0);
}

void addText(qkOID& o, int column, char const* text, qkValue::qkOperator op = qkValue::Equal) {
    qkStringValue v(column);
    v.set(qkString(text));
    v.oper(op);
    o.appendCopy(v, 0);
}

void addDate(qkOID& o, int column, qkTimebase const& t, qkValue::qkOperator op) {
    qkDateValue v(column);
    v.set(t);
    v.oper(op);
    o.appendCopy(v, 0);
}

// CUSTOMER where id = 0x1234: a main key of 14 bytes, offset "1".
qkOID customerById() {
    qkOID o = descriptor(kCustomer);
    addInt(o, 0, 0x1234);
    return o;
}

// ITEM where category = 42 and code = "A-100", in index order: 23 bytes.
qkOID itemByIndex() {
    qkOID o = descriptor(kItem);
    addInt(o, 2, 42);
    addText(o, 1, "A-100");
    return o;
}

// CUSTOMER where name = "smith" and created >= 2026-01-15 and id < 5000:
// a superset key of 53 bytes.
qkOID customerThreeConditions() {
    qkOID o = descriptor(kCustomer);
    addText(o, 1, "smith");
    addDate(o, 3, qkTimebase(2026, 1, 15, 0, 0, 0.0f), qkValue::MoreOrEqual);
    addInt(o, 0, 5000, qkValue::LessThan);
    return o;
}

// ITEM where code = "x12": a superset key of exactly 15 bytes.
qkOID itemByCode() {
    qkOID o = descriptor(kItem);
    addText(o, 1, "x12");
    return o;
}

// A STOCK row (itemId, warehouse, amount, updated); STOCK's group carries
// its version, so the main key is 17 bytes.
void fillStockRow(qkValueList& row) {
    row.append(new qkIntValue(0, 0x2f1));
    row.append(new qkIntValue(1, 7));
    auto* amount = new qkDoubleValue(2);
    amount->set(12.5);
    row.append(amount);
    auto* updated = new qkDateValue(3);
    updated->set(qkTimebase(2026, 2, 3, 4, 5, 6.0f));
    row.append(updated);
}

// ---- the snprintf side --------------------------------------------------------

// A std::string that holds the n bytes at buf.
std::string text(char const* buf, int n) {
    return std::string(buf, size_t(n));
}

// The heap buffers behind a string: none while it fits the inline 15 bytes.
int heapBuffers(std::string const& s) {
    return s.capacity() > 15 ? 1 : 0;
}

// The group field, written byte by byte as the keys write it (it is no
// printf text): '@' + group, and for a versioned table of a distributed
// descriptor the three base-100 digits of the version, each as ' ' + digit.
void groupField(char (&out)[5], qkTable& table, qkOID& oid) {
    out[0] = char('@' + table.group);
    out[1] = 0;
    if (table.versionIndex >= 0 && oid.distributed()) {
        int v = qkTableUtil::groupVersion(oid.tableId(), oid.partition());
        out[1] = char(' ' + v % 100);
        out[2] = char(' ' + v / 100 % 100);
        out[3] = char(' ' + v / 10000 % 100);
        out[4] = 0;
    }
}

// 01 and a value as the keys write it (Int in 8 hexadecimal digits, a date
// in the dotted form or "@" when null, a text unchanged), in one snprintf
// call; as a condition, 'c', the column in decimal and the operator's text
// come between the separator and the value.
int valueText(char* out, size_t room, qkValue& v, bool condition) {
    switch (v.dataType()) {
        case qkValue::Int: {
            int i = 0;
            v.get(i);
            if (condition)
                return std::snprintf(out, room,
                                     "\x01"
                                     "c%d%s%08x",
                                     v.column(), v.opStr(), unsigned(i));
            return std::snprintf(out, room, "\x01%08x", unsigned(i));
        }
        case qkValue::Date: {
            qkTimebase t;
            v.get(t);
            qkSQLnull_timestamp const& n = t;
            qkSQLtimestamp const& d = n.timestamp;
            if (condition && n.nullIndicator)
                return std::snprintf(out, room,
                                     "\x01"
                                     "c%d%s@",
                                     v.column(), v.opStr());
            if (n.nullIndicator) return std::snprintf(out, room, "\x01@");
            if (condition)
                return std::snprintf(out, room,
                                     "\x01"
                                     "c%d%s%04d.%02d.%02d.%02d.%02d.%02d",
                                     v.column(), v.opStr(), d.year, d.month, d.day, d.hour,
                                     d.minute, d.second);
            return std::snprintf(out, room, "\x01%04d.%02d.%02d.%02d.%02d.%02d", d.year, d.month,
                                 d.day, d.hour, d.minute, d.second);
        }
        case qkValue::String: {
            char const* chars = static_cast<char const*>(v.pointer());
            if (condition)
                return std::snprintf(out, room,
                                     "\x01"
                                     "c%d%s%s",
                                     v.column(), v.opStr(), chars);
            return std::snprintf(out, room, "\x01%s", chars);
        }
        default:
            std::fprintf(stderr, "keys_bench: no text for data type %s\n", v.getDataType());
            std::abort();
    }
}

struct Texts {
    std::string key;
    std::string offset;
};

// Main key: G 01 modifier 01 partition 01 value0; offset: tableId, then
// 01 value for each further key value.
Texts primaryText(qkOID& oid, qkTable& table, qkValueList& values, bool fromRow) {
    IntList const& columns = table.primaryColumns();
    char group[5];
    groupField(group, table, oid);
    char buf[256];
    int n = std::snprintf(buf, sizeof buf, "%s\x01%x\x01%x", group, unsigned(oid.modifier()),
                          unsigned(oid.partition()));
    if (columns.count() > 0)
        n += valueText(buf + n, sizeof buf - n, values[fromRow ? columns[0] : 0], false);
    Texts t;
    t.key = text(buf, n);
    n = std::snprintf(buf, sizeof buf, "%x", unsigned(oid.tableId()));
    for (int i = 1; i < columns.count(); ++i)
        n += valueText(buf + n, sizeof buf - n, values[fromRow ? columns[i] : i], false);
    t.offset = text(buf, n);
    return t;
}

Texts primaryFromQueryText(qkOID& oid) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    qkValueList& where = oid.where();
    if (table.primaryColumns().count() > where.count()) return {};
    return primaryText(oid, table, where, false);
}

Texts primaryFromRowText(qkOID& oid, qkValueList& row) {
    return primaryText(oid, qkTableUtil::id2Table(oid.tableId()), row, true);
}

// G 'I' 01 tableId 01 modifier 01 partition, then 01 value per index column.
std::string indexFromQueryText(qkOID& oid) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    IntList const& columns = table.indexColumns();
    qkValueList& where = oid.where();
    if (columns.count() > where.count()) return {};
    char group[5];
    groupField(group, table, oid);
    char buf[256];
    int n = std::snprintf(buf, sizeof buf, "%sI\x01%x\x01%x\x01%x", group, unsigned(oid.tableId()),
                          unsigned(oid.modifier()), unsigned(oid.partition()));
    for (int i = 0; i < columns.count(); ++i)
        n += valueText(buf + n, sizeof buf - n, where[i], false);
    return text(buf, n);
}

// G 'O' 01 tableId 01 modifier 01 partition, then per where value
// 01 'c' column operator value.
std::string superSetText(qkOID& oid) {
    qkTable& table = qkTableUtil::id2Table(oid.tableId());
    qkValueList& where = oid.where();
    char group[5];
    groupField(group, table, oid);
    char buf[256];
    int n = std::snprintf(buf, sizeof buf, "%sO\x01%x\x01%x\x01%x", group, unsigned(oid.tableId()),
                          unsigned(oid.modifier()), unsigned(oid.partition()));
    for (int i = 0; i < where.count(); ++i)
        n += valueText(buf + n, sizeof buf - n, where[i], true);
    return text(buf, n);
}

// ---- the check ----------------------------------------------------------------

std::string printable(std::string const& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c < 0x20 || c >= 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += char(c);
        }
    }
    return out;
}

[[noreturn]] void fail(char const* what) {
    std::fprintf(stderr, "keys_bench: %s: the builder made no key\n", what);
    std::abort();
}

// Stops the program when the key's text and the formatted text differ.
void requireSame(char const* what, char const* keyText, std::string const& formatted) {
    std::string k(keyText);
    if (k == formatted) return;
    std::fprintf(stderr,
                 "keys_bench: %s: the key and the snprintf text differ\n  key:      \"%s\" (%zu "
                 "bytes)\n  snprintf: \"%s\" (%zu bytes)\n",
                 what, printable(k).c_str(), k.size(), printable(formatted).c_str(),
                 formatted.size());
    std::abort();
}

void reportKeyAllocations(benchmark::State& state, uint64_t before) {
    state.counters["allocs_per_key"] = benchmark::Counter(double(FlashKey::allocations() - before),
                                                          benchmark::Counter::kAvgIterations);
}

void reportStringAllocations(benchmark::State& state, int64_t buffers) {
    state.counters["allocs_per_key"] =
        benchmark::Counter(double(buffers), benchmark::Counter::kAvgIterations);
}

void label(benchmark::State& state, size_t bytes) {
    state.SetLabel(std::to_string(bytes) + " bytes");
}

void label(benchmark::State& state, size_t bytes, size_t offsetBytes) {
    state.SetLabel(std::to_string(bytes) + "+" + std::to_string(offsetBytes) + " bytes");
}

// ---- 1. primary key from a descriptor (inline) --------------------------------

void checkPrimaryFromQuery(benchmark::State& state, qkOID& oid) {
    PrimaryKey key;
    int count = 0;
    if (!key.set(oid, count, nullptr)) fail("primary from a query");
    Texts t = primaryFromQueryText(oid);
    requireSame("primary from a query, main key", key, t.key);
    requireSame("primary from a query, offset key", key.getOffset(), t.offset);
    label(state, t.key.size(), t.offset.size());
}

void PrimaryFromQuery_Key(benchmark::State& state) {
    qkOID oid = customerById();
    checkPrimaryFromQuery(state, oid);
    uint64_t before = FlashKey::allocations();
    for (auto _ : state) {
        PrimaryKey key;
        int count = 0;
        benchmark::DoNotOptimize(key.set(oid, count, nullptr));
        benchmark::DoNotOptimize(key.head());
        benchmark::ClobberMemory();
    }
    reportKeyAllocations(state, before);
}

void PrimaryFromQuery_Snprintf(benchmark::State& state) {
    qkOID oid = customerById();
    checkPrimaryFromQuery(state, oid);
    int64_t buffers = 0;
    for (auto _ : state) {
        Texts t = primaryFromQueryText(oid);
        buffers += heapBuffers(t.key) + heapBuffers(t.offset);
        benchmark::DoNotOptimize(t.key.data());
        benchmark::DoNotOptimize(t.offset.data());
        benchmark::ClobberMemory();
    }
    reportStringAllocations(state, buffers);
}

// ---- 2. primary key from a row (versioned group, outside) ---------------------

void checkPrimaryFromRow(benchmark::State& state, qkOID& oid, qkValueList& row) {
    PrimaryKey key;
    key.set(oid, &row);
    Texts t = primaryFromRowText(oid, row);
    requireSame("primary from a row, main key", key, t.key);
    requireSame("primary from a row, offset key", key.getOffset(), t.offset);
    label(state, t.key.size(), t.offset.size());
}

void PrimaryFromRow_Key(benchmark::State& state) {
    qkOID oid = descriptor(kStock);
    qkValueList row;
    fillStockRow(row);
    checkPrimaryFromRow(state, oid, row);
    uint64_t before = FlashKey::allocations();
    for (auto _ : state) {
        PrimaryKey key;
        key.set(oid, &row);
        benchmark::DoNotOptimize(key.head());
        benchmark::ClobberMemory();
    }
    reportKeyAllocations(state, before);
}

void PrimaryFromRow_Snprintf(benchmark::State& state) {
    qkOID oid = descriptor(kStock);
    qkValueList row;
    fillStockRow(row);
    checkPrimaryFromRow(state, oid, row);
    int64_t buffers = 0;
    for (auto _ : state) {
        Texts t = primaryFromRowText(oid, row);
        buffers += heapBuffers(t.key) + heapBuffers(t.offset);
        benchmark::DoNotOptimize(t.key.data());
        benchmark::DoNotOptimize(t.offset.data());
        benchmark::ClobberMemory();
    }
    reportStringAllocations(state, buffers);
}

// ---- 3. index key from a descriptor (outside) ---------------------------------

void checkIndexFromQuery(benchmark::State& state, qkOID& oid) {
    IndexKey key;
    int count = 0;
    if (!key.set(oid, count, nullptr)) fail("index from a query");
    std::string t = indexFromQueryText(oid);
    requireSame("index from a query", key, t);
    label(state, t.size());
}

void IndexFromQuery_Key(benchmark::State& state) {
    qkOID oid = itemByIndex();
    checkIndexFromQuery(state, oid);
    uint64_t before = FlashKey::allocations();
    for (auto _ : state) {
        IndexKey key;
        int count = 0;
        benchmark::DoNotOptimize(key.set(oid, count, nullptr));
        benchmark::DoNotOptimize(key.head());
        benchmark::ClobberMemory();
    }
    reportKeyAllocations(state, before);
}

void IndexFromQuery_Snprintf(benchmark::State& state) {
    qkOID oid = itemByIndex();
    checkIndexFromQuery(state, oid);
    int64_t buffers = 0;
    for (auto _ : state) {
        std::string t = indexFromQueryText(oid);
        buffers += heapBuffers(t);
        benchmark::DoNotOptimize(t.data());
        benchmark::ClobberMemory();
    }
    reportStringAllocations(state, buffers);
}

// ---- 4. and 5. superset keys: three conditions (outside), one short one -------

void checkSuperSet(benchmark::State& state, qkOID& oid) {
    SuperSetKey key;
    key.set(oid);
    std::string t = superSetText(oid);
    requireSame("superset", key, t);
    label(state, t.size());
}

void superSetKey(benchmark::State& state, qkOID oid) {
    checkSuperSet(state, oid);
    uint64_t before = FlashKey::allocations();
    for (auto _ : state) {
        SuperSetKey key;
        key.set(oid);
        benchmark::DoNotOptimize(key.head());
        benchmark::ClobberMemory();
    }
    reportKeyAllocations(state, before);
}

void superSetSnprintf(benchmark::State& state, qkOID oid) {
    checkSuperSet(state, oid);
    int64_t buffers = 0;
    for (auto _ : state) {
        std::string t = superSetText(oid);
        buffers += heapBuffers(t);
        benchmark::DoNotOptimize(t.data());
        benchmark::ClobberMemory();
    }
    reportStringAllocations(state, buffers);
}

void SuperSetThreeConditions_Key(benchmark::State& state) {
    superSetKey(state, customerThreeConditions());
}

void SuperSetThreeConditions_Snprintf(benchmark::State& state) {
    superSetSnprintf(state, customerThreeConditions());
}

void SuperSetInline_Key(benchmark::State& state) {
    superSetKey(state, itemByCode());
}

void SuperSetInline_Snprintf(benchmark::State& state) {
    superSetSnprintf(state, itemByCode());
}

}  // namespace

BENCHMARK(PrimaryFromQuery_Key);
BENCHMARK(PrimaryFromQuery_Snprintf);
BENCHMARK(PrimaryFromRow_Key);
BENCHMARK(PrimaryFromRow_Snprintf);
BENCHMARK(IndexFromQuery_Key);
BENCHMARK(IndexFromQuery_Snprintf);
BENCHMARK(SuperSetThreeConditions_Key);
BENCHMARK(SuperSetThreeConditions_Snprintf);
BENCHMARK(SuperSetInline_Key);
BENCHMARK(SuperSetInline_Snprintf);

BENCHMARK_MAIN();
