// BaseList: the fatal range error of every list.
#include <cstdio>
#include <cstdlib>

#include "AbstractList.h"

void BaseList::abort(int index, char const* listname, int count) {
    std::printf("internal error: %s index %d out of range ", listname ? listname : "list", index);
    if (listname) {
        if (count == 0) {
            std::printf("(list is empty)");
        } else {
            std::printf("(range: 0 - %d)\n", count - 1);
        }
    }
    std::printf("\n");
    std::fflush(stdout);
    abort();
}

void BaseList::abort() {
    std::abort();
}
