// The tagdb tool, run as its users run it: dump and load of random binary
// keys and values round-trip exactly; damaged dumps change nothing; check
// finds damaged node files; the single-key commands and their exit codes.
#include <sys/wait.h>

#include <cstdio>
#include <random>

#include "TagdbItr.h"
#include "tagdb/TagdbTestUtil.h"

using namespace tagdbtest;

namespace {

struct ToolRun {
    int code;
    std::string out, err;
};

std::string quote(std::string const& s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs the tool with args and the given standard input.
ToolRun tool(TempDir const& dir, std::vector<std::string> const& args, std::string const& in = "") {
    writeFile(dir / "stdin", Bytes(in.begin(), in.end()));
    std::string cmd = quote(TAGDB_TOOL);
    for (auto const& a : args)
        cmd += " " + quote(a);
    cmd +=
        " <" + quote(dir / "stdin") + " >" + quote(dir / "stdout") + " 2>" + quote(dir / "stderr");
    int status = std::system(cmd.c_str());
    Bytes out = readFile(dir / "stdout"), err = readFile(dir / "stderr");
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::string(out.begin(), out.end()),
            std::string(err.begin(), err.end())};
}

using Content = std::map<std::string, std::string>;

Content contentOf(std::string const& store) {
    Tagdb db;
    openStore(db, store);
    EXPECT_EQ(db.start(T::Deferred), T::Ok);
    Content out;
    TagdbItr it(&db, "");
    int more = 0;
    while (it.next(more) == T::Ok && more) {
        void const* data = nullptr;
        int n = 0;
        it.get(data, n);
        out[text(it.getKey())] = std::string(static_cast<char const*>(data), size_t(n));
    }
    db.abort();
    return out;
}

void fill(std::string const& store, Content const& content, int maxEntries = 512) {
    Tagdb db(32, maxEntries);
    openStore(db, store);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (auto const& [k, v] : content)
        ASSERT_EQ(db.set(k.c_str(), v.data(), static_cast<int>(v.size())), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
}

Content randomContent(unsigned seed, int count) {
    std::mt19937 rng(seed);
    Content c;
    while (static_cast<int>(c.size()) < count) {
        std::string k(1 + rng() % 16, 'x'), v(rng() % 40, 'x');
        for (char& ch : k)
            ch = static_cast<char>(1 + rng() % 255);  // any byte but NUL
        for (char& ch : v)
            ch = static_cast<char>(rng() % 256);
        c[k] = v;
    }
    return c;
}

TEST(TagdbTool, DumpAndLoadRoundTripBinaryData) {
    TempDir dir;
    Content content = randomContent(17, 3000);
    fill(dir / "a", content, 7);
    ToolRun dump = tool(dir, {dir / "a", "dump"});
    ASSERT_EQ(dump.code, 0) << dump.err;
    ASSERT_EQ(tool(dir, {dir / "b", "load"}, dump.out).code, 0);
    EXPECT_EQ(contentOf(dir / "b"), content);
    EXPECT_EQ(tool(dir, {dir / "b", "dump"}).out, dump.out);  // byte for byte

    // Loading adds and replaces; --replace makes the store equal the dump.
    fill(dir / "b", {{"extra", "1"}});
    ASSERT_EQ(tool(dir, {dir / "b", "load"}, dump.out).code, 0);
    EXPECT_EQ(contentOf(dir / "b").size(), content.size() + 1);
    ASSERT_EQ(tool(dir, {dir / "b", "load", "--replace"}, dump.out).code, 0);
    EXPECT_EQ(contentOf(dir / "b"), content);
}

TEST(TagdbTool, DamagedDumpsChangeNothing) {
    TempDir dir;
    fill(dir / "s", {{"keep", "me"}});
    std::string good = "tagdb-dump 1\nk1 v\\x001\nk2 \"\"\nend 2\n";
    ASSERT_EQ(tool(dir, {dir / "t", "load"}, good).code, 0);
    EXPECT_EQ(contentOf(dir / "t"), (Content{{"k1", std::string("v\0"
                                                                "1",
                                                                3)},
                                             {"k2", ""}}));

    auto before = snapshot(dir);
    before.erase("stdin");
    for (std::string bad : {
             "tagdb-dump 1\nk1 v\nend 2\n",        // count differs
             "tagdb-dump 1\nk1 v\nk2 w\n",         // cut short
             "tagdb-dump 1\nk1 v\\x4\nend 1\n",    // broken escape
             "tagdb-dump 1\nk\\x00 v\nend 1\n",    // NUL in a key
             "tagdb-dump 1\nk1 v w\nend 1\n",      // three fields
             "tagdb-dump 2\nk1 v\nend 1\n",        // unknown header
             "tagdb-dump 1\nk1 v\nend 1\nmore\n",  // text after the end
         }) {
        ToolRun r = tool(dir, {dir / "s", "load", "--replace"}, bad);
        EXPECT_NE(r.code, 0) << bad;
        EXPECT_NE(r.err.find("unchanged"), std::string::npos) << r.err;
        auto after = snapshot(dir);
        after.erase("stdin");
        after.erase("stdout");
        after.erase("stderr");
        before.erase("stdout");
        before.erase("stderr");
        EXPECT_EQ(after, before) << bad;
    }
}

// A store of several levels, then one kind of damage per copy.
TEST(TagdbTool, CheckFindsDamagedNodeFiles) {
    TempDir dir;
    Content content = randomContent(5, 400);
    fill(dir / "s", content, 4);
    ToolRun ok = tool(dir, {dir / "s", "check"});
    ASSERT_EQ(ok.code, 0) << ok.out << ok.err;
    EXPECT_NE(ok.out.find("400 entries"), std::string::npos) << ok.out;

    std::vector<std::string> nodes;
    for (auto const& f : dir.files())
        if (f.rfind("s-", 0) == 0 && f.rfind("s-x-", 0) != 0 && f != "s-0-2") nodes.push_back(f);
    ASSERT_GT(nodes.size(), 50u);
    auto damage = [&](std::string const& file, auto&& change) {
        Bytes saved = readFile(dir / file);
        Bytes b = saved;
        change(b);
        if (b.empty()) {
            fs::remove(dir / file);
        } else {
            writeFile(dir / file, b);
        }
        ToolRun r = tool(dir, {dir / "s", "check"});
        writeFile(dir / file, saved);
        return r;
    };
    std::mt19937 rng(3);
    for (int round = 0; round < 6; ++round) {
        std::string victim = nodes[rng() % nodes.size()];
        SCOPED_TRACE(victim);
        ToolRun missing = damage(victim, [](Bytes& b) { b.clear(); });
        EXPECT_EQ(missing.code, 4);
        EXPECT_NE(missing.out.find("cannot be loaded"), std::string::npos) << missing.out;
        ToolRun count = damage(victim, [](Bytes& b) { b[8] = 0, b[9] = 2; });  // count 512 + ...
        EXPECT_EQ(count.code, 4) << count.out;
        ToolRun cut = damage(victim, [](Bytes& b) { b.resize(b.size() - 3); });
        EXPECT_EQ(cut.code, 4) << cut.out;
    }
    // Two keys of one leaf out of order: the file loads, the tree is wrong.
    for (std::string const& victim : nodes) {
        Bytes b = readFile(dir / victim);
        if (b[0] != 1 || b[8] < 3) continue;  // a leaf of three entries or more
        ToolRun r = damage(victim, [](Bytes& bytes) {
            // The first key's text starts at offset 16; make it sort last.
            bytes[16] = 0xff;
        });
        EXPECT_EQ(r.code, 4) << r.out;
        EXPECT_NE(r.out.find("not above"), std::string::npos) << r.out;
        break;
    }
    EXPECT_EQ(tool(dir, {dir / "s", "check"}).code, 0);  // every copy put back
}

TEST(TagdbTool, SingleKeyCommandsAndExitCodes) {
    TempDir dir;
    std::string s = dir / "s";
    EXPECT_EQ(tool(dir, {s, "get", "k"}).code, 3);  // no store: none is created
    EXPECT_FALSE(fs::exists(s));
    EXPECT_EQ(tool(dir, {s, "set", "k", "value"}).code, 0);
    EXPECT_EQ(tool(dir, {s, "get", "k"}).out, "value");
    writeFile(dir / "v.bin", Bytes{0, 1, 2, 255});
    EXPECT_EQ(tool(dir, {s, "set", "bin", "-f", dir / "v.bin"}).code, 0);
    EXPECT_EQ(tool(dir, {s, "get", "bin"}).out, std::string("\0\1\2\xff", 4));
    EXPECT_EQ(tool(dir, {s, "set", "-z", "txt"}, "from stdin").code, 0);
    EXPECT_EQ(tool(dir, {s, "get", "txt"}).out, std::string("from stdin\0", 11));
    EXPECT_EQ(tool(dir, {s, "get", "-z", "txt"}).out, "from stdin");
    EXPECT_EQ(tool(dir, {s, "set", "-e", "k\\x01", "x"}).code, 0);

    EXPECT_EQ(tool(dir, {s, "scan"}).out, "bin\nk\nk\\x01\ntxt\n");
    EXPECT_EQ(tool(dir, {s, "scan", "-v", "k"}).out, "k value\nk\\x01 x\n");
    ToolRun stat = tool(dir, {s, "stat"});
    EXPECT_EQ(stat.code, 0);
    EXPECT_NE(stat.out.find("entries  4\n"), std::string::npos) << stat.out;

    EXPECT_EQ(tool(dir, {s, "del", "k"}).code, 0);
    EXPECT_EQ(tool(dir, {s, "del", "k"}).code, 1);
    ToolRun missing = tool(dir, {s, "get", "k"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("not found"), std::string::npos);

    EXPECT_EQ(tool(dir, {s, "frobnicate"}).code, 2);
    EXPECT_EQ(tool(dir, {s, "get"}).code, 2);
    EXPECT_EQ(tool(dir, {s, "get", "-q", "k"}).code, 2);
    EXPECT_EQ(tool(dir, {"get", "--help"}).code, 0);
    EXPECT_NE(tool(dir, {"--help"}).out.find("usage"), std::string::npos);
    // A store in a directory that does not exist fails at once, not after
    // the 30 seconds of waiting for a lock file that cannot be made.
    ToolRun nodir = tool(dir, {dir / "no/such/s", "set", "k", "v"});
    EXPECT_EQ(nodir.code, 3);
    EXPECT_NE(nodir.err.find("no such directory"), std::string::npos);
    EXPECT_TRUE(dir.files().count("s") && !dir.files().count("s-lock"));
}

}  // namespace
