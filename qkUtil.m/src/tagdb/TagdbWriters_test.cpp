// Writers in several processes on one store through the tree: Update
// writers are serialised by the lock file and lose no increment; Deferred
// writers' logs are replayed under the lock at commit and lose nothing
// either, while an Update writer runs beside them.
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "TagdbTestUtil.h"
#include "tagdb/TagdbCheck.h"

using namespace tagdbtest;

namespace {

// Increments "n" in `rounds` Update transactions, also setting a key of its own.
int incrementer(std::string const& name, int who, int rounds) {
    Tagdb db(2, 3);
    openStore(db, name);
    for (int i = 0; i < rounds; ++i) {
        if (db.start(T::Update) != T::Ok) return 1;
        char const* n = nullptr;
        if (db.get("n", n) != T::Ok) return 2;
        std::string next = std::to_string(n ? std::atoi(n) + 1 : 1);
        usleep(200);  // widen the window a lost update would need
        std::string own = "u" + std::to_string(who) + "-" + std::to_string(i);
        if (db.set("n", next.c_str()) != T::Ok || db.set(own.c_str(), "x") != T::Ok) return 3;
        if (db.commit() != T::Ok) return 4;
    }
    return 0;
}

// Deferred transactions: each sets three keys of its own and deletes the
// first key of the transaction before.
int deferredWriter(std::string const& name, int who, int rounds) {
    Tagdb db(2, 3);
    openStore(db, name);
    for (int i = 0; i < rounds; ++i) {
        if (db.start(T::Deferred) != T::Ok) return 1;
        for (int j = 0; j < 3; ++j) {
            std::string k =
                "d" + std::to_string(who) + "-" + std::to_string(i) + "-" + std::to_string(j);
            if (db.set(k.c_str(), k.c_str()) != T::Ok) return 2;
        }
        if (i > 0) {
            std::string gone = "d" + std::to_string(who) + "-" + std::to_string(i - 1) + "-0";
            if (db.set(gone.c_str(), static_cast<char const*>(nullptr)) != T::Ok) return 3;
        }
        if (db.commit() != T::Ok) return 4;
    }
    return 0;
}

// Runs each job in a child process of its own; their exit codes.
std::vector<int> runAll(std::vector<std::function<int()>> const& jobs) {
    std::vector<pid_t> pids;
    for (auto const& job : jobs) {
        pid_t pid = fork();
        if (pid == 0) _exit(job());
        pids.push_back(pid);
    }
    std::vector<int> codes;
    for (pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        codes.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    return codes;
}

TEST(TagdbWriters, DeferredAndUpdateWritersLoseNothing) {
    TempDir dir;
    std::string name = dir / "s";
    constexpr int kRounds = 30, kDeferred = 3, kUpdate = 2;
    std::vector<std::function<int()>> jobs;
    for (int w = 0; w < kDeferred; ++w)
        jobs.push_back([&, w] { return deferredWriter(name, w, kRounds); });
    for (int w = 0; w < kUpdate; ++w)
        jobs.push_back([&, w] { return incrementer(name, w, kRounds); });
    EXPECT_EQ(runAll(jobs), std::vector<int>(jobs.size(), 0));

    Tagdb db(8, 3);
    TagdbStore* s = openStore(db, name);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    char const* n = nullptr;
    ASSERT_EQ(db.get("n", n), T::Ok);
    EXPECT_STREQ(n, std::to_string(kUpdate * kRounds).c_str());
    for (int w = 0; w < kDeferred; ++w) {
        for (int i = 0; i < kRounds; ++i) {
            for (int j = 0; j < 3; ++j) {
                std::string k =
                    "d" + std::to_string(w) + "-" + std::to_string(i) + "-" + std::to_string(j);
                char const* v = nullptr;
                ASSERT_EQ(db.get(k.c_str(), v), T::Ok);
                bool deleted = j == 0 && i < kRounds - 1;
                EXPECT_EQ(v ? std::string(v) : "<none>", deleted ? "<none>" : k);
            }
        }
    }
    for (int w = 0; w < kUpdate; ++w) {
        for (int i = 0; i < kRounds; ++i) {
            char const* v = nullptr;
            std::string k = "u" + std::to_string(w) + "-" + std::to_string(i);
            ASSERT_EQ(db.get(k.c_str(), v), T::Ok);
            EXPECT_NE(v, nullptr) << k;
        }
    }
    qk::tagdb::TreeReport report;
    EXPECT_EQ(qk::tagdb::checkTree(s, 3, report), T::Ok);
    EXPECT_EQ(report.entries, 1 + kUpdate * kRounds + kDeferred * (2 * kRounds + 1));
    db.abort();
}

// A reference taken in a Deferred transaction changes the tree without the
// lock; its commit takes the lock and refuses when another process has
// committed since the transaction began.
TEST(TagdbWriters, DeferredTreeChangesCommitOnlyOverTheirVersion) {
    TempDir dir;
    std::string name = dir / "s";
    Tagdb db;
    openStore(db, name);
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    TagdbNodeRef ref;
    ASSERT_EQ(db.getRef("a", ref), T::Ok);
    ASSERT_EQ(ref.set(rec("1")), T::Ok);
    ref.release();
    ASSERT_EQ(db.commit(), T::Ok);

    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    ASSERT_EQ(db.getRef("b", ref), T::Ok);
    ASSERT_EQ(ref.set(rec("2")), T::Ok);
    ref.release();
    EXPECT_EQ(runAll({[&] { return incrementer(name, 0, 1); }}), std::vector<int>{0});
    EXPECT_EQ(db.commit(), T::Aborted);

    ASSERT_EQ(db.start(T::Update), T::Ok);
    TagdbRecord* r = nullptr;
    ASSERT_EQ(db.get("a", r), T::Ok);
    EXPECT_EQ(text(r), "1");
    ASSERT_EQ(db.get("b", r), T::Ok);
    EXPECT_EQ(r, nullptr);
    char const* n = nullptr;
    ASSERT_EQ(db.get("n", n), T::Ok);
    EXPECT_STREQ(n, "1");
    db.abort();
}

}  // namespace
