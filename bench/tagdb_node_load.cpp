// tagdb_node_load DIR [READS]: times random point reads on a one-node
// cache, where every read loads each node on its path from its file (the
// root and a leaf of about 390 entries). Builds a store of 100,000 keys in
// DIR the first time. Used to price changes to node loading by running the
// same store under two builds of the library.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "Tagdb.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: tagdb_node_load DIR [READS]\n");
        return 2;
    }
    std::string dir = argv[1];
    std::filesystem::create_directories(dir);
    std::string name = dir + "/s";
    if (!std::filesystem::exists(name)) {
        Tagdb db(1024, 512);
        db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
        db.start(TagdbCommon::Update);
        std::mt19937 rng(1);
        char k[32];
        for (int i = 0; i < 100000; ++i) {
            std::snprintf(k, sizeof k, "key%08d", (int)(rng() % 100000000));
            db.set(k, "0123456789012345678901234567890");
        }
        db.commit();
    }
    Tagdb db(1, 512);
    db.open(name.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance, nullptr);
    db.start(TagdbCommon::Deferred);
    std::mt19937 rng(2);
    char k[32];
    auto t0 = std::chrono::steady_clock::now();
    int n = argc > 2 ? atoi(argv[2]) : 3000;
    for (int i = 0; i < n; ++i) {
        std::snprintf(k, sizeof k, "key%08d", (int)(rng() % 100000000));
        TagdbRecord* r;
        db.get(k, r);
    }
    auto t1 = std::chrono::steady_clock::now();
    std::printf("%.2f us per read\n",
                std::chrono::duration<double, std::micro>(t1 - t0).count() / n);
    db.abort();
}
