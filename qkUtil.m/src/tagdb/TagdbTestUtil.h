// Helpers shared by the tag database tests: a scratch directory, whole-file
// access, keys and records made from values, and a node's entries as plain
// strings for comparison with a model.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Tagdb.h"

namespace tagdbtest {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
  public:
    TempDir() {
        char const* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/tagdbtestXXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back(0);
        if (!mkdtemp(buf.data())) ADD_FAILURE() << "mkdtemp failed";
        path_ = buf.data();
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    std::string const& path() const { return path_; }
    std::string operator/(std::string const& name) const { return path_ + "/" + name; }
    // The names of the files in the directory.
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (auto const& e : fs::directory_iterator(path_))
            names.insert(e.path().filename().string());
        return names;
    }

  private:
    std::string path_;
};

inline Bytes readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

inline void writeFile(std::string const& path, Bytes const& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<char const*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

// Opens the protected factories of the library's key and record classes.
struct Key : TagdbStringKey {
    using TagdbStringKey::newInstance;
};
struct Rec : TagdbBlobRecord {
    using TagdbBlobRecord::newInstance;
};

inline TagdbKey* key(std::string const& s) {
    return Key::newInstance(s.c_str());
}
inline TagdbRecord* rec(std::string const& s) {
    return Rec::newInstance(s.data(), static_cast<int>(s.size()));
}
inline std::string text(TagdbKey* k) {
    char const* s = k ? static_cast<TagdbStringKey*>(k)->getString() : nullptr;
    return s ? s : "<null>";
}
inline std::string text(TagdbRecord* r) {
    if (!r) return "<null>";
    void const* p;
    int n;
    static_cast<TagdbBlobRecord*>(r)->getData(p, n);
    return p ? std::string(static_cast<char const*>(p), static_cast<size_t>(n)) : "<nodata>";
}

// A leaf's content as (key, record) texts; the last key is always empty.
using Leaf = std::vector<std::pair<std::string, std::string>>;

inline Leaf leafOf(TagdbNode* n) {
    Leaf out;
    for (int i = 0; i < n->count; ++i)
        out.emplace_back(text(n->keys[i]), text(n->values[i].record));
    return out;
}

// Replaces a node's entries by leaf-entries: every key but the last is set,
// every record is set.
inline void fillLeaf(TagdbNode* n, std::vector<std::string> const& records) {
    n->clear();
    n->type = TagdbNode::Leaf;
    n->level = 1;
    for (size_t i = 0; i < records.size(); ++i) {
        n->keys[i] = i + 1 < records.size() ? key("k" + std::to_string(i) + records[i]) : nullptr;
        n->values[i].record = rec(records[i]);
    }
    n->count = static_cast<int>(records.size());
    n->store->markModified(n);
}

// Makes node 0 an inner node of level 2 over the given leaves.
inline void setRootChildren(TagdbStore* s, std::vector<long long> const& ids) {
    TagdbNodeRef root;
    ASSERT_EQ(s->loadNode(0, root), TagdbCommon::Ok);
    TagdbNode* n = root.node;
    n->clear();
    n->type = TagdbNode::Inner;
    n->level = 2;
    for (size_t i = 0; i < ids.size(); ++i) {
        n->keys[i] = i + 1 < ids.size() ? key("c" + std::to_string(ids[i])) : nullptr;
        n->values[i].id = ids[i];
    }
    n->count = static_cast<int>(ids.size());
    s->markModified(n);
}

inline std::vector<long long> rootChildren(TagdbStore* s) {
    TagdbNodeRef root;
    EXPECT_EQ(s->loadNode(0, root), TagdbCommon::Ok);
    std::vector<long long> ids;
    for (int i = 0; root.node && i < root.node->count; ++i)
        ids.push_back(root.node->values[i].id);
    return ids;
}

// The records of a leaf, or "<failed>" when it cannot be loaded.
inline std::vector<std::string> leafRecords(TagdbStore* s, long long id) {
    TagdbNodeRef ref;
    if (s->loadNode(id, ref) != TagdbCommon::Ok) return {"<failed>"};
    std::vector<std::string> out;
    for (auto const& entry : leafOf(ref.node))
        out.push_back(entry.second);
    return out;
}

// A new leaf holding records, cached as the tree caches a new node.
inline long long addLeaf(TagdbStore* s, std::vector<std::string> const& records) {
    TagdbNodeRef ref;
    EXPECT_EQ(s->newNode(ref), TagdbCommon::Ok);
    if (!ref.node) return -1;
    fillLeaf(ref.node, records);
    EXPECT_EQ(s->cacheInsert(ref.node), TagdbCommon::Ok);
    return ref.node->id;
}

inline TagdbStore* openStore(Tagdb& db, std::string const& name) {
    EXPECT_EQ(
        db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr),
        TagdbCommon::Ok);
    return db.getCurrent();
}

}  // namespace tagdbtest
