// Node storage and the cache: a model-based random test of the node layer
// (changes, new and freed ids, commits, aborts, reopening) under tiny caches
// that force early writes and reloads, id reuse and table growth, and
// evictions whose writes fail.
#include <cstring>
#include <memory>
#include <random>

#include "TagdbFaultFile.h"
#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

// The model: the live leaves under the root with their records, as
// committed and as the open transaction has them, and the ids handed out.
class NodeLayerModel {
  public:
    NodeLayerModel(int cacheSize, unsigned seed) : cacheSize_(cacheSize), rng_(seed) { reopen(); }

    void run(int steps) {
        for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            int op = step == 0 ? 1 : static_cast<int>(rng_() % 8);
            if (op <= 4 && !db_->inTransaction()) {
                ASSERT_EQ(db_->start(T::Update), T::Ok);
            }
            switch (op) {
                case 0:
                case 1:
                    change();
                    break;
                case 2:
                case 3:
                    add();
                    break;
                case 4:
                    release();
                    break;
                case 5:
                    finish(true);
                    break;
                case 6:
                    finish(false);
                    break;
                case 7:
                    reopen();
                    break;
            }
            if (db_->inTransaction()) {
                EXPECT_EQ(contentOf(s_, 0),
                          pending_.empty() ? std::vector<std::string>{"<null>"} : ids());
                for (auto const& [id, recs] : pending_)
                    ASSERT_EQ(contentOf(s_, id), recs) << "leaf " << id;
            }
        }
    }

  private:
    std::vector<std::string> ids() {
        std::vector<std::string> out;
        for (auto const& [id, recs] : pending_)
            out.push_back(std::to_string(id));
        return out;
    }
    std::vector<long long> idNumbers() {
        std::vector<long long> out;
        for (auto const& [id, recs] : pending_)
            out.push_back(id);
        return out;
    }
    std::vector<std::string> randomRecords() {
        std::vector<std::string> r(1 + rng_() % 6);
        for (auto& x : r)
            x = std::to_string(rng_() % 1000);
        return r;
    }
    void change() {
        if (pending_.empty()) return add();
        auto it = std::next(pending_.begin(), static_cast<long>(rng_() % pending_.size()));
        it->second = randomRecords();
        touched_.insert(it->first);
        ASSERT_EQ(tagdbtest::change(s_, it->first, it->second), T::Ok);
    }
    // A new id is the lowest free one, else the next unused one.
    void add() {
        long long expected = 1;
        while (expected < count_ && pending_.count(expected))
            ++expected;
        auto recs = randomRecords();
        long long id = 0;
        ASSERT_EQ(addLeaf(s_, recs, &id), T::Ok);
        ASSERT_EQ(id, expected);
        count_ = std::max(count_, id + 1);
        pending_[id] = recs;
        touched_.insert({id, 0});
        ASSERT_EQ(setRoot(s_, idNumbers()), T::Ok);
    }
    void release() {
        if (pending_.size() < 2) return;
        long long id =
            std::next(pending_.begin(), static_cast<long>(rng_() % pending_.size()))->first;
        ASSERT_EQ(freeLeaf(s_, id), T::Ok);
        pending_.erase(id);
        touched_.insert(0);
        ASSERT_EQ(setRoot(s_, idNumbers()), T::Ok);
    }
    void finish(bool commit) {
        if (!db_ || !db_->inTransaction()) return;
        std::vector<int> before(s_->committedVersions, s_->committedVersions + s_->nodeCount);
        if (commit) {
            ASSERT_EQ(db_->commit(), T::Ok);
            // Exactly the changed nodes moved to new versions (new file names).
            for (long long id = 0; id < static_cast<long long>(before.size()); ++id) {
                if (before[id] > 0 && s_->committedVersions[id] > 0) {
                    EXPECT_EQ(touched_.count(id) > 0, s_->committedVersions[id] != before[id])
                        << id;
                }
            }
            committed_ = pending_;
            committedCount_ = count_;
        } else {
            ASSERT_EQ(db_->abort(), T::Aborted);
            pending_ = committed_;
            count_ = committedCount_;
        }
        touched_.clear();
        checkFiles();
    }
    void reopen() {
        finish(false);
        db_ = std::make_unique<Tagdb>(cacheSize_);
        s_ = openStore(*db_, dir_ / "s");
    }
    // Between transactions the directory holds the committed version alone:
    // the version file, its index and one file per live node.
    void checkFiles() {
        Bytes v = readFile(dir_ / "s");
        if (v == le(1, 4)) {
            EXPECT_EQ(dir_.files(), std::set<std::string>{"s"});
            return;
        }
        std::string index = "s-x-" + std::to_string(v[0] | v[1] << 8 | v[2] << 16 | v[3] << 24);
        Bytes x = readFile(dir_ / index);
        ASSERT_EQ(x.size(), 8 + 4 * static_cast<size_t>(committedCount_));
        ASSERT_EQ(Bytes(x.begin(), x.begin() + 8), le(committedCount_, 8));
        std::set<std::string> expected = {"s", index};
        for (long long id = 0; id < committedCount_; ++id) {
            int version;
            std::memcpy(&version, x.data() + 8 + 4 * id, 4);
            bool live = id == 0 || committed_.count(id);
            ASSERT_EQ(version > 0, live) << "id " << id;
            if (live) expected.insert("s-" + std::to_string(id) + "-" + std::to_string(version));
        }
        EXPECT_EQ(dir_.files(), expected);
    }

    TempDir dir_;
    int cacheSize_;
    std::mt19937 rng_;
    std::unique_ptr<Tagdb> db_;
    TagdbStore* s_ = nullptr;
    std::map<long long, std::vector<std::string>> committed_, pending_;
    std::set<long long> touched_;  // changed in the open transaction
    long long committedCount_ = 1, count_ = 1;
};

TEST(TagdbNode, RandomChangesCommitsAndAbortsMatchTheModel) {
    for (int cacheSize : {1, 2, 3, 32}) {
        for (unsigned seed = 1; seed <= 4 && !HasFailure(); ++seed) {
            SCOPED_TRACE("cacheSize " + std::to_string(cacheSize) + " seed " +
                         std::to_string(seed));
            NodeLayerModel(cacheSize, seed).run(300);
        }
    }
}

TEST(TagdbNode, FreedIdsComeBackUnderTheRightVersionAndTablesDouble) {
    TempDir dir;
    Tagdb db(4);
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(s->capacity, 16);
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(addLeaf(s, {"r"}), T::Ok);
    EXPECT_EQ(s->nodeCount, 41);
    EXPECT_EQ(s->capacity, 64);  // 16, 32, 64
    ASSERT_EQ(db.commit(), T::Ok);

    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(freeLeaf(s, 30), T::Ok);
    ASSERT_EQ(freeLeaf(s, 7), T::Ok);
    long long id = 0;
    ASSERT_EQ(addLeaf(s, {"again"}, &id), T::Ok);  // freed in this transaction
    EXPECT_EQ(id, 7);
    EXPECT_EQ(s->newVersions[7], 2);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(s->committedVersions[30], -2);

    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(addLeaf(s, {"thirty"}, &id), T::Ok);  // freed earlier: its last version
    EXPECT_EQ(id, 30);
    EXPECT_EQ(s->newVersions[30], 2);
    ASSERT_EQ(addLeaf(s, {"next"}, &id), T::Ok);
    EXPECT_EQ(id, 41);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_TRUE(fs::exists(dir / "s-30-2"));
    EXPECT_FALSE(fs::exists(dir / "s-7-1"));
}

// Evictions whose writes fail keep their nodes cached, over the limit; once
// writes work again one insertion evicts at most ten. A node without entries
// is never written.
TEST(TagdbNode, FailedEvictionsKeepNodesAndLaterInsertionsEvictAtMostTen) {
    TempDir dir;
    Tagdb db(1, 512, FaultFile::newInstance);
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    TagdbNodeRef empty;
    ASSERT_EQ(s->newNode(empty), T::Ok);
    s->markModified(empty.node);
    ASSERT_EQ(s->cacheInsert(empty.node), T::Ok);
    ASSERT_EQ(addLeaf(s, {"r"}), T::Ok);  // evicts the empty node: nothing written
    EXPECT_FALSE(empty.node->cached);
    EXPECT_EQ(s->writtenFlags[1], 0);

    FaultFile::failWriteOpens(true);
    for (int i = 0; i < 13; ++i)
        EXPECT_EQ(addLeaf(s, {"r"}), T::Failed);
    EXPECT_EQ(s->cachedCount, 14);
    FaultFile::failWriteOpens(false);
    ASSERT_EQ(addLeaf(s, {"r"}), T::Ok);
    EXPECT_EQ(s->cachedCount, 5);
    for (long long id = 2; id <= 11; ++id)
        EXPECT_EQ(s->cacheLookup(id), nullptr) << id;
    for (long long id = 2; id <= 16; ++id)
        EXPECT_EQ(contentOf(s, id), std::vector<std::string>{"r"});
    db.abort();
    EXPECT_EQ(dir.files(), std::set<std::string>{"s"});
}

}  // namespace
