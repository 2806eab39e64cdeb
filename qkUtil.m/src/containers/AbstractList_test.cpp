// The owning pointer lists against a model (a vector of the element pointers)
// over ProbeList, whose elements register while alive: random inserts,
// setItem beyond the end, replaceItem, removals, swaps, sorts, sorted
// searches from random range starts, clears, appends of other lists and
// iterator scans that remove. After every step the list matches the model and
// exactly the expected elements are alive (none deleted early, twice or never).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "AbstractListImpl.h"
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
ProbeList::CompareFunction function(int order) {
    return order > 0 ? cmpAsc : order < 0 ? cmpDesc : nullptr;
}

TEST(PointerListTest, RandomOperationsMatchTheModel) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        Rng rnd{std::mt19937(seed)};
        int room = rnd(0, 70);
        auto list = std::make_unique<ProbeList>(room);
        SeqModel<Probe*> m(0, room);
        std::vector<Probe*> dropped;  // let go by the list, not deleted: the test's own
        auto fresh = [&] { return new Probe(rnd(0, 7)); };
        // qsort is not stable: the model takes the list's order (a search finds it out of order).
        auto sortBoth = [&](bool asc) {
            list->sort(asc ? qsortAsc : qsortDesc);
            for (int j = 0; j < m.count(); ++j)
                m.items[size_t(j)] = list->item(j);
        };
        for (int step = 0; step < 1200 && !HasFatalFailure(); ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
            int i = rnd(-3, m.count() + 3), j = m.count() ? rnd(0, m.count() - 1) : -1;
            int op = rnd(0, 9), how = rnd(0, 3);
            bool flag = rnd.coin(), was = flag;
            std::unique_ptr<Probe> x(fresh());  // released when the list takes it
            Probe* t = x.get();
            if (op <= 2) {
                x.release();
                if (how == 0) i = m.count(), flag ? list->append(*t) : list->append(t);
                if (how == 1) i = 0, flag ? list->prepend(*t) : list->prepend(t);
                if (how == 2) flag ? list->insert(i, *t) : list->insert(i, t);
                if (how == 3) list->insertItem(i, t, flag);
                m.insertAt(i, t, how < 3 || flag);
            } else if (op == 3 && (flag || j < 0)) {
                // setItem beyond the end: the positions passed over read as null.
                int gap = m.count();
                x.release();
                list->setItem(i = gap + rnd(0, 20), t, how % 2);
                m.setAt(i, t, how % 2);
                for (int k = gap; k < i; ++k) {
                    ASSERT_EQ(list->item(k), nullptr) << k;
                    list->setItem(k, m.items[size_t(k)] = fresh(), how % 2);
                }
            } else if (op == 3) {
                Probe* old = m.items[size_t(j)];
                t = how == 0 ? old : x.release();  // storing the very same pointer keeps it
                bool viaSet = rnd.coin(), deleteOld = rnd.coin();
                viaSet ? list->setItem(j, t, flag) : list->replaceItem(j, t, deleteOld, flag);
                if (t != old && (viaSet || !deleteOld)) dropped.push_back(old);
                m.setAt(j, t, flag);
            } else if (op == 4 && j >= 0) {
                int k = rnd(0, m.count() - 1);
                if (how == 0) list->swap(j, k), std::swap(m.items[size_t(j)], m.items[size_t(k)]);
                if (how == 1) list->remove(j), dropped.push_back(m.items[size_t(j)]);
                if (how == 2) list->removeAndDelete(j);
                how == 0 ? void(m.sorted = false) : how < 3 ? m.removeAt(j) : void();
            } else if (op == 5) {
                if (how == 0)
                    list->setCompareFunction(function(i % 2), flag), m.setOrder(i % 2, flag);
                if (how == 1) sortBoth(flag);  // the flag stays as it was
                if (how == 2) list->sorted(), m.sorted = true;
            } else if (op <= 7) {
                bool searchable = m.searchable();
                // Declared sorted over data out of order: order it, so answers are exact.
                if (searchable && !m.inOrder()) sortBoth(m.order > 0);
                // findSortedAfter from every range start; the inserts from one.
                for (int after = how > 1 ? -2
                                 : how   ? i
                                         : -1,
                         end = how > 1 ? m.count() : after;
                     after <= end && !HasFatalFailure(); ++after, flag = was) {
                    auto [lb, ub] = m.run(t->key, after + 1);
                    int pos = how == 0   ? list->insertSorted(*t)
                              : how == 1 ? list->insertSortedUniqueAfter(*t, flag, after)
                                         : list->findSortedAfter(*t, flag, after, how == 3);
                    if (!searchable) {
                        ASSERT_TRUE(pos == (how ? -2 : -1) && flag == was)
                            << pos;  // found untouched
                    } else if (how == 0) {
                        // In front of an equal element the halving meets, or where t belongs.
                        ASSERT_TRUE(pos >= lb && pos <= std::max(lb, ub - 1)) << pos;
                    } else if (flag) {
                        // With `first`, the lowest equal position in the range.
                        ASSERT_TRUE(pos >= lb && pos < ub && (how < 3 || pos == lb)) << pos;
                    } else {
                        // Where t goes, or (findSortedAfter) the last smaller before it.
                        ASSERT_TRUE(lb == ub &&
                                    pos == (how == 1 ? lb : std::max({lb - 1, after, -1})));
                    }
                    if (searchable && (how == 0 || (how == 1 && !flag)))
                        m.insertAt(pos, x.release(), 0);
                }
            } else if (op == 8) {
                int from = rnd(0, m.count());
                list->clear(from);  // deletes from `from` on, drops the rest
                dropped.insert(dropped.end(), m.items.begin(), m.items.begin() + from);
                m = SeqModel<Probe*>(m.order);
            } else if (how == 0) {
                // The other list's pointers move over; it gives them up.
                ProbeList other;
                for (int n = rnd(0, 20); n > 0; --n)
                    other.append(fresh()), m.insertAt(m.count(), other.item(other.count() - 1));
                list->append(other);
                other.removeAll();
            } else {
                // A scan that drops the elements with odd keys visits each once, in order.
                AbstractList_Iterator<ProbeList> it(*list);
                for (Probe* p : std::vector<Probe*>(m.items)) {
                    ASSERT_TRUE(it.more() && it.next() && &*it == p && &it.curRef() == &*it);
                    if (p->key % 2 == 0) continue;
                    it.removeCur();
                    dropped.push_back(p);
                    m.removeAt(int(std::find(m.items.begin(), m.items.end(), p) - m.items.begin()));
                }
                ASSERT_FALSE(it.more() || it.next());
            }
            x.reset();  // an element no one took
            ASSERT_NO_FATAL_FAILURE(expectSame(*list, m, function));
            std::set<Probe const*> alive(m.items.begin(), m.items.end());
            alive.insert(dropped.begin(), dropped.end());
            ASSERT_EQ(alive, Probe::live());
            for (Probe* p : dropped)
                delete p;
            dropped.clear();
        }
        list.reset();  // the destructor deletes what the list still holds
        ASSERT_TRUE(Probe::live().empty());
    }
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
