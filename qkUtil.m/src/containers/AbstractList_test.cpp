// The owning pointer lists against a model (a std::vector of the element
// pointers), run over both IntListList and ProbeList, whose elements have a
// virtual destructor and register while alive. Random sequences of inserts,
// setItem, replaceItem, removals, swaps, sorts, sorted searches and inserts,
// clears, appends of other lists and iterator scans that remove elements.
// After every step: the same pointers in the same order, count, capacity,
// sorted flag and compare function; for ProbeList also exactly the expected
// elements alive (nothing deleted too early, twice, or never).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "AbstractListImpl.h"
#include "IntList.h"
#include "ListTestSupport.h"

template class AbstractList<Probe, kProbeListName>;

namespace {

// How the model reaches each list kind's elements.
struct IntListListKind {
    using List = IntListList;
    using T = IntList;
    static T* make(int key) {
        T* t = new IntList;
        t->append(key);
        return t;
    }
    static int key(T const& t) { return t.constItem(0); }
    static constexpr bool kTracksLife = false;
};

struct ProbeListKind {
    using List = ProbeList;
    using T = Probe;
    static T* make(int key) { return key % 3 == 0 ? new BigProbe(key) : new Probe(key); }
    static int key(T const& t) { return t.key; }
    static constexpr bool kTracksLife = true;
};

template <class Kind>
class PointerListModelTest : public ::testing::Test {
  protected:
    using List = typename Kind::List;
    using T = typename Kind::T;
    using Cmp = typename List::CompareFunction;

    static int cmpAsc(T const& a, T const& b) { return compareInts(Kind::key(a), Kind::key(b)); }
    static int cmpDesc(T const& a, T const& b) { return cmpAsc(b, a); }
    static int qsortAsc(void const* a, void const* b) {
        return cmpAsc(**static_cast<T* const*>(a), **static_cast<T* const*>(b));
    }
    static int qsortDesc(void const* a, void const* b) { return qsortAsc(b, a); }

    std::mt19937 rng;
    List list;
    std::vector<T*> items;
    int capacity = 12;
    bool sorted = true;
    Cmp cmp = nullptr;

    int rand(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    bool coin() { return rand(0, 1) == 1; }
    int count() const { return int(items.size()); }
    T* fresh() { return Kind::make(rand(0, 15)); }

    // The model's element leaves the list without being deleted: the test owns it.
    void drop(T* t) { delete t; }

    void insertAt(int i, T* t, bool unsort) {
        if (count() == capacity) capacity = capacityAbove(count() + 1);
        items.insert(items.begin() + std::clamp(i, 0, count()), t);
        if (unsort && count() >= 2) sorted = false;
    }
    void removeAt(int i) {
        items.erase(items.begin() + i);
        if (count() < 2) sorted = true;
    }
    void emptied() {
        items.clear();
        capacity = 12;
        sorted = true;
    }
    bool reallySorted() const {
        if (!cmp) return false;
        for (int j = 1; j < count(); ++j)
            if (cmp(*items[j - 1], *items[j]) > 0) return false;
        return true;
    }

    void expectSame(int step) {
        SCOPED_TRACE("step " + std::to_string(step));
        ASSERT_EQ(list.count(), count());
        ASSERT_EQ(list.capacity(), capacity);
        ASSERT_EQ(list.isSorted(), sorted);
        ASSERT_EQ(list.getCompareFunction(), cmp);
        for (int j = 0; j < count(); ++j)
            ASSERT_EQ(list.item(j), items[j]) << "at " << j;
        if constexpr (Kind::kTracksLife) {
            std::set<Probe const*> expected(items.begin(), items.end());
            ASSERT_EQ(Probe::live(), expected);
        }
    }

    void stepInsert() {
        T* t = fresh();
        int i = rand(-3, count() + 3);
        switch (rand(0, 3)) {
            case 0:
                coin() ? list.append(*t) : list.append(t);
                insertAt(count(), t, true);
                break;
            case 1:
                coin() ? list.prepend(*t) : list.prepend(t);
                insertAt(0, t, true);
                break;
            case 2:
                coin() ? list.insert(i, *t) : list.insert(i, t);
                insertAt(i, t, true);
                break;
            default: {
                bool unsort = coin();
                list.insertItem(i, t, unsort);
                insertAt(i, t, unsort);
            }
        }
    }

    void stepReplace() {
        if (count() == 0) return stepInsert();
        T* t = fresh();
        int i = rand(0, count() - 1);
        bool unsort = coin();
        T* old = items[i];
        if (coin()) {
            list.setItem(i, t, unsort);
            drop(old);
        } else {
            bool deleteOld = coin();
            list.replaceItem(i, t, deleteOld, unsort);
            if (!deleteOld) drop(old);
        }
        items[i] = t;
        if (unsort && count() >= 2) sorted = false;
    }

    void stepRemove() {
        if (count() == 0) return;
        int i = rand(0, count() - 1);
        switch (rand(0, 2)) {
            case 0:
                list.remove(i);
                drop(items[i]);
                removeAt(i);
                break;
            case 1:
                list.removeAndDelete(i);
                removeAt(i);
                break;
            default: {
                int j = rand(0, count() - 1);
                list.swap(i, j);
                std::swap(items[i], items[j]);
                sorted = false;
            }
        }
    }

    void stepOrder() {
        switch (rand(0, 2)) {
            case 0: {
                Cmp fs[] = {cmpAsc, cmpDesc, nullptr};
                Cmp f = fs[rand(0, 2)];
                bool declare = coin();
                list.setCompareFunction(f, declare);
                if (f != cmp && count() > 1) sorted = false;
                if (declare) sorted = true;
                cmp = f;
                break;
            }
            case 1: {
                bool asc = coin();
                list.sort(asc ? qsortAsc : qsortDesc);
                std::stable_sort(items.begin(), items.end(), [&](T* a, T* b) {
                    return asc ? cmpAsc(*a, *b) < 0 : cmpAsc(*a, *b) > 0;
                });
                // qsort is not stable: take its order among equal keys, once
                // the list is known to hold the same pointers.
                std::vector<T*> now(items), was(items);
                for (int j = 0; j < count(); ++j)
                    now[j] = list.item(j);
                std::sort(now.begin(), now.end());
                std::sort(was.begin(), was.end());
                ASSERT_EQ(now, was);
                for (int j = 0; j < count(); ++j) {
                    ASSERT_EQ(Kind::key(list[j]), Kind::key(*items[j]));
                    items[j] = list.item(j);
                }
                break;
            }
            default:
                list.sorted();
                sorted = true;
        }
    }

    // The range after+1 .. count-1 and the equal run [lb, ub) of x in it.
    struct Range {
        int start, lb, ub;
    };
    Range rangeOf(T const& x, int after) const {
        Range r;
        r.start = std::max(after, -1) + 1;
        r.lb = r.start;
        while (r.lb < count() && cmp(*items[r.lb], x) < 0)
            ++r.lb;
        r.ub = r.lb;
        while (r.ub < count() && cmp(*items[r.ub], x) == 0)
            ++r.ub;
        return r;
    }

    void stepSortedInsert() {
        T* x = fresh();
        int after = coin() ? -1 : rand(-3, count() + 1);
        bool searchable = sorted && cmp;
        bool exact = searchable && reallySorted();
        Range r = exact ? rangeOf(*x, after) : Range{0, 0, count()};
        bool found = false;
        int pos;
        switch (rand(0, 2)) {
            case 0:
                pos = list.insertSorted(*x);
                if (!searchable) {
                    ASSERT_EQ(pos, -1);
                    return delete x;
                }
                if (exact) {
                    // In front of an equal element, or where x belongs.
                    r = rangeOf(*x, -1);
                    ASSERT_GE(pos, r.lb);
                    ASSERT_LE(pos, r.lb == r.ub ? r.lb : r.ub - 1);
                }
                ASSERT_LE(pos, count());
                return insertAt(pos, x, false);
            case 1:
                after = -1;
                if (exact) r = rangeOf(*x, -1);
                pos = list.insertSortedUnique(*x, found);
                break;
            default:
                pos = list.insertSortedUniqueAfter(*x, found, after);
        }
        if (!searchable) {
            ASSERT_EQ(pos, -2);
            return delete x;
        }
        if (exact) {
            ASSERT_EQ(found, r.lb < r.ub);
        }
        if (found) {
            ASSERT_EQ(cmp(*items[pos], *x), 0);
            return delete x;  // not taken: it stays the caller's
        }
        if (exact) {
            ASSERT_EQ(pos, std::min(r.lb, count()));
        }
        ASSERT_LE(pos, count());
        insertAt(pos, x, false);
    }

    void stepBulk() {
        switch (rand(0, 3)) {
            case 0: {
                int from = rand(0, count());
                list.clear(from);
                for (int j = 0; j < from; ++j)
                    drop(items[j]);
                emptied();
                break;
            }
            case 1:
                list.removeAll();
                for (T* t : items)
                    drop(t);
                emptied();
                break;
            case 2: {
                // The other list's pointers move over; it gives them up.
                List other;
                int n = rand(0, 20);
                for (int j = 0; j < n; ++j) {
                    T* t = fresh();
                    other.append(t);
                    insertAt(count(), t, true);
                }
                list.append(other);
                other.removeAll();
                break;
            }
            default:
                scanAndRemove();
        }
    }

    // Walks the list with an iterator, dropping elements with odd keys; every
    // element must be visited once, in order.
    void scanAndRemove() {
        AbstractList_Iterator<List> it(list);
        std::vector<T*> kept;
        int visited = 0;
        while (it.more()) {
            ASSERT_TRUE(it.next());
            ASSERT_EQ(&*it, items[visited]);
            ASSERT_EQ(&it.curRef(), it.operator->());
            T* t = items[visited++];
            if (Kind::key(*t) % 2 != 0) {
                it.removeCur();
                drop(t);
            } else {
                kept.push_back(t);
            }
        }
        ASSERT_FALSE(it.next());
        ASSERT_EQ(visited, count());
        items = kept;
        if (count() < 2 && visited > count()) sorted = true;
    }

    void run(unsigned seed, int steps) {
        rng.seed(seed);
        for (int s = 0; s < steps && !this->HasFatalFailure(); ++s) {
            int what = rand(0, 13);
            if (what < 4) {
                stepInsert();
            } else if (what < 5) {
                stepReplace();
            } else if (what < 7) {
                stepRemove();
            } else if (what < 8) {
                stepOrder();
            } else if (what < 12) {
                stepSortedInsert();
            } else {
                stepBulk();
            }
            if (!this->HasFatalFailure()) expectSame(s);
        }
    }
};

using Kinds = ::testing::Types<IntListListKind, ProbeListKind>;
TYPED_TEST_SUITE(PointerListModelTest, Kinds);

TYPED_TEST(PointerListModelTest, RandomOperationsMatchTheModel) {
    for (unsigned seed = 1; seed <= 30 && !this->HasFatalFailure(); ++seed) {
        this->run(seed, 1200);
        // The list's destructor deletes what it still holds.
        this->list.freeAll();
        this->emptied();
        this->expectSame(-1);
    }
}

// The search conventions on runs of equal elements, for every probe, range
// start and mode, against positions worked out from the runs (the model test
// covers the unsorted and no-compare-function answers).
TEST(PointerListSearchTest, EqualRunsAndRanges) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        ProbeList list;
        std::vector<int> keys;
        int n = std::uniform_int_distribution<int>(0, 40)(rng);
        for (int j = 0; j < n; ++j)
            keys.push_back(std::uniform_int_distribution<int>(0, 6)(rng));
        std::sort(keys.begin(), keys.end());
        for (int k : keys)
            list.append(new Probe(k));
        list.setCompareFunction(
            [](Probe const& a, Probe const& b) { return compareInts(a.key, b.key); }, true);
        for (int x = -1; x <= 7; ++x) {
            Probe probe(x);
            for (int after = -1; after <= n; ++after) {
                auto lo = std::lower_bound(keys.begin() + std::min(after + 1, n), keys.end(), x);
                auto hi = std::upper_bound(lo, keys.end(), x);
                int lb = int(lo - keys.begin()), ub = int(hi - keys.begin());
                bool found;
                int absent = std::max(lb - 1, after);  // the last smaller, or `after`
                ASSERT_EQ(list.findSortedAfter(probe, found, after, true), lb < ub ? lb : absent);
                ASSERT_EQ(found, lb < ub);
                int any = list.findSortedAfter(probe, found, after, false);
                if (lb < ub) {
                    ASSERT_TRUE(found);
                    ASSERT_TRUE(any >= lb && any < ub);
                } else {
                    ASSERT_EQ(any, absent);
                }
            }
        }
    }
}

TEST(PointerListTest, SetItemBeyondTheEndLeavesNullGaps) {
    ProbeList list;
    Probe* dropped = new Probe(1);
    list.append(dropped);
    list.remove(0);  // dropped, not deleted: the test still owns it
    list.setItem(40, new Probe(2));
    EXPECT_EQ(list.count(), 41);
    EXPECT_EQ(list.capacity(), 60);  // bestNewSize(41)
    for (int j = 0; j < 40; ++j)
        ASSERT_EQ(list.item(j), nullptr) << j;
    // Slots vacated by removals read as null too, inside the capacity.
    for (int j = 0; j < 40; ++j)
        list.setItem(j, new Probe(j));
    list.removeAndDelete(40);
    list.removeAndDelete(39);
    list.setItem(45, new Probe(45));
    EXPECT_EQ(list.capacity(), 60);
    for (int j = 39; j < 45; ++j)
        ASSERT_EQ(list.item(j), nullptr) << j;
    delete dropped;
    list.freeAll();
    EXPECT_TRUE(Probe::live().empty());
    EXPECT_EQ(list.capacity(), 12);
}

TEST(PointerListTest, ConstructionCapacities) {
    for (int n = 0; n <= 200; ++n) {
        IntListList list(n);
        ASSERT_EQ(list.capacity(), n <= 12 ? 12 : capacityAbove(n)) << n;
        ASSERT_EQ(list.bestNewSize(n), capacityAbove(n)) << n;
        ASSERT_TRUE(list.isSorted());
        ASSERT_EQ(list.getCompareFunction(), nullptr);
    }
}

TEST(PointerListTest, ClearFromDeletesOnlyTheTail) {
    ProbeList list;
    std::vector<Probe*> made;
    for (int j = 0; j < 5; ++j)
        list.append(made.emplace_back(new Probe(j)));
    // Replacing an element by itself keeps it, even when the old one is to go.
    list.replaceItem(3, made[3], true);
    EXPECT_EQ(Probe::live().count(made[3]), 1u);
    list.clear(2);
    EXPECT_EQ(list.count(), 0);
    EXPECT_EQ(Probe::live(), (std::set<Probe const*>{made[0], made[1]}));
    delete made[0];
    delete made[1];
}

TEST(PointerListTest, PrintOffsetsAppendsOneLinePerField) {
    std::string path = ::testing::TempDir() + "offsets.gdb";
    std::remove(path.c_str());
    { std::ofstream(path) << "# existing\n"; }
    IntListList::printOffsets(path.c_str());
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    // The field order of the object, on a 64-bit target.
    std::vector<std::string> expected = {
        "# existing",
        "set $AbstractList_compareFunction = 0x0",
        "set $AbstractList_sorted = 0x8",
        "set $AbstractList_items = 0x10",
        "set $AbstractList_static = 0x18",
        "set $AbstractList_size = 0x78",
        "set $AbstractList_count = 0x7c",
    };
    EXPECT_EQ(lines, expected);
    std::remove(path.c_str());

    ::testing::internal::CaptureStdout();
    IntListList::printOffsets("/nonexistent-dir/offsets.gdb");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "error opening /nonexistent-dir/offsets.gdb for append\n");
}

}  // namespace
