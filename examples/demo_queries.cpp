// Queries: the stand-in schema is installed as the host would install its
// own; a descriptor of an order line is built with where-conditions (a
// sub-query on the items and a membership list among them), printed as query
// text, asked whether it gives the primary key or the index, and copied on
// its own thread (shared) and on another (cloned).
#include <cstdio>
#include <thread>

#include "KorSysSchema.h"
#include "demo.h"
#include "qkCompositeValues.h"
#include "qkOID.h"
#include "qkScalarValues.h"

namespace {

enum { kOrderLine = 2, kItem = 3 };

void printKey(char const* label, qkOID& o) {
    qkString text;
    o.makeKey(text, 1);
    std::printf("  %-28s %s\n", label, text.sanitize());
}

void printAnswers(char const* label, qkOID& o) {
    unsigned char byPrimary = 0, byIndex = 0;
    o.byPrimaryOrIndex(byPrimary, byIndex);
    std::printf("  %-28s by primary key %s, by index %s, all columns %s\n", label,
                byPrimary ? "yes" : "no", byIndex ? "yes" : "no", o.allColumns() ? "yes" : "no");
}

}  // namespace

void demoQueries() {
    std::printf("\n== Queries: descriptors over the stand-in schema ==\n");
    KorSysSchema::install();
    qkOID line(kOrderLine, 1, 1);
    for (int column = 0; column < 3; ++column) {
        qkIntValue v(column, column == 0 ? 1042 : column);
        line.appendCopy(v, 0);
    }
    printKey("one order line:", line);
    printAnswers("", line);

    // The items of a category, below a price: the condition on itemId
    // becomes a sub-query.
    qkOID items(kItem, 1, 1);
    qkIntValue category(2, 7), price(3, 100);
    price.oper(qkValue::LessThan);
    items.appendCopy(category, 0);
    items.appendCopy(price, 0);
    qkOID lines(kOrderLine, 1, 1);
    auto* sub = new qkQueryValue(2, 0);
    sub->getOID() = items;
    lines.append(sub);
    auto* orders = new qkListValue(0);
    for (int order : {1042, 1043, 1077})
        orders->getList().append(new qkIntValue(0, order));
    orders->ident(12);
    lines.append(orders);
    printKey("lines of cheap items:", lines);
    printAnswers("", lines);
    std::printf("  %-28s depth %d, breadth %d\n", "", lines.depth(0, 1), lines.breadth());

    qkOID sameThread(lines);
    std::printf("  copy on this thread:        shares the where list (%d holders)\n",
                sameThread.where().refCount);
    std::thread([&] {
        qkOID there(lines);
        std::printf("  copy on another thread:     its own clone (%s list, %d holder)\n",
                    &there.where() == &lines.where() ? "the same" : "another",
                    there.where().refCount);
    }).join();
    qkIntValue quantity(3, 5);
    sameThread.appendCopy(quantity, 0);  // copy on write
    std::printf("  after a change to the copy: original %d conditions, copy %d; compare %d\n",
                lines.where().count(), sameThread.where().count(), lines.compare(sameThread, 0));
    KorSysSchema::uninstall();
}
