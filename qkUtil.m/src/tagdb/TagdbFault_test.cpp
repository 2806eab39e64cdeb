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

// A transaction that only reads an existing store (a Deferred start, a walk,
// the abort) runs with failures at every file operation in turn, alone and
// in runs of up to four in a row. Whatever fails, the store's files stay
// exactly as they were (an open of the version file that fails does not
// make the store pass for a new one), and a walk that reports Ok saw every
// entry: failures show in a status, never as missing keys.
TEST(FaultedRead, FailuresNeverChangeTheStoreNorShortenAWalk) {
    TempDir dir;
    Content keys;
    for (int i = 0; i < 12; ++i)
        keys["k" + std::to_string(100 + i).substr(1)] = "base";
    fill(dir / "s", keys, 3);
    auto const before = snapshot(dir);
    auto read = [&](std::vector<long> const& points, Content& seen) {
        seen.clear();
        Tagdb db(1, 3, FaultFile::newInstance);
        openStore(db, dir / "s");
        FaultFile::arm(points);
        T::Status st = db.start(T::Deferred);
        if (st == T::Ok) {
            TagdbItr it(&db, "");
            int more = 0;
            while ((st = it.next(more)) == T::Ok && more) {
                char const* v = nullptr;
                it.get(v);
                seen[text(it.getKey())] = v ? v : "<null>";
            }
            db.abort();
        }
        FaultFile::disarm();
        return st;
    };
    Content seen;
    ASSERT_EQ(read({}, seen), T::Ok);
    ASSERT_EQ(seen, keys);
    long const total = FaultFile::operations;
    std::map<T::Status, int> outcomes;
    for (long k = 1; k <= total && !HasFailure(); ++k) {
        for (long run = 1; run <= 4 && !HasFailure(); ++run) {
            SCOPED_TRACE("failing operations " + std::to_string(k) + " to " +
                         std::to_string(k + run - 1));
            std::vector<long> points;
            for (long i = 0; i < run; ++i)
                points.push_back(k + i);
            T::Status st = read(points, seen);
            ++outcomes[st];
            if (st == T::Ok) {
                EXPECT_EQ(seen, keys);
            }
            EXPECT_EQ(snapshot(dir), before);
        }
    }
    EXPECT_GT(outcomes[T::Ok], 0);  // failures that a retry gets past
    EXPECT_GT(outcomes[T::Aborted] + outcomes[T::Failed], 0);
}

}  // namespace
