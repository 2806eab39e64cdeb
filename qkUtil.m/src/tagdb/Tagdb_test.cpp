// Stores and transactions: the files of a store and their exact bytes across
// commits and aborts, version wrap-around, Recreate, and the deferred log.
#include <sys/stat.h>

#include <climits>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

TEST(Tagdb, StoreFilesAcrossCommitsAndAborts) {
    TempDir dir;
    Tagdb db(1);
    TagdbStore* s = openStore(db, dir / "s");
    EXPECT_TRUE(dir.files().empty());  // opening touches nothing

    ASSERT_EQ(db.start(T::Update), T::Ok);  // a new store: version 1, locked
    EXPECT_EQ(snapshot(dir), (std::map<std::string, Bytes>{{"s", le(1, 4)}, {"s-lock", {}}}));
    EXPECT_EQ(contentOf(s, 0), std::vector<std::string>{"<null>"});  // the empty root
    ASSERT_EQ(db.commit(), T::Ok);  // nothing changed: nothing written, lock gone
    EXPECT_EQ(snapshot(dir), (std::map<std::string, Bytes>{{"s", le(1, 4)}}));

    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(change(s, 0, {"a", "b"}), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(snapshot(dir),
              (std::map<std::string, Bytes>{{"s", le(2, 4)},
                                            {"s-x-2", cat({le(1, 8), le(2, 4)})},
                                            {"s-0-2", cat({le(1, 4),
                                                           le(1, 4),
                                                           le(2, 4),  // leaf, level, count
                                                           le(4, 4),
                                                           sz("k0a"),
                                                           le(1, 4),
                                                           {'a'},  // key, record
                                                           le(-1, 4),
                                                           le(1, 4),
                                                           {'b'}})}}));  // end entry

    // The next commit supersedes and removes the first one's files.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    long long leaf = 0;
    ASSERT_EQ(addLeaf(s, {"x"}, &leaf), T::Ok);
    ASSERT_EQ(setRoot(s, {leaf}), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-3", "s-0-3", "s-1-1"}));
    EXPECT_EQ(readFile(dir / "s-x-3"), cat({le(2, 8), le(3, 4), le(1, 4)}));

    // An abort removes all it wrote, also what evictions wrote early.
    auto before = snapshot(dir);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(addLeaf(s, {"y"}, &leaf), T::Ok);
    ASSERT_EQ(setRoot(s, {1, leaf}), T::Ok);  // evicts the new leaf: written
    EXPECT_TRUE(dir.files().count("s-2-1"));
    EXPECT_EQ(db.abort(), T::Aborted);
    EXPECT_EQ(snapshot(dir), before);
    EXPECT_EQ(s->version, 0);  // the next start reloads

    Tagdb other;
    TagdbStore* o = openStore(other, dir / "s");
    ASSERT_EQ(other.start(T::Deferred), T::Ok);
    EXPECT_EQ(contentOf(o, 0), std::vector<std::string>{"1"});
    EXPECT_EQ(contentOf(o, 1), std::vector<std::string>{"x"});
}

TEST(Tagdb, StoreVersionContinuesAtTwoPastTheInt32Maximum) {
    TempDir dir;
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(addLeaf(s, {"v"}), T::Ok);
    ASSERT_EQ(setRoot(s, {1}), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    fs::rename(dir / "s-x-2", dir / ("s-x-" + std::to_string(INT_MAX)));
    writeFile(dir / "s", le(INT_MAX, 4));

    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(change(s, 1, {"w"}), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(readFile(dir / "s"), le(2, 4));
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-2", "s-1-2"}));
}

TEST(Tagdb, RecreateStartsOverWithoutLockOrReading) {
    TempDir dir;
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    for (std::string content : {"old", "older", "new"}) {
        ASSERT_EQ(db.start(content == "new" ? T::Recreate : T::Update), T::Ok);
        if (content == "new") {
            EXPECT_FALSE(fs::exists(dir / "s-lock"));
            EXPECT_EQ(contentOf(s, 0), std::vector<std::string>{"<null>"});
        }
        ASSERT_EQ(change(s, 0, {content}), T::Ok);
        ASSERT_EQ(db.commit(), T::Ok);
    }
    EXPECT_EQ(readFile(dir / "s"), le(2, 4));
    // The earlier content's files are neither read nor removed.
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-2", "s-x-3", "s-0-3"}));
    Tagdb other;
    TagdbStore* o = openStore(other, dir / "s");
    ASSERT_EQ(other.start(T::Update), T::Ok);
    EXPECT_EQ(contentOf(o, 0), std::vector<std::string>{"new"});
}

TEST(Tagdb, DeferredLogIsAPrivateUniqueFileInTmpdir) {
    TempDir dir;
    fs::create_directory(dir / "tmp");
    setenv("TMPDIR", (dir / "tmp").c_str(), 1);
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    TagdbKey* a = key("a");
    TagdbRecord* r = rec("1");
    ASSERT_EQ(s->appendLog(a, r), T::Ok);
    ASSERT_EQ(s->appendLog(a, nullptr), T::Ok);  // a delete: the empty record
    a->release();
    r->release();
    std::string log = s->logName;
    EXPECT_EQ(log.substr(0, log.size() - 6), dir / "tmp/tagdb");
    struct stat st;
    ASSERT_EQ(stat(log.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(s->logFile.close(), T::Ok);
    EXPECT_EQ(readFile(log),
              cat({le(2, 4), sz("a"), le(1, 4), {'1'}, le(2, 4), sz("a"), le(-1, 4)}));
    ASSERT_EQ(s->logFile.open(log.c_str(), T::WriteMode), T::Ok);  // open again for the abort
    EXPECT_EQ(db.abort(), T::Aborted);
    EXPECT_TRUE(fs::is_empty(dir / "tmp"));
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "tmp"}));  // no lock was taken
}

}  // namespace
