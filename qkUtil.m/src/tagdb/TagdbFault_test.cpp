// Fault injection: a transaction over two stores (a change, deletes that
// empty and free a leaf, inserts that split nodes and take the free id
// again, evictions that write early from a one-node cache, the commit) runs
// with one failure at every file operation in turn, then with two failures
// in the publication so that the rollback fails too. Whatever fails, the
// files end up exactly as before the transaction or exactly as after it.
// The same sweep runs as an Update and as a Recreate.
// Below the file layer, the disk misbehaves at every system call of the
// local file's gathered writes, read-ahead and close in turn: short
// transfers and interruptions change nothing, a full disk or an I/O error
// leaves the last published version intact and readable.
#include <cerrno>

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

// The two stores a commit sweep starts from: 12 keys in nodes of 3 entries.
Content fillBoth(TempDir const& dir) {
    Content keys;
    for (int i = 0; i < 12; ++i)
        keys["k" + std::to_string(100 + i).substr(1)] = "base";
    fill(dir / "a", keys, 3);
    fill(dir / "b", keys, 3);
    return keys;
}

class FaultedCommit : public testing::TestWithParam<T::TransMode> {
  protected:
    void SetUp() override {
        fillBoth(base);
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

// The local file on a disk that misbehaves once, at the chosen call of one
// kind, counted from the last arm(). A full disk takes half of a write and
// refuses the rest (the next call, which the file makes at once).
class DiskFile : public TagdbLocalFile {
  public:
    enum Fault { ShortWrite, InterruptedWrite, FullDisk, ShortRead, ReadError, CloseError };
    static TagdbFile* newInstance() { return new (std::nothrow) DiskFile(); }
    static void arm(Fault f, long at) {
        fault = f, target = at, refuseNext = false;
        writes = reads = closes = 0;
    }
    static inline long writes = 0, reads = 0, closes = 0;  // since the last arm()

  protected:
    long systemWrite(void const* buf, size_t size) override {
        bool hit = ++writes == target;
        if (refuseNext || (hit && fault == FullDisk && size < 2)) {
            refuseNext = false;
            return failWith(ENOSPC);
        }
        if (hit && fault == InterruptedWrite) return failWith(EINTR);
        if (hit && (fault == ShortWrite || fault == FullDisk) && size > 1) {
            refuseNext = fault == FullDisk;
            return TagdbLocalFile::systemWrite(buf, size / 2);
        }
        return TagdbLocalFile::systemWrite(buf, size);
    }
    long systemRead(void* buf, size_t size) override {
        bool hit = ++reads == target;
        if (hit && fault == ReadError) return failWith(EIO);
        if (hit && fault == ShortRead && size > 1) size /= 2;
        return TagdbLocalFile::systemRead(buf, size);
    }
    int systemClose() override {
        int closed = TagdbLocalFile::systemClose();
        if (++closes == target && fault == CloseError) return failWith(EIO);
        return closed;
    }

  private:
    static long failWith(int error) {
        errno = error;
        return -1;
    }
    static inline Fault fault = ShortWrite;
    static inline long target = 0;
    static inline bool refuseNext = false;
};

class DiskFaultedCommit : public testing::Test {
  protected:
    void SetUp() override {
        base = fillBoth(dir);
        before = snapshot(dir);
        TempDir ref;
        copyTo(ref);
        Tagdb db(1, 3, DiskFile::newInstance);
        openStore(db, ref / "a");
        openStore(db, ref / "b");
        DiskFile::arm(DiskFile::ShortWrite, 0);
        ASSERT_EQ(transaction(db, ref, T::Update), T::Ok);
        calls = {DiskFile::writes, DiskFile::reads, DiskFile::closes};
        after = snapshot(ref);
        for (char const* name : {"a", "b"}) {
            Tagdb reader;
            openStore(reader, ref / name);
            ASSERT_EQ(reader.start(T::Deferred), T::Ok);
            changed[name] = entries(reader);
        }
    }
    void copyTo(TempDir const& work) {
        for (auto const& [name, bytes] : before)
            writeFile(work / name, bytes);
    }
    // Runs the transaction with `fault` at call `at`; returns its outcome
    // after checking that the stores hold the old state or the new one, in
    // their files and as a reader sees them.
    T::Status runWith(DiskFile::Fault fault, long at) {
        TempDir work;
        copyTo(work);
        T::Status st;
        {
            Tagdb db(1, 3, DiskFile::newInstance);
            openStore(db, work / "a");
            openStore(db, work / "b");
            DiskFile::arm(fault, at);
            st = transaction(db, work, T::Update);
            DiskFile::arm(fault, 0);
            if (db.inTransaction()) db.abort();  // a set or node load that failed
        }
        EXPECT_EQ(snapshot(work), st == T::Ok ? after : before);
        for (char const* name : {"a", "b"})
            checkStore(work, name, 3, st == T::Ok ? changed[name] : base, false);
        return st;
    }

    TempDir dir;
    Content base;
    std::map<std::string, Content> changed;
    std::map<std::string, Bytes> before, after;
    std::vector<long> calls;  // writes, reads and closes of the transaction
};

TEST_F(DiskFaultedCommit, ShortTransfersAndInterruptionsChangeNothing) {
    ASSERT_GT(calls[0], 4);  // the node files, the two indexes and version files
    for (long k = 1; k <= calls[0] && !HasFailure(); ++k) {
        SCOPED_TRACE("write " + std::to_string(k));
        EXPECT_EQ(runWith(DiskFile::ShortWrite, k), T::Ok);
        EXPECT_EQ(runWith(DiskFile::InterruptedWrite, k), T::Ok);
    }
    for (long k = 1; k <= calls[1] && !HasFailure(); ++k) {
        SCOPED_TRACE("read " + std::to_string(k));
        EXPECT_EQ(runWith(DiskFile::ShortRead, k), T::Ok);
    }
}

TEST_F(DiskFaultedCommit, FullDiskAndIoErrorsKeepThePublishedVersion) {
    std::map<T::Status, int> written, other;
    for (long k = 1; k <= calls[0] && !HasFailure(); ++k) {
        SCOPED_TRACE("write " + std::to_string(k));
        written[runWith(DiskFile::FullDisk, k)]++;
    }
    // Reads and closes of files being read may fail and be retried.
    for (long k = 1; k <= calls[1] && !HasFailure(); ++k) {
        SCOPED_TRACE("read " + std::to_string(k));
        other[runWith(DiskFile::ReadError, k)]++;
    }
    for (long k = 1; k <= calls[2] && !HasFailure(); ++k) {
        SCOPED_TRACE("close " + std::to_string(k));
        other[runWith(DiskFile::CloseError, k)]++;
    }
    EXPECT_EQ(written[T::Ok], 0);  // a lost write is never taken for a commit
    EXPECT_GT(written[T::Aborted], 0);
    EXPECT_GT(other[T::Aborted], 0);
}

}  // namespace
