// Tag database against the embedded stores users would otherwise pick: LMDB,
// SQLite and LevelDB, each with syncing to disk turned off (the tag database
// never syncs). One data set: 100,000 keys "key%08d" with 100-byte values,
// inserted in shuffled order. The tag database runs with a node cache of
// 1024 nodes, which holds the whole tree of this data set.
//
//   BulkInsert    all 100,000 keys in one transaction, into a new store
//   PointRead     100,000 random lookups in one read transaction
//   PrefixScan    one prefix of 1,000 keys, read key and value
//   OneKeyTxn     1,000 transactions that each replace one key
//   ReopenRead    open the store anew, then 10,000 random lookups
//
// With QK_BENCH_MANAGER=1 in the environment the library's memory manager
// is created before anything else, as a host does at start-up (the tag
// database then allocates its nodes, keys and records from it); otherwise
// the library allocates from the C runtime. The manager also serves the
// process's operator new, so the peers are compared in a run without it.
#include <benchmark/benchmark.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>
#include <lmdb.h>
#include <sqlite3.h>

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Tagdb.h"
#include "TagdbItr.h"
#include "qkMemory.h"

namespace fs = std::filesystem;

namespace {

bool withManager() {
    char const* v = std::getenv("QK_BENCH_MANAGER");
    return v && std::strcmp(v, "1") == 0;
}
[[maybe_unused]] bool const managerMade =
    withManager() && (qkMemory::setPassthru(0, nullptr), true);

constexpr int kKeys = 100000;
constexpr int kScanKeys = 1000;
constexpr int kTxns = 1000;
const std::string kValue(100, 'v');
constexpr int kReopenReads = 10000;

std::string keyOf(int i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "key%08d", i);
    return buf;
}

std::vector<std::string> const& shuffledKeys() {
    static std::vector<std::string> keys = [] {
        std::vector<std::string> k;
        for (int i = 0; i < kKeys; ++i)
            k.push_back(keyOf(i));
        std::shuffle(k.begin(), k.end(), std::mt19937(42));
        return k;
    }();
    return keys;
}

// A new directory for one engine's files, removed when the program ends
// (the filled stores live until then).
std::string scratchDir(char const* tag) {
    struct Made {
        std::vector<std::string> dirs;
        ~Made() {
            for (auto const& d : dirs)
                fs::remove_all(d);
        }
    };
    static Made made;
    char const* base = std::getenv("TMPDIR");
    std::string p = std::string(base && *base ? base : "/tmp") + "/qkbench-" + tag + "-XXXXXX";
    if (!mkdtemp(p.data())) std::abort();
    made.dirs.push_back(p);
    return p;
}

// ---- The engines: the same five operations on each -----------------------

class TagdbEngine {
  public:
    static constexpr int kCacheSize = 1024;
    static char const* name() { return "tagdb"; }
    void open(std::string const& dir) {
        db_ = std::make_unique<Tagdb>(kCacheSize);
        db_->open((dir + "/store").c_str(), TagdbStringKey::newInstance,
                  TagdbBlobRecord::newInstance, nullptr);
    }
    void close() { db_.reset(); }
    void bulkInsert(std::vector<std::string> const& keys) {
        db_->start(TagdbCommon::Update);
        for (auto const& k : keys)
            db_->set(k.c_str(), kValue.data(), static_cast<int>(kValue.size()));
        check(db_->commit());
    }
    void beginRead() { check(db_->start(TagdbCommon::Deferred)); }
    void endRead() { db_->commit(); }
    bool get(std::string const& k) {
        void const* data = nullptr;
        int n = 0;
        db_->get(k.c_str(), data, n);
        return data != nullptr;
    }
    size_t scan(std::string const& prefix) {
        size_t bytes = 0;
        TagdbItr it(db_.get(), prefix.c_str());
        int more = 0;
        while (it.next(more) == TagdbCommon::Ok && more) {
            void const* data = nullptr;
            int n = 0;
            it.get(data, n);
            bytes += static_cast<size_t>(n) + 1;
        }
        return bytes;
    }
    void putOne(std::string const& k) {
        check(db_->start(TagdbCommon::Update));
        db_->set(k.c_str(), kValue.data(), static_cast<int>(kValue.size()));
        check(db_->commit());
    }

  private:
    static void check(TagdbCommon::Status st) {
        if (st != TagdbCommon::Ok) std::abort();
    }
    std::unique_ptr<Tagdb> db_;
};

class LmdbEngine {
  public:
    static char const* name() { return "lmdb"; }
    void open(std::string const& dir) {
        mdb_env_create(&env_);
        mdb_env_set_mapsize(env_, size_t(1) << 30);
        if (mdb_env_open(env_, dir.c_str(), MDB_NOSYNC | MDB_NOMETASYNC, 0644)) std::abort();
        MDB_txn* t;
        mdb_txn_begin(env_, nullptr, 0, &t);
        mdb_dbi_open(t, nullptr, 0, &dbi_);
        mdb_txn_commit(t);
    }
    void close() { mdb_env_close(env_); }
    void bulkInsert(std::vector<std::string> const& keys) {
        MDB_txn* t;
        mdb_txn_begin(env_, nullptr, 0, &t);
        for (auto const& k : keys)
            put(t, k);
        if (mdb_txn_commit(t)) std::abort();
    }
    void beginRead() { mdb_txn_begin(env_, nullptr, MDB_RDONLY, &read_); }
    void endRead() { mdb_txn_abort(read_); }
    bool get(std::string const& k) {
        MDB_val key{k.size(), const_cast<char*>(k.data())}, val;
        return mdb_get(read_, dbi_, &key, &val) == 0;
    }
    size_t scan(std::string const& prefix) {
        MDB_cursor* c;
        mdb_cursor_open(read_, dbi_, &c);
        MDB_val key{prefix.size(), const_cast<char*>(prefix.data())}, val;
        size_t bytes = 0;
        for (int rc = mdb_cursor_get(c, &key, &val, MDB_SET_RANGE);
             rc == 0 && key.mv_size >= prefix.size() &&
             std::memcmp(key.mv_data, prefix.data(), prefix.size()) == 0;
             rc = mdb_cursor_get(c, &key, &val, MDB_NEXT))
            bytes += val.mv_size + 1;
        mdb_cursor_close(c);
        return bytes;
    }
    void putOne(std::string const& k) {
        MDB_txn* t;
        mdb_txn_begin(env_, nullptr, 0, &t);
        put(t, k);
        if (mdb_txn_commit(t)) std::abort();
    }

  private:
    void put(MDB_txn* t, std::string const& k) {
        MDB_val key{k.size(), const_cast<char*>(k.data())};
        MDB_val val{kValue.size(), const_cast<char*>(kValue.data())};
        if (mdb_put(t, dbi_, &key, &val, 0)) std::abort();
    }
    MDB_env* env_ = nullptr;
    MDB_dbi dbi_ = 0;
    MDB_txn* read_ = nullptr;
};

class SqliteEngine {
  public:
    static char const* name() { return "sqlite"; }
    void open(std::string const& dir) {
        sqlite3_open((dir + "/db").c_str(), &db_);
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=OFF");
        exec("CREATE TABLE IF NOT EXISTS kv (k TEXT PRIMARY KEY, v BLOB) WITHOUT ROWID");
        sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO kv VALUES (?, ?)", -1, &put_, nullptr);
        sqlite3_prepare_v2(db_, "SELECT v FROM kv WHERE k = ?", -1, &get_, nullptr);
        sqlite3_prepare_v2(db_, "SELECT k, v FROM kv WHERE k >= ? AND k < ?", -1, &scan_, nullptr);
    }
    void close() {
        sqlite3_finalize(put_);
        sqlite3_finalize(get_);
        sqlite3_finalize(scan_);
        sqlite3_close(db_);
    }
    void bulkInsert(std::vector<std::string> const& keys) {
        exec("BEGIN");
        for (auto const& k : keys)
            put(k);
        exec("COMMIT");
    }
    void beginRead() { exec("BEGIN"); }
    void endRead() { exec("COMMIT"); }
    bool get(std::string const& k) {
        sqlite3_bind_text(get_, 1, k.data(), static_cast<int>(k.size()), SQLITE_STATIC);
        bool found = sqlite3_step(get_) == SQLITE_ROW && sqlite3_column_blob(get_, 0);
        sqlite3_reset(get_);
        return found;
    }
    size_t scan(std::string const& prefix) {
        std::string end = prefix;
        end.back() = static_cast<char>(end.back() + 1);
        sqlite3_bind_text(scan_, 1, prefix.data(), static_cast<int>(prefix.size()), SQLITE_STATIC);
        sqlite3_bind_text(scan_, 2, end.data(), static_cast<int>(end.size()), SQLITE_STATIC);
        size_t bytes = 0;
        while (sqlite3_step(scan_) == SQLITE_ROW)
            bytes += static_cast<size_t>(sqlite3_column_bytes(scan_, 1)) + 1;
        sqlite3_reset(scan_);
        return bytes;
    }
    void putOne(std::string const& k) {
        exec("BEGIN");
        put(k);
        exec("COMMIT");
    }

  private:
    void exec(char const* sql) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) std::abort();
    }
    void put(std::string const& k) {
        sqlite3_bind_text(put_, 1, k.data(), static_cast<int>(k.size()), SQLITE_STATIC);
        sqlite3_bind_blob(put_, 2, kValue.data(), static_cast<int>(kValue.size()), SQLITE_STATIC);
        if (sqlite3_step(put_) != SQLITE_DONE) std::abort();
        sqlite3_reset(put_);
    }
    sqlite3* db_ = nullptr;
    sqlite3_stmt *put_ = nullptr, *get_ = nullptr, *scan_ = nullptr;
};

class LeveldbEngine {
  public:
    static char const* name() { return "leveldb"; }
    void open(std::string const& dir) {
        leveldb::Options o;
        o.create_if_missing = true;
        leveldb::DB* db = nullptr;
        if (!leveldb::DB::Open(o, dir + "/ldb", &db).ok()) std::abort();
        db_.reset(db);
    }
    void close() { db_.reset(); }
    void bulkInsert(std::vector<std::string> const& keys) {
        leveldb::WriteBatch batch;
        for (auto const& k : keys)
            batch.Put(k, kValue);
        if (!db_->Write(leveldb::WriteOptions(), &batch).ok()) std::abort();
    }
    void beginRead() { snapshot_ = db_->GetSnapshot(); }
    void endRead() { db_->ReleaseSnapshot(snapshot_); }
    bool get(std::string const& k) {
        leveldb::ReadOptions r;
        r.snapshot = snapshot_;
        return db_->Get(r, k, &scratch_).ok();
    }
    size_t scan(std::string const& prefix) {
        leveldb::ReadOptions r;
        r.snapshot = snapshot_;
        std::unique_ptr<leveldb::Iterator> it(db_->NewIterator(r));
        size_t bytes = 0;
        for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next())
            bytes += it->value().size() + 1;
        return bytes;
    }
    void putOne(std::string const& k) {
        if (!db_->Put(leveldb::WriteOptions(), k, kValue).ok()) std::abort();
    }

  private:
    std::unique_ptr<leveldb::DB> db_;
    leveldb::Snapshot const* snapshot_ = nullptr;
    std::string scratch_;
};

// Writes what the page cache holds back to the disk, so that a benchmark
// does not pay for the writeback of the data the one before it wrote (the
// file system's journal then slows every file creation and removal).
void settle() {
    ::sync();
}

// A store of every engine filled once with the data set, shared by the
// benchmarks that read or update it.
template <class E>
E& filled() {
    static E* engine = [] {
        auto* e = new E;
        e->open(scratchDir(E::name()));
        e->bulkInsert(shuffledKeys());
        settle();
        return e;
    }();
    return *engine;
}

// ---- The benchmarks ---------------------------------------------------------

// Items per second, and which heap served the library.
void report(benchmark::State& state, int itemsPerIteration) {
    state.SetItemsProcessed(state.iterations() * itemsPerIteration);
    if (withManager()) state.SetLabel("qkUtil memory manager");
}

template <class E>
void BulkInsert(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        std::string dir = scratchDir(E::name());
        E e;
        e.open(dir);
        state.ResumeTiming();
        e.bulkInsert(shuffledKeys());
        e.close();
        state.PauseTiming();
        fs::remove_all(dir);
        settle();
        state.ResumeTiming();
    }
    report(state, kKeys);
}

template <class E>
void PointRead(benchmark::State& state) {
    E& e = filled<E>();
    std::mt19937 rng(7);
    std::vector<std::string> keys;
    for (int i = 0; i < kKeys; ++i)
        keys.push_back(keyOf(static_cast<int>(rng() % kKeys)));
    for (auto _ : state) {
        e.beginRead();
        size_t found = 0;
        for (auto const& k : keys)
            found += e.get(k);
        e.endRead();
        if (found != keys.size()) state.SkipWithError("a key was not found");
    }
    report(state, kKeys);
}

template <class E>
void PrefixScan(benchmark::State& state) {
    E& e = filled<E>();
    std::mt19937 rng(11);
    for (auto _ : state) {
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "key000%02d", static_cast<int>(rng() % 100));
        e.beginRead();
        size_t bytes = e.scan(prefix);
        e.endRead();
        if (bytes != kScanKeys * (kValue.size() + 1)) state.SkipWithError("short scan");
    }
    report(state, kScanKeys);
}

template <class E>
void OneKeyTxn(benchmark::State& state) {
    E& e = filled<E>();
    std::mt19937 rng(13);
    for (auto _ : state) {
        for (int i = 0; i < kTxns; ++i)
            e.putOne(keyOf(static_cast<int>(rng() % kKeys)));
    }
    report(state, kTxns);
}

template <class E>
void ReopenRead(benchmark::State& state) {
    std::string dir = scratchDir(E::name());
    {
        E e;
        e.open(dir);
        e.bulkInsert(shuffledKeys());
        e.close();
    }
    settle();
    std::mt19937 rng(17);
    for (auto _ : state) {
        E e;
        e.open(dir);
        e.beginRead();
        size_t found = 0;
        for (int i = 0; i < kReopenReads; ++i)
            found += e.get(keyOf(static_cast<int>(rng() % kKeys)));
        e.endRead();
        e.close();
        if (found != kReopenReads) state.SkipWithError("a key was not found");
    }
    report(state, kReopenReads);
    fs::remove_all(dir);
}

#define ENGINES(B)                                                      \
    BENCHMARK_TEMPLATE(B, TagdbEngine)->Unit(benchmark::kMillisecond);  \
    BENCHMARK_TEMPLATE(B, LmdbEngine)->Unit(benchmark::kMillisecond);   \
    BENCHMARK_TEMPLATE(B, SqliteEngine)->Unit(benchmark::kMillisecond); \
    BENCHMARK_TEMPLATE(B, LeveldbEngine)->Unit(benchmark::kMillisecond)

ENGINES(BulkInsert);
ENGINES(PointRead);
ENGINES(PrefixScan);
ENGINES(OneKeyTxn);
ENGINES(ReopenRead);

}  // namespace

BENCHMARK_MAIN();
