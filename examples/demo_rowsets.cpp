// Row sets: the typical request of the host's query layer, end to end on the
// stand-in schema. A descriptor of one order line gives the row's cache key;
// the lines of one order are fetched into a row set (rows made from the
// query, so the order id comes from its condition), sorted by item and line,
// searched by item, one row printed; the memory the rows took is shown
// before, while and after the set lives.
#include <cstdio>
#include <cstring>
#include <memory>

#include "KorSysSchema.h"
#include "demo.h"
#include "qkCompositeValues.h"
#include "qkMemory.h"
#include "qkOID.h"
#include "qkPrimaryKey.h"
#include "qkRowSet.h"
#include "qkScalarValues.h"

namespace {

enum { kOrderLine = 2 };  // orderId, lineNo, itemId, quantity, note
enum { kOrderId, kLineNo, kItemId, kQuantity, kNote };

void appendEqual(qkOID& o, int column, int value) {
    qkIntValue v(column, value);
    o.appendCopy(v, 0);
}

void printMemory(char const* when) {
    // Emptied superblocks go to the shared keep pool or stay with the
    // thread for its next rows, so the two are shown together.
    MEMORY_STATS mine = qkMemory::loadStats(qkMemory::getThreadStats());
    MEMORY_STATS kept = qkMemory::loadStats(qkMemory::getKeepStats());
    std::printf("  memory %-21s %8lld bytes with this thread, %8lld in the keep pool\n", when,
                mine.bytes, kept.bytes);
}

std::unique_ptr<qkRowSet> fetchOrder(int orderId, int lines) {
    qkOID query(kOrderLine, 1, 0);
    appendEqual(query, kOrderId, orderId);
    auto set = std::make_unique<qkRowSet>(query);
    for (int line = 1; line <= lines; ++line) {
        // orderId comes from the query's Equal condition, marked constant.
        qkRowHolder* row = set->makeRow(0, nullptr);
        (*row)[kLineNo].set(line);
        (*row)[kItemId].set(70 + (line * 7) % 13);
        (*row)[kQuantity].set(line * 0.5);
        (*row)[kNote].set(qkString(line % 3 ? "standard" : "express"));
        row->primaryKey().set(*set, row);  // the row's own cache key
        set->appendRow(row, 0);
    }
    return set;
}

}  // namespace

void demoRowSets() {
    std::printf("\n== Row sets: the typical request, end to end ==\n");
    KorSysSchema::install();

    // The single-row query: order 1042, line 3 (item 78), by its full key.
    qkOID one(kOrderLine, 1, 0);
    appendEqual(one, kOrderId, 1042), appendEqual(one, kLineNo, 3), appendEqual(one, kItemId, 78);
    PrimaryKey key;
    int count = 0;
    key.set(one, count, nullptr);
    std::printf("  order 1042, line 3: a primary key of %d values, %zu + %zu bytes\n", count,
                std::strlen(key), std::strlen(key.getOffset()));

    printMemory("before the fetch:");
    auto set = fetchOrder(1042, 5000);
    std::printf("  fetched %d lines of order 1042 (one block per row for its values)\n",
                set->nrows());
    printMemory("with the rows:");

    set->sort(kItemId, kLineNo);
    qkIntValue item(kItemId, 77);
    int first = set->lookup(item, 1);
    int n = 0;
    while (first + n < set->nrows() && item.compare(*set->row(first + n)) == 0)
        ++n;
    std::printf("  sorted by item, then line; item 77: %d lines from position %d\n", n, first);
    if (first >= 0) {
        qkString text("  the first of them:");
        set->row(first)->prettyRow(text);
        std::printf("%s", text.sanitize());
    }
    // The row fetched for line 3 carries the key the single-row query gives.
    qkIntValue lineKey(kLineNo, 3);
    for (int i = 0; i < set->nrows(); ++i) {
        qkRowHolder* row = set->row(i);
        if (lineKey.compare(*row) != 0) continue;
        bool same = std::strcmp(row->primaryKey(), key) == 0 &&
                    std::strcmp(row->primaryKey().getOffset(), key.getOffset()) == 0;
        std::printf("  line 3's row has %s primary key as the single-row query\n",
                    same ? "the same" : "another");
    }

    set.reset();
    printMemory("after the set went:");
    KorSysSchema::uninstall();
}
