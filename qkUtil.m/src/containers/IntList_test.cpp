// IntList against a model built on std::vector: random sequences of every
// operation (positional and sorted inserts, removals, setItem beyond the end,
// compare-function changes, sorts, copies and moves), checking after each
// step the elements, the count, the capacity the growth rule predicts, the
// sorted flag and the compare function.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
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

struct Model {
    std::vector<int> items;
    int capacity = 12;
    bool sorted = true;
    IntList::CompareFunction cmp = compareInts;

    int count() const { return int(items.size()); }
    void unsortIfMany() {
        if (count() > 1) sorted = false;
    }
    void makeRoom(int needed) {
        if (needed > capacity) capacity = capacityAbove(needed);
    }
    void insertAt(int i, int v) {
        makeRoom(count() + 1);
        i = std::clamp(i, 0, count());
        items.insert(items.begin() + i, v);
    }
    void removeAt(int i) {
        items.erase(items.begin() + i);
        if (count() < 2) sorted = true;
    }
    bool reallySorted() const {
        if (!cmp) return false;
        for (int j = 1; j < count(); ++j)
            if (cmp(items[j - 1], items[j]) > 0) return false;
        return true;
    }
    // Positions of the equal run [lb, ub) of x in a sorted model.
    std::pair<int, int> run(int x) const {
        int lb = 0;
        while (lb < count() && cmp(items[lb], x) < 0)
            ++lb;
        int ub = lb;
        while (ub < count() && cmp(items[ub], x) == 0)
            ++ub;
        return {lb, ub};
    }
};

class IntListModelTest : public ::testing::Test {
  protected:
    std::mt19937 rng;
    IntList list;
    Model model;

    int rand(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    bool coin() { return rand(0, 1) == 1; }
    int value() { return rand(-20, 20); }

    void expectSame(char const* step) {
        SCOPED_TRACE(step);
        ASSERT_EQ(list.count(), model.count());
        ASSERT_EQ(list.capacity(), model.capacity);
        ASSERT_EQ(list.isSorted(), model.sorted);
        ASSERT_EQ(list.getCompareFunction(), model.cmp);
        for (int j = 0; j < model.count(); ++j)
            ASSERT_EQ(list.constItem(j), model.items[j]) << "at " << j;
    }

    IntList randomList(Model& m) {
        IntList other;
        int n = rand(0, 30);
        for (int j = 0; j < n; ++j) {
            int v = value();
            other.append(v);
            m.insertAt(m.count(), v);
        }
        return other;
    }

    void stepInsert() {
        int v = list.count() > 0 && coin() ? list[rand(0, list.count() - 1)] : value();
        switch (rand(0, 4)) {
            case 0:
                // A reference into the list itself, which growth may move.
                if (list.count() > 0) {
                    int j = rand(0, list.count() - 1);
                    model.insertAt(model.count(), model.items[j]);
                    list.append(list[j]);
                    break;
                }
                [[fallthrough]];
            case 1:
                coin() ? list.append(&v) : (void)(list << v);
                model.insertAt(model.count(), v);
                break;
            case 2:
                coin() ? list.prepend(v) : list.prepend(&v);
                model.insertAt(0, v);
                break;
            default: {
                int i = rand(-3, list.count() + 3);
                coin() ? list.insert(i, v) : list.insert(i, &v);
                model.insertAt(i, v);
            }
        }
        model.unsortIfMany();
    }

    void stepInsertList() {
        Model extra;
        IntList other = randomList(extra);
        bool self = rand(0, 5) == 0;
        std::vector<int> const& add = self ? model.items : extra.items;
        std::vector<int> copy(add);
        IntList const& source = self ? list : other;
        if (coin()) {
            coin() ? list.append(source) : (void)(list << source);
            for (int v : copy)
                model.insertAt(model.count(), v);
        } else {
            int i = rand(-3, list.count() + 3);
            list.insert(i, source);
            i = std::clamp(i, 0, model.count());
            for (size_t j = 0; j < copy.size(); ++j)
                model.insertAt(i + int(j), copy[j]);
        }
        if (!copy.empty()) model.unsortIfMany();
    }

    void stepSetItem() {
        int i = rand(0, list.count() + (coin() ? 2 : 40));
        int v = value();
        bool unsort = coin();
        bool byValue = coin();
        byValue ? list.setItem(i, v, unsort) : list.setItem(i, &v, unsort);
        if (i >= model.capacity) model.capacity = capacityAbove(i + 1);
        if (i >= model.count()) model.items.resize(size_t(i) + 1, 0);
        model.items[size_t(i)] = v;
        if ((unsort || byValue) && model.count() >= 2) model.sorted = false;
    }

    void stepRemove() {
        if (list.count() > 0 && coin()) {
            int i = rand(0, list.count() - 1);
            list.remove(i);
            model.removeAt(i);
        } else {
            int p = rand(-1, list.count());
            list.removeAfter(p);
            while (model.count() - 1 > p)
                model.removeAt(model.count() - 1);
        }
    }

    void stepOrder() {
        switch (rand(0, 3)) {
            case 0: {
                IntList::CompareFunction fs[] = {compareInts, compareDesc, nullptr};
                auto f = fs[rand(0, 2)];
                list.setCompareFunction(f);
                if (f != model.cmp) model.unsortIfMany();
                model.cmp = f;
                break;
            }
            case 1: {
                // Sorting alone leaves the flag as it was.
                bool asc = coin();
                list.sort(asc ? qsortAsc : qsortDesc);
                std::sort(model.items.begin(), model.items.end(),
                          [&](int a, int b) { return asc ? a < b : a > b; });
                break;
            }
            default:
                if (model.reallySorted()) {
                    list.sorted();
                    model.sorted = true;
                }
        }
    }

    void stepSearch() {
        int x = value();
        bool searchable = model.sorted && model.cmp;
        // When the flag is set over data that is out of order the answer is
        // only required to be a valid position.
        bool exact = searchable && model.reallySorted();
        auto [lb, ub] = exact ? model.run(x) : std::pair<int, int>{0, model.count()};
        switch (rand(0, 3)) {
            case 0: {
                int pos = list.insertSorted(x);
                if (!searchable) {
                    ASSERT_EQ(pos, -1);
                    return;
                }
                // In front of an equal element, or where x belongs.
                ASSERT_GE(pos, lb);
                ASSERT_LE(pos, !exact ? model.count() : (lb == ub ? lb : ub - 1));
                model.insertAt(pos, x);
                break;
            }
            case 1:
            case 2: {
                bool before = coin(), found = before;
                bool unique = coin();
                int pos =
                    unique ? list.insertSortedUnique(x, found) : list.findSortedUnique(x, found);
                if (!searchable) {
                    ASSERT_EQ(pos, -1);
                    ASSERT_EQ(found, before);  // untouched
                    return;
                }
                if (exact) {
                    ASSERT_EQ(found, lb < ub);
                }
                if (found) {
                    ASSERT_LT(pos, model.count());
                    ASSERT_EQ(model.cmp(model.items[size_t(pos)], x), 0);
                } else {
                    ASSERT_GE(pos, 0);
                    ASSERT_LE(pos, model.count());
                    if (exact) {
                        ASSERT_EQ(pos, lb);
                    }
                    if (unique) model.insertAt(pos, x);
                }
                break;
            }
            default: {
                bool expected =
                    model.cmp && std::any_of(model.items.begin(), model.items.end(),
                                             [&](int v) { return model.cmp(v, x) == 0; });
                if (!model.sorted || exact || !model.cmp) {
                    ASSERT_EQ(list.isContained(x), expected);
                }
            }
        }
    }

    void stepCopyOrClear() {
        int kind = rand(0, 3);
        if (kind == 0) {
            list.clear();
            model.items.clear();
            model.sorted = true;
        } else if (kind == 1) {
            // A copy holds its own storage, sized as if appended one by one.
            IntList copy(list);
            list = IntList();
            IntList& self = copy;
            copy = self;
            list = std::move(copy);
            ASSERT_EQ(copy.count(), 0);
            ASSERT_EQ(copy.capacity(), 12);
        } else if (kind == 2) {
            Model m;
            IntList other = randomList(m);
            other.setCompareFunction(compareDesc);
            list = other;
            m.cmp = compareDesc;
            m.sorted = m.count() < 2;
            model = m;
        } else {
            IntList moved(std::move(list));  // takes the heap array, if any
            list = std::move(moved);
            return;
        }
        model.capacity = model.count() > 12 ? capacityAbove(model.count() - 1) : 12;
    }

    void run(unsigned seed, int steps) {
        rng.seed(seed);
        for (int s = 0; s < steps; ++s) {
            int what = rand(0, 15);
            if (what < 5) {
                stepInsert();
            } else if (what < 6) {
                stepInsertList();
            } else if (what < 8) {
                stepSetItem();
            } else if (what < 10) {
                stepRemove();
            } else if (what < 12) {
                stepOrder();
            } else if (what < 15) {
                stepSearch();
            } else {
                stepCopyOrClear();
            }
            if (HasFatalFailure()) return;
            expectSame(("step " + std::to_string(s) + " seed " + std::to_string(seed)).c_str());
            if (HasFatalFailure()) return;
        }
    }
};

TEST_F(IntListModelTest, RandomOperationsMatchTheModel) {
    for (unsigned seed = 1; seed <= 40 && !HasFatalFailure(); ++seed) {
        list.clear();
        list.setCompareFunction(compareInts);
        model = Model();
        run(seed, 1500);
    }
}

TEST(IntListTest, ConstructionCapacities) {
    // n -> expected capacity, straight from the growth rule's definition.
    for (int n = -1; n <= 300; ++n) {
        IntList l(n);
        int expected = n <= 12 ? 12 : capacityAbove(n);
        ASSERT_EQ(l.capacity(), expected) << n;
        ASSERT_EQ(l.count(), 0);
        ASSERT_TRUE(l.isSorted());
        ASSERT_EQ(l.getCompareFunction(), compareInts);
        // The storage is zeroed: setItem at the last slot exposes zeros below.
        l.setItem(expected - 1, 7, false);
        ASSERT_EQ(l.capacity(), expected);
        for (int j = 0; j + 1 < l.count(); ++j)
            ASSERT_EQ(l[j], 0);
    }
}

// The sorted-insert conventions on a run of equal elements: IntList stops at
// the first equal element the halving meets and inserts in front of it.
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
    EXPECT_EQ(l.findSortedUnique(4, found), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(l.findSortedUnique(6, found), 8);
    EXPECT_FALSE(found);
    EXPECT_TRUE(l.isSorted());
}

}  // namespace
