// tagdb_probe DIR MODE [COUNT]: one tag database workload alone in a
// process, for tracing (strace -c, perf) and for timing two builds of the
// library on one store. Builds a store of 100,000 keys "key%08d" with
// 100-byte values, inserted in shuffled order, in DIR the first time.
//
//   load     COUNT random point reads on a one-node cache: every read loads
//            each node on its path from its file (cold node loads)
//   commit   COUNT transactions that each replace one key (cache 1024)
//   reopen   COUNT times: open the store anew, then 100 random reads
//   bulk     COUNT times: all 100,000 keys into a new store in DIR/bulk,
//            one transaction, which is then removed
//
// Prints the time per operation. With QK_PROBE_MANAGER=1 in the
// environment the library's memory manager is created first, as a host
// does at start-up; otherwise the library allocates from the C runtime.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Tagdb.h"
#include "qkMemory.h"

namespace {

constexpr int kKeys = 100000;
const std::string kValue(100, 'v');

std::string keyOf(int i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "key%08d", i);
    return buf;
}

void check(TagdbCommon::Status st, char const* what) {
    if (st == TagdbCommon::Ok) return;
    std::fprintf(stderr, "tagdb_probe: %s failed (%d)\n", what, static_cast<int>(st));
    std::exit(1);
}

void build(std::string const& name) {
    std::vector<int> order(kKeys);
    for (int i = 0; i < kKeys; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(42));
    Tagdb db(1024);
    db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
    check(db.start(TagdbCommon::Update), "start");
    for (int i : order)
        check(db.set(keyOf(i).c_str(), kValue.data(), static_cast<int>(kValue.size())), "set");
    check(db.commit(), "commit");
}

int randomKey(std::mt19937& rng) {
    return static_cast<int>(rng() % kKeys);
}

void coldLoads(std::string const& name, int n) {
    Tagdb db(1);
    db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
    check(db.start(TagdbCommon::Deferred), "start");
    std::mt19937 rng(2);
    for (int i = 0; i < n; ++i) {
        TagdbRecord* r = nullptr;
        check(db.get(keyOf(randomKey(rng)).c_str(), r), "get");
    }
    db.abort();
}

void commits(std::string const& name, int n) {
    Tagdb db(1024);
    db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
    std::mt19937 rng(3);
    for (int i = 0; i < n; ++i) {
        check(db.start(TagdbCommon::Update), "start");
        check(db.set(keyOf(randomKey(rng)).c_str(), kValue.data(), static_cast<int>(kValue.size())),
              "set");
        check(db.commit(), "commit");
    }
}

void reopens(std::string const& name, int n) {
    std::mt19937 rng(4);
    for (int i = 0; i < n; ++i) {
        Tagdb db(1024);
        db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
        check(db.start(TagdbCommon::Deferred), "start");
        for (int j = 0; j < 100; ++j) {
            TagdbRecord* r = nullptr;
            check(db.get(keyOf(randomKey(rng)).c_str(), r), "get");
        }
        db.commit();
    }
}

void bulks(std::string const& dir, int n) {
    for (int i = 0; i < n; ++i) {
        std::string sub = dir + "/bulk";
        std::filesystem::remove_all(sub);
        std::filesystem::create_directories(sub);
        build(sub + "/s");
    }
    std::filesystem::remove_all(dir + "/bulk");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: tagdb_probe DIR load|commit|reopen|bulk [COUNT]\n");
        return 2;
    }
    char const* manager = std::getenv("QK_PROBE_MANAGER");
    if (manager && std::strcmp(manager, "1") == 0) qkMemory::setPassthru(0, nullptr);
    std::string dir = argv[1];
    std::filesystem::create_directories(dir);
    std::string name = dir + "/s";
    if (!std::filesystem::exists(name)) build(name);
    int n = argc > 3 ? std::atoi(argv[3]) : 1000;
    auto t0 = std::chrono::steady_clock::now();
    if (std::strcmp(argv[2], "load") == 0) {
        coldLoads(name, n);
    } else if (std::strcmp(argv[2], "commit") == 0) {
        commits(name, n);
    } else if (std::strcmp(argv[2], "reopen") == 0) {
        reopens(name, n);
    } else if (std::strcmp(argv[2], "bulk") == 0) {
        bulks(dir, n);
    } else {
        std::fprintf(stderr, "tagdb_probe: unknown mode %s\n", argv[2]);
        return 2;
    }
    auto t1 = std::chrono::steady_clock::now();
    std::printf("%s: %.2f us per operation\n", argv[2],
                std::chrono::duration<double, std::micro>(t1 - t0).count() / n);
    return 0;
}
