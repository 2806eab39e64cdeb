// Committed data survives a Recreate and a Deferred transaction whose view
// moves on: an abort, a failed commit or a kill at any moment leaves the
// earlier content byte for byte, and changes made without the lock are never
// written under a name a committed version uses.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

Content numbered(char const* prefix, int n, std::string const& value) {
    Content c;
    for (int i = 0; i < n; ++i)
        c[prefix + std::to_string(1000 + i)] = value;
    return c;
}

// What a reader that comes later finds in the store.
Content contentOf(std::string const& name) {
    Tagdb db(8, 3);
    openStore(db, name);
    EXPECT_EQ(db.start(T::Deferred), T::Ok);
    Content c = entries(db);
    db.abort();
    return c;
}

void setAll(Tagdb& db, Content const& c) {
    for (auto const& [k, v] : c)
        ASSERT_EQ(db.set(k.c_str(), v.data(), static_cast<int>(v.size())), T::Ok);
}

// Committed with big caches, recreated through a one-node cache, so that the
// Recreate writes nodes early and, numbered as the old content was, would
// write over it.
TEST(TagdbRecreate, AbortAndSecondStoreFailureLeaveTheEarlierContent) {
    TempDir dir;
    Content old = numbered("k", 40, "old");
    fill(dir / "a", old, 3);
    fill(dir / "b", old, 3);
    auto before = snapshot(dir);

    Tagdb db(1, 3);
    openStore(db, dir / "a");
    ASSERT_EQ(db.start(T::Recreate), T::Ok);
    setAll(db, numbered("n", 30, "new"));
    EXPECT_EQ(db.abort(), T::Aborted);
    EXPECT_EQ(snapshot(dir), before);
    EXPECT_EQ(contentOf(dir / "a"), old);

    // A two-store Recreate whose commit fails at the second store (its
    // directory is gone, so nothing of it can be written).
    TempDir other;
    fill(other / "b", old, 3);
    Tagdb two(1, 3);
    openStore(two, dir / "a");
    openStore(two, other / "b");
    ASSERT_EQ(two.start(T::Recreate), T::Ok);
    setAll(two, numbered("n", 30, "new"));
    ASSERT_EQ(two.activate((dir / "a").c_str()), T::Ok);
    setAll(two, numbered("n", 30, "new"));
    fs::rename(other.path(), other.path() + ".away");
    EXPECT_EQ(two.commit(), T::Aborted);
    fs::rename(other.path() + ".away", other.path());
    EXPECT_EQ(snapshot(dir), before);
    EXPECT_EQ(contentOf(dir / "a"), old);
    EXPECT_EQ(contentOf(other / "b"), old);
}

// A reader that holds the store (cache and tables of the old version) sees
// the recreated content after the commit, and so does the writer itself.
TEST(TagdbRecreate, ReadersThatHoldTheStoreSeeTheNewContent) {
    TempDir dir;
    fill(dir / "s", numbered("k", 20, "old"), 3);
    Tagdb reader(64, 3);
    openStore(reader, dir / "s");
    ASSERT_EQ(reader.start(T::Deferred), T::Ok);
    EXPECT_EQ(entries(reader).size(), 20u);
    reader.abort();

    Content fresh = numbered("k", 5, "new"), committed;
    Tagdb db(1, 3);
    openStore(db, dir / "s");
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(db.start(T::Recreate), T::Ok);
        setAll(db, fresh);
        ASSERT_EQ(db.commit(), T::Ok);
        ASSERT_EQ(reader.start(T::Deferred), T::Ok);
        EXPECT_EQ(entries(reader), fresh);
        reader.abort();
        ASSERT_EQ(db.start(T::Update), T::Ok);
        EXPECT_EQ(entries(db), fresh);
        ASSERT_EQ(db.commit(), T::Ok);
        committed = fresh;
        fresh = numbered(("r" + std::to_string(round)).c_str(), 7 + round, "again");
    }
    checkStore(dir, "s", 3, committed, false);
}

// A writer killed at a random moment of a Recreate (early writes, index,
// publication) leaves either the old or the new content, and every file of
// the old content as it was.
TEST(TagdbRecreate, KilledAnywhereLeavesTheOldOrTheNewContent) {
    std::mt19937 rng(7u);
    Content old = numbered("k", 60, "old"), fresh = numbered("n", 80, "new");
    int sawOld = 0, sawNew = 0;
    for (int round = 0; round < 40 * soakFactor() && !HasFailure(); ++round) {
        TempDir dir;
        fill(dir / "s", old, 3);
        auto before = snapshot(dir);
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(fds[0]);
            Tagdb db(1, 3);
            openStore(db, dir / "s");
            char go = 1;
            if (write(fds[1], &go, 1) != 1) _exit(1);
            while (true) {
                if (db.start(T::Recreate) != T::Ok) _exit(2);
                for (auto const& [k, v] : fresh)
                    if (db.set(k.c_str(), v.data(), static_cast<int>(v.size())) != T::Ok) _exit(3);
                if (db.commit() != T::Ok) _exit(4);
            }
        }
        close(fds[1]);
        char go = 0;
        ASSERT_EQ(read(fds[0], &go, 1), 1);
        close(fds[0]);
        usleep(static_cast<useconds_t>(rng() % 3000));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped: " << status;
        for (auto const& [file, bytes] : before) {
            if (file != "s") {
                EXPECT_EQ(readFile(dir / file), bytes) << file;
            }
        }
        Content now = contentOf(dir / "s");
        if (now == old) {
            ++sawOld;
            EXPECT_EQ(readFile(dir / "s"), before["s"]);
        } else {
            ++sawNew;
            EXPECT_EQ(now, Content(fresh.begin(), fresh.end()));
        }
    }
    EXPECT_GT(sawOld + sawNew, 0);
}

// Children's jobs: one Update commit that changes every key (each node gets
// its next version, the very names a Deferred transaction begun before would
// give its own changes).
int rewriteAll(std::string const& store, Content const& c) {
    Tagdb db(4, 3);
    openStore(db, store);
    if (db.start(T::Update) != T::Ok) return 1;
    for (auto const& [k, v] : c)
        if (db.set(k.c_str(), v.data(), static_cast<int>(v.size())) != T::Ok) return 2;
    return db.commit() == T::Ok ? 0 : 3;
}

int runChild(std::function<int()> job) {
    pid_t pid = fork();
    if (pid == 0) _exit(job());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A Deferred transaction changes the tree through getRef while another
// process commits; its evicted and reloaded nodes must not land on the other
// writer's files. Its commit fails, and what the other writer committed
// stays, whether the transaction then commits or aborts.
TEST(TagdbDeferredView, ChangesWithoutTheLockNeverReachCommittedFiles) {
    for (int cache : {1, 2}) {
        for (bool tryCommit : {true, false}) {
            SCOPED_TRACE("cache " + std::to_string(cache) + (tryCommit ? " commit" : " abort"));
            TempDir dir;
            Content base = numbered("k", 30, "base");
            fill(dir / "s", base, 3);
            Content theirs = numbered("k", 30, "theirs");

            Tagdb db(cache, 3);
            openStore(db, dir / "s");
            ASSERT_EQ(db.start(T::Deferred), T::Ok);
            int changed = 0;
            for (auto const& [k, v] : base) {
                if (changed++ % 3) continue;
                TagdbNodeRef ref;
                ASSERT_EQ(db.getRef(k.c_str(), ref), T::Ok);
                ASSERT_EQ(ref.set(rec("mine")), T::Ok);
            }
            ASSERT_EQ(runChild([&] { return rewriteAll(dir / "s", theirs); }), 0);
            auto published = snapshot(dir);
            // Walks and changes load nodes whose files the other commit
            // removed, and evict changed nodes.
            for (auto const& [k, v] : base) {
                TagdbRecord* r = nullptr;
                db.get(k.c_str(), r);
                TagdbNodeRef ref;
                if (db.getRef(k.c_str(), ref) == T::Ok) ref.set(rec("late"));
            }
            for (auto const& [file, bytes] : published)
                EXPECT_EQ(readFile(dir / file), bytes) << file << " was written over";
            if (tryCommit) {
                EXPECT_EQ(db.commit(), T::Aborted);
            } else {
                EXPECT_EQ(db.abort(), T::Aborted);
            }
            EXPECT_EQ(snapshot(dir), published);
            EXPECT_EQ(contentOf(dir / "s"), theirs);
            checkStore(dir, "s", 3, theirs);
        }
    }
}

}  // namespace
