// Helpers shared by the tag database tests: a scratch directory, whole files,
// stored forms spelled out byte by byte, keys and records from strings, and
// node-layer edits that report failure as a status (the tree comes later).
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Tagdb.h"

namespace tagdbtest {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;
using T = TagdbCommon;

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
  public:
    TempDir() {
        char const* base = std::getenv("TMPDIR");
        std::string p = std::string(base && *base ? base : "/tmp") + "/tagdbtestXXXXXX";
        if (!mkdtemp(p.data())) ADD_FAILURE() << "mkdtemp failed";
        path_ = p;
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
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
    int n = f ? std::atoi(f) : 1;
    return n > 1 ? n : 1;
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
    Bytes b(s.begin(), s.end());
    b.push_back(0);
    return b;
}
inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (Bytes const& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
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

// Makes n a leaf holding `records`, keyed "k<i><record>", the last key empty.
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

// Loads leaf id and replaces its records.
inline T::Status change(TagdbStore* s, long long id, std::vector<std::string> const& records) {
    TagdbNodeRef ref;
    if (s->loadNode(id, ref) != T::Ok) return T::Failed;
    fillLeaf(ref.node, records);
    return s->cacheTouch(ref.node);
}

// A new leaf holding records, cached as the tree caches a new node.
inline T::Status addLeaf(TagdbStore* s, std::vector<std::string> const& records,
                         long long* id = nullptr) {
    TagdbNodeRef ref;
    if (s->newNode(ref) != T::Ok) return T::Failed;
    fillLeaf(ref.node, records);
    if (id) *id = ref.node->id;
    return s->cacheInsert(ref.node);
}

inline T::Status freeLeaf(TagdbStore* s, long long id) {
    TagdbNodeRef ref;
    if (s->loadNode(id, ref) != T::Ok) return T::Failed;
    s->freeNode(ref.node);
    return T::Ok;
}

// Makes node 0 an inner node of level 2 over the given leaves.
inline T::Status setRoot(TagdbStore* s, std::vector<long long> const& ids) {
    TagdbNodeRef root;
    if (s->loadNode(0, root) != T::Ok) return T::Failed;
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
    return s->cacheTouch(n);
}

// The records of node id (the child ids of an inner node), or "<failed>".
inline std::vector<std::string> contentOf(TagdbStore* s, long long id) {
    TagdbNodeRef ref;
    if (s->loadNode(id, ref) != T::Ok) return {"<failed>"};
    std::vector<std::string> out;
    for (int i = 0; i < ref.node->count; ++i) {
        out.push_back(ref.node->isLeaf() ? text(ref.node->values[i].record)
                                         : std::to_string(ref.node->values[i].id));
    }
    return out;
}

}  // namespace tagdbtest
