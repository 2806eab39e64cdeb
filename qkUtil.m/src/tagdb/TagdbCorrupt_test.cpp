// Damaged store files: every truncation and a set of out-of-range fields of
// node files, node indexes and version files fail with a status (never a
// crash or an overrun, which the sanitizer build would catch), random damage
// yields either a failure or a node that keeps the tree's invariants, and a
// failed start leaves the committed files as they were.
#include <climits>
#include <functional>
#include <map>
#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;
using T = TagdbCommon;

namespace {

Bytes le(long long v, int width) {
    Bytes b;
    for (int i = 0; i < width; ++i)
        b.push_back(static_cast<unsigned char>(static_cast<unsigned long long>(v) >> (8 * i)));
    return b;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes skey(std::string const& s) {
    Bytes b = le(static_cast<long long>(s.size()) + 1, 4);
    b.insert(b.end(), s.begin(), s.end());
    b.push_back(0);
    return b;
}

// A committed store: root (inner, level 2) over leaves 1 and 2.
class DamagedStore : public testing::Test {
  protected:
    void SetUp() override {
        Tagdb db;
        TagdbStore* s = openStore(db, dir / "s");
        ASSERT_EQ(db.start(T::Update), T::Ok);
        long long a = addLeaf(s, {"alpha", "beta"});
        long long b = addLeaf(s, {"gamma"});
        setRootChildren(s, {a, b});
        ASSERT_EQ(db.commit(), T::Ok);
        ASSERT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-2", "s-1-1", "s-2-1"}));
        for (auto const& f : dir.files())
            good[f] = readFile(dir / f);
    }

    // Loads node id from a fresh cache with `file` holding `bytes`; the
    // file is restored afterwards.
    T::Status loadWith(std::string const& file, Bytes const& bytes, long long id,
                       std::function<void(TagdbNode*)> const& check = {}) {
        writeFile(dir / file, bytes);
        Tagdb db;
        TagdbStore* s = openStore(db, dir / "s");
        T::Status st = db.start(T::Update);
        if (st == T::Ok) {
            TagdbNodeRef ref;
            st = s->loadNode(id, ref);
            if (st == T::Ok && check) check(ref.node);
            db.abort();
        }
        writeFile(dir / file, good[file]);
        return st;
    }

    std::map<std::string, Bytes> snapshot() {
        std::map<std::string, Bytes> out;
        for (auto const& f : dir.files())
            out[f] = readFile(dir / f);
        return out;
    }

    TempDir dir;
    std::map<std::string, Bytes> good;
};

// What the tree relies on of every node that loads.
void expectSaneNode(TagdbNode* n) {
    ASSERT_GE(n->count, 1);
    ASSERT_LE(n->count, 512);
    EXPECT_EQ(n->keys[n->count - 1], nullptr);
    for (int i = 0; i + 1 < n->count; ++i)
        EXPECT_NE(n->keys[i], nullptr);
    if (n->type == TagdbNode::Inner) {
        EXPECT_GT(n->level, 1);
        for (int i = 0; i < n->count; ++i) {
            EXPECT_GE(n->values[i].id, 1);
            EXPECT_LT(n->values[i].id, n->store->nodeCount);
        }
    } else {
        EXPECT_EQ(n->level, 1);
    }
}

TEST_F(DamagedStore, ShortNodeFilesFailToLoad) {
    for (auto const& [file, id] : {std::pair<std::string, long long>{"s-0-2", 0}, {"s-1-1", 1}}) {
        Bytes const& whole = good[file];
        for (size_t cut = 0; cut < whole.size(); ++cut) {
            EXPECT_EQ(
                loadWith(file, Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)), id),
                T::Failed)
                << file << " cut at " << cut;
        }
        EXPECT_EQ(loadWith(file, whole, id, expectSaneNode), T::Ok);
    }
    fs::remove(dir / "s-2-1");
    EXPECT_EQ(loadWith("s-1-1", good["s-1-1"], 2), T::Failed);  // missing
    writeFile(dir / "s-2-1", good["s-2-1"]);
    EXPECT_EQ(loadWith("s-1-1", good["s-1-1"], 3), T::Failed);  // no such id
}

TEST_F(DamagedStore, OutOfRangeNodeFieldsFailToLoad) {
    Bytes leafEntry = cat({le(-1, 4), le(1, 4), {'r'}});
    auto leaf = [&](int type, int level, int count, Bytes entries) {
        return cat({le(type, 4), le(level, 4), le(count, 4), entries});
    };
    auto inner = [&](long long child) {
        return cat({le(0, 4), le(2, 4), le(1, 4), le(-1, 4), le(child, 8)});
    };
    std::vector<std::pair<std::string, Bytes>> cases = {
        {"count 0", leaf(1, 1, 0, {})},
        {"count 513", leaf(1, 1, 513, leafEntry)},
        {"count -1", leaf(1, 1, -1, leafEntry)},
        {"level 0", leaf(1, 1 - 1, 1, leafEntry)},
        {"type 2", leaf(2, 1, 1, leafEntry)},
        {"leaf of level 2", leaf(1, 2, 1, leafEntry)},
        {"inner of level 1", cat({le(0, 4), le(1, 4), le(1, 4), le(-1, 4), le(2, 8)})},
        {"child id 0", inner(0)},
        {"child id beyond the index", inner(3)},
        {"child id negative", inner(-1)},
        {"last key present", leaf(1, 1, 1, cat({skey("k"), le(1, 4), {'r'}}))},
        {"middle key missing", leaf(1, 1, 2, cat({le(-1, 4), le(1, 4), {'r'}, leafEntry}))},
        {"record beyond the file", leaf(1, 1, 1, cat({le(-1, 4), le(1000000, 4), {'r'}}))},
        {"key beyond the file", leaf(1, 1, 2, cat({le(INT_MAX, 4), {'k'}}))},
        {"trailing entry missing", leaf(1, 1, 2, leafEntry)},
    };
    for (auto const& [what, bytes] : cases)
        EXPECT_EQ(loadWith("s-1-1", bytes, 1), T::Failed) << what;
    EXPECT_EQ(loadWith("s-1-1", leaf(1, 1, 1, leafEntry), 1), T::Ok);  // the shortest sane leaf
    EXPECT_EQ(loadWith("s-0-2", inner(2), 0), T::Ok);
}

TEST_F(DamagedStore, RandomDamageFailsOrLoadsASaneNode) {
    std::mt19937 rng(11);
    int loaded = 0, failed = 0;
    for (int round = 0; round < 600; ++round) {
        auto const& [file, id] = round % 2 ? std::pair<std::string, long long>{"s-0-2", 0}
                                           : std::pair<std::string, long long>{"s-1-1", 1};
        Bytes b = good[file];
        for (int flips = 1 + static_cast<int>(rng() % 3); flips > 0; --flips) {
            switch (rng() % 3) {
                case 0:
                    b[rng() % b.size()] = static_cast<unsigned char>(rng());
                    break;
                case 1:
                    b[rng() % b.size()] ^= static_cast<unsigned char>(1u << (rng() % 8));
                    break;
                case 2:
                    b.insert(b.begin() + static_cast<long>(rng() % b.size()),
                             static_cast<unsigned char>(rng()));
                    break;
            }
        }
        T::Status st = loadWith(file, b, id, expectSaneNode);
        ASSERT_TRUE(st == T::Ok || st == T::Failed);
        (st == T::Ok ? loaded : failed)++;
        if (HasFailure()) break;
    }
    EXPECT_GT(loaded, 0);
    EXPECT_GT(failed, 0);
}

// A start that cannot read the committed state fails, releases the lock and
// leaves every committed file as it was.
TEST_F(DamagedStore, DamagedIndexOrVersionFileFailsTheStartAndTouchesNothing) {
    auto startWith = [&](std::string const& file, Bytes const& bytes) {
        writeFile(dir / file, bytes);
        auto before = snapshot();
        Tagdb db;
        openStore(db, dir / "s");
        T::Status st = db.start(T::Update);
        if (st != T::Ok) {
            EXPECT_EQ(snapshot(), before);
        }
        writeFile(dir / file, good[file]);
        return st;
    };
    Bytes const& index = good["s-x-2"];
    for (size_t cut = 0; cut < index.size(); ++cut) {
        EXPECT_EQ(startWith("s-x-2", Bytes(index.begin(), index.begin() + static_cast<long>(cut))),
                  T::Aborted)
            << "index cut at " << cut;
    }
    EXPECT_EQ(startWith("s-x-2", cat({le(-3, 8), le(1, 4)})), T::Aborted);
    EXPECT_EQ(startWith("s-x-2", le(0, 8)), T::Aborted);
    EXPECT_EQ(startWith("s-x-2", cat({le(1ll << 40, 8), le(2, 4), le(1, 4), le(1, 4)})),
              T::Aborted);
    EXPECT_EQ(startWith("s", le(7, 4)), T::Aborted);  // no index for version 7
    // Unreadable version files are retried for a while before giving up.
    EXPECT_EQ(startWith("s", {}), T::Aborted);
    EXPECT_EQ(startWith("s", le(0, 4)), T::Aborted);
    EXPECT_EQ(startWith("s", good["s"]), T::Ok);
}

}  // namespace
