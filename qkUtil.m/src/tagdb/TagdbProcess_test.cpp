// Stores shared between processes: writers in Update mode serialised by the
// lock file lose no update, and a reader without the lock keeps loading
// nodes while another process commits and removes superseded files.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TagdbTestUtil.h"

using namespace tagdbtest;
using T = TagdbCommon;

namespace {

// Ends a child process that is still running when a test leaves early.
struct ChildGuard {
    pid_t pid;
    ~ChildGuard() {
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

int waitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// One round: read the counter in the root leaf, write it back plus one.
int incrementRounds(std::string const& name, int rounds) {
    Tagdb db(2);
    if (db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr) !=
        T::Ok) {
        return 10;
    }
    TagdbStore* s = db.getCurrent();
    for (int i = 0; i < rounds; ++i) {
        if (db.start(T::Update) != T::Ok) return 11;
        TagdbNodeRef root;
        if (s->loadNode(0, root) != T::Ok) return 12;
        TagdbRecord* r = root.node->values[0].record;
        int value = r ? std::stoi(text(r)) : 0;
        root.release();
        usleep(500);  // widen the window a lost update would need
        if (s->loadNode(0, root) != T::Ok) return 13;
        fillLeaf(root.node, {std::to_string(value + 1)});
        root.release();
        if (db.commit() != T::Ok) return 14;
    }
    return 0;
}

TEST(TagdbProcesses, UpdateWritersAreSerialisedAndLoseNothing) {
    TempDir dir;
    std::string name = dir / "s";
    constexpr int kRounds = 25;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) _exit(incrementRounds(name, kRounds));
    ChildGuard guard{pid};
    EXPECT_EQ(incrementRounds(name, kRounds), 0);
    EXPECT_EQ(waitChild(pid), 0);

    Tagdb db;
    TagdbStore* s = openStore(db, name);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(leafRecords(s, 0), std::vector<std::string>{std::to_string(2 * kRounds)});
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(dir.files().size(), 3u);  // version, index, root: nothing left over
}

// The writer rewrites every leaf with its commit number; each of its commits
// removes the files of the one before. The reader, in Deferred mode without
// the lock, must still load every node, and each leaf whole.
TEST(TagdbProcesses, ReaderWithoutTheLockFollowsACommittingWriter) {
    TempDir dir;
    std::string name = dir / "s";
    constexpr int kLeaves = 4, kCommits = 300;
    {
        Tagdb db(kLeaves + 1);
        TagdbStore* s = openStore(db, name);
        ASSERT_EQ(db.start(T::Update), T::Ok);
        std::vector<long long> ids;
        for (int i = 0; i < kLeaves; ++i)
            ids.push_back(addLeaf(s, {"0", "0"}));
        setRootChildren(s, ids);
        ASSERT_EQ(db.commit(), T::Ok);
    }
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        Tagdb db(kLeaves + 1);
        db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
        TagdbStore* s = db.getCurrent();
        for (int c = 1; c <= kCommits; ++c) {
            if (db.start(T::Update) != T::Ok) _exit(1);
            for (long long id = 1; id <= kLeaves; ++id) {
                TagdbNodeRef leaf;
                if (s->loadNode(id, leaf) != T::Ok) _exit(2);
                fillLeaf(leaf.node, {std::to_string(c), std::to_string(c)});
            }
            if (db.commit() != T::Ok) _exit(3);
            usleep(100);
        }
        _exit(0);
    }
    ChildGuard guard{pid};
    Tagdb db(2);  // a small cache: most loads go to the files
    TagdbStore* s = openStore(db, name);
    int loads = 0, highest = 0;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(pid, &status, WNOHANG)) == 0 || loads == 0) {
        if (db.start(T::Deferred) != T::Ok) continue;  // overtaken while reading the index
        for (long long id = 1; id <= kLeaves; ++id) {
            std::vector<std::string> recs = leafRecords(s, id);
            ASSERT_EQ(recs.size(), 2u) << "leaf " << id << ": " << recs[0];
            ASSERT_EQ(recs[0], recs[1]);
            highest = std::max(highest, std::stoi(recs[0]));
            ++loads;
        }
        db.abort();
    }
    guard.pid = 0;
    EXPECT_EQ(ended, pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(loads, 0);
    EXPECT_GT(highest, 0);
}

}  // namespace
