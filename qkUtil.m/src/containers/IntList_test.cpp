// IntList against a model built on std::vector: random sequences of every
// operation (positional, list and sorted inserts, removals, setItem beyond the
// end, compare-function changes, sorts, copies, moves and construction with
// room), checking after each step the elements, the count, the capacity the
// growth rule predicts, the sorted flag and the compare function.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "IntList.h"
#include "ListTestSupport.h"

namespace {

int compareDesc(int const& a, int const& b) {
    return compareInts(b, a);
}
int qsortAsc(void const* a, void const* b) {
    return compareInts(*static_cast<int const*>(a), *static_cast<int const*>(b));
}
int qsortDesc(void const* a, void const* b) {
    return qsortAsc(b, a);
}
// The compare function of an order of the model.
IntList::CompareFunction function(int order) {
    return order > 0 ? compareInts : order < 0 ? compareDesc : nullptr;
}

class IntListModelTest : public ::testing::Test {
  protected:
    Rng rnd;
    IntList list;
    SeqModel<int> m{1};

    int value() { return rnd(-20, 20); }
    void sortBoth(bool asc) {
        list.sort(asc ? qsortAsc : qsortDesc);
        std::sort(m.items.begin(), m.items.end(),
                  [&](int a, int b) { return asc ? a < b : a > b; });
    }

    void expectSame(int step) {
        SCOPED_TRACE("step " + std::to_string(step));
        ASSERT_EQ(list.count(), m.count());
        ASSERT_EQ(list.capacity(), m.capacity);
        ASSERT_EQ(list.isSorted(), m.sorted);
        ASSERT_EQ(list.getCompareFunction(), function(m.order));
        for (int j = 0; j < m.count(); ++j)
            ASSERT_EQ(list.item(j), m.items[size_t(j)]) << "at " << j;
    }

    void stepInsert() {
        int v = value(), j = m.count() ? rnd(0, m.count() - 1) : 0;
        // Half the time a reference into the list itself, which growth may free.
        int const& x = m.count() && rnd.coin() ? list[j] : v;
        int want = x, i = rnd(-3, m.count() + 3);
        switch (rnd(0, 2)) {
            case 0:
                rnd.coin() ? list.append(x) : rnd.coin() ? list.append(&x) : (void)(list << x);
                i = m.count();
                break;
            case 1:
                rnd.coin() ? list.prepend(x) : list.prepend(&x);
                i = 0;
                break;
            default:
                rnd.coin() ? list.insert(i, x) : list.insert(i, &x);
        }
        m.insertAt(i, want);
    }

    void stepInsertList() {
        IntList other;
        for (int n = rnd(0, 30); n > 0; --n)
            other.append(value());
        IntList const& source = rnd(0, 5) == 0 ? list : other;
        std::vector<int> add;
        for (int j = 0; j < source.count(); ++j)
            add.push_back(source[j]);
        int i = rnd(-3, m.count() + 3), how = rnd(0, 2);
        how == 0 ? list.append(source) : how == 1 ? (void)(list << source) : list.insert(i, source);
        if (how < 2) i = m.count();
        i = std::clamp(i, 0, m.count());
        for (size_t j = 0; j < add.size(); ++j)
            m.insertAt(i + int(j), add[j]);
    }

    void stepSetItem() {
        int i = rnd(0, m.count() + (rnd.coin() ? 2 : 40)), v = value();
        bool unsort = rnd.coin(), byValue = rnd.coin();
        byValue ? list.setItem(i, v, unsort) : list.setItem(i, &v, unsort);
        m.setAt(i, v, unsort || byValue);  // the value form always unsorts
    }

    void stepRemove() {
        if (m.count() > 0 && rnd.coin()) {
            int i = rnd(0, m.count() - 1);
            list.remove(i);
            return m.removeAt(i);
        }
        int p = rnd(-1, m.count());
        list.removeAfter(p);
        while (m.count() - 1 > p)
            m.removeAt(m.count() - 1);
    }

    void stepOrder() {
        switch (rnd(0, 2)) {
            case 0: {
                int order = rnd(-1, 1);
                list.setCompareFunction(function(order));
                return m.setOrder(order, false);
            }
            case 1:
                return sortBoth(rnd.coin());  // the flag stays as it was
            default:
                list.sorted(), m.sorted = true;
        }
    }

    void stepSearch() {
        int x = value(), op = rnd(0, 3);
        bool searchable = m.searchable();
        // A list declared sorted over data out of order: put it in order first,
        // so that every answer below is exact.
        if (searchable && !m.inOrder()) sortBoth(m.order > 0);
        if (op == 3) {
            ASSERT_EQ(list.isContained(x), m.order && std::any_of(m.items.begin(), m.items.end(),
                                                                  [&](int v) { return v == x; }));
            return;
        }
        auto [lb, ub] = m.run(x);
        bool found = rnd.coin(), was = found;
        int pos = op == 0   ? list.insertSorted(x)
                  : op == 1 ? list.insertSortedUnique(x, found)
                            : list.findSortedUnique(x, found);
        if (!searchable) {
            ASSERT_TRUE(pos == -1 && found == was) << pos;  // found untouched
            return;
        }
        if (op == 0) {
            // In front of an equal element the halving meets, or where x belongs.
            ASSERT_TRUE(pos >= lb && pos <= std::max(lb, ub - 1)) << pos;
        } else {
            ASSERT_EQ(found, lb < ub);
            ASSERT_TRUE(found ? pos >= lb && pos < ub : pos == lb) << pos;
        }
        if (op == 0 || (op == 1 && !found)) m.insertAt(pos, x, false);
    }

    void stepRebuild() {
        switch (rnd(0, 3)) {
            case 0:  // the compare function stays
                list.clear();
                m = SeqModel<int>(m.order);
                return;
            case 1: {
                // A copy holds its own storage, sized as if appended one by one.
                IntList copy(list);
                IntList& self = copy;
                copy = self;
                list = copy;
                m.capacity = m.count() > 12 ? capacityAbove(m.count() - 1) : 12;
                return;
            }
            case 2: {
                IntList moved(std::move(list));  // takes the heap array, if any
                ASSERT_TRUE(list.count() == 0 && list.capacity() == 12 && list.isSorted());
                list = std::move(moved);
                return;
            }
            default: {
                int n = rnd(-1, 70);
                list = IntList(n);  // zeroed room: setItem beyond the end shows it
                m = SeqModel<int>(1, n);
            }
        }
    }

    void run(unsigned seed, int steps) {
        using S = IntListModelTest;
        // Each step is listed once per unit of its weight.
        void (S::*const table[])() = {
            &S::stepInsert, &S::stepInsert,     &S::stepInsert,  &S::stepInsert,
            &S::stepInsert, &S::stepInsertList, &S::stepSetItem, &S::stepSetItem,
            &S::stepRemove, &S::stepRemove,     &S::stepOrder,   &S::stepOrder,
            &S::stepSearch, &S::stepSearch,     &S::stepSearch,  &S::stepRebuild};
        rnd.gen.seed(seed);
        for (int s = 0; s < steps && !HasFatalFailure(); ++s) {
            (this->*table[rnd(0, std::size(table) - 1)])();
            if (!HasFatalFailure()) expectSame(s);
        }
    }
};

TEST_F(IntListModelTest, RandomOperationsMatchTheModel) {
    for (unsigned seed = 1; seed <= 40 && !HasFatalFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        list = IntList();
        m = SeqModel<int>(1);
        run(seed, 1500);
    }
}

// An equal element stops the search where the halving first meets it, and
// insertSorted puts the new element in front of it.
TEST(IntListTest, EqualRunsStopWhereTheHalvingMeetsThem) {
    IntList l;
    for (int j = 0; j < 7; ++j)
        l.append(5);
    l.sorted();
    bool found = false;
    EXPECT_EQ(l.findSortedUnique(5, found), 3);  // (0 + 7) / 2
    EXPECT_TRUE(found);
    EXPECT_EQ(l.insertSorted(5), 3);
    EXPECT_EQ(l.insertSortedUnique(5, found), 4);  // (0 + 8) / 2
    EXPECT_EQ(l.count(), 8);
}

}  // namespace
