// Node storage and the cache: a model-based random test of the node layer
// (changes, new and freed ids, commits, aborts, reopening) under tiny caches,
// and the cache's eviction rules.
#include <cstring>
#include <map>
#include <memory>
#include <random>

#include "TagdbTestUtil.h"
#include "tagdb/TagdbFaultFile.h"

using namespace tagdbtest;
using T = TagdbCommon;

namespace {

// What the store should hold: the live leaves under the root and their
// records, as committed and as changed by the open transaction.
struct Model {
    std::map<long long, std::vector<std::string>> committed, pending;
    std::set<long long> touched;                     // changed in the open transaction
    long long committedCount = 1, pendingCount = 1;  // node ids handed out
};

class NodeLayerModel {
  public:
    NodeLayerModel(int cacheSize, unsigned seed) : cacheSize_(cacheSize), rng_(seed) { reopen(); }

    void run(int steps) {
        begin();
        long long id = addLeaf(s_, {"first"});
        m_.pending[id] = {"first"};
        m_.pendingCount = 2;
        m_.touched = {0, id};
        setRootChildren(s_, {id});
        commit();
        for (int step = 0; step < steps && !testing::Test::HasFatalFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            switch (rng_() % 10) {
                case 0:
                case 1:
                case 2:
                    change();
                    break;
                case 3:
                case 4:
                    add();
                    break;
                case 5:
                case 6:
                    release();
                    break;
                case 7:
                    commit();
                    break;
                case 8:
                    abort();
                    break;
                case 9:
                    reopen();
                    break;
            }
            if (db_->inTransaction()) checkContent();
        }
    }

  private:
    std::vector<std::string> randomRecords() {
        std::vector<std::string> r(1 + rng_() % 6);
        for (auto& x : r)
            x = std::to_string(rng_() % 1000);
        return r;
    }
    long long randomLive() {
        auto it = m_.pending.begin();
        std::advance(it, static_cast<long>(rng_() % m_.pending.size()));
        return it->first;
    }
    std::vector<long long> liveIds() {
        std::vector<long long> ids;
        for (auto const& [id, recs] : m_.pending)
            ids.push_back(id);
        return ids;
    }
    void begin() {
        if (!db_->inTransaction()) {
            ASSERT_EQ(db_->start(T::Update), T::Ok);
        }
    }

    void change() {
        begin();
        long long id = randomLive();
        TagdbNodeRef ref;
        ASSERT_EQ(s_->loadNode(id, ref), T::Ok);
        ASSERT_EQ(s_->cacheTouch(ref.node), T::Ok);
        m_.pending[id] = randomRecords();
        m_.touched.insert(id);
        fillLeaf(ref.node, m_.pending[id]);
    }
    // New ids are the lowest free id, else the next one.
    void add() {
        begin();
        long long expected = 1;
        while (expected < m_.pendingCount && m_.pending.count(expected))
            ++expected;
        auto recs = randomRecords();
        long long id = addLeaf(s_, recs);
        ASSERT_EQ(id, expected);
        m_.pendingCount = std::max(m_.pendingCount, id + 1);
        m_.pending[id] = recs;
        m_.touched.insert({id, 0});
        setRootChildren(s_, liveIds());
    }
    void release() {
        if (m_.pending.size() < 2) return;
        begin();
        long long id = randomLive();
        TagdbNodeRef ref;
        ASSERT_EQ(s_->loadNode(id, ref), T::Ok);
        s_->freeNode(ref.node);
        m_.pending.erase(id);
        m_.touched.insert(0);
        setRootChildren(s_, liveIds());
    }
    void commit() {
        if (!db_->inTransaction()) return;
        std::map<long long, int> before = versions();
        ASSERT_EQ(db_->commit(), T::Ok);
        // Changed nodes got new file names, unchanged ones kept theirs.
        for (auto const& [id, v] : versions()) {
            if (v > 0 && before.count(id) && before[id] > 0) {
                EXPECT_EQ(m_.touched.count(id) == 0, v == before[id]) << "id " << id;
            }
        }
        m_.touched.clear();
        m_.committed = m_.pending;
        m_.committedCount = m_.pendingCount;
        checkFiles();
    }
    void abort() {
        if (!db_->inTransaction()) return;
        ASSERT_EQ(db_->abort(), T::Aborted);
        m_.pending = m_.committed;
        m_.pendingCount = m_.committedCount;
        m_.touched.clear();
        checkFiles();
    }
    void reopen() {
        if (db_) abort();
        db_ = std::make_unique<Tagdb>(cacheSize_);
        s_ = openStore(*db_, dir_ / "s");
    }

    std::map<long long, int> versions() {
        std::map<long long, int> v;
        for (long long id = 0; id < s_->nodeCount; ++id)
            v[id] = s_->committedVersions[id];
        return v;
    }
    void checkContent() {
        EXPECT_EQ(rootChildren(s_), liveIds());
        for (auto const& [id, recs] : m_.pending)
            ASSERT_EQ(leafRecords(s_, id), recs) << "leaf " << id;
    }
    // Between transactions the directory holds exactly the committed
    // version: the version file, its index and one file per live node.
    void checkFiles() {
        Bytes index = readFile(dir_ / ("s-x-" + std::to_string(readVersion())));
        ASSERT_EQ(index.size(), 8 + 4 * static_cast<size_t>(m_.committedCount));
        long long count;
        std::memcpy(&count, index.data(), 8);
        ASSERT_EQ(count, m_.committedCount);
        std::set<std::string> expected = {"s", "s-x-" + std::to_string(readVersion())};
        for (long long id = 0; id < count; ++id) {
            int v;
            std::memcpy(&v, index.data() + 8 + 4 * id, 4);
            bool live = id == 0 || m_.committed.count(id);
            ASSERT_EQ(v > 0, live) << "id " << id;
            if (live) expected.insert("s-" + std::to_string(id) + "-" + std::to_string(v));
        }
        EXPECT_EQ(dir_.files(), expected);
    }
    int readVersion() {
        int v = 0;
        Bytes b = readFile(dir_ / "s");
        if (b.size() == 4) std::memcpy(&v, b.data(), 4);
        return v;
    }

    TempDir dir_;
    int cacheSize_;
    std::mt19937 rng_;
    std::unique_ptr<Tagdb> db_;
    TagdbStore* s_ = nullptr;
    Model m_;
};

TEST(TagdbNode, RandomChangesCommitsAndAbortsMatchTheModel) {
    for (int cacheSize : {1, 2, 3, 32}) {
        for (unsigned seed = 1; seed <= 4; ++seed) {
            SCOPED_TRACE("cacheSize " + std::to_string(cacheSize) + " seed " +
                         std::to_string(seed));
            NodeLayerModel(cacheSize, seed).run(300);
            if (HasFatalFailure()) return;
        }
    }
}

TEST(TagdbNode, NewIdsReuseFreedOnesAndTablesGrowByDoubling) {
    TempDir dir;
    Tagdb db(4);
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(s->capacity, 16);
    std::vector<long long> ids;
    for (int i = 0; i < 40; ++i)
        ids.push_back(addLeaf(s, {std::to_string(i)}));
    EXPECT_EQ(ids.front(), 1);
    EXPECT_EQ(ids.back(), 40);
    EXPECT_EQ(s->capacity, 64);  // 16 -> 32 -> 64
    setRootChildren(s, ids);
    ASSERT_EQ(db.commit(), T::Ok);

    // Freed in this transaction: handed out again at once, lowest first,
    // under the next version of the node.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (long long id : {30, 7}) {
        TagdbNodeRef ref;
        ASSERT_EQ(s->loadNode(id, ref), T::Ok);
        s->freeNode(ref.node);
    }
    EXPECT_EQ(s->freeHint, 7);
    EXPECT_EQ(addLeaf(s, {"again"}), 7);
    EXPECT_EQ(s->newVersions[7], 2);
    ids.erase(std::find(ids.begin(), ids.end(), 30));
    setRootChildren(s, ids);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(s->committedVersions[30], -2);

    // Freed in an earlier transaction: reused under its last version.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(addLeaf(s, {"thirty"}), 30);
    EXPECT_EQ(s->newVersions[30], 2);
    EXPECT_EQ(addLeaf(s, {"next"}), 41);
    ids.push_back(30);
    ids.push_back(41);
    setRootChildren(s, ids);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_TRUE(fs::exists(dir / "s-30-2"));
    EXPECT_EQ(leafRecords(s, 30), std::vector<std::string>{"thirty"});
}

// With one or two cached nodes, every change is pushed out early to its new
// file and read back from there; an abort removes those files again.
TEST(TagdbNode, EvictionWritesChangedNodesEarlyAndReadsThemBack) {
    for (int cacheSize : {1, 2}) {
        TempDir dir;
        Tagdb db(cacheSize);
        TagdbStore* s = openStore(db, dir / "s");
        ASSERT_EQ(db.start(T::Update), T::Ok);
        std::vector<long long> ids;
        for (int i = 0; i < 5; ++i)
            ids.push_back(addLeaf(s, {"v" + std::to_string(i), "w"}));
        setRootChildren(s, ids);
        EXPECT_EQ(s->cachedCount, cacheSize);
        for (size_t i = 0; i + cacheSize - 1 < ids.size(); ++i)  // all but the cached ones
            EXPECT_TRUE(fs::exists(dir / ("s-" + std::to_string(ids[i]) + "-1"))) << ids[i];
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(leafRecords(s, ids[i]),
                      (std::vector<std::string>{"v" + std::to_string(i), "w"}));
        ASSERT_EQ(db.commit(), T::Ok);

        ASSERT_EQ(db.start(T::Update), T::Ok);
        for (long long id : ids) {
            TagdbNodeRef ref;
            ASSERT_EQ(s->loadNode(id, ref), T::Ok);
            fillLeaf(ref.node, {"changed"});
        }
        EXPECT_EQ(leafRecords(s, ids[0]), std::vector<std::string>{"changed"});
        EXPECT_TRUE(fs::exists(dir / "s-1-2"));
        ASSERT_EQ(db.abort(), T::Aborted);
        EXPECT_FALSE(fs::exists(dir / "s-1-2"));
        ASSERT_EQ(db.start(T::Update), T::Ok);
        EXPECT_EQ(leafRecords(s, ids[0]), (std::vector<std::string>{"v0", "w"}));
        db.abort();
    }
}

TEST(TagdbNode, EmptyNodesAreNeverWritten) {
    TempDir dir;
    Tagdb db(1);
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    TagdbNodeRef empty;
    ASSERT_EQ(s->newNode(empty), T::Ok);
    s->markModified(empty.node);
    ASSERT_EQ(s->cacheInsert(empty.node), T::Ok);
    addLeaf(s, {"x"});  // evicts the empty node
    EXPECT_FALSE(empty.node->cached);
    EXPECT_FALSE(fs::exists(dir / "s-1-1"));
    EXPECT_EQ(s->writtenFlags[1], 0);
    db.abort();
}

// Evictions whose writes fail keep their nodes cached (and over the limit);
// once writes work again, one insertion evicts at most ten of them.
TEST(TagdbNode, FailedEvictionsKeepNodesAndLaterInsertionsEvictAtMostTen) {
    TempDir dir;
    Tagdb db(1, 512, FaultFile::newInstance);
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    std::vector<long long> ids;
    FaultFile::failWriteOpens(true);
    for (int i = 0; i < 14; ++i) {
        TagdbNodeRef ref;
        ASSERT_EQ(s->newNode(ref), T::Ok);
        fillLeaf(ref.node, {"r"});
        EXPECT_EQ(s->cacheInsert(ref.node), i == 0 ? T::Ok : T::Failed);
        ids.push_back(ref.node->id);
    }
    EXPECT_EQ(s->cachedCount, 14);
    FaultFile::failWriteOpens(false);
    TagdbNodeRef ref;
    ASSERT_EQ(s->newNode(ref), T::Ok);
    fillLeaf(ref.node, {"r"});
    ASSERT_EQ(s->cacheInsert(ref.node), T::Ok);
    EXPECT_EQ(s->cachedCount, 5);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(s->cacheLookup(ids[i]), nullptr) << i;
    setRootChildren(s, ids);
    ASSERT_EQ(db.commit(), T::Ok);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (long long id : ids)
        EXPECT_EQ(leafRecords(s, id), std::vector<std::string>{"r"});
    db.abort();
}

}  // namespace
