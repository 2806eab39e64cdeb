// Both list kinds against one model on std::vector, driven by the same random
// operations: positional inserts (of references into the list itself too,
// which growth may free), setItem over and beyond the end, removals, compare
// function changes, sorts, sorted searches and inserts, clears. Each kind adds
// its own: ProbeList replaceItem, swap, removeAndDelete, findSortedAfter from
// every range start, appends of other lists and iterator scans that remove;
// IntList list inserts, removeAfter, isContained, copies, moves and
// construction with room. After every step the list holds exactly the model's
// elements, count, capacity, sorted flag and compare function; for ProbeList,
// exactly the expected elements are alive (none deleted early, twice or never).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "AbstractListImpl.h"
#include "ListTestSupport.h"

template class AbstractList<Probe, kProbeListName>;

namespace {

using ::compareInts;
int compareInts(Probe const& a, Probe const& b) {
    return compareInts(a.key, b.key);
}

// One seed's run: the model (items, order, capacity, sorted flag: the rules
// every list kind shares) and the list under test.
template <class L>
struct ModelRun {
    static constexpr bool kOwns = std::is_same_v<L, ProbeList>;
    using E = std::conditional_t<kOwns, Probe*, int>;  // what the list stores
    using T = std::remove_pointer_t<E>;
    using Cmp = typename L::CompareFunction;
    static int keyOf(int v) { return v; }
    static int keyOf(Probe const* p) { return p->key; }
    static Probe& ref(Probe* p) { return *p; }
    static int const& ref(int const& v) { return v; }
    static Probe* ptr(Probe* p) { return p; }
    static int const* ptr(int const& v) { return &v; }
    static int down(T const& a, T const& b) { return compareInts(b, a); }
    static int key(void const* p) { return keyOf(*static_cast<E const*>(p)); }
    static int qsortUp(void const* a, void const* b) { return compareInts(key(a), key(b)); }
    static int qsortDown(void const* a, void const* b) { return qsortUp(b, a); }
    static Cmp function(int o) { return o > 0 ? Cmp(compareInts) : o < 0 ? down : nullptr; }
    // The capacity the growth rule gives a list that must hold more than n
    // elements: 28, 60, 124, ... (2^k - 4).
    static int above(int n, int cap = 28) { return cap > n ? cap : above(n, cap * 2 + 4); }

    Rng rnd;
    int room = rnd(-1, 70), order = kOwns ? 0 : 1, capacity = 0;
    bool sorted = true;
    std::vector<E> items;
    std::unique_ptr<L> list = std::make_unique<L>(room);
    E t{};                        // the step's new element
    std::vector<Probe*> dropped;  // let go by the list, not deleted: the test's own

    explicit ModelRun(unsigned seed) : rnd{std::mt19937(seed)} { reset(room); }
    void reset(int n) { items.clear(), sorted = true, capacity = n > 12 ? above(n) : 12; }
    int count() const { return int(items.size()); }
    void insertAt(int i, E v, bool unsort = true) {
        if (count() == capacity) capacity = above(count() + 1);
        items.insert(items.begin() + std::clamp(i, 0, count()), v);
        if (unsort && count() >= 2) sorted = false;
    }
    void removeAt(int i) {
        items.erase(items.begin() + i);
        if (count() < 2) sorted = true;
    }
    // setItem at i >= 0: grows to hold i; what it passes over reads as E{}.
    void setAt(int i, E v, bool unsort) {
        if (i >= capacity) capacity = above(i + 1);
        if (i >= count()) items.resize(size_t(i) + 1, E{});
        items[size_t(i)] = v;
        if (unsort && count() >= 2) sorted = false;
    }
    bool inOrder(int o) const {
        return std::is_sorted(items.begin(), items.end(),
                              [&](E a, E b) { return o * compareInts(keyOf(a), keyOf(b)) < 0; });
    }
    // The equal run [lb, ub) of key x among positions from .. count-1 of a
    // list in order.
    std::pair<int, int> run(int x, int from) const {
        int lb = std::clamp(from, 0, count()), ub;
        while (lb < count() && order * compareInts(keyOf(items[size_t(lb)]), x) < 0)
            ++lb;
        for (ub = lb; ub < count() && keyOf(items[size_t(ub)]) == x;)
            ++ub;
        return {lb, ub};
    }
    static Probe* element(Probe*, int k) { return new Probe(k & 7); }
    static int element(int, int k) { return k; }
    E fresh() { return element(E{}, rnd(-20, 20)); }
    // qsort is not stable: the model takes the list's order once it is a
    // permutation of the model's, in the asked order.
    void sortBoth(bool up) {
        list->sort(up ? qsortUp : qsortDown);
        std::vector<E> before = items;
        for (int j = 0; j < count(); ++j)
            items[size_t(j)] = list->item(j);
        ASSERT_TRUE(std::is_permutation(before.begin(), before.end(), items.begin()) &&
                    inOrder(up ? 1 : -1));
    }

    void step() {
        int i = rnd(-3, count() + 3), j = count() ? rnd(0, count() - 1) : -1;
        int op = rnd(0, 9), how = rnd(0, 3);
        bool flag = rnd.coin(), other = rnd.coin();
        t = fresh();
        if (op <= 2 && how < 3) {
            // For IntList also a reference into the list itself, which growth may free.
            E const* x = &t;
            if constexpr (!kOwns) x = j >= 0 && other ? &(*list)[j] : x;
            insertAt(how == 0 ? count() : how == 1 ? 0 : i, *x);  // before x may be freed
            if (how == 0) flag ? list->append(ref(*x)) : list->append(ptr(*x));
            if (how == 1) flag ? list->prepend(ref(*x)) : list->prepend(ptr(*x));
            if (how == 2) flag ? list->insert(i, ref(*x)) : list->insert(i, ptr(*x));
        } else if (op == 3) {
            int gap = count();
            i = rnd(0, gap + (how ? 3 : 40));
            E old = i < gap ? items[size_t(i)] : E{};
            E v = kOwns && i < gap && how == 1 ? old : t;  // the very same pointer stays
            if constexpr (kOwns) {
                bool deleteOld = rnd.coin();
                i < gap&& other ? list->replaceItem(i, v, deleteOld, flag)
                                : list->setItem(i, v, flag);
                if (v != old && i < gap && !(other && deleteOld)) dropped.push_back(old);
            } else {
                other ? list->setItem(i, v, flag) : list->setItem(i, &v, flag);
            }
            setAt(i, v, flag || (!kOwns && other));  // the int value form always unsorts
            for (int k = gap; k < i; ++k) {
                ASSERT_EQ(list->item(k), E{}) << k;
                setAt(k, fresh(), flag);
                list->setItem(k, ptr(items[size_t(k)]), flag);
            }
        } else if (op == 4 && j >= 0 && how == 0) {
            if constexpr (kOwns) dropped.push_back(items[size_t(j)]);
            list->remove(j), removeAt(j);
        } else if (op == 5 && how == 0) {
            int o = rnd(-1, 1);
            if constexpr (kOwns)
                list->setCompareFunction(function(o), flag);
            else
                list->setCompareFunction(function(o)), flag = false;
            if (o != order && count() > 1) sorted = false;
            order = o, sorted = sorted || flag;
        } else if (op == 5) {
            how == 1 ? sortBoth(flag) : (list->sorted(), void(sorted = true));  // sort keeps it
        } else if (op <= 7) {
            search(i, flag, how);
        } else if (op == 8) {
            if constexpr (kOwns) {
                list->clear(i = rnd(0, count()));  // deletes from i on, drops the rest
                dropped.insert(dropped.end(), items.begin(), items.begin() + i);
            } else {
                list->clear();  // the compare function stays
            }
            reset(0);
        } else {
            special(i, j, flag);
        }
    }

    void search(int i, bool flag, int how) {
        bool searchable = sorted && order != 0, was = flag;
        // Declared sorted over data out of order: order it, so answers are exact.
        if (searchable && !inOrder(order)) {
            ASSERT_NO_FATAL_FAILURE(sortBoth(order > 0));
        }
        if constexpr (!kOwns) {
            auto [lb, ub] = run(t, 0);
            ASSERT_EQ(list->isContained(t),
                      order && (searchable ? lb < ub : std::count(items.begin(), items.end(), t)));
        }
        // ProbeList: findSortedAfter from every range start; the inserts from one.
        int after = kOwns && how > 1 ? -2 : kOwns && how ? i : -1;
        for (int end = kOwns && how > 1 ? count() : after; after <= end; ++after, flag = was) {
            auto [lb, ub] = run(keyOf(t), after + 1);
            int pos = how == 0 ? list->insertSorted(ref(t)) : -3;
            if constexpr (kOwns) {
                if (how == 1) pos = list->insertSortedUniqueAfter(*t, flag, after);
                if (how > 1) pos = list->findSortedAfter(*t, flag, after, how == 3);
            } else {
                if (how == 1) pos = list->insertSortedUnique(t, flag);
                if (how > 1) pos = list->findSortedUnique(t, flag);
            }
            if (!searchable) {
                ASSERT_TRUE(pos == (kOwns && how ? -2 : -1) && flag == was) << pos;  // untouched
            } else if (how == 0) {
                // In front of an equal element the halving meets, or where t belongs.
                ASSERT_TRUE(pos >= lb && pos <= std::max(lb, ub - 1)) << pos;
            } else if (flag) {
                // With `first`, the lowest equal position in the range.
                ASSERT_TRUE(pos >= lb && pos < ub && (how < 3 || !kOwns || pos == lb)) << pos;
            } else {
                // Where t goes, or (findSortedAfter) the last smaller before it.
                int miss = !kOwns     ? lb
                           : how == 1 ? std::max(lb, after + 1)
                                      : std::max({lb - 1, after, -1});
                ASSERT_TRUE(lb == ub && pos == miss) << pos;
            }
            if (searchable && (how == 0 || (how == 1 && !flag))) insertAt(pos, t, false);
        }
    }

    // The operations only one kind has.
    void special(int i, int j, bool flag) {
        int k = rnd(0, std::max(0, count() - 1)), how = rnd(0, 4);
        if constexpr (kOwns) {
            if (how == 0) list->insertItem(i, t, flag), insertAt(i, t, flag);
            if (how == 1 && j >= 0) list->swap(j, k), std::swap(items[size_t(j)], items[size_t(k)]);
            if (how == 1 && j >= 0) sorted = false;
            if (how == 2 && j >= 0) list->removeAndDelete(j), removeAt(j);
            if (how == 3) {
                // The other list's pointers move over; it gives them up.
                ProbeList other;
                for (int n = rnd(0, 20); n > 0; --n)
                    other.append(fresh()), insertAt(count(), other.item(other.count() - 1));
                list->append(other);
                other.removeAll();
            } else if (how == 4) {
                // A scan that drops the elements with odd keys visits each once, in order.
                AbstractList_Iterator<ProbeList> it(*list);
                for (Probe* p : std::vector<Probe*>(items)) {
                    ASSERT_TRUE(it.more() && it.next() && &*it == p && &it.curRef() == &*it);
                    if (p->key % 2 == 0) continue;
                    it.removeCur(), dropped.push_back(p);
                    removeAt(int(std::find(items.begin(), items.end(), p) - items.begin()));
                }
                ASSERT_FALSE(it.more() || it.next());
            }
        } else if (how == 0) {
            IntList other;  // or the list itself
            std::vector<int> add = flag ? items : std::vector<int>(size_t(rnd(0, 30)));
            for (int& a : add)
                flag ? void() : other.append(a = rnd(-20, 20));
            bool at = rnd.coin();
            at ? list->insert(i, flag ? *list : other) : list->append(flag ? *list : other);
            for (i = at ? std::clamp(i, 0, count()) : count(); int a : add)
                insertAt(i++, a);
        } else if (how == 1) {
            list->removeAfter(i = rnd(-1, count()));
            items.resize(size_t(std::clamp(i + 1, 0, count())));
            sorted = sorted || count() < 2;
        } else if (how == 2) {
            // A copy holds its own storage, sized as if appended one by one.
            IntList copy(*list);
            *list = static_cast<IntList&>(copy) = copy;
            capacity = count() > 12 ? above(count() - 1) : 12;
        } else if (how == 3) {
            *list = IntList(std::move(*list));  // takes the heap array, if any
        } else {
            *list = IntList(i = rnd(-1, 70));  // zeroed room: setItem beyond the end shows it
            reset(i), order = 1;
        }
    }

    void check() {
        std::vector<E> got;
        for (int j = 0; j < list->count(); ++j)
            got.push_back(list->item(j));
        ASSERT_EQ(std::tuple(got, list->capacity(), list->isSorted(), list->getCompareFunction()),
                  std::tuple(items, capacity, sorted, function(order)));
        if constexpr (kOwns) {
            if (std::find(items.begin(), items.end(), t) == items.end()) dropped.push_back(t);
            std::set<Probe const*> alive(items.begin(), items.end());
            alive.insert(dropped.begin(), dropped.end());
            ASSERT_EQ(alive, Probe::live());
            std::for_each(dropped.begin(), dropped.end(), [](Probe* p) { delete p; });
            dropped.clear();
        }
    }
};

template <class L>
void runModel(int steps) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        ModelRun<L> run(seed);
        for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
            run.step();
            ASSERT_NO_FATAL_FAILURE(run.check());
        }
        run.list.reset();  // the destructor deletes what a ProbeList still holds
        ASSERT_TRUE(Probe::live().empty());
    }
}

TEST(ListModelTest, IntListMatchesTheModel) {
    runModel<IntList>(1500);
}
TEST(ListModelTest, ProbeListMatchesTheModel) {
    runModel<ProbeList>(1200);
}

// An equal element stops the search where the halving first meets it, and
// insertSorted puts the new element in front of it.
TEST(ListModelTest, EqualRunsStopWhereTheHalvingMeetsThem) {
    IntList l(7);
    l << 5 << 5 << 5 << 5 << 5 << 5 << 5;
    l.sorted();
    bool found = false;
    EXPECT_TRUE(l.findSortedUnique(5, found) == 3 && found);  // (0 + 7) / 2
    EXPECT_EQ(l.insertSorted(5), 3);
    EXPECT_EQ(l.insertSortedUnique(5, found), 4);  // (0 + 8) / 2
}

TEST(ListModelTest, PrintOffsetsAppendsOneLinePerField) {
    std::string path = ::testing::TempDir() + "offsets.gdb";
    std::ofstream(path) << "# existing\n";
    IntListList::printOffsets(path.c_str());
    std::ostringstream all;
    all << std::ifstream(path).rdbuf();
    std::remove(path.c_str());
    // The field order of the object, on a 64-bit target.
    EXPECT_EQ(all.str(),
              "# existing\n"
              "set $AbstractList_compareFunction = 0x0\n"
              "set $AbstractList_sorted = 0x8\n"
              "set $AbstractList_items = 0x10\n"
              "set $AbstractList_static = 0x18\n"
              "set $AbstractList_size = 0x78\n"
              "set $AbstractList_count = 0x7c\n");
    ::testing::internal::CaptureStdout();
    IntListList::printOffsets("/nonexistent-dir/offsets.gdb");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "error opening /nonexistent-dir/offsets.gdb for append\n");
}

}  // namespace
