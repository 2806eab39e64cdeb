// What the tag database's fuzz targets share: a private scratch directory
// with a store built at start-up, the store's files kept in memory and put
// back before every input, the store's own check as a set of problems, a
// bounded walk, and the seeds written for the fuzzer's corpus.
//
// The targets build with libFuzzer (the fuzz build) and with any compiler
// without it (the regression tests, which feed them the inputs kept under
// regressions/). A broken property ends the process with fail(): a message,
// then a trap, which either harness reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Tagdb.h"

namespace tagdbfuzz {

using Bytes = std::vector<unsigned char>;
using Files = std::map<std::string, Bytes>;
using T = TagdbCommon;

// Reports a broken property and ends the process.
[[noreturn]] void fail(char const* what);
inline void require(bool holds, char const* what) {
    if (!holds) fail(what);
}

// The scratch directory, made on first use under $TMPDIR (else /tmp) and
// removed at exit. $TMPDIR then names it, so the deferred logs of the
// targets' transactions land there too.
std::string const& scratch();
// scratch() + "/" + name.
std::string path(std::string const& name);

Bytes readFile(std::string const& file);
void writeFile(std::string const& file, uint8_t const* data, size_t size);
inline void writeFile(std::string const& file, Bytes const& b) {
    writeFile(file, b.data(), b.size());
}
// Every file of the scratch directory with its bytes.
Files snapshot();
// Makes the scratch directory hold exactly `files`.
void restore(Files const& files);
// Fails when a lock file or a deferred log outlived the Tagdb that made it.
void requireNothingLeft();

// The store every target works on, and the keys it is filled with.
constexpr char const* kStore = "s";
std::string storePath();
std::string key(int i);
// Fills the store with keys 0 .. count-1 in one Update transaction per
// `batch` keys, with nodes of maxEntries entries. Fails on any error.
void build(int count, int batch, int maxEntries);
// The node files of the store: name -> node id.
std::map<std::string, long long> nodeFiles(Files const& files);

Tagdb::Status openStore(Tagdb& db);
// What the store's check finds: one identity per problem, the node it
// names first ("node <id>") or else its whole text. {"start failed"} when
// no transaction can start. Checks against the stored maximum of 512
// entries, so that only damage counts, not a smaller maxEntries.
std::set<std::string> problems();
// `later` holds nothing beyond `earlier` and the damaged node's problems.
void requireNoNewDamage(std::set<std::string> const& earlier, std::set<std::string> const& later,
                        long long damaged);

// Walks every key of the active store. Fails when a key is not above the
// one before, or when the walk outlasts `bound` steps. Returns the walk's
// status.
T::Status walk(Tagdb& db, long long bound);
// Looks up keys 0 .. count-1 and a few absent ones.
void lookUp(Tagdb& db, int count);

// One input's work on a store with one file replaced: for Update and then
// Deferred, the files are put back with `file` holding the input; a
// transaction looks up every key, walks the store, sets and deletes a few
// keys and commits. When the commit succeeds, the check may find nothing it
// did not find before, except in node `damaged`. No lock file or log may
// stay behind.
struct Setup {
    Files pristine;
    int keys = 0;
    int cacheSize = 4;
    int maxEntries = 4;
};
void exercise(Setup const& setup, std::string const& file, uint8_t const* data, size_t size,
              long long damaged);

// With $QK_TAGDB_FUZZ_SEEDS set, writes each seed there as seed-<n>.
void writeSeeds(std::vector<Bytes> const& seeds);

}  // namespace tagdbfuzz

// The entry points of every target, as libFuzzer calls them.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);
