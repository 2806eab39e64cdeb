// Tag database: a store of orders in a data directory beside this program.
// One Update transaction stores records, a second changes and deletes some;
// a reader then walks the orders by prefix without taking the lock, and the
// files of the store are listed: the version file, the node index of the
// current version and one file per node.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "Tagdb.h"
#include "TagdbItr.h"
#include "demo.h"

namespace fs = std::filesystem;

namespace {

char const* statusName(TagdbCommon::Status st) {
    static char const* const names[] = {
        "Ok",      "Failed",        "LockTimeout", "Split",         "Restart",
        "NotOpen", "NoTransaction", "Aborted",     "RollbackFailed"};
    return st >= 0 && st <= 8 ? names[st] : "?";
}

void report(char const* what, TagdbCommon::Status st) {
    std::printf("  %-34s %s\n", what, statusName(st));
}

}  // namespace

void demoTagdb() {
    std::printf("\n== tag database ==\n");
    std::error_code ec;
    fs::path dir = fs::read_symlink("/proc/self/exe", ec).parent_path() / "tagdb-data";
    fs::remove_all(dir, ec);
    fs::create_directories(dir, ec);
    std::string store = (dir / "orders").string();

    // Small nodes, so that even a few records make a tree of several nodes.
    Tagdb db(32, 4);
    report("open orders", db.open(store.c_str(), TagdbStringKey::newInstance,
                                  TagdbBlobRecord::newInstance, nullptr));
    report("start(Update)", db.start(TagdbCommon::Update));
    char const* orders[][2] = {{"order/1001", "3 x widget"},    {"order/1002", "1 x gadget"},
                               {"order/1003", "12 x sprocket"}, {"order/1004", "2 x gizmo"},
                               {"order/1005", "5 x doohickey"}, {"customer/17", "Ada"},
                               {"customer/42", "Grace"}};
    for (auto const& [key, text] : orders)
        db.set(key, text);
    report("commit (7 records)", db.commit());

    report("start(Update)", db.start(TagdbCommon::Update));
    db.set("order/1002", "1 x gadget, shipped");
    db.set("order/1003", static_cast<TagdbRecord*>(nullptr));  // a null record deletes
    report("commit (one changed, one deleted)", db.commit());

    // A reader: Deferred takes no lock; it sees the last published version.
    report("start(Deferred)", db.start(TagdbCommon::Deferred));
    std::printf("  orders by prefix \"order/\":\n");
    {
        TagdbItr it(&db, "order/");
        int more = 0;
        while (it.next(more) == TagdbCommon::Ok && more) {
            char const* text = nullptr;
            it.get(text);
            std::printf("    %-12s %s\n", static_cast<TagdbStringKey*>(it.getKey())->getString(),
                        text);
        }
    }
    report("commit (nothing changed)", db.commit());
    db.close();

    std::printf("  files in %s:\n", dir.c_str());
    std::vector<fs::directory_entry> files(fs::directory_iterator(dir, ec), {});
    std::sort(files.begin(), files.end());
    for (auto const& f : files) {
        std::string name = f.path().filename().string();
        char const* role = name == "orders"                  ? "version file"
                           : name.rfind("orders-x-", 0) == 0 ? "node index"
                                                             : "node";
        std::printf("    %-14s %5ju bytes  %s\n", name.c_str(),
                    static_cast<uintmax_t>(f.file_size(ec)), role);
    }
}
