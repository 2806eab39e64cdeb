// Node files that are read whole but break the tree's order: a leaf whose
// first two keys changed places, and a sound leaf copied over another (its
// keys lie outside the separators that lead to it). Such a node is refused
// where it is read: a walk over it ends with Failed instead of circling, and
// transactions that run after the damage never build on it, so the store's
// own check finds the same problems before and after they commit.
#include <random>

#include "TagdbCheck.h"
#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

std::string key(int i) {
    char k[8];
    std::snprintf(k, sizeof k, "k%03d", i);
    return k;
}

// The files of leaves, and the keys each holds (found by their text).
struct Leaves {
    std::vector<std::string> files;
    std::map<std::string, Bytes> bytes;
};

Leaves leavesOf(TempDir const& dir) {
    Leaves out;
    for (auto const& [f, b] : snapshot(dir))
        if (f.rfind("s-x-", 0) != 0 && f != "s" && b.size() > 12 && b[0] == 1) {
            out.files.push_back(f);
            out.bytes[f] = b;
        }
    return out;
}

// Swaps the texts of two keys of equal length inside a node file.
void swapKeys(Bytes& b, std::string const& a, std::string const& c) {
    auto find = [&](std::string const& s) {
        return std::search(b.begin(), b.end(), s.begin(), s.end());
    };
    auto pa = find(a), pc = find(c);
    ASSERT_TRUE(pa != b.end() && pc != b.end());
    std::swap_ranges(pa, pa + static_cast<long>(a.size()), pc);
}

class DamagedNode : public testing::TestWithParam<int> {
  protected:
    // 300 keys in nodes of 8 entries: about 65 node files, height 4.
    void SetUp() override {
        for (int i = 0; i < 300; ++i)
            model[key(i)] = "v" + std::to_string(i * 7);
        fill(dir / "s", model, 8);
        Leaves leaves = leavesOf(dir);
        ASSERT_GT(leaves.files.size(), 30u);
        // The leaf that holds k000, and one from the middle of the tree.
        std::string first, middle;
        for (auto const& [f, b] : leaves.bytes) {
            std::string text(b.begin(), b.end());
            if (text.find("k000") != std::string::npos) first = f;
            if (text.find("k150") != std::string::npos) middle = f;
        }
        ASSERT_FALSE(first.empty() || middle.empty() || first == middle);
        if (GetParam() == 0) {  // the first leaf's first two keys change places
            victim = first;
            Bytes b = leaves.bytes[first];
            swapKeys(b, "k000", "k001");
            writeFile(dir / first, b);
        } else {  // the first leaf copied over one in the middle
            victim = middle;
            writeFile(dir / middle, leaves.bytes[first]);
        }
    }

    // The nodes that the store's check finds fault with. (Its words may
    // change as the neighbours change: a separator it names moves.)
    std::set<long long> faultyNodes() {
        Tagdb db(8, 8);
        TagdbStore* s = openStore(db, dir / "s");
        EXPECT_EQ(db.start(T::Deferred), T::Ok);
        qk::tagdb::TreeReport report;
        EXPECT_EQ(qk::tagdb::checkTree(s, 8, report), T::Failed);
        std::set<long long> nodes;
        for (std::string const& p : report.problems) {
            long long id = -1;
            EXPECT_EQ(std::sscanf(p.c_str(), "node %lld", &id), 1) << p;
            nodes.insert(id);
        }
        return nodes;
    }

    TempDir dir;
    Content model;
    std::string victim;
};

// A walk on a cache of two nodes, with a lookup every third step that evicts
// the leaf the iterator stands on, must end; over the damaged leaf it ends
// with Failed. Every key it visits is above the one before.
TEST_P(DamagedNode, AWalkOverItEndsWithFailed) {
    Tagdb db(2, 8);
    openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    TagdbItr it(&db, "");
    std::mt19937 rng(5);
    std::string last;
    int more = 0, steps = 0;
    T::Status st = T::Ok;
    while (steps < 1000 && (st = it.next(more)) == T::Ok && more) {
        std::string k = text(it.getKey());
        ASSERT_LT(last, k) << "after " << steps << " steps";
        last = k;
        if (++steps % 3 == 0) {
            TagdbRecord* r = nullptr;
            db.get(key(static_cast<int>(rng() % 300)).c_str(), r);
        }
    }
    EXPECT_LT(steps, 300);
    EXPECT_EQ(st, T::Failed);
    db.abort();
}

// Random transactions after the damage, on a small cache: an operation that
// needs the damaged node fails and changes nothing; every other one works,
// and what commits matches a model. The check's findings stay the same.
TEST_P(DamagedNode, LaterCommitsNeverBuildOnIt) {
    std::set<long long> before = faultyNodes();
    ASSERT_FALSE(before.empty());
    Content committed = model;
    std::mt19937 rng(17 + GetParam());
    int failed = 0, worked = 0;
    for (int txn = 0; txn < 60 && !HasFailure(); ++txn) {
        Tagdb db(1 + static_cast<int>(rng() % 4), 8);
        openStore(db, dir / "s");
        ASSERT_EQ(db.start(T::Update), T::Ok);
        Content working = committed;
        for (int op = 0; op < 12; ++op) {
            std::string k = key(static_cast<int>(rng() % 330));
            bool erase = rng() % 3 == 0;
            std::string v = "w" + std::to_string(rng() % 1000);
            T::Status st = erase ? db.set(k.c_str(), static_cast<TagdbRecord*>(nullptr))
                                 : db.set(k.c_str(), v.data(), static_cast<int>(v.size()));
            if (st != T::Ok) {
                ++failed;
                continue;
            }
            ++worked;
            erase ? void(working.erase(k)) : void(working[k] = v);
        }
        if (db.commit() == T::Ok) committed = working;
    }
    EXPECT_GT(failed, 0);
    EXPECT_GT(worked, failed);
    EXPECT_EQ(faultyNodes(), before);
    // Every key that still reads has the model's value.
    Tagdb db(8, 8);
    openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    int readable = 0;
    for (int i = 0; i < 330; ++i) {
        void const* data = nullptr;
        int n = 0;
        if (db.get(key(i).c_str(), data, n) != T::Ok) continue;
        ++readable;
        auto m = committed.find(key(i));
        EXPECT_EQ(
            data ? std::string(static_cast<char const*>(data), static_cast<size_t>(n)) : "<none>",
            m == committed.end() ? "<none>" : m->second)
            << key(i);
    }
    EXPECT_GT(readable, 250);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DamagedNode, testing::Values(0, 1), [](auto const& info) {
    return std::string(info.param == 0 ? "KeysOutOfOrder" : "LeafUnderTheWrongParent");
});

}  // namespace
