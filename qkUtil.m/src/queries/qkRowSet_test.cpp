// Row sets: the known behaviours of rows, references and sets; reference
// counting under random operations against a model (live blobs counted by
// the memory manager, live owned values by their destructors); sort against
// std::stable_sort and lookup against a linear scan; rows built and handed
// between threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KorSysSchema.h"
#include "qkCompositeValues.h"
#include "qkMemory.h"
#include "qkRowSet.h"
#include "qkScalarValues.h"

namespace {

using KorSysSchema::SchemaTable;
using KorSysSchema::TableLayout;

// A table of `n` columns whose types cycle through the six scalar types.
std::unique_ptr<SchemaTable> scalarTable(int n) {
    TableLayout layout{.name = "ROWS", .columns = {}};
    int const types[] = {qkValue::Int,  qkValue::String, qkValue::Double,
                         qkValue::Date, qkValue::Raw,    qkValue::Boolean};
    for (int i = 0; i < n; ++i)
        layout.columns.push_back({"c" + std::to_string(i), types[i % 6]});
    layout.primary = {0};
    return std::make_unique<SchemaTable>(layout);
}

qkIntValue* intValue(int column, int v, qkValue::qkOperator op = qkValue::Equal) {
    auto* x = new qkIntValue(column);
    x->set(v);
    x->oper(op);
    return x;
}

// A table whose rows' blobs are large blocks (over 512 bytes) while their
// value lists stay inside the row (12 values at most): strings and dates.
std::unique_ptr<SchemaTable> wideTable() {
    TableLayout layout{.name = "WIDE", .columns = {}};
    for (int i = 0; i < 12; ++i) {
        layout.columns.push_back(
            {"w" + std::to_string(i), i % 2 ? qkValue::Date : qkValue::String});
    }
    return std::make_unique<SchemaTable>(layout);
}

// Large blocks held by this thread.
long long largeBlocks() {
    MEMORY_THREAD* t = qkMemoryThread();
    return t ? t->stats[24].count : 0;
}

// ---- known behaviours -------------------------------------------------------------

TEST(RowSet, ArrayGrowthReferencesAndTheEmptyEntry) {
    auto table = scalarTable(3);
    qkRowSet set;
    qkRowHolder* first = set.makeRow(0, table.get());
    set.appendRow(first, 1);
    EXPECT_EQ(first->refCount1, 1);
    EXPECT_EQ(first->isFederate(), 1);
    for (int i = 1; i < 33; ++i)
        set.appendRow(set.makeRow(0, table.get()), 0);
    EXPECT_EQ(set.nrows(), 33);

    // Moving a reference in: the count moves, it does not grow.
    qkRowRef held;
    qkRowHolder* moved = set.makeRow(0, table.get());
    held.unsafeSet(moved, 1);
    set.appendRow(&held);
    EXPECT_EQ(held.values(), nullptr);
    EXPECT_EQ(moved->refCount1, 1);
    EXPECT_EQ(set.ref(33).update, 1);

    EXPECT_EQ(&set.ref(-1), &set.ref(set.nrows()));
    qkRowSet other;
    EXPECT_EQ(&other.ref(0), &set.ref(-1));  // one empty reference for all sets
    EXPECT_EQ(set.row(set.nrows()), nullptr);
    EXPECT_EQ(set.ref(-1).values(), nullptr);

    // A row in two sets survives the first clear and goes with the second.
    long long blobs = largeBlocks();
    auto wide = wideTable();
    qkRowHolder* shared = set.makeRow(0, wide.get());
    EXPECT_EQ(largeBlocks(), blobs + 1);
    set.appendRow(shared, 0);
    other.appendRow(shared, 0);
    EXPECT_EQ(shared->refCount1, 2);
    other.clearRows();
    EXPECT_EQ(shared->refCount1, 1);
    set.clearRows();
    EXPECT_EQ(largeBlocks(), blobs - 1);  // the row's blob and the 64 entries went
    EXPECT_EQ(set.nrows(), 0);
}

TEST(RowSet, ExtractedRowsKeepTheirParentAlive) {
    auto wide = wideTable();
    long long blobs = largeBlocks();
    qkRowSet set;
    qkRowHolder* parent = set.makeRow(0, wide.get());
    set.appendRow(parent, 0);
    qkRowHolder* sub = parent->extract(2, 3);
    EXPECT_EQ(parent->refCount2, 1);
    EXPECT_EQ(&(*sub)[0], &(*parent)[2]);  // the very values, borrowed
    qkRowRef subRef;
    subRef.unsafeSet(sub, 0);
    set.clearRows();  // the parent's last reference
    EXPECT_EQ(largeBlocks(), blobs + 1);
    EXPECT_EQ((*sub)[0].column(), 2);
    subRef.unsafeSet(nullptr, 0);  // both go
    EXPECT_EQ(largeBlocks(), blobs);
}

int gSignals = 0;
int countSignal(qkErrorLevel, qkError const&, char const*, va_list) {
    return ++gSignals, 0;
}

TEST(RowSet, MakeRowFillsEqualConditionsAndPrettyRowPrintsThem) {
    auto table = scalarTable(6);
    qkRowSet set(qkOID(1, 1, 0));
    set.append(intValue(0, 7));
    set.append(intValue(3, 2, qkValue::LessThan));
    qkRowHolder* nulls = set.makeRow(1, table.get());
    ASSERT_EQ(nulls->count(), 6);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ((*nulls)[i].column(), i);
        EXPECT_EQ((*nulls)[i].isNull(), i != 0) << i;
    }
    int v = 0;
    (*nulls)[0].get(v);
    EXPECT_EQ(v, 7);
    EXPECT_TRUE((*nulls)[0].isUpdated());

    qkRowHolder* plain = set.makeRow(0, table.get());
    EXPECT_TRUE((*plain)[0].isConstant());
    EXPECT_FALSE((*plain)[3].isConstant());
    EXPECT_FALSE((*plain)[1].isNull());

    qkString text("row:");
    (*plain)[1].set(qkString("ab"));
    // Without the host's date text the date column signals "not implemented".
    qkValue::setQkSignalCallBack(countSignal);
    plain->prettyRow(text);
    qkValue::setQkSignalCallBack(nullptr);
    EXPECT_EQ(gSignals, 1);
    std::string s = text.sanitize();
    EXPECT_NE(s.find("row: Column 0, updated0/literal0/constant2/feder0/operStr=/isNull0 Value "
                     "Int: 7 \n"),
              std::string::npos)
        << s;
    EXPECT_NE(s.find("\n Column 1, updated1/literal0/constant0/feder0/operStr=/isNull0 Value "
                     "String ab \n"),
              std::string::npos)
        << s;
    EXPECT_EQ(std::count(s.begin(), s.end(), '\n'), 6);

    qkRowHolder bare;
    qkString none("x");
    bare.prettyRow(none);
    EXPECT_STREQ(none.sanitize(), "<No Row set>");
    qkRowHolder::release1(nullptr);  // ignored
    set.appendRow(nulls, 0);
    set.appendRow(plain, 0);
}

TEST(RowSet, DebuggerLinesOfTheThreeClasses) {
    std::string path = testing::TempDir() + "rowset_offsets.gdb";
    std::remove(path.c_str());
    qkRowHolder::printOffsets(path.c_str());
    qkRowRef::printOffsets(path.c_str());
    qkRowSet::printOffsets(path.c_str());
    std::ifstream in(path);
    std::vector<std::string> names;
    for (std::string line; std::getline(in, line);) {
        ASSERT_EQ(line.rfind("set $", 0), 0u) << line;
        names.push_back(line.substr(5, line.find(' ', 5) - 5));
    }
    std::vector<std::string> expected = {
        "qkRowHolder_refCount1", "qkRowHolder_refCount2", "qkRowHolder_federate",
        "qkRowHolder_blob",      "qkRowHolder_parent",    "qkRowHolder_size",
        "qkRowRef_holder",       "qkRowRef_update",       "qkRowRef_remove",
        "qkRowRef_size",         "qkRowSet_rows",         "qkRowSet_nrows",
        "qkRowSet_arows",        "qkRowSet_anyUpdate",    "qkRowSet_anyRemove",
        "qkRowSet_size"};
    EXPECT_EQ(names, expected);
    std::remove(path.c_str());
}

// ---- reference counting against a model ---------------------------------------------

int gValuesDestroyed = 0;

// An owned value that reports its destruction; a clone copies it into a
// String value of the blob.
class CountingValue : public qkStringValue {
  public:
    explicit CountingValue(int column) : qkStringValue(column) {}
    ~CountingValue() override { ++gValuesDestroyed; }
};

constexpr int kOwnedValues = 12;  // a clone's blob is large, the list inline

enum class Kind { Blob, Owned, Extract };

struct ModelRow {
    qkRowHolder* holder;
    Kind kind;
    int parent;  // model id, -1 for none
};

class RowModel {
  public:
    explicit RowModel(std::mt19937& rng) : rng_(rng), table_(wideTable()) {
        gValuesDestroyed = 0;
        sets_.resize(4);
        for (auto& s : sets_)
            s = std::make_unique<qkRowSet>();
    }

    void step() {
        int op = int(rng_() % 12);
        if (op <= 5 && !roomInTarget()) op = 11;  // clear the full set instead
        switch (op) {
            case 0:
            case 1:
                appendNew(newBlobRow());
                break;
            case 2:
                appendNew(newOwnedRow());
                break;
            case 3:
                if (int id = anyLive(true); id >= 0) appendNew(cloneOf(id));
                break;
            case 4:
                if (int id = anyLive(false); id >= 0) appendNew(extractOf(id));
                break;
            case 5: {  // a second entry for a row already held
                if (int id = anyLive(false); id >= 0) {
                    sets_[target_]->appendRow(rows_[id].holder, 0);
                    entries_[target_].push_back(id);
                }
                break;
            }
            case 6: {
                int s = pick(sets_.size());
                int i = int(rng_() % (entries_[s].size() + 2)) - 1;
                sets_[s]->removeRow(i);
                if (i >= 0 && size_t(i) < entries_[s].size())
                    entries_[s].erase(entries_[s].begin() + i);
                break;
            }
            case 7: {
                int s = pick(sets_.size());
                int n = int(rng_() % (entries_[s].size() + 3)) - 1;
                sets_[s]->trim(n);
                if (n < 0) n = 0;
                if (size_t(n) <= entries_[s].size()) entries_[s].resize(size_t(n));
                break;
            }
            case 8: {
                int a = pick(sets_.size()), b = pick(sets_.size());
                if (rng_() % 2) {
                    sets_[a]->replace(sets_[b].get());
                    if (a != b) entries_[a] = std::move(entries_[b]), entries_[b].clear();
                } else {
                    *sets_[a] = *sets_[b];
                    entries_[a] = entries_[b];
                }
                break;
            }
            case 9: {  // a new set: a copy, or an empty one in place of a set
                int a = pick(sets_.size()), b = pick(sets_.size());
                if (rng_() % 2) {
                    sets_[a] = std::make_unique<qkRowSet>(*sets_[b]);
                    entries_[a] = entries_[b];
                } else {
                    sets_[a] = std::make_unique<qkRowSet>();
                    entries_[a].clear();
                }
                break;
            }
            case 10: {  // a reference held by the caller
                int r = pick(kRefs);
                int id = rng_() % 3 ? anyLive(false) : -1;
                refs_[r].unsafeSet(id >= 0 ? rows_[id].holder : nullptr, 0);
                refIds_[r] = id;
                break;
            }
            default:
                sets_[target_]->clearRows();
                entries_[target_].clear();
                break;
        }
        settle();
    }

    // Compares every live row's counts, the live blobs and the owned values
    // destroyed with what the model holds.
    void check(long long blobsBefore) {
        long long blobs = 0;
        auto held = refs1(), subs = children();
        for (auto const& [id, row] : rows_) {
            ASSERT_EQ(row.holder->refCount1, held[id]) << "row " << id;
            ASSERT_EQ(row.holder->refCount2, subs[id]) << "row " << id;
            if (row.kind == Kind::Blob) ++blobs;
        }
        ASSERT_EQ(largeBlocks() - blobsBefore, blobs);
        ASSERT_EQ(gValuesDestroyed, ownedDestroyed_ * kOwnedValues);
    }

    void clearAll() {
        for (auto& s : sets_)
            s.reset();
        for (auto& r : refs_)
            r.unsafeSet(nullptr, 0);
        entries_.clear();
        refIds_.clear();
        settle();
    }

    size_t liveRows() const { return rows_.size(); }

  private:
    int pick(size_t n) { return int(rng_() % n); }

    // Picks the set the next row goes to. Sets stay at 32 rows or fewer, so
    // that their arrays are small blocks and the large ones are the blobs.
    bool roomInTarget() {
        target_ = pick(sets_.size());
        return entries_[target_].size() < 32;
    }

    qkRowHolder* newBlobRow() { return sets_[0]->makeRow(rng_() % 2, table_.get()); }

    qkRowHolder* newOwnedRow() {
        auto* h = new qkRowHolder;
        for (int i = 0; i < kOwnedValues; ++i)
            h->append(new CountingValue(i));
        pendingKind_ = Kind::Owned;
        return h;
    }

    qkRowHolder* cloneOf(int id) { return rows_[id].holder->clone(); }

    qkRowHolder* extractOf(int id) {
        qkRowHolder* parent = rows_[id].holder;
        int start = int(rng_() % parent->count());
        pendingKind_ = Kind::Extract;
        pendingParent_ = id;
        return parent->extract(start, int(rng_() % (parent->count() - start)) + 1);
    }

    void appendNew(qkRowHolder* h) {
        int id = nextId_++;
        rows_[id] = {h, pendingKind_, pendingKind_ == Kind::Extract ? pendingParent_ : -1};
        pendingKind_ = Kind::Blob;
        sets_[target_]->appendRow(h, 0);
        entries_[target_].push_back(id);
    }

    // A live row; with wide, only a row a clone makes a large blob of.
    int anyLive(bool wide) {
        std::vector<int> ids;
        for (auto const& [id, row] : rows_) {
            if (!wide || row.kind != Kind::Extract) ids.push_back(id);
        }
        return ids.empty() ? -1 : ids[rng_() % ids.size()];
    }

    // Per live row: the references that hold it, and its live sub-rows.
    std::map<int, int> refs1() const {
        std::map<int, int> n;
        for (auto const& [s, list] : entries_) {
            for (int id : list)
                ++n[id];
        }
        for (auto const& [r, id] : refIds_) {
            if (id >= 0) ++n[id];
        }
        return n;
    }

    std::map<int, int> children() const {
        std::map<int, int> n;
        for (auto const& [id, row] : rows_) {
            if (row.parent >= 0) ++n[row.parent];
        }
        return n;
    }

    // Drops the rows the model no longer holds; a parent goes once its last
    // sub-row has.
    void settle() {
        for (bool dropped = true; dropped;) {
            dropped = false;
            auto held = refs1(), subs = children();
            for (auto it = rows_.begin(); it != rows_.end();) {
                if (held[it->first] == 0 && subs[it->first] == 0) {
                    if (it->second.kind == Kind::Owned) ++ownedDestroyed_;
                    it = rows_.erase(it);
                    dropped = true;
                } else {
                    ++it;
                }
            }
        }
    }

    std::mt19937& rng_;
    std::unique_ptr<SchemaTable> table_;
    std::vector<std::unique_ptr<qkRowSet>> sets_;
    std::map<int, std::vector<int>> entries_;  // set index -> row ids in order
    static constexpr int kRefs = 6;
    qkRowRef refs_[kRefs];
    std::map<int, int> refIds_;  // reference index -> row id (-1 none)
    std::map<int, ModelRow> rows_;
    int nextId_ = 0;
    int target_ = 0;
    int ownedDestroyed_ = 0;
    Kind pendingKind_ = Kind::Blob;
    int pendingParent_ = -1;
};

TEST(RowSetModel, RandomOperationsFreeEveryRowExactlyOnce) {
    std::mt19937 rng(20261124);
    gValuesDestroyed = 0;
    long long blobsBefore = largeBlocks();
    {
        // What the model counts on: one large block per wide row.
        auto wide = wideTable();
        qkRowSet set;
        set.appendRow(set.makeRow(0, wide.get()), 0);
        ASSERT_EQ(largeBlocks(), blobsBefore + 1);
    }
    ASSERT_EQ(largeBlocks(), blobsBefore);
    for (int round = 0; round < 30; ++round) {
        RowModel model(rng);
        for (int step = 0; step < 200; ++step) {
            model.step();
            ASSERT_NO_FATAL_FAILURE(model.check(blobsBefore))
                << "round " << round << " step " << step;
        }
        model.clearAll();
        ASSERT_EQ(model.liveRows(), 0u);
        ASSERT_NO_FATAL_FAILURE(model.check(blobsBefore));
    }
}

// ---- sort and lookup --------------------------------------------------------------

// A row of the six scalar types with few distinct values per column, so
// that equal keys are common.
void fillRandom(qkRowHolder& row, std::mt19937& rng) {
    for (int c = 0; c < row.count(); ++c) {
        qkValue& v = row[c];
        int k = int(rng() % 4);
        switch (v.dataType()) {
            case qkValue::Int:
                v.set(k - 1);
                break;
            case qkValue::String:
                v.set(qkString(std::string(size_t(k), char('a' + k % 2)).c_str()));
                break;
            case qkValue::Double:
                v.set(k * 0.5 - 0.5);
                break;
            case qkValue::Date:
                if (k) v.set(qkTimebase(2020, uint16_t(k), 1, 0, 0, 0.0f));
                break;
            case qkValue::Raw:
                v.set(qkString(k ? std::string(size_t(2 * k), char('0' + k)).c_str() : ""));
                break;
            default:
                v.set(static_cast<unsigned char>(k % 2));
                break;
        }
    }
}

TEST(RowSet, SortMatchesStableSortByOneAndTwoColumns) {
    auto table = scalarTable(6);
    std::mt19937 rng(5);
    for (int round = 0; round < 200; ++round) {
        qkRowSet set;
        int n = int(rng() % 60);
        for (int i = 0; i < n; ++i) {
            qkRowHolder* h = set.makeRow(0, table.get());
            fillRandom(*h, rng);
            set.appendRow(h, 0);
            set.ref(i).update = uint8_t(i % 3);
            set.ref(i).remove = uint8_t(i);
        }
        int column = int(rng() % 7) - 1;
        int thenColumn = int(rng() % 7) - 1;
        std::vector<std::pair<qkRowHolder*, uint8_t>> before;
        for (int i = 0; i < n; ++i)
            before.push_back({set.row(i), set.ref(i).update});
        auto less = [&](auto const& a, auto const& b) {
            int c = (*a.first)[column].compare((*b.first)[column], false);
            if (c == 0 && thenColumn >= 0)
                c = (*a.first)[thenColumn].compare((*b.first)[thenColumn], false);
            return c < 0;
        };
        std::vector<std::pair<qkRowHolder*, uint8_t>> expected = before;
        if (column >= 0 && n >= 2) std::stable_sort(expected.begin(), expected.end(), less);

        set.sort(column, thenColumn);
        SCOPED_TRACE("round " + std::to_string(round) + " columns " + std::to_string(column) + "," +
                     std::to_string(thenColumn));
        if (column < 0 || n < 2) {
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(set.row(i), before[size_t(i)].first);
            continue;
        }
        // Equal keys may come in any order: compare the runs as sets of
        // (row, update mark) pairs.
        for (size_t i = 0; i < expected.size();) {
            size_t j = i + 1;
            while (j < expected.size() && !less(expected[i], expected[j]))
                ++j;
            std::multiset<std::pair<qkRowHolder*, uint8_t>> want(expected.begin() + long(i),
                                                                 expected.begin() + long(j)),
                got;
            for (size_t k = i; k < j; ++k)
                got.insert({set.row(int(k)), set.ref(int(k)).update});
            ASSERT_EQ(got, want) << "rows " << i << " to " << j;
            i = j;
        }
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(set.ref(i).remove, uint8_t(i));  // stays put
    }
}

TEST(RowSet, LookupMatchesALinearScan) {
    auto table = scalarTable(6);
    std::mt19937 rng(8);
    for (int round = 0; round < 300; ++round) {
        qkRowSet set;
        int n = int(rng() % 40);
        for (int i = 0; i < n; ++i) {
            qkRowHolder* h = set.makeRow(0, table.get());
            fillRandom(*h, rng);
            set.appendRow(h, 0);
        }
        set.sort(0, 1);  // Int, then String
        for (int probe = 0; probe < 10; ++probe) {
            // One column (Int, some keys missing), or both as a list.
            bool both = rng() % 2;
            std::unique_ptr<qkValue> key;
            if (both) {
                auto* list = new qkListValue(0);
                list->getList().append(intValue(0, int(rng() % 6) - 2));
                auto* s = new qkStringValue(1);
                s->set(qkString(std::string(rng() % 4, char('a' + rng() % 2)).c_str()));
                list->getList().append(s);
                key.reset(list);
            } else {
                key.reset(intValue(0, int(rng() % 6) - 2));
            }
            int firstMatch = -1;
            for (int i = 0; i < n && firstMatch < 0; ++i) {
                if (key->compare(*set.row(i)) == 0) firstMatch = i;
            }
            ASSERT_EQ(set.lookup(*key, 1), firstMatch) << "round " << round;
            int any = set.lookup(*key, 0);
            if (firstMatch < 0) {
                ASSERT_EQ(any, -1);
            } else {
                ASSERT_GE(any, firstMatch);
                ASSERT_EQ(key->compare(*set.row(any)), 0);
            }
        }
    }
}

// ---- threads --------------------------------------------------------------------

// Several threads build their first rows at the same moment: the prototypes
// are made once. Run in a fresh process, where no row was built yet.
TEST(RowSetThreadsDeathTest, FirstRowsOnManyThreadsAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto table = scalarTable(12);
            std::atomic<int> ready{0};
            std::vector<std::thread> threads;
            for (int t = 0; t < 8; ++t) {
                threads.emplace_back([&] {
                    ready.fetch_add(1);
                    while (ready.load() < 8) {
                    }
                    qkRowSet set;
                    for (int i = 0; i < 50; ++i)
                        set.appendRow(set.makeRow(1, table.get()), 0);
                    set.sort(0, 1);
                });
            }
            for (auto& t : threads)
                t.join();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

// A set built on one thread is sorted, searched and destroyed on another;
// rows shared by two threads' sets change counts only under the caller's
// lock, as the counts are plain.
TEST(RowSetThreads, SetsHandedOnAndRowsSharedUnderALock) {
    auto table = scalarTable(30);
    std::mt19937 rng(3);
    auto set = std::make_unique<qkRowSet>();
    for (int i = 0; i < 200; ++i) {
        qkRowHolder* h = set->makeRow(0, table.get());
        fillRandom(*h, rng);
        set->appendRow(h, 0);
    }
    std::thread([&] {
        set->sort(0, 1);
        qkIntValue key(0, 1);
        int at = set->lookup(key, 1);
        if (at >= 0) {
            EXPECT_EQ(key.compare(*set->row(at)), 0);
        }
        set.reset();
    }).join();

    qkRowSet shared;
    for (int i = 0; i < 64; ++i)
        shared.appendRow(shared.makeRow(0, table.get()), 0);
    std::mutex lock;
    auto worker = [&](int seed) {
        std::mt19937 r(seed);
        qkRowSet mine;
        for (int i = 0; i < 2000; ++i) {
            std::lock_guard<std::mutex> hold(lock);
            if (r() % 3) {
                qkRowSet copy(shared);  // one more reference to each row
                mine.replace(&copy);
            } else {
                mine.clearRows();
            }
        }
        std::lock_guard<std::mutex> hold(lock);
        mine.clearRows();
    };
    std::thread a(worker, 1), b(worker, 2);
    a.join();
    b.join();
    for (int i = 0; i < shared.nrows(); ++i)
        ASSERT_EQ(shared.row(i)->refCount1, 1);
}

}  // namespace
