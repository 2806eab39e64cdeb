// The tagdb tool, run as its users run it: dump and load of random binary
// keys and values round-trip exactly; damaged dumps change nothing; check
// finds damaged node files; the single-key commands and their exit codes;
// options and "--"; signals and closed pipes leave the store as it was and
// no lock file; clean removes what a killed writer left. And, in process,
// a commit whose rollback failed keeps the files the store may name.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "tagdb/TagdbFaultFile.h"
#include "tagdb/TagdbTestUtil.h"
#include "tagdb_tool.h"

using namespace tagdbtest;

namespace {

struct ToolRun {
    int code;
    std::string out, err;
};

// Runs the tool with args (none holds a single quote) and the given standard
// input, in a directory of its own for the three streams.
ToolRun tool(std::vector<std::string> const& args, std::string const& in = "") {
    static TempDir io;
    auto quote = [](std::string const& s) { return "'" + s + "'"; };
    writeFile(io / "in", Bytes(in.begin(), in.end()));
    std::string cmd = quote(TAGDB_TOOL);
    for (auto const& a : args)
        cmd += " " + quote(a);
    cmd += " <" + quote(io / "in") + " >" + quote(io / "out") + " 2>" + quote(io / "err");
    int status = std::system(cmd.c_str());
    Bytes out = readFile(io / "out"), err = readFile(io / "err");
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::string(out.begin(), out.end()),
            std::string(err.begin(), err.end())};
}

Content storeContent(std::string const& store) {
    Tagdb db;
    openStore(db, store);
    EXPECT_EQ(db.start(T::Deferred), T::Ok);
    return entries(db);
}

Content randomContent(unsigned seed, int count) {
    std::mt19937 rng(seed);
    Content c;
    while (static_cast<int>(c.size()) < count) {
        std::string k(1 + rng() % 16, 'x'), v(rng() % 40, 'x');
        std::generate(k.begin(), k.end(), [&] { return char(1 + rng() % 255); });  // no NUL
        std::generate(v.begin(), v.end(), [&] { return char(rng()); });
        c[k] = v;
    }
    return c;
}

TEST(TagdbTool, DumpAndLoadRoundTripBinaryData) {
    TempDir dir;
    Content content = randomContent(17, 3000);
    fill(dir / "a", content, 7);
    std::string dump = tool({dir / "a", "dump"}).out;
    ASSERT_EQ(tool({dir / "b", "load"}, dump).code, 0);
    EXPECT_EQ(storeContent(dir / "b"), content);
    EXPECT_EQ(tool({dir / "b", "dump"}).out, dump);  // byte for byte

    // Loading adds and replaces; --replace makes the store equal the dump.
    fill(dir / "b", {{"extra", "1"}});
    ASSERT_EQ(tool({dir / "b", "load"}, dump).code, 0);
    EXPECT_EQ(storeContent(dir / "b").size(), content.size() + 1);
    ASSERT_EQ(tool({dir / "b", "load", "--replace"}, dump).code, 0);
    EXPECT_EQ(storeContent(dir / "b"), content);
}

TEST(TagdbTool, DamagedDumpsChangeNothing) {
    TempDir dir;
    std::string good = "tagdb-dump 1\nk1 v\\x001\nk2 \"\"\nend 2\n";
    ASSERT_EQ(tool({dir / "s", "load"}, good).code, 0);
    EXPECT_EQ(storeContent(dir / "s"), (Content{{"k1", std::string("v\0001", 3)}, {"k2", ""}}));
    auto before = snapshot(dir);
    for (std::string bad : {
             "tagdb-dump 1\nk1 v\nend 2\n",        // count differs
             "tagdb-dump 1\nk1 v\nk2 w\n",         // cut short
             "tagdb-dump 1\nk1 v\\x4\nend 1\n",    // broken escape
             "tagdb-dump 1\nk\\x00 v\nend 1\n",    // NUL in a key
             "tagdb-dump 1\nk1 v w\nend 1\n",      // three fields
             "tagdb-dump 2\nk1 v\nend 1\n",        // unknown header
             "tagdb-dump 1\nk1 v\nend 1\nmore\n",  // text after the end
         }) {
        ToolRun r = tool({dir / "s", "load", "--replace"}, bad);
        EXPECT_EQ(r.code, 2) << bad;
        EXPECT_NE(r.err.find("unchanged"), std::string::npos) << r.err;
        EXPECT_EQ(snapshot(dir), before) << bad;
    }
}

// A store of several levels, then one kind of damage at a time.
TEST(TagdbTool, CheckFindsDamagedNodeFiles) {
    TempDir dir;
    fill(dir / "s", randomContent(5, 400), 4);
    ToolRun ok = tool({dir / "s", "check"});
    ASSERT_EQ(ok.code, 0) << ok.out << ok.err;
    EXPECT_NE(ok.out.find("400 entries"), std::string::npos) << ok.out;

    std::vector<std::string> leaves;
    for (auto const& f : dir.files()) {
        Bytes b = readFile(dir / f);
        if (f.rfind("s-x-", 0) != 0 && b.size() > 8 && b[0] == 1 && b[8] >= 3) leaves.push_back(f);
    }
    ASSERT_GT(leaves.size(), 20u);
    auto damaged = [&](std::string const& file, auto&& change) {
        Bytes saved = readFile(dir / file), b = saved;
        change(b);
        b.empty() ? void(fs::remove(dir / file)) : writeFile(dir / file, b);
        ToolRun r = tool({dir / "s", "check"});
        writeFile(dir / file, saved);
        EXPECT_EQ(r.code, 4) << file << "\n" << r.out;
        return r.out;
    };
    std::string victim = leaves[leaves.size() / 2];
    // A missing leaf is one problem, told once.
    std::string missing = damaged(victim, [](Bytes& b) { b.clear(); });
    EXPECT_NE(missing.find("cannot be loaded"), std::string::npos);
    EXPECT_NE(missing.find(": 1 problem\n"), std::string::npos) << missing;
    damaged(victim, [](Bytes& b) { b.resize(b.size() - 3); });
    // The first key's text starts at offset 16: made to sort last, the file
    // is read whole but its node is refused.
    EXPECT_NE(damaged(victim, [](Bytes& b) { b[16] = 0xff; }).find("its keys are out of order"),
              std::string::npos);
    EXPECT_EQ(tool({dir / "s", "check"}).code, 0);  // every file put back
}

TEST(TagdbTool, SingleKeyCommandsAndExitCodes) {
    TempDir dir;
    std::string s = dir / "s";
    EXPECT_EQ(tool({s, "get", "k"}).code, 3);  // no store: none is created
    EXPECT_FALSE(fs::exists(s));
    EXPECT_EQ(tool({s, "set", "k", "value"}).code, 0);
    writeFile(dir / "v.bin", Bytes{0, 1, 2, 255});
    tool({s, "set", "bin", "-f", dir / "v.bin"});
    tool({s, "set", "-z", "txt"}, "from stdin");
    EXPECT_EQ(tool({s, "get", "-z", "txt"}).out, "from stdin");
    tool({s, "set", "-e", "k\\x01", "x"});

    EXPECT_EQ(tool({s, "scan"}).out, "bin\nk\nk\\x01\ntxt\n");
    EXPECT_EQ(tool({s, "scan", "-v", "k"}).out, "k value\nk\\x01 x\n");
    EXPECT_EQ(tool({s, "dump"}).out,
              "tagdb-dump 1\nbin \\x00\\x01\\x02\\xff\nk value\n"
              "k\\x01 x\ntxt from\\x20stdin\\x00\nend 4\n");
    EXPECT_NE(tool({s, "stat"}).out.find("entries  4\n"), std::string::npos);

    EXPECT_EQ(tool({s, "del", "k"}).code, 0);
    EXPECT_EQ(tool({s, "del", "k"}).code, 1);
    EXPECT_NE(tool({s, "get", "k"}).err.find("not found"), std::string::npos);

    for (auto const& bad :
         {std::vector<std::string>{s, "frobnicate"}, {s, "get"}, {s, "get", "-q", "k"}})
        EXPECT_EQ(tool(bad).code, 2);
    EXPECT_NE(tool({"--help"}).out.find("usage"), std::string::npos);
    // A store in a directory that does not exist fails at once, not after
    // the 30 seconds of waiting for a lock file that cannot be made.
    EXPECT_NE(tool({dir / "no/such/s", "set", "k", "v"}).err.find("no such directory"),
              std::string::npos);
}

TEST(TagdbTool, OptionsAndOperands) {
    TempDir dir;
    std::string s = dir / "s";
    // After "--" every word is an operand, also one that looks like an option.
    ToolRun r = tool({s, "set", "--", "-h", "x"});
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_EQ(tool({s, "get", "--", "-h"}).out, "x");
    EXPECT_EQ(tool({s, "set", "k", "--", "--no-lock"}).code, 0);
    EXPECT_EQ(tool({s, "get", "k"}).out, "--no-lock");
    EXPECT_EQ(tool({"--", s, "set", "--cache", "v"}).code, 0);
    EXPECT_EQ(tool({s, "scan"}).out, "--cache\n-h\nk\n");
    // Before it, options are taken anywhere.
    EXPECT_EQ(tool({s, "dump", "--no-lock"}).code, 0);
    EXPECT_EQ(tool({s, "set", "--cache", "0", "k", "v"}).code, 2);

    // Every command that reads a KEY or PREFIX tells about -e.
    for (char const* command : {"get", "set", "del", "scan"}) {
        std::string help = tool({command, "--help"}).out;
        EXPECT_NE(help.find("[-e]"), std::string::npos) << help;
        EXPECT_NE(help.find("  -e  "), std::string::npos) << help;
    }
}

// A child process running the tool; its standard input and output can be
// pipes that the test holds (an output pipe nobody reads fills and blocks).
struct Child {
    pid_t pid = -1;
    int in = -1;   // write end of its standard input
    int out = -1;  // read end of its standard output
    Child(std::vector<std::string> const& args, bool pipeIn, bool pipeOut) {
        int inPipe[2] = {-1, -1}, outPipe[2] = {-1, -1};
        if (pipeIn) {
            EXPECT_EQ(pipe(inPipe), 0);
        }
        if (pipeOut) {
            EXPECT_EQ(pipe(outPipe), 0);
        }
        std::vector<char*> argv{const_cast<char*>(TAGDB_TOOL)};
        for (auto const& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(pipeIn ? inPipe[0] : null, 0);
            dup2(pipeOut ? outPipe[1] : null, 1);
            dup2(null, 2);
            for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1]})
                if (fd >= 0) close(fd);
            execv(TAGDB_TOOL, argv.data());
            _exit(127);
        }
        if (pipeIn) close(inPipe[0]), in = inPipe[1];
        if (pipeOut) close(outPipe[1]), out = outPipe[0];
    }
    ~Child() {
        if (in >= 0) close(in);
        if (out >= 0) close(out);
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    void write(std::string const& text) {
        ASSERT_EQ(::write(in, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // The wait status; the test fails when the child takes more than 10 s.
    int wait() {
        int status = 0;
        for (int i = 0; i < 1000; ++i) {
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return status;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ADD_FAILURE() << "the tool did not end";
        return -1;
    }
};

// Waits up to 10 s for what.
template <class F>
bool waitFor(F what) {
    for (int i = 0; i < 1000; ++i) {
        if (what()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::string dumpOf(Content const& c) {
    std::string d = "tagdb-dump 1\n";
    for (auto const& [k, v] : c)
        d += tagdbtool::escape(k) + " " + tagdbtool::escape(v) + "\n";
    return d + "end " + std::to_string(c.size()) + "\n";
}

class ToolSignals : public testing::Test {
  protected:
    void SetUp() override {
        fill(store, randomContent(23, 3000), 3);
        before = snapshot(dir);
    }
    // The store and its files are exactly as before, no lock file among them.
    void expectUntouched(char const* what) {
        EXPECT_FALSE(fs::exists(store + "-lock")) << what;
        EXPECT_EQ(snapshot(dir), before) << what;
    }
    TempDir dir;
    std::string store = dir / "s";
    std::map<std::string, Bytes> before;
};

TEST_F(ToolSignals, DumpIntoAClosedPipe) {
    std::string cmd =
        "'" + std::string(TAGDB_TOOL) + "' '" + store + "' dump 2>/dev/null | head -1";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_TRUE(p);
    char line[64] = "";
    ASSERT_TRUE(std::fgets(line, sizeof line, p));
    EXPECT_STREQ(line, "tagdb-dump 1\n");
    pclose(p);
    expectUntouched("dump | head -1");
}

TEST_F(ToolSignals, InterruptedDumpLoadAndCheck) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(strsignal(sig));
        {  // blocked writing to a full pipe
            Child dump({store, "dump"}, false, true);
            ASSERT_TRUE(waitFor([&] { return fs::exists(store + "-lock"); }));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            kill(dump.pid, sig);
            int status = dump.wait();
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
            expectUntouched("dump");
        }
        {  // blocked reading its input, with node files written
            Child load({"--cache", "2", "--max-entries", "3", store, "load"}, true, false);
            std::string part = dumpOf(randomContent(sig, 300));
            load.write(part.substr(0, part.rfind("end")));
            ASSERT_TRUE(waitFor([&] { return dir.files().size() > before.size() + 1; }));
            kill(load.pid, sig);
            int status = load.wait();
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
            expectUntouched("load");
        }
        {  // walking the tree, or done with it
            Child check({store, "check"}, false, false);
            for (int i = 0; i < 200 && !fs::exists(store + "-lock"); ++i)  // may be done at once
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            kill(check.pid, sig);
            check.wait();
            expectUntouched("check");
        }
    }
}

// Waiting for another process's lock, the tool still ends on a signal at
// once, and leaves that process's lock file alone.
TEST_F(ToolSignals, WaitingForTheLock) {
    writeFile(store + "-lock", {});
    Child set({store, "set", "k", "v"}, false, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    kill(set.pid, SIGTERM);
    auto start = std::chrono::steady_clock::now();
    int status = set.wait();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_TRUE(fs::exists(store + "-lock"));
    fs::remove(store + "-lock");
    EXPECT_EQ(snapshot(dir), before);
}

TEST_F(ToolSignals, CleanRemovesWhatAKilledWriterLeft) {
    {
        Child load({"--cache", "2", "--max-entries", "3", store, "load"}, true, false);
        std::string part = dumpOf(randomContent(99, 300));
        load.write(part.substr(0, part.rfind("end")));
        ASSERT_TRUE(waitFor([&] { return dir.files().size() > before.size() + 5; }));
        kill(load.pid, SIGKILL);
        load.wait();
    }
    ASSERT_TRUE(fs::exists(store + "-lock"));
    writeFile(dir / "s-notes", {1});  // not the store's: kept
    writeFile(dir / "s-x-x", {1});
    auto killed = snapshot(dir);

    // The lock may be a running writer's: nothing is removed.
    ToolRun r = tool({store, "clean"});
    EXPECT_EQ(r.code, 3);
    EXPECT_NE(r.err.find("--stale-lock"), std::string::npos) << r.err;
    EXPECT_EQ(snapshot(dir), killed);

    r = tool({store, "clean", "--stale-lock"});
    EXPECT_EQ(r.code, 0) << r.err;
    auto after = snapshot(dir);
    after.erase("s-notes");
    after.erase("s-x-x");
    EXPECT_EQ(after, before);
    // Each removed file is named.
    size_t named = 0;
    for (auto const& [name, bytes] : killed) {
        if (!before.count(name) && name != "s-notes" && name != "s-x-x") {
            ++named;
            std::string line =
                "removed " + (dir / name) + (name == "s-lock" ? " (stale lock)\n" : "\n");
            EXPECT_NE(r.out.find(line), std::string::npos) << name << "\n" << r.out;
        }
    }
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), static_cast<long>(named) + 1);
    EXPECT_EQ(tool({store, "check"}).code, 0);
    r = tool({store, "clean"});
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("0 leftover files removed"), std::string::npos) << r.out;
}

// A commit whose publication failed and whose rollback failed too: the
// version file may already name the new files, so they must stay; the
// tool lets go of the lock and says the outcome is uncertain.
TEST(TagdbToolCommit, RollbackFailedKeepsTheFilesTheStoreMayName) {
    EXPECT_EQ(tagdbtool::commitOutcome(T::Ok), tagdbtool::CommitOutcome::Committed);
    EXPECT_EQ(tagdbtool::commitOutcome(T::Aborted), tagdbtool::CommitOutcome::Unchanged);
    EXPECT_EQ(tagdbtool::commitOutcome(T::RollbackFailed), tagdbtool::CommitOutcome::Uncertain);

    Content old = randomContent(3, 200), changed = old;
    changed["new key"] = "new value";
    auto commitWithFaults = [&](TempDir& dir, std::vector<long> faults, T::Status& status) {
        fill(dir / "s", old, 3);
        tagdbtool::Options o;
        o.store = dir / "s";
        o.maxEntries = 3;
        tagdbtool::Session session(o, tagdbtest::FaultFile::newInstance);
        EXPECT_EQ(session.begin(tagdbtool::Session::Change), 0);
        EXPECT_EQ(session.db().set("new key", "new value", 9), T::Ok);
        tagdbtest::FaultFile::arm(faults);
        testing::internal::CaptureStderr();
        bool ok = session.commit();
        std::string err = testing::internal::GetCapturedStderr();
        long operations = tagdbtest::FaultFile::operations;
        tagdbtest::FaultFile::disarm();
        status = ok ? T::Ok : T::Failed;
        if (!ok && err.find("could not be put back") != std::string::npos)
            status = T::RollbackFailed;
        return operations;
    };
    T::Status st;
    long total;
    {
        TempDir ref;
        total = commitWithFaults(ref, {}, st);
        ASSERT_EQ(st, T::Ok);
    }
    int uncertain = 0;
    // The last operations of the commit publish the version file; failing
    // two of them makes the rollback fail as well.
    for (long k = std::max(1L, total - 6); k <= total; ++k) {
        for (long gap = 1; gap <= 3; ++gap) {
            TempDir dir;
            commitWithFaults(dir, {k, k + gap}, st);
            if (st != T::RollbackFailed) continue;
            ++uncertain;
            SCOPED_TRACE("failing operations " + std::to_string(k) + " and +" +
                         std::to_string(gap));
            EXPECT_FALSE(fs::exists(dir / "s-lock"));
            Tagdb db;
            openStore(db, dir / "s");
            if (readFile(dir / "s").size() != 4) continue;  // the version file itself was lost
            // Whichever version it names, that version's files are there.
            ASSERT_EQ(db.start(T::Deferred), T::Ok);
            Content now = entries(db);
            EXPECT_TRUE(now == old || now == changed);
        }
    }
    EXPECT_GT(uncertain, 0);
}

}  // namespace
