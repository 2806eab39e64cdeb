// Stores shared between processes. Update writers, serialised by the lock
// file, lose no increment; Deferred writers' logs are replayed under the
// lock at commit and lose nothing either, while a reader without the lock
// sees the store only move forward; a tree change made without the lock
// commits only over the version it was made on; and a process that finds no
// version file while another creates the store reads the other's rather
// than starting the store over.
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <new>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

std::string name(char kind, int who, int i, int j = -1) {
    return kind + std::to_string(who) + "-" + std::to_string(i) +
           (j < 0 ? "" : "-" + std::to_string(j));
}

// The child processes' jobs, returning their exit code; a status other than
// Ok (which is 0) ends a job with a code that tells where.
// Increments "n" in `rounds` Update transactions, also setting a key of its own.
int incrementer(std::string const& store, int who, int rounds) {
    Tagdb db(2, 3);
    openStore(db, store);
    for (int i = 0; i < rounds; ++i) {
        char const* n = nullptr;
        if (db.start(T::Update) || db.get("n", n)) return 1;
        std::string next = std::to_string(n ? std::atoi(n) + 1 : 1);
        usleep(200);  // widen the window a lost update would need
        if (db.set("n", next.c_str()) || db.set(name('u', who, i).c_str(), "x") || db.commit())
            return 2;
    }
    return 0;
}

// Deferred transactions: each sets three keys of its own and deletes the
// first key of the transaction before.
int deferredWriter(std::string const& store, int who, int rounds) {
    Tagdb db(2, 3);
    openStore(db, store);
    for (int i = 0; i < rounds; ++i) {
        if (db.start(T::Deferred)) return 1;
        for (int j = 0; j < 3; ++j)
            if (db.set(name('d', who, i, j).c_str(), name('d', who, i, j).c_str())) return 2;
        if (i > 0 && db.set(name('d', who, i - 1, 0).c_str(), nullptr, 0)) return 3;
        if (db.commit()) return 4;
    }
    return 0;
}

// Runs each job in a child process of its own, calling `meanwhile` again
// and again until they have all ended; their exit codes.
std::vector<int> runAll(std::vector<std::function<int()>> const& jobs,
                        std::function<void()> const& meanwhile = {}) {
    std::map<pid_t, size_t> running;
    for (size_t i = 0; i < jobs.size(); ++i) {
        pid_t pid = fork();
        if (pid == 0) _exit(jobs[i]());
        running[pid] = i;
    }
    std::vector<int> codes(jobs.size(), -1);
    while (!running.empty()) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, meanwhile ? WNOHANG : 0);
        if (pid > 0 && running.count(pid)) {
            codes[running[pid]] = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            running.erase(pid);
        } else if (meanwhile) {
            meanwhile();
        }
    }
    return codes;
}

TEST(TagdbWriters, DeferredAndUpdateWritersLoseNothing) {
    TempDir dir;
    std::string store = dir / "s";
    constexpr int kRounds = 30, kDeferred = 3, kUpdate = 2;
    std::vector<std::function<int()>> jobs;
    Content expected = {{"n", std::to_string(kUpdate * kRounds) + '\0'}};
    for (int w = 0; w < kDeferred; ++w) {
        jobs.push_back([&, w] { return deferredWriter(store, w, kRounds); });
        for (int i = 0; i < kRounds; ++i) {
            for (int j = i < kRounds - 1 ? 1 : 0; j < 3; ++j)  // the next one deletes j = 0
                expected[name('d', w, i, j)] = name('d', w, i, j) + '\0';
        }
    }
    for (int w = 0; w < kUpdate; ++w) {
        jobs.push_back([&, w] { return incrementer(store, w, kRounds); });
        for (int i = 0; i < kRounds; ++i)
            expected[name('u', w, i)] = std::string("x", 2);
    }
    // Meanwhile a reader without the lock walks the store, its nodes mostly
    // from files that the writers supersede and remove. One walk only moves
    // forward in time, so the counter it reads never runs ahead of the
    // incrementers' keys that the same commits set, nor goes back.
    Tagdb reader(2, 3);
    openStore(reader, store);
    int lastN = 0, walks = 0;
    auto walk = [&] {
        if (reader.start(T::Deferred) != T::Ok) return;  // overtaken while reading the index
        Content now = entries(reader);
        reader.abort();
        int n = std::atoi(now["n"].c_str());
        EXPECT_GE(n, lastN);
        EXPECT_GE(std::distance(now.lower_bound("u"), now.end()), n);
        for (auto it = now.begin(); it != now.end() && it->first < "n"; ++it)
            EXPECT_EQ(it->second, it->first + '\0');
        lastN = n, ++walks;
    };
    EXPECT_EQ(runAll(jobs, walk), std::vector<int>(jobs.size(), 0));
    EXPECT_GT(walks, 0);
    checkStore(dir, "s", 3, expected);
}

// A file layer under which the version file of one store is not there yet
// for the first `misses` opens that read it; during the last of those, the
// other process (`meanwhile`) creates the store and commits. The process
// that found no version file must then read the one in place, not write a
// fresh 1 over it.
class LateVersionFile : public TagdbLocalFile {
  public:
    static TagdbFile* newInstance() { return new (std::nothrow) LateVersionFile(); }
    static inline std::string versionPath;
    static inline int misses = 0;
    static inline std::function<void()> meanwhile;

    Status open(char const* path, FileMode m) override {
        if (m != ReadMode || misses == 0 || versionPath != path)
            return TagdbLocalFile::open(path, m);
        if (--misses == 0) meanwhile();
        TagdbLocalFile::close();
        return Failed;
    }
};

// A Deferred writer that finds no version file while another process
// creates the store and commits: the other's commit survives, in what the
// late one reads and in the store after the late one's own commit, however
// many looks the late one takes before the commit lands.
TEST(TagdbWriters, StoreCreatedMeanwhileIsReadNotStartedOver) {
    for (int misses = 1; misses <= 4; ++misses) {
        SCOPED_TRACE(std::to_string(misses) + " opens find no version file");
        TempDir dir;
        std::string store = dir / "s";
        LateVersionFile::versionPath = store;
        LateVersionFile::misses = misses;
        LateVersionFile::meanwhile = [&] {
            EXPECT_EQ(incrementer(store, 0, 2), 0);  // the store at version 3
        };
        Tagdb late(2, 3, LateVersionFile::newInstance);
        openStore(late, store);
        // Once the late one has made the file itself, an open that then
        // fails, a creation that finds the file and an open that fails again
        // end the start, reported; the next start reads the file.
        T::Status started = late.start(T::Deferred);
        EXPECT_EQ(started, misses < 4 ? T::Ok : T::Aborted);
        if (started != T::Ok) {
            ASSERT_EQ(late.start(T::Deferred), T::Ok);
        }
        EXPECT_EQ(LateVersionFile::misses, 0);
        Content seen = entries(late);
        EXPECT_EQ(seen, (Content{{"n", std::string("2", 2)},
                                 {"u0-0", std::string("x", 2)},
                                 {"u0-1", std::string("x", 2)}}));
        ASSERT_EQ(late.set("late", "x"), T::Ok);
        ASSERT_EQ(late.commit(), T::Ok);
        EXPECT_EQ(readFile(store), le(4, 4));
        checkStore(dir, "s", 3,
                   {{"late", std::string("x", 2)},
                    {"n", std::string("2", 2)},
                    {"u0-0", std::string("x", 2)},
                    {"u0-1", std::string("x", 2)}});
    }
}

// A reference taken in a Deferred transaction changes the tree without the
// lock; its commit takes the lock and refuses when another process has
// committed since the transaction began.
TEST(TagdbWriters, DeferredTreeChangesCommitOnlyOverTheirVersion) {
    TempDir dir;
    Tagdb db;
    openStore(db, dir / "s");
    for (char const* k : {"a", "b"}) {
        ASSERT_EQ(db.start(T::Deferred), T::Ok);
        TagdbNodeRef ref;
        ASSERT_EQ(db.getRef(k, ref), T::Ok);
        ASSERT_EQ(ref.set(rec(k)), T::Ok);
        ref.release();
        if (*k == 'b') {
            EXPECT_EQ(runAll({[&] { return incrementer(dir / "s", 0, 1); }}), std::vector<int>{0});
        }
        EXPECT_EQ(db.commit(), *k == 'a' ? T::Ok : T::Aborted);
    }
    checkStore(dir, "s", 512,
               {{"a", "a"}, {"n", std::string("1", 2)}, {"u0-0", std::string("x", 2)}});
}

}  // namespace
