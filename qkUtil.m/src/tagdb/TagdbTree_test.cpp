// The node tree against a model: random sets, deletes, lookups, commits,
// aborts, Deferred transactions and reopenings on small nodes and tiny caches,
// with every key checked after every step and, after every commit, the
// files on disk checked by a second reader: the tree's invariants hold, its
// contents equal the model, and no file is missing or left over.
#include <memory>
#include <random>

#include "TagdbItr.h"
#include "TagdbTestUtil.h"
#include "tagdb/TagdbCheck.h"

using namespace tagdbtest;

namespace {

// Keys over a small alphabet, so that many share prefixes, plus a few with
// bytes from both ends of the unsigned order.
std::vector<std::string> keySpace() {
    std::vector<std::string> keys;
    char const alphabet[] = {'a', 'b', 'c', '\x01', '\xff'};
    for (char x : alphabet) {
        keys.push_back(std::string(1, x));
        for (char y : alphabet) {
            keys.push_back(std::string{x, y});
            if (x == 'a' || x == 'b') {
                for (char z : {'a', 'b', '\x7f'})
                    keys.push_back(std::string{x, y, z});
            }
        }
    }
    return keys;
}

using Content = std::map<std::string, std::string>;

// Every (key, value) of the active store, in iterator order.
Content walk(Tagdb& db) {
    Content out;
    TagdbItr it(&db, "");
    int more = 0;
    std::string last;
    while (it.next(more) == T::Ok && more) {
        std::string k = text(it.getKey());
        void const* data = nullptr;
        int n = 0;
        it.get(data, n);
        EXPECT_TRUE(out.empty() || last < k) << "order broken at " << k;
        last = k;
        out[k] = std::string(static_cast<char const*>(data), static_cast<size_t>(n));
    }
    return out;
}

// Reads the committed store as a second process would and checks it whole.
void checkCommitted(std::string const& name, TempDir const& dir, int maxEntries,
                    Content const& expected) {
    Tagdb db(4);
    TagdbStore* s = openStore(db, name);
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    qk::tagdb::TreeReport report;
    EXPECT_EQ(qk::tagdb::checkTree(s, maxEntries, report), T::Ok)
        << (report.problems.empty() ? "" : report.problems[0]);
    EXPECT_EQ(report.entries, static_cast<long long>(expected.size()));
    EXPECT_EQ(walk(db), expected);
    // The files are exactly those of the current version.
    std::set<std::string> files = {"s"};
    if (s->version > 1) files.insert("s-x-" + std::to_string(s->version));
    for (long long id = 0; id < s->nodeCount; ++id) {
        int v = s->committedVersions[id];
        if (v > 0 && !(s->version == 1 && id == 0))
            files.insert("s-" + std::to_string(id) + "-" + std::to_string(v));
    }
    EXPECT_EQ(dir.files(), files);
    db.abort();
}

class TreeModel {
  public:
    TreeModel(int maxEntries, int cacheSize, unsigned seed)
        : maxEntries_(maxEntries), cacheSize_(cacheSize), rng_(seed), keys_(keySpace()) {
        reopen();
    }

    void run(int steps) {
        for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            unsigned op = rng_() % 100;
            if (op < 75 && !db_->inTransaction()) {
                deferred_ = rng_() % 4 == 0;
                ASSERT_EQ(db_->start(deferred_ ? T::Deferred : T::Update), T::Ok);
            }
            if (op < 45) {
                setRandom();
            } else if (op < 65) {
                removeRandom();
            } else if (op < 75) {
                setThroughRef();
            } else if (op < 88) {
                commit();
            } else if (op < 96) {
                if (db_->inTransaction()) {
                    EXPECT_EQ(db_->abort(), T::Aborted);
                }
                working_ = committed_;
            } else {
                reopen();
            }
            if (db_->inTransaction()) checkEveryKey();
        }
        if (db_->inTransaction()) commit();
    }

  private:
    std::string const& anyKey() { return keys_[rng_() % keys_.size()]; }

    std::string anyValue() {
        std::string v(rng_() % 12, '\0');
        for (char& c : v)
            c = static_cast<char>(rng_() % 256);
        return v;
    }

    void setRandom() {
        std::string const& k = anyKey();
        std::string v = anyValue();
        ASSERT_EQ(db_->set(k.c_str(), v.data(), static_cast<int>(v.size())), T::Ok);
        working_[k] = v;
    }

    void removeRandom() {
        std::string const& k = anyKey();
        ASSERT_EQ(db_->set(k.c_str(), static_cast<TagdbRecord*>(nullptr)), T::Ok);
        working_.erase(k);
    }

    // Find-or-insert, then store through the reference (Update only: in
    // Deferred mode a reference changes the tree without the log).
    void setThroughRef() {
        if (deferred_) return setRandom();
        std::string const& k = anyKey();
        std::string v = anyValue();
        TagdbNodeRef ref;
        ASSERT_EQ(db_->getRef(k.c_str(), ref), T::Ok);
        ASSERT_EQ(ref.set(rec(v)), T::Ok);
        working_[k] = v;
    }

    void commit() {
        if (!db_->inTransaction()) return;
        ASSERT_EQ(db_->commit(), T::Ok);
        committed_ = working_;
        checkCommitted(dir_ / "s", dir_, maxEntries_, committed_);
    }

    void reopen() {
        db_ = std::make_unique<Tagdb>(cacheSize_, maxEntries_);
        openStore(*db_, dir_ / "s");
        working_ = committed_;
    }

    // A Deferred transaction sees the committed tree; its writes wait in the log.
    void checkEveryKey() {
        Content const& visible = deferred_ ? committed_ : working_;
        for (std::string const& k : keys_) {
            void const* data = nullptr;
            int n = -1;
            ASSERT_EQ(db_->get(k.c_str(), data, n), T::Ok) << k;
            auto it = visible.find(k);
            if (it == visible.end()) {
                ASSERT_EQ(data, nullptr) << "key " << k << " should be absent";
            } else {
                ASSERT_NE(data, nullptr) << "key " << k << " lost";
                ASSERT_EQ(std::string(static_cast<char const*>(data), static_cast<size_t>(n)),
                          it->second);
            }
        }
    }

    int maxEntries_, cacheSize_;
    std::mt19937 rng_;
    std::vector<std::string> keys_;
    TempDir dir_;
    std::unique_ptr<Tagdb> db_;
    bool deferred_ = false;
    Content committed_, working_;
};

class TagdbTreeModel : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(TagdbTreeModel, RandomOperationsMatchAMap) {
    auto [maxEntries, cacheSize] = GetParam();
    TreeModel(maxEntries, cacheSize, 7919u * maxEntries + cacheSize).run(1500 * soakFactor());
}

INSTANTIATE_TEST_SUITE_P(SmallNodesTinyCaches, TagdbTreeModel,
                         testing::Combine(testing::Values(3, 4, 7), testing::Values(1, 2, 3)));

// The default node size: 511 ascending keys fit the root leaf with its end
// entry; the 512th splits it into 257 and 256 entries under a new root.
TEST(TagdbTree, RootSplitsOnceAtTheDefaultNodeSize) {
    TempDir dir;
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    auto name = [](int i) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "k%04d", i);
        return std::string(buf);
    };
    for (int i = 1; i <= 511; ++i)
        ASSERT_EQ(db.set(name(i).c_str(), "v"), T::Ok);
    EXPECT_EQ(s->nodeCount, 1);
    ASSERT_EQ(db.set(name(512).c_str(), "v"), T::Ok);
    TagdbNodeRef root;
    ASSERT_EQ(s->loadNode(0, root), T::Ok);
    EXPECT_EQ(root.node->level, 2);
    ASSERT_EQ(root.node->count, 2);
    EXPECT_EQ(text(root.node->keys[0]), name(257));
    EXPECT_EQ(contentOf(s, root.node->values[0].id).size(), 257u);
    EXPECT_EQ(contentOf(s, root.node->values[1].id).size(), 256u);
    for (int i = 1; i <= 512; ++i) {
        char const* v = nullptr;
        ASSERT_EQ(db.get(name(i).c_str(), v), T::Ok);
        ASSERT_STREQ(v, "v") << name(i);
    }
    Content all = walk(db);
    EXPECT_EQ(all.size(), 512u);
    ASSERT_EQ(db.commit(), T::Ok);
    checkCommitted(dir / "s", dir, 512, all);
}

// What the tree hands back and takes over, and what it refuses.
TEST(TagdbTree, OwnershipAndRefusals) {
    TempDir dir;
    Tagdb db(2, 3);
    EXPECT_EQ(db.set("k", "v"), T::NotOpen);
    openStore(db, dir / "s");
    EXPECT_EQ(db.set("k", "v"), T::NoTransaction);
    TagdbNodeRef ref;
    EXPECT_EQ(db.getRef("k", ref), T::NoTransaction);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(db.set(nullptr, "v"), T::Failed);
    EXPECT_EQ(db.set("k", rec("x")), T::Ok);
    EXPECT_EQ(db.set("k", rec("y")), T::Ok);  // the first record is released (ASan checks)
    EXPECT_EQ(db.set("gone", static_cast<TagdbRecord*>(nullptr)), T::Ok);  // absent: no change
    // A null text stores a record without data: present until it reaches a
    // file, then read back as no record at all.
    EXPECT_EQ(db.set("n", static_cast<char const*>(nullptr)), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    Tagdb other;
    openStore(other, dir / "s");
    ASSERT_EQ(other.start(T::Update), T::Ok);
    TagdbRecord* r = nullptr;
    EXPECT_EQ(other.get("n", r), T::Ok);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(walk(other), (Content{{"k", "y"}}));
    other.abort();
}

}  // namespace
