// Lists: the proper subsets of a small set of column numbers, gathered in an
// IntListList and walked with its iterator; then a sorted IntList kept
// without duplicates by insertSortedUnique.
#include <cstdio>
#include <initializer_list>

#include "IntList.h"
#include "demo.h"

namespace {

void printList(IntList const& l) {
    std::printf("{");
    for (int i = 0; i < l.count(); ++i)
        std::printf(i ? ", %d" : "%d", l[i]);
    std::printf("}");
}

}  // namespace

void demoLists() {
    std::printf("\n== Lists: IntList, IntListList, subsets ==\n");
    IntList columns;
    columns << 10 << 20 << 30 << 40;
    std::printf("  proper subsets of ");
    printList(columns);
    std::printf(":\n   ");

    IntListList subsets;
    createAllIntListProperSubsets(columns, subsets);
    IntListList_Iterator it(subsets);
    while (it.next()) {
        std::printf(" ");
        printList(*it);
    }
    std::printf("\n  %d subsets, held in an array of capacity %d\n", subsets.count(),
                subsets.capacity());

    // A sorted set of table numbers: each new number goes to its place once.
    IntList tables;
    for (int t : {7, 3, 9, 3, 1, 7, 12}) {
        bool found = false;
        int at = tables.insertSortedUnique(t, found);
        std::printf("  insert %2d: %s at %d -> ", t, found ? "already there" : "placed", at);
        printList(tables);
        std::printf("\n");
    }
}
