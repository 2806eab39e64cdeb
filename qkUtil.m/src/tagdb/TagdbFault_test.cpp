// Fault injection: a transaction over two stores (a change, deletes that
// empty and free a leaf, inserts that split nodes and take the free id
// again, evictions that write early from a one-node cache, the commit) runs
// with one failure at every file operation in turn, then with two failures
// in the publication so that the rollback fails too. Whatever fails, the
// files end up exactly as before the transaction or exactly as after it.
// The same sweep runs as an Update and as a Recreate.
#include "TagdbFaultFile.h"
#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

T::Status transaction(Tagdb& db, TempDir const& dir, T::TransMode mode) {
    T::Status st = db.start(mode);
    for (char const* name : {"a", "b"}) {
        if (st == T::Ok) st = db.activate((dir / name).c_str());
        if (st == T::Ok) st = db.set("k05", "changed");
        for (char const* k : {"k00", "k01", "k02", "k03"})
            if (st == T::Ok) st = db.set(k, static_cast<TagdbRecord*>(nullptr));
        for (char const* k : {"k01", "k20", "k21", "k22"})
            if (st == T::Ok) st = db.set(k, name);
    }
    return st == T::Ok ? db.commit() : st;
}

class FaultedCommit : public testing::TestWithParam<T::TransMode> {
  protected:
    void SetUp() override {
        Content keys;
        for (int i = 0; i < 12; ++i)
            keys["k" + std::to_string(100 + i).substr(1)] = "base";
        fill(base / "a", keys, 3);
        fill(base / "b", keys, 3);
        before = snapshot(base);
        TempDir ref;
        Tagdb db(1, 3, FaultFile::newInstance);
        open(db, ref);
        FaultFile::arm({});
        ASSERT_EQ(transaction(db, ref, GetParam()), T::Ok);
        total = FaultFile::operations;
        after = snapshot(ref);
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
        Tagdb db(1, 3, FaultFile::newInstance);
        open(db, work);
        FaultFile::arm(points);
        T::Status st = transaction(db, work, GetParam()), outcome = st;
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

TEST_P(FaultedCommit, AnyFailureLeavesTheOldOrTheNewState) {
    std::map<T::Status, int> seen;
    for (long k = 1; k <= total && !HasFailure(); ++k) {
        SCOPED_TRACE("failing operation " + std::to_string(k));
        seen[runWithFaults({k})]++;
    }
    // The last operations publish the two version files (open, write, close).
    for (long k = total - 6; k <= total && !HasFailure(); ++k) {
        for (long gap = 1; gap <= 6; ++gap) {
            SCOPED_TRACE("failing operations " + std::to_string(k) + " and +" +
                         std::to_string(gap));
            seen[runWithFaults({k, k + gap})]++;
        }
    }
    EXPECT_GT(seen[T::Aborted], 0);  // failures inside start and commit
    EXPECT_GT(seen[T::Failed], 0);   // failures of node loads and writes
    EXPECT_GT(seen[T::RollbackFailed], 0);
}

// A Recreate builds the same changes over empty stores, under names above
// every version on disk: the earlier content survives any failure.
INSTANTIATE_TEST_SUITE_P(Modes, FaultedCommit, testing::Values(T::Update, T::Recreate),
                         [](auto const& info) {
                             return std::string(info.param == T::Update ? "Update" : "Recreate");
                         });

}  // namespace
