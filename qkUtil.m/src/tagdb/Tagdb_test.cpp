// Stores and transactions: the files of a store and their exact contents
// across commits and aborts, the status rules of the front object, version
// wrap-around, Recreate, and the deferred log.
#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#include "TagdbTestUtil.h"

using namespace tagdbtest;
using T = TagdbCommon;

namespace {

Bytes le(long long v, int width) {
    Bytes b;
    for (int i = 0; i < width; ++i)
        b.push_back(static_cast<unsigned char>(static_cast<unsigned long long>(v) >> (8 * i)));
    return b;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes str(std::string const& s) {
    return Bytes(s.begin(), s.end());
}

TEST(Tagdb, StoreFilesAcrossCommitsAndAborts) {
    TempDir dir;
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    EXPECT_TRUE(dir.files().empty());  // opening touches nothing

    // A new store: version file holding 1, the lock while the transaction runs.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-lock"}));
    EXPECT_EQ(readFile(dir / "s"), le(1, 4));
    EXPECT_EQ(leafRecords(s, 0), std::vector<std::string>{"<null>"});  // the empty root
    ASSERT_EQ(db.commit(), T::Ok);  // nothing changed: nothing written
    EXPECT_EQ(dir.files(), std::set<std::string>{"s"});
    EXPECT_EQ(readFile(dir / "s"), le(1, 4));

    ASSERT_EQ(db.start(T::Update), T::Ok);
    {
        TagdbNodeRef root;
        ASSERT_EQ(s->loadNode(0, root), T::Ok);
        fillLeaf(root.node, {"a", "b"});
    }
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-2"}));
    EXPECT_EQ(readFile(dir / "s"), le(2, 4));
    EXPECT_EQ(readFile(dir / "s-x-2"), cat({le(1, 8), le(2, 4)}));
    EXPECT_EQ(readFile(dir / "s-0-2"), cat({le(1, 4),
                                            le(1, 4),
                                            le(2, 4),  // leaf, level 1, 2 entries
                                            le(4, 4),
                                            str("k0a"),
                                            {0},
                                            le(1, 4),
                                            str("a"),  // key "k0a", record "a"
                                            le(-1, 4),
                                            le(1, 4),
                                            str("b")}));  // empty key, record "b"

    // A second commit supersedes and removes the first one's files.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    addLeaf(s, {"x"});
    setRootChildren(s, {1});
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-3", "s-0-3", "s-1-1"}));
    EXPECT_EQ(readFile(dir / "s-x-3"), cat({le(2, 8), le(3, 4), le(1, 4)}));

    // An abort removes everything it wrote, also what eviction wrote early.
    std::map<std::string, Bytes> before;
    for (auto const& f : dir.files())
        before[f] = readFile(dir / f);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    long long added = addLeaf(s, {"y"});
    setRootChildren(s, {1, added});
    {
        TagdbNodeRef leaf;
        ASSERT_EQ(s->loadNode(added, leaf), T::Ok);
        ASSERT_EQ(s->writeNode(leaf.node), T::Ok);  // as an eviction would
    }
    EXPECT_TRUE(dir.files().count("s-2-1"));
    EXPECT_EQ(db.abort(), T::Aborted);
    std::map<std::string, Bytes> after;
    for (auto const& f : dir.files())
        after[f] = readFile(dir / f);
    EXPECT_EQ(after, before);
    EXPECT_EQ(s->version, 0);  // the next start reloads

    // A fresh Tagdb sees the committed content.
    Tagdb other;
    TagdbStore* o = openStore(other, dir / "s");
    ASSERT_EQ(other.start(T::Deferred), T::Ok);
    EXPECT_EQ(rootChildren(o), std::vector<long long>{1});
    EXPECT_EQ(leafRecords(o, 1), std::vector<std::string>{"x"});
    EXPECT_EQ(o->version, 3);
}

TEST(Tagdb, StatusRulesOfTheFrontObject) {
    TempDir dir;
    Tagdb db(8, 100);
    EXPECT_EQ(db.start(T::Update), T::NotOpen);
    EXPECT_EQ(db.commit(), T::NotOpen);
    EXPECT_EQ(db.abort(), T::NotOpen);
    for (int i = 0; i < Tagdb::kMaxStores; ++i)
        openStore(db, dir / ("s" + std::to_string(i % 15)));  // "s0" twice
    EXPECT_EQ(db.getStoreCount(), 16);
    EXPECT_EQ(db.open((dir / "t").c_str(), TagdbStringKey::newInstance,
                      TagdbBlobRecord::newInstance, nullptr),
              T::Failed);
    EXPECT_EQ(db.commit(), T::NoTransaction);
    EXPECT_EQ(db.abort(), T::NoTransaction);

    EXPECT_EQ(db.activate((dir / "s0").c_str()), T::Ok);
    EXPECT_EQ(db.getCurrent(), db.getStore(0));  // the first of the two
    EXPECT_EQ(db.activate((dir / "s0").c_str(), 2), T::Ok);
    EXPECT_EQ(db.activate((dir / "s0").c_str(), 600), T::Ok);
    EXPECT_EQ(db.getMaxEntries(), 100);
    EXPECT_EQ(db.activate((dir / "s0").c_str(), 3), T::Ok);
    EXPECT_EQ(db.getMaxEntries(), 3);
    EXPECT_EQ(db.activate((dir / "none").c_str()), T::NotOpen);
    EXPECT_EQ(db.getCurrent(), nullptr);
    EXPECT_EQ(db.start(T::Update), T::NotOpen);

    EXPECT_EQ(db.activate((dir / "s3").c_str()), T::Ok);
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    EXPECT_EQ(db.start(T::Update), T::Ok);  // already open: nothing changes
    EXPECT_EQ(db.getTransMode(), T::Deferred);
    EXPECT_FALSE(fs::exists(dir / "s3-lock"));
    EXPECT_EQ(db.abort(), T::Aborted);
    EXPECT_EQ(db.close(), T::Ok);
    EXPECT_EQ(db.getStoreCount(), 0);
}

TEST(Tagdb, StoreVersionContinuesAtTwoPastTheInt32Maximum) {
    TempDir dir;
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Update), T::Ok);
    addLeaf(s, {"v"});
    setRootChildren(s, {1});
    ASSERT_EQ(db.commit(), T::Ok);
    // Move the store to the last version an int32 holds.
    std::string top = std::to_string(INT_MAX);
    fs::rename(dir / "s-x-2", dir / ("s-x-" + top));
    writeFile(dir / "s", le(INT_MAX, 4));

    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(s->version, INT_MAX);
    {
        TagdbNodeRef leaf;
        ASSERT_EQ(s->loadNode(1, leaf), T::Ok);
        fillLeaf(leaf.node, {"w"});
    }
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(readFile(dir / "s"), le(2, 4));
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-2", "s-1-2"}));
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(leafRecords(s, 1), std::vector<std::string>{"w"});
    db.abort();
}

TEST(Tagdb, RecreateStartsOverWithoutLockOrReading) {
    TempDir dir;
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(db.start(T::Update), T::Ok);
        TagdbNodeRef root;
        ASSERT_EQ(s->loadNode(0, root), T::Ok);
        fillLeaf(root.node, {"old" + std::to_string(i)});
        root.release();
        ASSERT_EQ(db.commit(), T::Ok);
    }
    ASSERT_EQ(db.start(T::Recreate), T::Ok);
    EXPECT_FALSE(fs::exists(dir / "s-lock"));
    EXPECT_EQ(leafRecords(s, 0), std::vector<std::string>{"<null>"});
    {
        TagdbNodeRef root;
        ASSERT_EQ(s->loadNode(0, root), T::Ok);
        fillLeaf(root.node, {"new"});
    }
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(readFile(dir / "s"), le(2, 4));
    // The earlier content's files are neither read nor removed.
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-2", "s-x-3", "s-0-3"}));
    Tagdb other;
    TagdbStore* o = openStore(other, dir / "s");
    ASSERT_EQ(other.start(T::Update), T::Ok);
    EXPECT_EQ(leafRecords(o, 0), std::vector<std::string>{"new"});
}

TEST(Tagdb, DeferredLogIsAPrivateUniqueFileInTmpdir) {
    TempDir dir;
    fs::create_directory(dir / "tmp");
    setenv("TMPDIR", (dir / "tmp").c_str(), 1);
    Tagdb db;
    TagdbStore* s = openStore(db, dir / "s");
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    EXPECT_FALSE(fs::exists(dir / "s-lock"));
    TagdbKey* a = key("a");
    TagdbRecord* r = rec("1");
    ASSERT_EQ(s->appendLog(a, r), T::Ok);
    ASSERT_EQ(s->appendLog(a, nullptr), T::Ok);  // a delete: the empty record
    a->release();
    r->release();
    std::string log = s->logName;
    EXPECT_EQ(log.rfind(dir / "tmp/tagdb", 0), 0u);
    EXPECT_EQ(log.size(), (dir / "tmp/tagdb").size() + 6);
    struct stat st;
    ASSERT_EQ(stat(log.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(s->logFile.close(), T::Ok);
    EXPECT_EQ(readFile(log), cat({le(2, 4),
                                  str("a"),
                                  {0},
                                  le(1, 4),
                                  str("1"),  //
                                  le(2, 4),
                                  str("a"),
                                  {0},
                                  le(-1, 4)}));
    ASSERT_EQ(s->logFile.open(log.c_str(), T::WriteMode), T::Ok);  // reopen it for the abort

    EXPECT_EQ(db.abort(), T::Aborted);
    EXPECT_TRUE(fs::is_empty(dir / "tmp"));
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "tmp"}));
}

}  // namespace
