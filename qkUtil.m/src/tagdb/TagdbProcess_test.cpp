// Stores shared between processes: writers in Update mode, serialised by the
// lock file, lose no update; a reader without the lock keeps loading whole
// nodes while another process commits and removes superseded files.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

// Ends a child that still runs when a test leaves early; reaps it.
struct Child {
    pid_t pid;
    int wait() {
        int status = 0;
        pid_t got = waitpid(pid, &status, 0);
        pid = 0;
        return got > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ~Child() {
        if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    }
};

// Rounds of: read the counter in the root leaf, pause, write it plus one.
int increment(std::string const& name, int rounds) {
    Tagdb db(2);
    TagdbStore* s = openStore(db, name);
    for (int i = 0; i < rounds; ++i) {
        if (db.start(T::Update) != T::Ok) return 1;
        std::string v = contentOf(s, 0).at(0);
        usleep(500);
        if (change(s, 0, {std::to_string(v == "<null>" ? 1 : std::stoi(v) + 1)}) != T::Ok) return 2;
        if (db.commit() != T::Ok) return 3;
    }
    return 0;
}

TEST(TagdbProcesses, UpdateWritersAreSerialisedAndLoseNothing) {
    TempDir dir;
    constexpr int kRounds = 25;
    Child child{fork()};
    ASSERT_GE(child.pid, 0);
    if (child.pid == 0) _exit(increment(dir / "s", kRounds));
    EXPECT_EQ(increment(dir / "s", kRounds), 0);
    EXPECT_EQ(child.wait(), 0);
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    EXPECT_EQ(contentOf(s, 0), std::vector<std::string>{std::to_string(2 * kRounds)});
    EXPECT_EQ(dir.files().size(), 3u);  // version, index, root: nothing left over
}

// The writer rewrites every leaf with its commit number, removing the
// previous commit's files each time.
TEST(TagdbProcesses, ReaderWithoutTheLockFollowsACommittingWriter) {
    TempDir dir;
    constexpr int kLeaves = 4, kCommits = 300;
    std::vector<long long> leaves = {1, 2, 3, 4};
    {
        Tagdb db;
        TagdbStore* s = openStore(db, dir / "s");
        ASSERT_EQ(db.start(T::Update), T::Ok);
        for (int i = 0; i < kLeaves; ++i)
            ASSERT_EQ(addLeaf(s, {"0", "0"}), T::Ok);
        ASSERT_EQ(setRoot(s, leaves), T::Ok);
        ASSERT_EQ(db.commit(), T::Ok);
    }
    Child child{fork()};
    ASSERT_GE(child.pid, 0);
    if (child.pid == 0) {
        Tagdb db;
        TagdbStore* s = openStore(db, dir / "s");
        for (int c = 1; c <= kCommits; ++c) {
            if (db.start(T::Update) != T::Ok) _exit(1);
            for (long long id : leaves)
                if (change(s, id, {std::to_string(c), std::to_string(c)}) != T::Ok) _exit(2);
            if (db.commit() != T::Ok) _exit(3);
            usleep(100);
        }
        _exit(0);
    }
    Tagdb db(2);  // a small cache: most loads go to the files
    TagdbStore* s = openStore(db, dir / "s");
    int loads = 0, status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child.pid, &status, WNOHANG)) == 0 || loads == 0) {
        if (db.start(T::Deferred) != T::Ok) continue;  // overtaken while reading the index
        for (long long id : leaves) {
            std::vector<std::string> recs = contentOf(s, id);
            ASSERT_EQ(recs.size(), 2u) << "leaf " << id << ": " << recs[0];
            ASSERT_EQ(recs[0], recs[1]);
            ++loads;
        }
        db.abort();
    }
    child.pid = 0;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
