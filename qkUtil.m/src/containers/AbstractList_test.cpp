// The owning pointer lists against a model (a std::vector of the element
// pointers), over ProbeList, whose elements have a virtual destructor and
// register while alive. Random sequences of inserts, setItem (beyond the end
// too), replaceItem, removals, swaps, sorts, sorted searches over every range
// start, sorted inserts, clears, appends of other lists and iterator scans
// that remove elements. After every step: the same pointers in the same
// order, count, capacity, sorted flag and compare function, and exactly the
// expected elements alive (nothing deleted too early, twice, or never).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "AbstractListImpl.h"
#include "IntList.h"
#include "ListTestSupport.h"

template class AbstractList<Probe, kProbeListName>;

namespace {

int cmpAsc(Probe const& a, Probe const& b) {
    return compareInts(a.key, b.key);
}
int cmpDesc(Probe const& a, Probe const& b) {
    return cmpAsc(b, a);
}
int qsortAsc(void const* a, void const* b) {
    return cmpAsc(**static_cast<Probe* const*>(a), **static_cast<Probe* const*>(b));
}
int qsortDesc(void const* a, void const* b) {
    return qsortAsc(b, a);
}
// The compare function of an order of the model.
ProbeList::CompareFunction function(int order) {
    return order > 0 ? cmpAsc : order < 0 ? cmpDesc : nullptr;
}

class PointerListModelTest : public ::testing::Test {
  protected:
    Rng rnd;
    std::unique_ptr<ProbeList> list;
    SeqModel<Probe*> m;
    std::vector<Probe*> dropped;  // let go by the list, not deleted: the test's own

    Probe* fresh() {
        int key = rnd(0, 7);
        return key % 3 == 0 ? new BigProbe(key) : new Probe(key);
    }

    void expectSame(int step) {
        SCOPED_TRACE("step " + std::to_string(step));
        ASSERT_EQ(list->count(), m.count());
        ASSERT_EQ(list->capacity(), m.capacity);
        ASSERT_EQ(list->isSorted(), m.sorted);
        ASSERT_EQ(list->getCompareFunction(), function(m.order));
        for (int j = 0; j < m.count(); ++j)
            ASSERT_EQ(list->item(j), m.items[size_t(j)]) << "at " << j;
        std::vector<Probe const*> alive(m.items.begin(), m.items.end());
        alive.insert(alive.end(), dropped.begin(), dropped.end());
        std::sort(alive.begin(), alive.end());
        ASSERT_TRUE(
            std::equal(alive.begin(), alive.end(), Probe::live().begin(), Probe::live().end()));
        for (Probe* p : dropped)
            delete p;
        dropped.clear();
    }

    void stepInsert() {
        Probe* t = fresh();
        int i = rnd(-3, m.count() + 3);
        bool byRef = rnd.coin(), unsort = true;
        switch (rnd(0, 3)) {
            case 0:
                byRef ? list->append(*t) : list->append(t), i = m.count();
                break;
            case 1:
                byRef ? list->prepend(*t) : list->prepend(t), i = 0;
                break;
            case 2:
                byRef ? list->insert(i, *t) : list->insert(i, t);
                break;
            default:
                list->insertItem(i, t, unsort = rnd.coin());
        }
        m.insertAt(i, t, unsort);
    }

    // setItem and replaceItem at a present position, or setItem beyond the
    // end: the positions passed over read as null until they are filled.
    void stepReplace() {
        int i = rnd.coin() ? rnd(0, m.count() + 20) : rnd(-1, m.count() - 1);
        bool unsort = rnd.coin();
        if (i < 0) return;
        if (i >= m.count()) {
            int gapFrom = m.count();
            Probe* t = fresh();
            list->setItem(i, t, unsort);
            m.setAt(i, t, unsort);
            for (int j = gapFrom; j < i; ++j) {
                ASSERT_EQ(list->item(j), nullptr) << j;
                list->setItem(j, m.items[size_t(j)] = fresh(), unsort);
            }
            return;
        }
        Probe* old = m.items[size_t(i)];
        Probe* t = rnd(0, 3) == 0 ? old : fresh();  // storing the very same pointer keeps it
        bool viaSet = rnd.coin(), deleteOld = rnd.coin();
        viaSet ? list->setItem(i, t, unsort) : list->replaceItem(i, t, deleteOld, unsort);
        if (t != old && (viaSet || !deleteOld)) dropped.push_back(old);
        m.setAt(i, t, unsort);
    }

    void stepRemove() {
        if (m.count() == 0) return;
        int i = rnd(0, m.count() - 1), j = rnd(0, m.count() - 1);
        switch (rnd(0, 2)) {
            case 0:
                list->remove(i);
                dropped.push_back(m.items[size_t(i)]);
                return m.removeAt(i);
            case 1:
                list->removeAndDelete(i);
                return m.removeAt(i);
            default:
                list->swap(i, j);
                std::swap(m.items[size_t(i)], m.items[size_t(j)]);
                m.sorted = false;
        }
    }

    // qsort is not stable: take the list's order, once it is in key order (an
    // element lost or doubled shows in the live set).
    void sortBoth(bool asc) {
        list->sort(asc ? qsortAsc : qsortDesc);
        for (int j = 0; j < m.count(); ++j)
            m.items[size_t(j)] = list->item(j);
        ASSERT_TRUE(std::is_sorted(m.items.begin(), m.items.end(), [&](Probe* a, Probe* b) {
            return (asc ? cmpAsc : cmpDesc)(*a, *b) < 0;
        }));
    }

    void stepOrder() {
        switch (rnd(0, 2)) {
            case 0: {
                int order = rnd(-1, 1);
                bool declare = rnd.coin();
                list->setCompareFunction(function(order), declare);
                return m.setOrder(order, declare);
            }
            case 1:
                return sortBoth(rnd.coin());  // the flag stays as it was
            default:
                list->sorted(), m.sorted = true;
        }
    }

    void stepSearch() {
        std::unique_ptr<Probe> x(fresh());
        bool searchable = m.searchable();
        // Declared sorted over data out of order: order it, so answers are exact.
        if (searchable && !m.inOrder()) sortBoth(m.order > 0);
        int op = rnd(0, 3);
        if (op == 3) return searchEveryRange(*x, searchable);
        int after = op == 2 && rnd.coin() ? rnd(-3, m.count() + 1) : -1;
        auto [lb, ub] = m.run(x->key, after + 1);
        bool found = rnd.coin(), was = found;
        int pos = op == 0   ? list->insertSorted(*x)
                  : op == 1 ? list->insertSortedUnique(*x, found)
                            : list->insertSortedUniqueAfter(*x, found, after);
        if (!searchable) {
            ASSERT_EQ(pos, op == 0 ? -1 : -2);
            ASSERT_EQ(found, was);  // untouched
        } else if (op == 0) {
            // In front of an equal element the halving meets, or where x belongs.
            ASSERT_TRUE(pos >= lb && pos <= std::max(lb, ub - 1)) << pos;
            m.insertAt(pos, x.release(), false);
        } else if (found) {
            ASSERT_LT(lb, ub);
            ASSERT_TRUE(pos >= lb && pos < ub) << pos;  // x stays the caller's
        } else {
            ASSERT_EQ(lb, ub);
            ASSERT_EQ(pos, std::min(lb, m.count()));
            m.insertAt(pos, x.release(), false);
        }
    }

    // findSortedAfter for every range start, with and without `first`.
    void searchEveryRange(Probe const& x, bool searchable) {
        for (int after = -2; after <= m.count(); ++after) {
            for (bool first : {false, true}) {
                bool found = first;
                int pos = list->findSortedAfter(x, found, after, first);
                if (!searchable) {
                    ASSERT_TRUE(pos == -2 && found == first);
                    continue;
                }
                auto [lb, ub] = m.run(x.key, after + 1);
                int absent = std::max(lb - 1, std::max(after, -1));  // the last smaller
                ASSERT_EQ(found, lb < ub) << after;
                if (!found || first) {
                    ASSERT_EQ(pos, found ? lb : absent) << after << first;
                } else {
                    ASSERT_TRUE(pos >= lb && pos < ub) << after;
                }
            }
        }
    }

    void stepBulk() {
        switch (rnd(0, 2)) {
            case 0: {
                int from = rnd(0, m.count());
                list->clear(from);  // deletes from `from` on, drops the rest
                for (int j = 0; j < from; ++j)
                    dropped.push_back(m.items[size_t(j)]);
                m = SeqModel<Probe*>(m.order);
                return;
            }
            case 1: {
                // The other list's pointers move over; it gives them up.
                ProbeList other;
                for (int n = rnd(0, 20); n > 0; --n) {
                    other.append(fresh());
                    m.insertAt(m.count(), other.item(other.count() - 1));
                }
                list->append(other);
                return other.removeAll();
            }
            default:
                scanAndRemove();
        }
    }

    // Walks the list with an iterator, dropping elements with odd keys; every
    // element must be visited once, in order.
    void scanAndRemove() {
        AbstractList_Iterator<ProbeList> it(*list);
        for (Probe* p : std::vector<Probe*>(m.items)) {
            ASSERT_TRUE(it.more() && it.next());
            ASSERT_TRUE(&*it == p && &it.curRef() == it.operator->());
            if (p->key % 2 == 0) continue;
            it.removeCur();
            dropped.push_back(p);
            m.removeAt(int(std::find(m.items.begin(), m.items.end(), p) - m.items.begin()));
        }
        ASSERT_FALSE(it.more() || it.next());
    }

    void run(unsigned seed, int steps) {
        using S = PointerListModelTest;
        // Each step is listed once per unit of its weight.
        void (S::*const table[])() = {
            &S::stepInsert,  &S::stepInsert, &S::stepInsert, &S::stepInsert, &S::stepReplace,
            &S::stepReplace, &S::stepRemove, &S::stepRemove, &S::stepOrder,  &S::stepSearch,
            &S::stepSearch,  &S::stepSearch, &S::stepBulk,   &S::stepBulk};
        rnd.gen.seed(seed);
        int n = rnd(0, 70);
        list = std::make_unique<ProbeList>(n);
        m = SeqModel<Probe*>(0, n);
        for (int s = 0; s < steps && !HasFatalFailure(); ++s) {
            (this->*table[rnd(0, std::size(table) - 1)])();
            if (!HasFatalFailure()) expectSame(s);
        }
        list.reset();  // the destructor deletes what the list still holds
        ASSERT_TRUE(Probe::live().empty());
    }
};

TEST_F(PointerListModelTest, RandomOperationsMatchTheModel) {
    for (unsigned seed = 1; seed <= 40 && !HasFatalFailure(); ++seed)
        run(seed, 1200);
}

TEST(PointerListTest, PrintOffsetsAppendsOneLinePerField) {
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
