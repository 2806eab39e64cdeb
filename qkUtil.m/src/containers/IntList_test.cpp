// IntList against a model on std::vector: random positional, list and sorted
// inserts (of references into the list itself too, which growth may free),
// removals, setItem beyond the end, compare-function changes, sorts, copies,
// moves and construction with room.
#include <gtest/gtest.h>

#include <string>
#include <utility>

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
IntList::CompareFunction function(int order) {
    return order > 0 ? compareInts : order < 0 ? compareDesc : nullptr;
}

TEST(IntListTest, RandomOperationsMatchTheModel) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        Rng rnd{std::mt19937(seed)};
        IntList list;
        SeqModel<int> m(1);
        for (int step = 0; step < 1500 && !HasFatalFailure(); ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
            int v = rnd(-20, 20), i = rnd(-3, m.count() + 3), op = rnd(0, 9), how = rnd(0, 2);
            bool flag = rnd.coin(), was = flag;
            if (op <= 2) {
                int const& x = m.count() && how ? list[rnd(0, m.count() - 1)] : v;
                m.insertAt(i, x);
                flag ? list.insert(i, x) : list.insert(i, &x);
            } else if (op == 3) {
                IntList other;  // or the list itself
                std::vector<int> add = flag ? m.items : std::vector<int>(size_t(rnd(0, 30)));
                for (int& a : add)
                    flag ? void() : other.append(a = rnd(-20, 20));
                how ? list.insert(i, flag ? list : other) : list.append(flag ? list : other);
                i = how ? std::clamp(i, 0, m.count()) : m.count();
                for (int a : add)
                    m.insertAt(i++, a);
            } else if (op == 4) {
                i = rnd(0, m.count() + (how ? 2 : 40));
                flag ? list.setItem(i, v, was) : list.setItem(i, &v, was);
                m.setAt(i, v, flag || was);  // the value form always unsorts
            } else if (op == 5 && m.count() && flag) {
                list.remove(i = rnd(0, m.count() - 1));
                m.removeAt(i);
            } else if (op == 5) {
                list.removeAfter(i = rnd(-1, m.count()));
                while (m.count() - 1 > i)
                    m.removeAt(m.count() - 1);
            } else if (op == 6 && how == 0) {
                list.setCompareFunction(function(v % 2)), m.setOrder(v % 2, false);
            } else if (op == 6 && how == 1) {
                list.sort(flag ? qsortAsc : qsortDesc);  // the flag stays as it was
                std::sort(m.items.begin(), m.items.end(),
                          [&](int a, int b) { return flag == (a < b) && a != b; });
            } else if (op == 6) {
                list.sorted(), m.sorted = true;
            } else if (op <= 8) {
                bool searchable = m.searchable();
                // Declared sorted over data out of order: order it, so answers are exact.
                if (searchable && !m.inOrder()) {
                    list.sort(m.order > 0 ? qsortAsc : qsortDesc);
                    std::sort(m.items.begin(), m.items.end(),
                              [&](int a, int b) { return m.compare(a, b) < 0; });
                }
                auto [lb, ub] = m.run(v);
                ASSERT_EQ(list.isContained(v),
                          m.order && (searchable ? lb < ub
                                                 : std::count(m.items.begin(), m.items.end(), v)));
                int pos = how == 0   ? list.insertSorted(v)
                          : how == 1 ? list.insertSortedUnique(v, flag)
                                     : list.findSortedUnique(v, flag);
                if (!searchable) {
                    ASSERT_TRUE(pos == -1 && flag == was) << pos;  // found untouched
                } else if (how == 0) {
                    // In front of an equal element the halving meets, or where v belongs.
                    ASSERT_TRUE(pos >= lb && pos <= std::max(lb, ub - 1)) << pos;
                } else {
                    ASSERT_TRUE(flag ? pos >= lb && pos < ub : pos == lb && lb == ub) << pos;
                }
                if (searchable && (how == 0 || (how == 1 && !flag))) m.insertAt(pos, v, false);
            } else if (how == 0) {
                list.clear();  // the compare function stays
                m = SeqModel<int>(m.order);
            } else if (how == 1) {
                // A copy holds its own storage, sized as if appended one by one.
                IntList copy(list);
                list = static_cast<IntList&>(copy) = copy;
                m.capacity = m.count() > 12 ? m.above(m.count() - 1) : 12;
            } else if (flag) {
                list = IntList(std::move(list));  // takes the heap array, if any
            } else {
                list = IntList(i = rnd(-1, 70));  // zeroed room: setItem beyond the end shows it
                m = SeqModel<int>(1, i);
            }
            ASSERT_NO_FATAL_FAILURE(expectSame(list, m, function));
        }
    }
}

// An equal element stops the search where the halving first meets it, and
// insertSorted puts the new element in front of it.
TEST(IntListTest, EqualRunsStopWhereTheHalvingMeetsThem) {
    IntList l(7);
    for (int j = 0; j < 7; ++j)
        l.append(5);
    l.sorted();
    bool found = false;
    EXPECT_TRUE(l.findSortedUnique(5, found) == 3 && found);  // (0 + 7) / 2
    EXPECT_EQ(l.insertSorted(5), 3);
    EXPECT_EQ(l.insertSortedUnique(5, found), 4);  // (0 + 8) / 2
}

}  // namespace
