// Fault injection: a transaction over two stores (changes, a freed node, a
// reused id, evictions that write early, commit) runs with one failure at
// every file operation in turn, and with two failures in the commit to reach
// the failed rollback. Whatever fails, the files end up exactly as before
// the transaction or exactly as after it.
#include "TagdbFaultFile.h"
#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

T::Status transaction(Tagdb& db) {
    T::Status st = db.start(T::Update);
    for (int i = 0; st == T::Ok && i < db.getStoreCount(); ++i) {
        TagdbStore* s = db.getStore(i);
        if (change(s, 1, {"one", "changed"}) != T::Ok || freeLeaf(s, 2) != T::Ok ||
            addLeaf(s, {"reused"}) != T::Ok || change(s, 3, {"three"}) != T::Ok ||
            setRoot(s, {1, 2, 3}) != T::Ok) {
            return T::Failed;
        }
    }
    return st == T::Ok ? db.commit() : st;
}

class FaultedCommit : public testing::Test {
  protected:
    void SetUp() override {
        {
            Tagdb db(1, 512, FaultFile::newInstance);
            open(db, base);
            ASSERT_EQ(db.start(T::Update), T::Ok);
            for (int i = 0; i < 2; ++i) {
                for (int leaf = 0; leaf < 3; ++leaf)
                    ASSERT_EQ(addLeaf(db.getStore(i), {"base" + std::to_string(leaf)}), T::Ok);
                ASSERT_EQ(setRoot(db.getStore(i), {1, 2, 3}), T::Ok);
            }
            ASSERT_EQ(db.commit(), T::Ok);
        }
        before = snapshot(base);
        TempDir ref;
        Tagdb db(1, 512, FaultFile::newInstance);
        open(db, ref);
        FaultFile::arm({});
        ASSERT_EQ(transaction(db), T::Ok);
        total = FaultFile::operations();
        after = snapshot(ref);
        ASSERT_NE(before, after);
    }
    void open(Tagdb& db, TempDir const& dir) {
        for (auto const& [name, bytes] : before)
            writeFile(dir / name, bytes);
        openStore(db, dir / "a");
        openStore(db, dir / "b");
    }
    // Runs the transaction with failures at `points`, checks the files.
    T::Status runWithFaults(std::vector<long> const& points) {
        TempDir work;
        Tagdb db(1, 512, FaultFile::newInstance);
        open(db, work);
        FaultFile::arm(points);
        T::Status st = transaction(db), outcome = st;
        FaultFile::disarm();
        if (st == T::RollbackFailed) {
            EXPECT_TRUE(db.inTransaction());
            outcome = db.commit();  // still open: finishing it works
            EXPECT_EQ(outcome, T::Ok);
        }
        if (db.inTransaction()) db.abort();
        EXPECT_EQ(snapshot(work), outcome == T::Ok ? after : before);
        return st;
    }

    TempDir base;
    std::map<std::string, Bytes> before, after;
    long total = 0;
};

TEST_F(FaultedCommit, AnySingleFailureLeavesTheOldOrTheNewState) {
    std::map<T::Status, int> seen;
    for (long k = 1; k <= total && !HasFailure(); ++k) {
        SCOPED_TRACE("failing operation " + std::to_string(k));
        seen[runWithFaults({k})]++;
    }
    EXPECT_GT(seen[T::Aborted], 0);  // failures inside commit
    EXPECT_GT(seen[T::Failed], 0);   // failures of node operations
}

TEST_F(FaultedCommit, FailedRollbackKeepsTheTransactionOpenAndCanFinish) {
    std::map<T::Status, int> seen;
    for (long k = total - 40; k <= total && !HasFailure(); ++k) {
        for (long gap = 1; gap <= 6; ++gap)
            seen[runWithFaults({k, k + gap})]++;
    }
    EXPECT_GT(seen[T::RollbackFailed], 0);
}

}  // namespace
