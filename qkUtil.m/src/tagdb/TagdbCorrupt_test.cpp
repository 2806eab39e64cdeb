// Damaged store files. Every truncation of a node index, a damaged version
// file, or a node index whose count lies fails the start and leaves the
// files as they were. Every truncation of a node file fails its load;
// random damage to a node file yields a failure or a node that keeps every
// invariant the tree relies on, and reading the whole store then never
// crashes or overruns (which the sanitizer build would catch).
#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

// What the tree relies on of every node that loads.
void expectSaneNode(TagdbNode* n) {
    ASSERT_TRUE(n->count >= 1 && n->count <= 512);
    EXPECT_EQ(n->keys[n->count - 1], nullptr);
    for (int i = 0; i + 1 < n->count; ++i)
        EXPECT_NE(n->keys[i], nullptr);
    for (int i = 1; i + 1 < n->count; ++i)
        EXPECT_LT(n->keys[i - 1]->compare(n->keys[i]), 0) << "entry " << i;
    EXPECT_EQ(n->isLeaf(), n->level == 1);
    for (int i = 0; !n->isLeaf() && i < n->count; ++i)
        EXPECT_TRUE(n->values[i].id >= 1 && n->values[i].id < n->store->nodeCount);
}

class DamagedStore : public testing::Test {
  protected:
    // Three keys in nodes of three entries: an inner root over two leaves.
    void SetUp() override {
        fill(dir / "s", {{"alpha", "1"}, {"beta", "2"}, {"gamma", "3"}}, 3);
        good = snapshot(dir);
        ASSERT_EQ(good.size(), 5u);  // s, s-x-2 and three node files
    }
    // Starts a transaction with `file` holding `bytes`; loads node `id`
    // unless it is negative, then reads every entry. Restores the file.
    T::Status readWith(std::string const& file, Bytes const& bytes, long long id = -1) {
        writeFile(dir / file, bytes);
        auto before = snapshot(dir);
        T::Status st;
        {
            Tagdb db(4, 3);
            TagdbStore* s = openStore(db, dir / "s");
            TagdbNodeRef ref;
            st = db.start(T::Update);
            if (st == T::Ok && id >= 0 && (st = s->loadNode(id, ref)) == T::Ok) {
                expectSaneNode(ref.node);
                ref.release();
                // Whatever they find, the walk and the lookups must end
                // without a fault.
                entries(db, false);
                for (auto const& k : {"alpha", "beta", "gamma", "delta"}) {
                    TagdbRecord* r = nullptr;
                    db.get(k, r);
                }
            }
        }
        EXPECT_EQ(snapshot(dir), before) << file;  // reading changed nothing
        writeFile(dir / file, good[file]);
        return st;
    }

    TempDir dir;
    std::map<std::string, Bytes> good;
};

Bytes prefix(Bytes const& b, size_t n) {
    return Bytes(b.begin(), b.begin() + static_cast<long>(n));
}

TEST_F(DamagedStore, DamagedIndexOrVersionFileFailsTheStart) {
    for (size_t cut = 0; cut < good["s-x-2"].size(); ++cut)
        EXPECT_EQ(readWith("s-x-2", prefix(good["s-x-2"], cut)), T::Aborted) << cut;
    EXPECT_EQ(readWith("s-x-2", cat({le(-3, 8), le(1, 4)})), T::Aborted);
    EXPECT_EQ(readWith("s-x-2", cat({le(1ll << 40, 8), le(2, 4), le(1, 4), le(1, 4)})), T::Aborted);
    EXPECT_EQ(readWith("s", le(7, 4)), T::Aborted);  // no index for version 7
    EXPECT_EQ(readWith("s", {}), T::Aborted);        // retried for a while first
    EXPECT_EQ(readWith("s", good["s"]), T::Ok);
}

TEST_F(DamagedStore, DamagedNodeFilesFailOrLoadSaneNodes) {
    std::mt19937 rng(11);
    std::map<T::Status, int> seen;
    for (auto const& [file, bytes] : good) {
        long long id = -1, v = 0;
        if (std::sscanf(file.c_str(), "s-%lld-%lld", &id, &v) != 2) continue;
        SCOPED_TRACE(file);
        for (size_t cut = 0; cut < bytes.size(); ++cut)
            EXPECT_EQ(readWith(file, prefix(bytes, cut), id), T::Failed) << cut;
        for (int round = 0; round < 150 && !HasFailure(); ++round) {
            Bytes b = bytes;
            for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
                size_t at = rng() % b.size();
                if (rng() % 4)
                    b[at] ^= static_cast<unsigned char>(1 + rng() % 255);
                else
                    b.insert(b.begin() + static_cast<long>(at), static_cast<unsigned char>(rng()));
            }
            seen[readWith(file, b, id)]++;
        }
    }
    EXPECT_GT(seen[T::Ok], 0);
    EXPECT_GT(seen[T::Failed], 0);
}

}  // namespace
