// Cache keys: for the descriptors a host's query layer would build on the
// stand-in schema, the primary key (main and offset text), the index key and
// the superset key, printed byte for byte (0x01 separators and other
// non-printable bytes as <NN>), with where each text lives; then a
// superset key trimmed towards its root, and a row-set entry key beside the
// iterator key that is its prefix.
#include <cstdio>
#include <string>

#include "KorSysSchema.h"
#include "demo.h"
#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkPrimaryKey.h"
#include "qkScalarValues.h"
#include "qkSuperSetKey.h"

namespace {

enum { kOrderLine = 2, kItem = 3, kStock = 4 };

std::string escaped(char const* text) {
    std::string out;
    for (auto const* p = reinterpret_cast<unsigned char const*>(text); *p; ++p) {
        if (*p >= 0x20 && *p < 0x7f && *p != '<') {
            out += char(*p);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "<%02x>", *p);
            out += hex;
        }
    }
    return out;
}

// A freshly built key keeps up to 15 bytes inside itself.
void printKey(char const* label, char const* text) {
    size_t n = std::string(text).size();
    std::printf("    %-9s %2zu bytes %-7s %s\n", label, n, n <= 15 ? "inline" : "outside",
                escaped(text).c_str());
}

void printKeys(char const* title, qkOID& o) {
    std::printf("  %s\n", title);
    uint64_t before = FlashKey::allocations();
    PrimaryKey pk;
    int count = 0;
    if (pk.set(o, count, nullptr)) {
        printKey("primary", pk);
        printKey("offset", pk.getOffset());
    } else {
        std::printf("    %-9s (the where list does not give the whole primary key)\n", "primary");
    }
    IndexKey ix;
    if (ix.set(o, count, nullptr)) {
        printKey("index", ix);
    } else {
        std::printf("    %-9s (the where list does not give the whole index)\n", "index");
    }
    SuperSetKey sk;
    sk.set(o);
    printKey("superset", sk);
    std::printf("    (%llu buffer allocations for these four texts)\n",
                static_cast<unsigned long long>(FlashKey::allocations() - before));
}

void appendInt(qkOID& o, int column, int value) {
    qkIntValue v(column, value);
    o.appendCopy(v, 0);
}

}  // namespace

void demoKeys() {
    std::printf("\n== Cache keys: the texts the result cache files rows and queries under ==\n");
    KorSysSchema::install();

    qkOID line(kOrderLine, 1, 0);
    line.partition(0);
    appendInt(line, 0, 1042), appendInt(line, 1, 3), appendInt(line, 2, 77);
    printKeys("one order line (ORDER_LINE, primary key orderId, lineNo, itemId):", line);

    qkOID item(kItem, 1, 0);
    item.partition(0);
    appendInt(item, 2, 7);
    qkStringValue code(1);
    code.set(qkString("BOLT-M8"));
    item.appendCopy(code, 0);
    printKeys("an item by its index (ITEM, index category, code):", item);

    // STOCK's group is versioned: a distributed query carries the version
    // the host gives for its table and partition.
    qkOID stock(kStock, 1, 1);
    stock.partition(2);
    appendInt(stock, 0, 7), appendInt(stock, 1, 12);
    printKeys("stock, distributed over partition 2 (group version in the key):", stock);

    std::printf("  a superset key cut back towards its root:\n");
    qkIntValue cheap(3, 100);
    cheap.oper(qkValue::LessThan);
    item.appendCopy(cheap, 0);
    SuperSetKey walk;
    walk.set(item);
    do {
        std::printf("    %s\n", escaped(walk).c_str());
    } while (walk.trim());

    qkValueList row;
    row.append(new qkIntValue(0, 55));
    row.append(new qkStringValue(1));
    row[1].set(qkString("NUT-M8"));
    row.append(new qkIntValue(2, 7));
    RowSetKey entry, iterator;
    entry.setEntry(item, 12, 2, 1, &row, 4);
    qkListValue values(0);
    values.getList().append(new qkIntValue(2, 7));
    values.getList().append(new qkStringValue(1));
    values.getList()[1].set(qkString("NUT-M8"));
    iterator.setIterator(item, 12, 2, 1, &values);
    std::printf("  row-set entry 4 of a result sorted by category, then code:\n");
    std::printf("    entry     %s\n    iterator  %s (its prefix)\n", escaped(entry).c_str(),
                escaped(iterator).c_str());
    KorSysSchema::uninstall();
}
