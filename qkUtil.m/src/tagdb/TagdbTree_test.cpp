// The node tree and its iterators against a model: random sets, deletes,
// lookups, prefix walks, commits, aborts, Deferred and Recreate transactions and
// reopenings on small nodes and tiny caches, with every key checked after
// every step.
// A walk changes the store between its steps (deletes and replacements
// through the iterator, inserts and deletes around it, lookups that evict its
// nodes, copies of it); each step must land on the model's next key above the
// last one visited. After every commit a second reader checks the files: the
// tree's invariants hold, its contents equal the model, no file is missing
// or left over; after every abort the files are byte for byte those of the
// last commit. Deferred logs are private and gone after the transaction.
#include <memory>
#include <optional>
#include <random>

#include "TagdbTestUtil.h"

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

std::string shown(void const* data, int n) {
    return data ? std::string(static_cast<char const*>(data), static_cast<size_t>(n)) : "<none>";
}

std::string valueOf(TagdbItr& it) {
    void const* data = nullptr;
    int n = 0;
    EXPECT_EQ(it.get(data, n), T::Ok);
    return shown(data, n);
}

class TreeModel {
  public:
    TreeModel(int maxEntries, int cacheSize, unsigned seed)
        : maxEntries_(maxEntries), cacheSize_(cacheSize), rng_(seed), keys_(keySpace()) {
        setenv("TMPDIR", tmp_.path().c_str(), 1);  // where the deferred logs go
        reopen();
        EXPECT_EQ(db_->start(T::Update), T::Ok);  // creates the version file
        commit();
    }
    ~TreeModel() {
        db_.reset();
        setenv("TMPDIR", dir_.path().substr(0, dir_.path().rfind('/')).c_str(), 1);
    }

    void run(int steps) {
        for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            unsigned op = rng_() % 100;
            if (op < 80 && !db_->inTransaction()) start();
            if (op < 45) {
                set(anyKey(), anyValue());
                if (deferred_) checkLog();
            } else if (op < 63) {
                set(anyKey(), {});
            } else if (op < 80) {
                walk();
            } else if (op < 90) {
                commit();
            } else if (op < 97) {
                EXPECT_EQ(db_->inTransaction() ? db_->abort() : T::Aborted, T::Aborted);
                working_ = committed_;
                recreating_ = false;
                EXPECT_EQ(snapshot(dir_), files_);
                EXPECT_TRUE(fs::is_empty(tmp_.path()));  // no log is left behind
            } else {
                reopen();
                EXPECT_EQ(snapshot(dir_), files_);
            }
            if (db_->inTransaction()) checkEveryKey();
        }
        commit();
    }

  private:
    // One transaction in four is Deferred, one in ten a Recreate that
    // starts the store over, empty.
    void start() {
        unsigned kind = rng_() % 20;
        deferred_ = kind < 5;
        recreating_ = kind >= 18;
        ASSERT_EQ(db_->start(deferred_     ? T::Deferred
                             : recreating_ ? T::Recreate
                                           : T::Update),
                  T::Ok);
        if (recreating_) working_.clear();
        changed_ = false;
    }

    std::string const& anyKey() { return keys_[rng_() % keys_.size()]; }

    std::string anyValue() {
        std::string v(rng_() % 12, '\0');
        for (char& c : v)
            c = static_cast<char>(rng_() % 256);
        return v;
    }

    // A Deferred transaction sees the committed tree; its writes wait in the log.
    Content& visible() { return deferred_ ? committed_ : working_; }

    // Stores v under k, or deletes k when v is absent.
    void set(std::string const& k, std::optional<std::string> const& v) {
        ASSERT_EQ(v ? db_->set(k.c_str(), v->data(), static_cast<int>(v->size()))
                    : db_->set(k.c_str(), static_cast<TagdbRecord*>(nullptr)),
                  T::Ok);
        v ? void(working_[k] = *v) : void(working_.erase(k));
        changed_ |= v.has_value();
    }

    // A Deferred transaction writes to a log of its own, readable only by
    // its owner, and takes no lock before its commit.
    void checkLog() {
        auto logs = tmp_.files();
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(logs.begin()->substr(0, 5), "tagdb");
        EXPECT_EQ(fs::status(tmp_ / *logs.begin()).permissions(), fs::perms(0600));
        EXPECT_FALSE(fs::exists(dir_ / "s-lock"));
    }

    // The model's entry an iterator must land on next, or "<end>".
    std::string expectedNext(std::string const& prefix, std::string const* after) {
        auto next = after ? visible().upper_bound(*after) : visible().lower_bound(prefix);
        bool in = next != visible().end() && next->first.compare(0, prefix.size(), prefix) == 0;
        return in ? next->first + "=" + next->second : "<end>";
    }
    std::string step(TagdbItr& it) {
        int more = -1;
        EXPECT_EQ(it.next(more), T::Ok);
        return more == 1 ? text(it.getKey()) + "=" + valueOf(it) : more ? "<failed>" : "<end>";
    }

    void walk() {
        std::string prefix = anyKey().substr(0, rng_() % 3), cur;
        SCOPED_TRACE("walk over \"" + prefix + "\"");
        TagdbItr it(db_.get(), prefix.c_str());
        for (std::string const* after = nullptr;; after = &cur) {
            std::string expected = expectedNext(prefix, after);
            ASSERT_EQ(step(it), expected);
            if (expected == "<end>") break;
            cur = expected.substr(0, expected.find('='));
            disturb(it, cur, prefix);
        }
        EXPECT_EQ(step(it), "<end>");  // the end stays the end
    }

    // Zero to three changes between two steps of the iterator.
    void disturb(TagdbItr& it, std::string const& cur, std::string const& prefix) {
        bool curDeleted = false;
        for (int n = static_cast<int>(rng_() % 4); n > 0; --n) {
            std::string k = anyKey(), v = anyValue();
            switch (rng_() % 6) {
                case 0:  // deleted through the iterator
                    if (curDeleted) break;
                    ASSERT_EQ(it.set(static_cast<TagdbRecord*>(nullptr)), T::Ok);
                    working_.erase(cur);
                    curDeleted = true;
                    break;
                case 1:  // replaced through the iterator
                    if (curDeleted) break;
                    ASSERT_EQ(it.set(v.data(), static_cast<int>(v.size())), T::Ok);
                    working_[cur] = v;
                    ASSERT_EQ(valueOf(it), visible()[cur]);
                    break;
                case 2:
                    if (!(curDeleted && k == cur)) set(k, v);  // a deleted place stays passed
                    break;
                case 3:
                    set(k, {});
                    curDeleted = curDeleted || k == cur;
                    break;
                case 4: {  // a copy walks on by itself, as does one assigned
                    TagdbItr copy(it);
                    for (int round = 0; round < 2; ++round, copy = it)
                        ASSERT_EQ(step(copy), expectedNext(prefix, &cur));
                    break;
                }
                case 5:  // a lookup: loads nodes, may evict the iterator's
                    ASSERT_EQ(lookup(k), expectedValue(k));
                    break;
            }
        }
    }

    void commit() {
        if (!db_->inTransaction()) return;
        ASSERT_EQ(db_->commit(), T::Ok);
        // A commit publishes only a store it changed: a Recreate that
        // inserted nothing leaves the earlier content in place.
        if (recreating_ && !changed_) working_ = committed_, recreating_ = false;
        committed_ = working_;
        checkStore(dir_, "s", maxEntries_, committed_, !recreating_);
        if (recreating_) dropEarlierContent();
        recreating_ = false;
        files_ = snapshot(dir_);
        EXPECT_TRUE(fs::is_empty(tmp_.path()));
    }

    // A Recreate leaves the earlier content's files on disk; removes them as
    // the tool's clean command would, so later checks can be exact.
    void dropEarlierContent() {
        Tagdb db(8, maxEntries_);
        TagdbStore* s = openStore(db, dir_ / "s");
        ASSERT_EQ(db.start(T::Deferred), T::Ok);
        std::set<std::string> keep = filesOf(s, "s");
        db.abort();
        for (std::string const& f : dir_.files())
            if (!keep.count(f)) fs::remove(dir_ / f);
        checkStore(dir_, "s", maxEntries_, committed_);
    }

    void reopen() {
        recreating_ = false;
        db_ = std::make_unique<Tagdb>(cacheSize_, maxEntries_);
        openStore(*db_, dir_ / "s");
        working_ = committed_;
    }

    std::string lookup(std::string const& k) {
        void const* data = nullptr;
        int n = -1;
        EXPECT_EQ(db_->get(k.c_str(), data, n), T::Ok) << k;
        return shown(data, n);
    }
    std::string expectedValue(std::string const& k) {
        auto it = visible().find(k);
        return it == visible().end() ? "<none>" : it->second;
    }
    void checkEveryKey() {
        for (std::string const& k : keys_)
            ASSERT_EQ(lookup(k), expectedValue(k)) << "key " << k;
    }

    int maxEntries_, cacheSize_;
    std::mt19937 rng_;
    std::vector<std::string> keys_;
    TempDir dir_, tmp_;
    std::unique_ptr<Tagdb> db_;
    bool deferred_ = false, recreating_ = false;
    bool changed_ = false;  // the transaction inserted something
    Content committed_, working_;
    std::map<std::string, Bytes> files_;  // as the last commit left them
};

class TagdbTreeModel : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(TagdbTreeModel, RandomOperationsMatchAMap) {
    auto [maxEntries, cacheSize] = GetParam();
    TreeModel(maxEntries, cacheSize, 7919u * maxEntries + cacheSize).run(1200 * soakFactor());
}

INSTANTIATE_TEST_SUITE_P(SmallNodesTinyCaches, TagdbTreeModel,
                         testing::Values(std::tuple{3, 1}, std::tuple{3, 2}, std::tuple{3, 3},
                                         std::tuple{4, 1}, std::tuple{4, 2}, std::tuple{7, 1},
                                         std::tuple{7, 3}, std::tuple{512, 32}));

// With M entries a node, M - 1 ascending keys fit the root leaf with its end
// entry; the M-th splits it under a new root: into 3 and 1 entries for M = 3,
// into 257 and 256 for the default 512, separated at the split's key.
TEST(TagdbTree, RootSplitsWhereTheNodeSizeSays) {
    for (auto [m, left, right] : {std::tuple{3, 3, 1}, {512, 257, 256}}) {
        TempDir dir;
        Content all;
        for (int i = 1; i <= m; ++i)
            all["k" + std::to_string(10000 + i)] = "v";
        fill(dir / "s", all, m);
        checkStore(dir, "s", m, all);
        Tagdb db(8, m);
        TagdbStore* s = openStore(db, dir / "s");
        ASSERT_EQ(db.start(T::Deferred), T::Ok);
        TagdbNodeRef root, child;
        ASSERT_EQ(s->loadNode(0, root), T::Ok);
        ASSERT_EQ(s->nodeCount, 3);
        ASSERT_EQ(root.node->count, 2);
        EXPECT_EQ(text(root.node->keys[0]), "k" + std::to_string(10000 + left));
        for (int i : {0, 1}) {
            ASSERT_EQ(s->loadNode(root.node->values[i].id, child), T::Ok);
            EXPECT_EQ(child.node->count, i ? right : left);
        }
        root.release(), child.release();
    }
}

}  // namespace
