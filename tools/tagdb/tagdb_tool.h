// The `tagdb` command-line tool: reading, checking and maintaining one tag
// database store (string keys, byte-run records) from the shell.
//
// Every change runs in one Update transaction, committed only when the whole
// command succeeded, so a store is never left half-changed. Reading commands
// take no lock (as readers in Deferred mode) except dump and check, which
// hold the lock for a consistent view unless --no-lock is given.
//
// SIGINT, SIGTERM and SIGHUP only raise a flag (interrupted()); SIGPIPE is
// ignored, so writes to a closed pipe fail with EPIPE. The commands watch
// the flag and their output, roll the transaction back (which removes the
// lock file) and stop; run() then ends the process by the signal.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Tagdb.h"
#include "TagdbItr.h"

namespace tagdbtool {

// Exit codes.
enum Exit { kOk = 0, kNotFound = 1, kUsage = 2, kStoreError = 3, kDamaged = 4 };

struct Options {
    std::string store;
    std::string command;
    std::vector<std::string> args;
    int cacheSize = 256;
    int maxEntries = 512;
    bool lock = true;  // dump, check: hold the store's lock
    // How long taking the lock may wait for another process (clean: not at all).
    unsigned lockWaitMs = 30000;
};

// The tool: parses the command line and runs the command. Installs the
// signal handling; a process interrupted by a signal ends by that signal
// after the command cleaned up.
int run(int argc, char** argv);

// The signal that interrupted the tool, 0 while none did.
int interrupted();
// Ends the process by the signal that interrupted it (call after cleaning up).
[[noreturn]] void endBySignal();

// A command's words after the command name: flags (words that begin with
// '-', anywhere before a "--") and operands; every word after "--" is an
// operand. `allowed` lists the
// flags; one that takes a value ends in '=' ("-f="). Prints the problem and
// returns false on a flag not allowed or a missing value.
struct Args {
    std::vector<std::string> flags;  // as given, values in `values`
    std::vector<std::string> values;
    std::vector<std::string> operands;
    bool has(char const* flag) const;
    std::string value(char const* flag) const;
};
bool parseArgs(Options const& o, std::vector<char const*> const& allowed, Args& a);
// Prints the command's usage line to standard error; returns kUsage.
int usageOf(Options const& o);

// One store opened for one command.
class Session {
  public:
    enum Access { Read, LockedRead, Change };
    // fileFactory makes the store's files; the default waits for the lock
    // only as long as Options::lockWaitMs and no longer once interrupted.
    explicit Session(Options const& o, TagdbFile* (*fileFactory)() = nullptr);
    // Starts the transaction: Update for changes and locked reads, else
    // Deferred. A reading command on a store that does not exist fails
    // rather than create it. Prints the reason; returns kOk, kStoreError
    // (directory, store or lock) or kDamaged (the store's files).
    int begin(Access access);
    // Commits; false (with the reason printed) when nothing was committed or
    // the outcome is uncertain. An interrupted tool rolls back instead.
    bool commit();
    void abort();
    Tagdb& db() { return db_; }
    TagdbStore* store() { return db_.getCurrent(); }
    Options const& options() const { return o_; }

  private:
    // A Tagdb that can give up its open transaction without rolling it back.
    class Db : public Tagdb {
      public:
        using Tagdb::Tagdb;
        void forgetTransaction() { depth = 0; }
    };
    // After RollbackFailed: keeps every file, releases the lock.
    void keepUncertain();

    Options o_;
    Db db_;
};

// What a commit's status means for the store.
enum class CommitOutcome {
    Committed,  // the new version is published
    Unchanged,  // rolled back: the store is as before
    Uncertain,  // RollbackFailed: the version file may name the new version
};
CommitOutcome commitOutcome(TagdbCommon::Status st);

// Prints "tagdb: " and the message on standard error.
void fail(char const* fmt, ...) __attribute__((format(printf, 1, 2)));

// Text forms safe for any bytes: printable ASCII stays (but for space,
// backslash and double quote), every other byte is \xHH; the empty string
// is "". unescape reverses it; it rejects malformed text, and NUL bytes
// unless allowed.
std::string escape(std::string_view bytes);
bool unescape(std::string_view text, std::string& bytes, bool allowNul);

// A count on standard error, rewritten in place, while it is a terminal and
// the count is large enough to be worth watching.
class Progress {
  public:
    explicit Progress(char const* what);
    ~Progress();
    void update(long long count);

  private:
    char const* what_;
    bool terminal_;
    bool shown_ = false;
    long long next_ = 0;
};

// The record's bytes (a record that is not a byte run has none).
std::string_view bytesOf(TagdbRecord* rec);
// The text of the iterator's current key ("" for a key that is not a string).
std::string_view keyOf(TagdbItr& it);

// After standard output failed or the tool was interrupted: rolls the
// session's transaction back, tells why, returns kStoreError.
int outputFailed(Session& s, char const* command);

int cmdGet(Options const& o);
int cmdSet(Options const& o);
int cmdDel(Options const& o);
int cmdScan(Options const& o);
int cmdStat(Options const& o);
int cmdCheck(Options const& o);
int cmdDump(Options const& o);
int cmdLoad(Options const& o);
int cmdClean(Options const& o);

}  // namespace tagdbtool
