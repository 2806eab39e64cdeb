// The fuzz targets' shared helper: scratch directory, files, the store's
// check and a bounded walk.
#include "TagdbFuzz.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "TagdbItr.h"
#include "tagdb/TagdbCheck.h"

namespace tagdbfuzz {

namespace fs = std::filesystem;

namespace {

std::string made;

void removeScratch() {
    std::error_code ec;
    if (!made.empty()) fs::remove_all(made, ec);
}

// The identity of a problem the check reports.
std::string identity(std::string const& problem) {
    long long id = -1;
    if (std::sscanf(problem.c_str(), "node %lld", &id) == 1) return "node " + std::to_string(id);
    return problem;
}

std::string text(TagdbKey* k) {
    char const* s = k ? static_cast<TagdbStringKey*>(k)->getString() : nullptr;
    return s ? s : "";
}

}  // namespace

void fail(char const* what) {
    std::fprintf(stderr, "tagdb fuzz: %s\n", what);
    std::fflush(stderr);
    __builtin_trap();
}

std::string const& scratch() {
    if (!made.empty()) return made;
    char const* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tagdbfuzzXXXXXX";
    require(mkdtemp(pattern.data()) != nullptr, "cannot make a scratch directory");
    made = pattern;
    std::atexit(removeScratch);
    setenv("TMPDIR", made.c_str(), 1);
    return made;
}

std::string path(std::string const& name) {
    return scratch() + "/" + name;
}

Bytes readFile(std::string const& file) {
    std::ifstream in(file, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeFile(std::string const& file, uint8_t const* data, size_t size) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<char const*>(data), static_cast<std::streamsize>(size));
    require(out.good(), "cannot write a scratch file");
}

Files snapshot() {
    Files out;
    for (auto const& e : fs::directory_iterator(scratch()))
        out[e.path().filename().string()] = readFile(e.path().string());
    return out;
}

void restore(Files const& files) {
    std::vector<fs::path> extra;
    for (auto const& e : fs::directory_iterator(scratch()))
        if (!files.count(e.path().filename().string())) extra.push_back(e.path());
    for (auto const& p : extra)
        fs::remove(p);
    for (auto const& [name, bytes] : files)
        writeFile(path(name), bytes);
}

void requireNothingLeft() {
    for (auto const& e : fs::directory_iterator(scratch())) {
        std::string name = e.path().filename().string();
        require(name != std::string(kStore) + "-lock", "a lock file outlived its Tagdb");
        require(name.rfind("tagdb", 0) != 0, "a deferred log outlived its Tagdb");
    }
}

std::string storePath() {
    return path(kStore);
}

std::string key(int i) {
    char k[16];
    std::snprintf(k, sizeof k, "k%03d", i);
    return k;
}

// Keys go in a scattered order (7 is prime to every count used), so that
// splits leave nodes of different sizes and versions.
void build(int count, int batch, int maxEntries) {
    for (int done = 0; done < count;) {
        Tagdb db(32, maxEntries);
        require(openStore(db) == T::Ok && db.start(T::Update) == T::Ok, "cannot build the store");
        for (int n = 0; n < batch && done < count; ++n, ++done) {
            std::string k = key(done * 7 % count), v = "v" + k;
            require(db.set(k.c_str(), v.data(), static_cast<int>(v.size())) == T::Ok,
                    "cannot fill the store");
        }
        require(db.commit() == T::Ok, "cannot commit the store");
    }
}

std::map<std::string, long long> nodeFiles(Files const& files) {
    std::map<std::string, long long> out;
    std::string prefix = std::string(kStore) + "-";
    for (auto const& [name, bytes] : files) {
        long long id = -1, v = 0;
        char tail = 0;
        if (name.rfind(prefix, 0) == 0 &&
            std::sscanf(name.c_str() + prefix.size(), "%lld-%lld%c", &id, &v, &tail) == 2) {
            out[name] = id;
        }
    }
    return out;
}

Tagdb::Status openStore(Tagdb& db) {
    return db.open(storePath().c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance,
                   nullptr);
}

std::set<std::string> problems() {
    Tagdb db(8, TagdbNode::kMaxEntries);
    openStore(db);
    if (db.start(T::Deferred) != T::Ok) return {"start failed"};
    qk::tagdb::TreeReport report;
    qk::tagdb::checkTree(db.getCurrent(), TagdbNode::kMaxEntries, report);
    db.abort();
    std::set<std::string> out;
    for (std::string const& p : report.problems)
        out.insert(identity(p));
    return out;
}

void requireNoNewDamage(std::set<std::string> const& earlier, std::set<std::string> const& later,
                        long long damaged) {
    std::string own = "node " + std::to_string(damaged);
    for (std::string const& p : later) {
        if (earlier.count(p) || p == own) continue;
        std::fprintf(stderr, "tagdb fuzz: new problem after a commit: %s\n", p.c_str());
        fail("damage multiplied");
    }
}

T::Status walk(Tagdb& db, long long bound) {
    TagdbItr it(&db, "");
    std::string last;
    int more = 0;
    T::Status st;
    for (long long steps = 0; (st = it.next(more)) == T::Ok && more; ++steps) {
        require(steps < bound, "a walk did not end");
        std::string k = text(it.getKey());
        require(steps == 0 || last < k, "a walk returned a key not above the one before");
        last = k;
    }
    return st;
}

void lookUp(Tagdb& db, int count) {
    for (int i = 0; i < count + 2; ++i) {
        TagdbRecord* rec = nullptr;
        db.get(key(i).c_str(), rec);
        db.get((key(i) + "x").c_str(), rec);
    }
}

namespace {

void changeSome(Tagdb& db, int keys) {
    std::string first = key(3) + "a", middle = key(keys / 2), end = key(keys);
    db.set(first.c_str(), "new");
    db.set(middle.c_str(), "changed");
    db.set(key(1).c_str(), static_cast<char const*>(nullptr));
    db.set(end.c_str(), "last");
}

}  // namespace

void exercise(Setup const& setup, std::string const& file, uint8_t const* data, size_t size,
              long long damaged) {
    Files damagedFiles = setup.pristine;
    damagedFiles[file] = Bytes(data, data + size);
    for (T::TransMode mode : {T::Update, T::Deferred}) {
        restore(damagedFiles);
        std::set<std::string> before = problems();
        T::Status committed = T::Failed;
        {
            Tagdb db(setup.cacheSize, setup.maxEntries);
            openStore(db);
            if (db.start(mode) == T::Ok) {
                lookUp(db, setup.keys);
                walk(db, setup.keys + TagdbNode::kMaxEntries + 8);  // one node may add keys
                changeSome(db, setup.keys);
                committed = db.commit();
            }
        }
        requireNothingLeft();
        if (committed == T::Ok) requireNoNewDamage(before, problems(), damaged);
    }
}

void writeSeeds(std::vector<Bytes> const& seeds) {
    char const* dir = std::getenv("QK_TAGDB_FUZZ_SEEDS");
    if (!dir || !*dir) return;
    std::error_code ec;
    fs::create_directories(dir, ec);
    for (size_t i = 0; i < seeds.size(); ++i)
        writeFile(std::string(dir) + "/seed-" + std::to_string(i), seeds[i]);
}

}  // namespace tagdbfuzz
