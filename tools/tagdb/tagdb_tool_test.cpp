// The tagdb tool, run as its users run it: dump and load of random binary
// keys and values round-trip exactly; damaged dumps change nothing; check
// finds damaged node files; the single-key commands and their exit codes.
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "tagdb/TagdbTestUtil.h"

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
    EXPECT_NE(damaged(victim, [](Bytes& b) { b.clear(); }).find("cannot be loaded"),
              std::string::npos);
    damaged(victim, [](Bytes& b) { b.resize(b.size() - 3); });
    // The first key's text starts at offset 16: made to sort last, the file
    // loads but the tree is wrong.
    EXPECT_NE(damaged(victim, [](Bytes& b) { b[16] = 0xff; }).find("not above"), std::string::npos);
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

}  // namespace
