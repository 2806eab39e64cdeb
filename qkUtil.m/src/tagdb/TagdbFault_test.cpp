// Fault injection: a transaction over two stores (changes, a freed node, a
// reused id, evictions that write early, commit) is run with a failure at
// every single file operation in turn, and with two failures during the
// commit to reach the failed rollback. Whatever fails, the store files end
// up exactly as before the transaction or exactly as after it.
#include <map>

#include "TagdbFaultFile.h"
#include "TagdbTestUtil.h"

using namespace tagdbtest;
using T = TagdbCommon;

namespace {

using Snapshot = std::map<std::string, Bytes>;

Snapshot snapshot(TempDir const& dir) {
    Snapshot out;
    for (auto const& f : dir.files())
        out[f] = readFile(dir / f);
    return out;
}

void copyInto(TempDir const& from, TempDir const& to) {
    for (auto const& f : from.files())
        fs::copy_file(from / f, to / f);
}

// Node operations that report failure instead of asserting.
T::Status change(TagdbStore* s, long long id, std::vector<std::string> const& recs) {
    TagdbNodeRef ref;
    if (s->loadNode(id, ref) != T::Ok) return T::Failed;
    fillLeaf(ref.node, recs);
    return s->cacheTouch(ref.node);
}

T::Status release(TagdbStore* s, long long id) {
    TagdbNodeRef ref;
    if (s->loadNode(id, ref) != T::Ok) return T::Failed;
    s->freeNode(ref.node);
    return T::Ok;
}

T::Status add(TagdbStore* s, std::vector<std::string> const& recs) {
    TagdbNodeRef ref;
    if (s->newNode(ref) != T::Ok) return T::Failed;
    fillLeaf(ref.node, recs);
    return s->cacheInsert(ref.node);
}

T::Status setRoot(TagdbStore* s, std::vector<long long> const& ids) {
    TagdbNodeRef root;
    if (s->loadNode(0, root) != T::Ok) return T::Failed;
    TagdbNode* n = root.node;
    n->clear();
    n->type = TagdbNode::Inner;
    n->level = 2;
    for (size_t i = 0; i < ids.size(); ++i) {
        n->keys[i] = i + 1 < ids.size() ? key("c" + std::to_string(ids[i])) : nullptr;
        n->values[i].id = ids[i];
    }
    n->count = static_cast<int>(ids.size());
    s->markModified(n);
    return s->cacheTouch(n);
}

// The transaction under test; stops at the first failure.
T::Status transaction(Tagdb& db) {
    T::Status st = db.start(T::Update);
    for (int i = 0; st == T::Ok && i < db.getStoreCount(); ++i) {
        TagdbStore* s = db.getStore(i);
        if (change(s, 1, {"one", "changed"}) != T::Ok || release(s, 2) != T::Ok ||
            add(s, {"reused"}) != T::Ok || change(s, 3, {"three"}) != T::Ok ||
            setRoot(s, {1, 2, 3}) != T::Ok) {
            return T::Failed;
        }
    }
    return st == T::Ok ? db.commit() : st;
}

void openStores(Tagdb& db, TempDir const& dir) {
    openStore(db, dir / "a");
    openStore(db, dir / "b");
}

class FaultedCommit : public testing::Test {
  protected:
    void SetUp() override {
        {
            Tagdb db(1, 512, FaultFile::newInstance);
            openStores(db, base);
            ASSERT_EQ(db.start(T::Update), T::Ok);
            for (int i = 0; i < 2; ++i) {
                TagdbStore* s = db.getStore(i);
                for (int leaf = 0; leaf < 3; ++leaf)
                    ASSERT_EQ(add(s, {"base" + std::to_string(leaf)}), T::Ok);
                ASSERT_EQ(setRoot(s, {1, 2, 3}), T::Ok);
            }
            ASSERT_EQ(db.commit(), T::Ok);
        }
        before = snapshot(base);
        TempDir ref;
        copyInto(base, ref);
        Tagdb db(1, 512, FaultFile::newInstance);
        openStores(db, ref);
        FaultFile::arm({});
        ASSERT_EQ(transaction(db), T::Ok);
        total = FaultFile::operations();
        after = snapshot(ref);
        ASSERT_NE(before, after);
    }

    // Runs the transaction with failures at `points`; returns its status.
    T::Status runWithFaults(std::vector<long> const& points) {
        TempDir work;
        copyInto(base, work);
        Tagdb db(1, 512, FaultFile::newInstance);
        openStores(db, work);
        FaultFile::arm(points);
        T::Status st = transaction(db);
        FaultFile::disarm();
        T::Status outcome = st;
        if (st == T::RollbackFailed) {
            EXPECT_EQ(db.inTransaction(), 1);
            outcome = db.commit();  // still open: finishing it must work
            EXPECT_EQ(outcome, T::Ok);
        }
        if (db.inTransaction()) db.abort();
        EXPECT_EQ(snapshot(work), outcome == T::Ok ? after : before);
        return st;
    }

    TempDir base;
    Snapshot before, after;
    long total = 0;
};

TEST_F(FaultedCommit, AnySingleFailureLeavesTheOldOrTheNewState) {
    std::map<T::Status, int> seen;
    for (long k = 1; k <= total && !HasFailure(); ++k) {
        SCOPED_TRACE("failing operation " + std::to_string(k));
        seen[runWithFaults({k})]++;
    }
    EXPECT_GT(seen[T::Aborted], 0);
    EXPECT_GT(seen[T::Failed], 0);
}

TEST_F(FaultedCommit, FailedRollbackKeepsTheTransactionOpenAndCanFinish) {
    std::map<T::Status, int> seen;
    for (long k = total - 40; k <= total && !HasFailure(); ++k) {
        for (long gap = 1; gap <= 6 && !HasFailure(); ++gap) {
            SCOPED_TRACE("failing operations " + std::to_string(k) + "+" + std::to_string(gap));
            seen[runWithFaults({k, k + gap})]++;
        }
    }
    EXPECT_GT(seen[T::RollbackFailed], 0);
}

}  // namespace
