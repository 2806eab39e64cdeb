// Crash safety: a child process commits transaction after transaction and is
// killed with SIGKILL at a random moment, round after round. After each kill
// a reader (once the dead writer's lock file is removed) must see exactly
// the last published transaction: every transaction the child reported as
// committed is there, nothing of an unpublished one is, and the tree is
// sound. Each transaction's content is a function of its number, so the
// expected store is rebuilt independently of the library.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

// Transaction t: a few sets and deletes over 150 keys, and the counter "n".
std::vector<std::pair<std::string, std::string>> changesOf(int t) {
    std::mt19937 rng(static_cast<unsigned>(t));
    std::vector<std::pair<std::string, std::string>> out;
    for (int i = 1 + static_cast<int>(rng() % 6); i > 0; --i) {
        std::string key = "k" + std::to_string(rng() % 150);
        out.emplace_back(key,
                         rng() % 4 == 0 ? "" : "t" + std::to_string(t) + "." + std::to_string(i));
    }
    out.emplace_back("n", std::to_string(t));
    return out;
}

void apply(Content& m, int t) {
    for (auto const& [k, v] : changesOf(t)) {
        v.empty() ? void(m.erase(k)) : void(m[k] = v + '\0');  // stored as text
    }
}

// The child: commits transactions from the store's counter on, reporting
// each number on fd once its commit has returned.
[[noreturn]] void commitForever(std::string const& name, int fd) {
    Tagdb db(3, 4);
    openStore(db, name);
    while (true) {
        if (db.start(T::Update) != T::Ok) _exit(2);
        char const* n = nullptr;
        if (db.get("n", n) != T::Ok) _exit(3);
        int t = n ? std::atoi(n) + 1 : 1;
        for (auto const& [k, v] : changesOf(t)) {
            T::Status st = v.empty() ? db.set(k.c_str(), static_cast<TagdbRecord*>(nullptr))
                                     : db.set(k.c_str(), v.c_str());
            if (st != T::Ok) _exit(4);
        }
        if (db.commit() != T::Ok) _exit(5);
        if (write(fd, &t, sizeof t) != sizeof t) _exit(6);
    }
}

// The transaction number the store holds, read as a second process would.
int counterOf(std::string const& name) {
    Tagdb db;
    openStore(db, name);
    char const* n = nullptr;
    EXPECT_EQ(db.start(T::Deferred), T::Ok);
    EXPECT_EQ(db.get("n", n), T::Ok);
    return n ? std::atoi(n) : 0;
}

TEST(TagdbCrash, KilledWriterLeavesTheLastPublishedVersion) {
    TempDir dir;
    std::string name = dir / "s";
    std::mt19937 rng(20240611u);
    std::vector<Content> models(1);  // models[t]: the store after transaction t
    int reported = 0;
    for (int round = 0; round < 150 * soakFactor() && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) close(fds[0]), commitForever(name, fds[1]);
        close(fds[1]);
        // The kill falls at a random moment of the commits that follow the
        // child's first one, whatever the machine's speed.
        int t = 0;
        bool started = read(fds[0], &t, sizeof t) == sizeof t;
        usleep(static_cast<useconds_t>(rng() % 4000));
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(started && WIFSIGNALED(status)) << "the writer stopped: " << status;
        // Every report up to the end of the pipe (its writers are gone).
        for (reported = std::max(reported, t); read(fds[0], &t, sizeof t) == sizeof t;)
            reported = std::max(reported, t);
        close(fds[0]);
        fs::remove(name + "-lock");  // the dead writer's

        int seen = counterOf(name);
        // Published but killed before reporting: one more than reported.
        ASSERT_TRUE(seen == reported || seen == reported + 1)
            << "store at " << seen << ", last reported " << reported;
        while (static_cast<int>(models.size()) <= seen) {
            models.push_back(models.back());
            apply(models.back(), static_cast<int>(models.size()) - 1);
        }
        // Leftovers of the killed transaction may stay beside the files.
        checkStore(dir, "s", 4, models[static_cast<size_t>(seen)], false);
        reported = seen;
    }
}

}  // namespace
