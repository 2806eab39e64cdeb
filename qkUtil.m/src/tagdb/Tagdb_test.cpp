// Stores and transactions: the files of a store and their exact bytes across
// commits and aborts (early writes by eviction, a freed node, its id used
// again, version wrap-around, Recreate), and what the operations refuse.
#include <climits>

#include "TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

// A key or a text record as stored: count, bytes, NUL.
Bytes stored(std::string const& k) {
    return cat({le(static_cast<long long>(k.size()) + 1, 4), sz(k)});
}
Bytes const kNull = le(-1, 4);
std::string z(std::string s) {
    return s + '\0';  // a record stored as text
}

// Nodes of at most three entries and a cache of one node, so that every
// load evicts and a changed node reaches its file before the commit.
TEST(Tagdb, StoreFilesAcrossCommitsAndAborts) {
    TempDir dir;
    Tagdb db(1, 3);
    openStore(db, dir / "s");
    EXPECT_TRUE(dir.files().empty());  // opening touches nothing
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(snapshot(dir), (std::map<std::string, Bytes>{{"s", le(1, 4)}, {"s-lock", {}}}));
    ASSERT_EQ(db.commit(), T::Ok);  // nothing changed: nothing written, the lock gone
    EXPECT_EQ(snapshot(dir), (std::map<std::string, Bytes>{{"s", le(1, 4)}}));

    // The third key splits the root leaf: node 2 (the old root) keeps a, b
    // and c's record, node 1 the end entry, the new root 0 separates at c.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (auto [k, v] : {std::pair{"a", "1"}, {"b", "2"}, {"c", "3"}})
        ASSERT_EQ(db.set(k, v), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    auto committed = snapshot(dir);
    EXPECT_EQ(
        committed,
        (std::map<std::string, Bytes>{
            {"s", le(2, 4)},
            {"s-x-2", cat({le(3, 8), le(2, 4), le(1, 4), le(1, 4)})},
            {"s-0-2", cat({le(0, 4), le(2, 4), le(2, 4), stored("c"), le(2, 8), kNull, le(1, 8)})},
            {"s-1-1", cat({le(1, 4), le(1, 4), le(1, 4), kNull, kNull})},
            {"s-2-1", cat({le(1, 4), le(1, 4), le(3, 4), stored("a"), stored("1"), stored("b"),
                           stored("2"), kNull, stored("3")})}}));

    // An abort removes what the transaction wrote, early writes included.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (char const* k : {"a", "b"})
        ASSERT_EQ(db.set(k, static_cast<TagdbRecord*>(nullptr)), T::Ok);
    EXPECT_TRUE(dir.files().count("s-2-2"));  // evicted while changed
    EXPECT_EQ(db.abort(), T::Aborted);
    EXPECT_EQ(snapshot(dir), committed);

    // Emptying node 2 frees its id; node 1 is untouched and keeps its file.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (char const* k : {"a", "b", "c"})
        ASSERT_EQ(db.set(k, static_cast<TagdbRecord*>(nullptr)), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-3", "s-0-3", "s-1-1"}));
    EXPECT_EQ(readFile(dir / "s-x-3"), cat({le(3, 8), le(3, 4), le(1, 4), le(-2, 4)}));

    // The next split takes the free id 2 again, under its last version.
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (char const* k : {"d", "e", "f"})
        ASSERT_EQ(db.set(k, k), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-4", "s-0-4", "s-1-2", "s-2-2"}));

    // A store version that would pass the int32 maximum continues at 2.
    fs::rename(dir / "s-x-4", dir / ("s-x-" + std::to_string(INT_MAX)));
    writeFile(dir / "s", le(INT_MAX, 4));
    ASSERT_EQ(db.start(T::Update), T::Ok);
    ASSERT_EQ(db.set("g", "g"), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(readFile(dir / "s"), le(2, 4));
    EXPECT_EQ(dir.files(), (std::set<std::string>{"s", "s-x-2", "s-0-4", "s-1-2", "s-2-3"}));
    checkStore(dir, "s", 3, {{"d", z("d")}, {"e", z("e")}, {"f", z("f")}, {"g", z("g")}});

    // Recreate starts over empty, without the lock; the earlier content's
    // files are neither read nor removed nor overwritten: the new content is
    // numbered above the highest version on disk (s-0-4).
    ASSERT_EQ(db.start(T::Recreate), T::Ok);
    EXPECT_FALSE(fs::exists(dir / "s-lock"));
    EXPECT_EQ(entries(db), Content{});
    ASSERT_EQ(db.set("new", "3", 1), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    EXPECT_EQ(readFile(dir / "s"), le(5, 4));
    EXPECT_EQ(dir.files(),
              (std::set<std::string>{"s", "s-x-2", "s-0-4", "s-1-2", "s-2-3", "s-x-5", "s-0-5"}));
    checkStore(dir, "s", 3, {{"new", "3"}}, false);
}

// What the operations answer without a store, without a transaction and
// with bad arguments.
TEST(Tagdb, RefusalsAndOwnership) {
    TempDir dir;
    Tagdb db(2, 3);
    TagdbRecord* r = nullptr;
    TagdbNodeRef ref;
    // (A braced list is evaluated in order.) The refused record is released.
    for (T::Status st : {db.start(T::Update), db.commit(), db.abort(), db.set("k", rec("v"))})
        EXPECT_EQ(st, T::NotOpen);
    for (int i = 0; i < Tagdb::kMaxStores; ++i)
        openStore(db, dir / ("s" + std::to_string(i)));
    EXPECT_EQ(db.open("17th", TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr),
              T::Failed);
    EXPECT_EQ(db.activate("s99"), T::NotOpen);
    EXPECT_EQ(db.get("k", r), T::NotOpen);  // no active store is left
    EXPECT_EQ(db.activate((dir / "s1").c_str(), 2), T::Ok);
    EXPECT_EQ(db.activate((dir / "s1").c_str(), 600), T::Ok);
    EXPECT_EQ(db.getMaxEntries(), 3);

    TagdbItr early(&db, "");
    int more = 0;
    for (T::Status st :
         {early.next(more), db.commit(), db.abort(), db.set("k", "v"), db.getRef("k", ref)})
        EXPECT_EQ(st, T::NoTransaction);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    EXPECT_EQ(db.start(T::Recreate), T::Ok);  // already open: nothing changes
    EXPECT_EQ(db.getTransMode(), T::Update);
    EXPECT_EQ(db.set(nullptr, "v"), T::Failed);
    EXPECT_EQ(db.set("k", rec("y")), T::Ok);
    // A null text stores a record without data: present until it reaches a
    // file, then read back as no record at all.
    EXPECT_EQ(db.set("n", static_cast<char const*>(nullptr)), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
    checkStore(dir, "s1", 3, {{"k", "y"}}, false);
    db.close();  // an iterator may outlive its store
    EXPECT_EQ(early.next(more), T::NotOpen);
    EXPECT_EQ(early.set("x"), T::NotOpen);
}

}  // namespace
