// Helpers shared by the tag database tests and the tagdb tool's: a scratch
// directory, whole files, stored forms spelled out byte by byte, keys and
// records from strings, and whole stores read, written and checked through
// the public interface.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Tagdb.h"
#include "TagdbItr.h"
#include "tagdb/TagdbCheck.h"

namespace tagdbtest {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;
using Content = std::map<std::string, std::string>;
using T = TagdbCommon;

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
  public:
    TempDir() : path_(fs::temp_directory_path() / "tagdbtestXXXXXX") {
        if (!mkdtemp(path_.data())) ADD_FAILURE() << "mkdtemp failed";
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    std::string const& path() const { return path_; }
    std::string operator/(std::string const& name) const { return path_ + "/" + name; }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (auto const& e : fs::directory_iterator(path_))
            names.insert(e.path().filename().string());
        return names;
    }

  private:
    std::string path_;
};

// How many times longer the randomised tests run: QK_TAGDB_SOAK (make soak),
// else 1.
inline int soakFactor() {
    char const* f = std::getenv("QK_TAGDB_SOAK");
    return f ? std::max(1, std::atoi(f)) : 1;
}

inline Bytes readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}
inline void writeFile(std::string const& path, Bytes const& b) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<char const*>(b.data()), static_cast<std::streamsize>(b.size()));
}
// Every file of the directory with its bytes.
inline std::map<std::string, Bytes> snapshot(TempDir const& dir) {
    std::map<std::string, Bytes> out;
    for (auto const& f : dir.files())
        out[f] = readFile(dir / f);
    return out;
}

// Little-endian numbers, texts with their NUL, and concatenation.
inline Bytes le(long long v, int width) {
    Bytes b;
    for (int i = 0; i < width; ++i)
        b.push_back(static_cast<unsigned char>(static_cast<unsigned long long>(v) >> (8 * i)));
    return b;
}
inline Bytes sz(std::string const& s) {
    Bytes b(s.size() + 1);  // the text and its NUL
    std::copy(s.begin(), s.end(), b.begin());
    return b;
}
inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Opens the protected factory of the library's record class.
struct Rec : TagdbBlobRecord {
    using TagdbBlobRecord::newInstance;
};
inline TagdbRecord* rec(std::string const& s) {
    return Rec::newInstance(s.data(), static_cast<int>(s.size()));
}
inline std::string text(TagdbKey* k) {
    char const* s = k ? static_cast<TagdbStringKey*>(k)->getString() : nullptr;
    return s ? s : "<null>";
}
inline std::string text(TagdbRecord* r) {
    void const* p = nullptr;
    int n = 0;
    if (r) static_cast<TagdbBlobRecord*>(r)->getData(p, n);
    return p ? std::string(static_cast<char const*>(p), static_cast<size_t>(n)) : "<null>";
}

inline TagdbStore* openStore(Tagdb& db, std::string const& name) {
    EXPECT_EQ(
        db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr),
        T::Ok);
    return db.getCurrent();
}

// Every (key, record) of the active store, walked by an iterator. With
// `strict`, a key not above the one before and a walk that fails are test
// failures.
inline Content entries(Tagdb& db, bool strict = true) {
    Content out;
    TagdbItr it(&db, "");
    int more = 0;
    T::Status st;
    while ((st = it.next(more)) == T::Ok && more) {
        std::string k = text(it.getKey());
        EXPECT_TRUE(!strict || out.empty() || out.rbegin()->first < k) << "out of order: " << k;
        TagdbRecord* r = nullptr;
        it.get(r);
        out[k] = text(r);
    }
    EXPECT_TRUE(!strict || st == T::Ok) << "the walk failed after " << out.size() << " entries";
    return out;
}

// Stores content in one Update transaction.
inline void fill(std::string const& name, Content const& content, int maxEntries = 512) {
    Tagdb db(32, maxEntries);
    openStore(db, name);
    ASSERT_EQ(db.start(T::Update), T::Ok);
    for (auto const& [k, v] : content)
        ASSERT_EQ(db.set(k.c_str(), v.data(), static_cast<int>(v.size())), T::Ok);
    ASSERT_EQ(db.commit(), T::Ok);
}

// Reads the committed store named `name` in `dir` as a second process would
// and checks it whole: the tree's invariants hold, its entries are
// `expected`, and (with `exactFiles`) the directory holds exactly the files
// of the current version: the version file, its index and one file per node.
// The files a store's committed version consists of: the version file, the
// index (from version 2 on) and each live node under its committed version.
inline std::set<std::string> filesOf(TagdbStore const* s, std::string const& name) {
    std::set<std::string> files = {name};
    if (s->version > 1) files.insert(name + "-x-" + std::to_string(s->version));
    for (long long id = 0; id < s->nodeCount; ++id) {
        int v = s->committedVersions[id];
        if (v > 0 && !(s->version == 1 && id == 0))
            files.insert(name + "-" + std::to_string(id) + "-" + std::to_string(v));
    }
    return files;
}

// Checks the tree's invariants and contents. With `exactFiles` the
// directory holds the committed version's files and nothing else; without,
// it holds them among others (a Recreate leaves the earlier content's).
inline void checkStore(TempDir const& dir, std::string const& name, int maxEntries,
                       Content const& expected, bool exactFiles = true) {
    Tagdb db(8, maxEntries);
    TagdbStore* s = openStore(db, dir / name);
    ASSERT_EQ(db.start(T::Deferred), T::Ok);
    qk::tagdb::TreeReport report;
    EXPECT_EQ(qk::tagdb::checkTree(s, maxEntries, report), T::Ok)
        << (report.problems.empty() ? "" : report.problems[0]);
    EXPECT_EQ(entries(db), expected);
    std::set<std::string> files = filesOf(s, name), onDisk = dir.files();
    if (exactFiles) {
        EXPECT_EQ(onDisk, files);
    } else {
        for (std::string const& f : files)
            EXPECT_TRUE(onDisk.count(f)) << f << " is missing";
    }
}

}  // namespace tagdbtest
