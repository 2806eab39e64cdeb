// Fuzz target: the input is the deferred log a Deferred transaction replays
// at commit. The transaction logs one change, which creates its log; the
// input then takes the log's place, and the commit reads it back. Whatever
// the log holds, nothing faults, the log is gone afterwards, and a commit
// that succeeds leaves a store the check finds sound.
#include <cstdio>
#include <string>

#include "TagdbFuzz.h"

using namespace tagdbfuzz;

namespace {

Setup setup;

// A log as a transaction writes it: pairs of a key and a record (a null
// record deletes), then the empty key and the empty record.
Bytes logOf(std::vector<std::pair<char const*, char const*>> const& pairs) {
    std::string file = path("seed-log");
    TagdbLocalFile out;
    require(out.open(file.c_str(), T::WriteMode) == T::Ok, "cannot write a log");
    for (auto const& [k, v] : pairs) {
        out.writeString(k);
        out.writeBytes(v, v ? static_cast<int>(std::char_traits<char>::length(v)) : 0);
    }
    out.writeString(nullptr);
    out.writeBytes(nullptr, 0);
    require(out.close() == T::Ok, "cannot write a log");
    Bytes log = readFile(file);
    std::remove(file.c_str());
    return log;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setup.keys = 24;
    build(setup.keys, 8, setup.maxEntries);
    setup.pristine = snapshot();
    writeSeeds({logOf({}), logOf({{"k005", "five"}, {"k001", nullptr}}),
                logOf({{"k100", "a"}, {"k000x", ""}, {"k012", nullptr}, {"k012", "again"}})});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    restore(setup.pristine);
    T::Status committed = T::Failed;
    {
        Tagdb db(setup.cacheSize, setup.maxEntries);
        openStore(db);
        require(db.start(T::Deferred) == T::Ok, "cannot start on the sound store");
        require(db.set(key(0).c_str(), "logged") == T::Ok, "cannot log a change");
        char const* log = db.getCurrent()->logName;
        require(log != nullptr, "the transaction has no log");
        // A new file under the log's name: the transaction's own descriptor
        // still writes to the old one, which the commit closes and then
        // reopens by name.
        std::string input = path("input");
        writeFile(input, data, size);
        require(std::rename(input.c_str(), log) == 0, "cannot replace the log");
        committed = db.commit();
        if (committed == T::Ok) {
            require(db.start(T::Update) == T::Ok, "cannot start after the replay");
            walk(db, setup.keys + static_cast<long long>(size));
            db.abort();
        }
    }
    requireNothingLeft();
    if (committed == T::Ok) require(problems().empty(), "a replayed log damaged the store");
    return 0;
}
