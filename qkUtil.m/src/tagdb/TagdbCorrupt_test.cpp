// Damaged store files: every truncation of node files, node indexes and
// version files fails with a status (never a crash or an overrun, which the
// sanitizer build would catch); random damage to node files yields a failure
// or a node that keeps every invariant the tree relies on; a failed start
// leaves the committed files as they were.
#include <functional>
#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

// A committed store: root (inner, level 2) over leaves 1 and 2.
class DamagedStore : public testing::Test {
  protected:
    void SetUp() override {
        Tagdb db;
        TagdbStore* s = openStore(db, dir / "s");
        ASSERT_EQ(db.start(T::Update), T::Ok);
        ASSERT_EQ(addLeaf(s, {"alpha", "beta"}), T::Ok);
        ASSERT_EQ(addLeaf(s, {"gamma"}), T::Ok);
        ASSERT_EQ(setRoot(s, {1, 2}), T::Ok);
        ASSERT_EQ(db.commit(), T::Ok);
        good = snapshot(dir);
        ASSERT_EQ(good.size(), 5u);  // s, s-x-2, s-0-2, s-1-1, s-2-1
    }

    // Loads node id afresh with `file` holding `bytes`, then restores it.
    T::Status loadWith(std::string const& file, Bytes const& bytes, long long id,
                       std::function<void(TagdbNode*)> const& check = {}) {
        writeFile(dir / file, bytes);
        Tagdb db;
        TagdbStore* s = openStore(db, dir / "s");
        T::Status st = db.start(T::Update);
        TagdbNodeRef ref;
        if (st == T::Ok) st = s->loadNode(id, ref);
        if (st == T::Ok && check) check(ref.node);
        writeFile(dir / file, good[file]);
        return st;
    }
    // Starts a transaction with `file` holding `bytes`, then restores it.
    T::Status startWith(std::string const& file, Bytes const& bytes) {
        writeFile(dir / file, bytes);
        auto before = snapshot(dir);
        Tagdb db;
        openStore(db, dir / "s");
        T::Status st = db.start(T::Update);
        if (st != T::Ok) {
            EXPECT_EQ(snapshot(dir), before) << file;
        }
        writeFile(dir / file, good[file]);
        return st;
    }

    TempDir dir;
    std::map<std::string, Bytes> good;
};

Bytes prefix(Bytes const& b, size_t n) {
    return Bytes(b.begin(), b.begin() + static_cast<long>(n));
}

// What the tree relies on of every node that loads.
void expectSaneNode(TagdbNode* n) {
    ASSERT_TRUE(n->count >= 1 && n->count <= 512);
    EXPECT_EQ(n->keys[n->count - 1], nullptr);
    for (int i = 0; i + 1 < n->count; ++i)
        EXPECT_NE(n->keys[i], nullptr);
    EXPECT_EQ(n->isLeaf(), n->level == 1);
    for (int i = 0; !n->isLeaf() && i < n->count; ++i)
        EXPECT_TRUE(n->values[i].id >= 1 && n->values[i].id < n->store->nodeCount);
}

TEST_F(DamagedStore, ShortAndMissingNodeFilesFailToLoad) {
    for (auto const& [file, id] : {std::pair<std::string, long long>{"s-0-2", 0}, {"s-1-1", 1}}) {
        for (size_t cut = 0; cut < good[file].size(); ++cut)
            EXPECT_EQ(loadWith(file, prefix(good[file], cut), id), T::Failed) << file << cut;
    }
    fs::remove(dir / "s-2-1");
    EXPECT_EQ(loadWith("s-1-1", good["s-1-1"], 2), T::Failed);
    EXPECT_EQ(loadWith("s-1-1", good["s-1-1"], 3), T::Failed);  // no such id
}

TEST_F(DamagedStore, RandomDamageFailsOrLoadsASaneNode) {
    std::mt19937 rng(11);
    int loaded = 0, failed = 0;
    for (int round = 0; round < 600 && !HasFailure(); ++round) {
        std::string file = round % 2 ? "s-0-2" : "s-1-1";
        Bytes b = good[file];
        for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
            size_t at = rng() % b.size();
            if (rng() % 4)
                b[at] ^= static_cast<unsigned char>(1 + rng() % 255);
            else
                b.insert(b.begin() + static_cast<long>(at), static_cast<unsigned char>(rng()));
        }
        (loadWith(file, b, round % 2 ? 0 : 1, expectSaneNode) == T::Ok ? loaded : failed)++;
    }
    EXPECT_GT(loaded, 0);
    EXPECT_GT(failed, 0);
}

// A start that cannot read the committed state fails and touches nothing.
TEST_F(DamagedStore, DamagedIndexOrVersionFileFailsTheStart) {
    for (size_t cut = 0; cut < good["s-x-2"].size(); ++cut)
        EXPECT_EQ(startWith("s-x-2", prefix(good["s-x-2"], cut)), T::Aborted) << cut;
    EXPECT_EQ(startWith("s-x-2", cat({le(-3, 8), le(1, 4)})), T::Aborted);
    EXPECT_EQ(startWith("s-x-2", cat({le(1ll << 40, 8), le(2, 4), le(1, 4), le(1, 4)})),
              T::Aborted);
    EXPECT_EQ(startWith("s", le(7, 4)), T::Aborted);  // no index for version 7
    EXPECT_EQ(startWith("s", {}), T::Aborted);        // retried for a while first
    EXPECT_EQ(startWith("s", le(0, 4)), T::Aborted);
    EXPECT_EQ(startWith("s", good["s"]), T::Ok);
}

}  // namespace
