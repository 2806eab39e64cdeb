// tagdb: command line, help texts, the session around one store, and the
// small helpers the commands share.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>

#include "tagdb/TagdbBlob.h"
#include "tagdb_tool.h"

namespace fs = std::filesystem;

namespace tagdbtool {

namespace {

struct Command {
    char const* name;
    int (*run)(Options const&);
    char const* usage;
    char const* help;
};

Command const kCommands[] = {
    {"get", cmdGet, "get [-z] [-e] KEY",
     "Writes the record stored under KEY to standard output, byte for byte.\n"
     "  -z  drop one NUL that ends the record (text stored by programs)\n"
     "  -e  KEY is in the escaped form of dump (\\xHH for any byte)\n"
     "Exit 1 when KEY has no record.\n"},
    {"set", cmdSet, "set [-z] [-e] KEY [VALUE | -f FILE]",
     "Stores a record under KEY: VALUE, the contents of FILE, or standard\n"
     "input when neither is given. One transaction.\n"
     "  -z  end the record with a NUL, as programs store text\n"
     "  -e  KEY is in the escaped form of dump (\\xHH for any byte)\n"},
    {"del", cmdDel, "del [-e] KEY",
     "Deletes KEY and its record. One transaction. Exit 1 when KEY was absent.\n"
     "  -e  KEY is in the escaped form of dump (\\xHH for any byte)\n"},
    {"scan", cmdScan, "scan [-v] [-e] [PREFIX]",
     "Lists the keys that begin with PREFIX (every key without one) in order,\n"
     "one a line, in the escaped form of dump.\n"
     "  -v  also the record: KEY, a space, VALUE\n"
     "  -e  PREFIX is in the escaped form\n"},
    {"dump", cmdDump, "dump",
     "Writes every entry to standard output in a portable text form:\n"
     "  tagdb-dump 1\n"
     "  KEY VALUE        one line per entry, in key order\n"
     "  end COUNT\n"
     "KEY and VALUE keep printable ASCII except space, \\ and \", and write\n"
     "every other byte as \\xHH; an empty one is \"\". Holds the store's lock\n"
     "for a consistent view (--no-lock reads without it).\n"},
    {"load", cmdLoad, "load [--replace] [FILE]",
     "Stores every entry of a dump (FILE, or standard input), replacing the\n"
     "records of keys that exist. One transaction: a dump that is damaged or\n"
     "cut short changes nothing.\n"
     "  --replace  delete every key first, so the store equals the dump\n"},
    {"stat", cmdStat, "stat",
     "Shows the store's version, node count, tree height, entries and the\n"
     "bytes its current files take on disk.\n"},
    {"check", cmdCheck, "check",
     "Loads every node of the current version and checks the tree: key order,\n"
     "separators, levels, node sizes, every node reached exactly once.\n"
     "Reports each problem; exit 4 when there is one. Holds the lock (--no-lock\n"
     "reads without it).\n"},
    {"clean", cmdClean, "clean [--stale-lock]",
     "Removes what interrupted or crashed transactions left: node files and\n"
     "node indexes that the current version does not use. Names each file it\n"
     "removes. Takes the store's lock and does nothing while another process\n"
     "holds it.\n"
     "  --stale-lock  first remove the lock file: only when no process uses\n"
     "                the store (one that died left it behind)\n"},
};

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: tagdb [OPTIONS] STORE COMMAND [ARGS]\n"
                 "       tagdb COMMAND --help\n\n"
                 "STORE is the store's base name: the path of its version file.\n"
                 "OPTIONS may also follow the command; every word after \"--\" is an\n"
                 "operand of the command (tagdb s set -- -k v stores the key -k).\n\n"
                 "commands:\n");
    for (Command const& c : kCommands)
        std::fprintf(to, "  %s\n", c.usage);
    std::fprintf(to,
                 "\noptions:\n"
                 "  --cache N        nodes kept in memory (default 256)\n"
                 "  --max-entries N  most entries of a node written by changes, 3 to 512\n"
                 "                   (default 512)\n"
                 "  --no-lock        dump and check read without taking the lock\n"
                 "  --help           this text; after a command, the command's help\n\n"
                 "exit codes: 0 done, 1 key not found, 2 usage, 3 store error (I/O, lock),\n"
                 "4 check found problems. SIGINT, SIGTERM and SIGHUP roll the command's\n"
                 "transaction back and remove its lock file before the tool ends.\n");
}

Command const* findCommand(std::string const& name) {
    for (Command const& c : kCommands) {
        if (name == c.name) return &c;
    }
    return nullptr;
}

bool number(char const* text, int low, int high, int& out) {
    char* end = nullptr;
    long v = std::strtol(text, &end, 10);
    if (!*text || *end || v < low || v > high) return false;
    out = static_cast<int>(v);
    return true;
}

}  // namespace

void fail(char const* fmt, ...) {
    std::fputs("tagdb: ", stderr);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
    std::fputc('\n', stderr);
}

// ---- Signals ----------------------------------------------------------------

namespace {

volatile sig_atomic_t caught = 0;

extern "C" void onSignal(int sig) {
    caught = sig;
}

// No SA_RESTART: a read or write blocked on a terminal or pipe returns at
// once (EINTR) and the command sees the flag. SA_RESETHAND: a second signal
// of the same kind ends the tool at once.
void installSignals() {
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESETHAND;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

unsigned lockWaitMs = 30000;

// The library's lock file, taken as it takes it (created exclusively, tried
// every 20 ms), but given up at once when the tool is interrupted and after
// Options::lockWaitMs.
class ToolFile : public TagdbLocalFile {
  public:
    static TagdbFile* newInstance() { return new (std::nothrow) ToolFile(); }
    Status lock(char const* name) override {
        std::string path = std::string(name) + "-lock";
        auto start = std::chrono::steady_clock::now();
        for (;;) {
            int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                ::close(fd);
                return Ok;
            }
            if (interrupted()) return Failed;
            auto waited = std::chrono::steady_clock::now() - start;
            if (waited >= std::chrono::milliseconds(lockWaitMs)) return LockTimeout;
            usleep(20000);  // a signal ends the sleep early
        }
    }
};

}  // namespace

int interrupted() {
    return caught;
}

void endBySignal() {
    int sig = caught;
    std::fflush(nullptr);
    std::signal(sig, SIG_DFL);
    std::raise(sig);
    std::_Exit(128 + sig);
}

// ---- Session ----------------------------------------------------------------

Session::Session(Options const& o, TagdbFile* (*fileFactory)())
    : o_(o), db_(o.cacheSize, o.maxEntries, fileFactory ? fileFactory : ToolFile::newInstance) {}

// The library waits out a lock it cannot create for 30 seconds, whatever
// the reason; a missing directory is told at once instead.
int Session::begin(Access access) {
    if (interrupted()) {
        fail("interrupted; the store is unchanged");
        return kStoreError;
    }
    lockWaitMs = o_.lockWaitMs;
    fs::path path(o_.store);
    fs::path dir = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        fail("%s: no such directory", dir.c_str());
        return kStoreError;
    }
    if (access != Change && !fs::exists(path, ec)) {
        fail("%s: no such store", o_.store.c_str());
        return kStoreError;
    }
    if (db_.open(o_.store.c_str(), TagdbStringKey::newInstance, TagdbBlobRecord::newInstance,
                 nullptr) != TagdbCommon::Ok) {
        fail("%s: cannot open the store", o_.store.c_str());
        return kStoreError;
    }
    bool locking = access != Read;
    std::string lockFile = o_.store + "-lock";
    if (locking && o_.lockWaitMs > 0 && fs::exists(lockFile, ec)) {
        fail("waiting for %s: another process holds the store, or one that died left the file",
             lockFile.c_str());
    }
    if (db_.start(locking ? TagdbCommon::Update : TagdbCommon::Deferred) != TagdbCommon::Ok) {
        if (interrupted()) {
            fail("%s: interrupted; the store is unchanged", o_.store.c_str());
            return kStoreError;
        }
        if (locking && fs::exists(lockFile, ec)) {
            fail(
                "%s: could not take the lock; if no process uses the store, "
                "'tagdb %s clean --stale-lock' removes %s",
                o_.store.c_str(), o_.store.c_str(), lockFile.c_str());
            return kStoreError;
        }
        fail("%s: cannot read the store (version file or node index missing or damaged)",
             o_.store.c_str());
        return kDamaged;
    }
    return kOk;
}

// ---- Arguments --------------------------------------------------------------

bool Args::has(char const* flag) const {
    for (std::string const& f : flags) {
        if (f == flag) return true;
    }
    return false;
}

std::string Args::value(char const* flag) const {
    for (size_t i = 0; i < flags.size(); ++i) {
        if (flags[i] == flag) return values[i];
    }
    return {};
}

bool parseArgs(Options const& o, std::vector<char const*> const& allowed, Args& a) {
    bool flagsEnded = false;
    for (size_t i = 0; i < o.args.size(); ++i) {
        std::string const& w = o.args[i];
        if (flagsEnded || w.size() < 2 || w[0] != '-') {
            a.operands.push_back(w);
            continue;
        }
        if (w == "--") {
            flagsEnded = true;
            continue;
        }
        char const* match = nullptr;
        for (char const* f : allowed) {
            std::string name(f);
            if (name == w || name == w + "=") match = f;
        }
        if (!match) {
            fail("%s: unknown flag %s (use -- before operands that begin with -)",
                 o.command.c_str(), w.c_str());
            return false;
        }
        bool takesValue = match[std::strlen(match) - 1] == '=';
        if (takesValue && i + 1 >= o.args.size()) {
            fail("%s: %s needs a value", o.command.c_str(), w.c_str());
            return false;
        }
        a.flags.push_back(w);
        a.values.push_back(takesValue ? o.args[++i] : std::string());
    }
    return true;
}

int usageOf(Options const& o) {
    Command const* c = findCommand(o.command);
    std::fprintf(stderr, "usage: tagdb [OPTIONS] STORE %s\n", c ? c->usage : o.command.c_str());
    return kUsage;
}

CommitOutcome commitOutcome(TagdbCommon::Status st) {
    if (st == TagdbCommon::Ok) return CommitOutcome::Committed;
    // The version file may already hold the new version, whose files the
    // rollback of an abort would remove.
    if (st == TagdbCommon::RollbackFailed) return CommitOutcome::Uncertain;
    return CommitOutcome::Unchanged;
}

bool Session::commit() {
    if (interrupted()) {
        abort();
        fail("%s: interrupted; the store is unchanged", o_.store.c_str());
        return false;
    }
    switch (commitOutcome(db_.commit())) {
        case CommitOutcome::Committed:
            return true;
        case CommitOutcome::Unchanged:
            fail("%s: the commit failed; the store is unchanged", o_.store.c_str());
            return false;
        case CommitOutcome::Uncertain:
            keepUncertain();
            fail(
                "%s: the commit failed and the version file could not be put back: the store "
                "holds the old or the new version (or, if its version file was damaged, cannot "
                "be read). Every file of both versions was kept. Run 'tagdb %s check', then "
                "'tagdb %s clean' to remove the files the current version does not use",
                o_.store.c_str(), o_.store.c_str(), o_.store.c_str());
            return false;
    }
    return false;
}

// The transaction is left as the library leaves it, open, and given up
// without the rollback that would remove its files; only the lock goes.
void Session::keepUncertain() {
    for (int i = 0; i < db_.getStoreCount(); ++i) {
        TagdbStore* s = db_.getStore(i);
        if (s->locked && s->file->unlock(s->name) == TagdbCommon::Ok) s->locked = 0;
    }
    db_.forgetTransaction();
}

void Session::abort() {
    if (db_.inTransaction()) db_.abort();
}

int outputFailed(Session& s, char const* command) {
    int error = errno;
    s.abort();
    if (interrupted())
        fail("%s: interrupted; the store is unchanged", command);
    else
        fail("%s: standard output: %s", command, std::strerror(error));
    return kStoreError;
}

// ---- Progress ---------------------------------------------------------------

namespace {
constexpr long long kProgressFrom = 20000;  // smaller jobs finish before anyone looks
constexpr long long kProgressStep = 5000;
}  // namespace

Progress::Progress(char const* what) : what_(what), terminal_(isatty(STDERR_FILENO)) {
    next_ = kProgressFrom;
}

Progress::~Progress() {
    if (shown_) std::fputc('\n', stderr);
}

void Progress::update(long long count) {
    if (!terminal_ || count < next_) return;
    std::fprintf(stderr, "\rtagdb: %s: %lld", what_, count);
    std::fflush(stderr);
    shown_ = true;
    next_ = count + kProgressStep;
}

// ---- Escaped text -----------------------------------------------------------

std::string escape(std::string_view bytes) {
    if (bytes.empty()) return "\"\"";
    std::string out;
    out.reserve(bytes.size());
    for (char ch : bytes) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c > 0x20 && c < 0x7f && c != '\\' && c != '"') {
            out += ch;
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

namespace {
int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

bool unescape(std::string_view text, std::string& bytes, bool allowNul) {
    bytes.clear();
    if (text == "\"\"") return true;
    if (text.empty()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            if (i + 3 >= text.size()) return false;
            if (text[i + 1] != 'x') return false;
            int hi = hexDigit(text[i + 2]), lo = hexDigit(text[i + 3]);
            if (hi < 0 || lo < 0) return false;
            char b = static_cast<char>(hi * 16 + lo);
            if (b == 0 && !allowNul) return false;
            bytes += b;
            i += 3;
        } else if (c > 0x20 && c < 0x7f && c != '"') {
            bytes += static_cast<char>(c);
        } else {
            return false;
        }
    }
    return true;
}

std::string_view bytesOf(TagdbRecord* rec) {
    void const* data = nullptr;
    int n = 0;
    qk::tagdb::blobData(rec, data, n);
    return data ? std::string_view(static_cast<char const*>(data), static_cast<size_t>(n))
                : std::string_view();
}

std::string_view keyOf(TagdbItr& it) {
    auto* key = dynamic_cast<TagdbStringKey*>(it.getKey());
    return key && key->getString() ? key->getString() : "";
}

// Options are taken before a "--" only; the words after it, and the "--"
// itself when it follows the command, go to the command as they are.
int run(int argc, char** argv) {
    installSignals();
    Options o;
    bool help = false;
    std::vector<std::string> words;
    size_t operandsFrom = std::string::npos;  // words before the "--"
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            operandsFrom = words.size();
            words.insert(words.end(), argv + i + 1, argv + argc);
            break;
        }
        if (a == "--help" || a == "-h") {
            help = true;
        } else if ((a == "--cache" || a == "--max-entries") && i + 1 < argc) {
            int& target = a == "--cache" ? o.cacheSize : o.maxEntries;
            bool ok = a == "--cache" ? number(argv[++i], 1, 1 << 20, target)
                                     : number(argv[++i], 3, 512, target);
            if (!ok) {
                fail("%s: bad value %s", a.c_str(), argv[i]);
                return kUsage;
            }
        } else if (a == "--no-lock") {
            o.lock = false;
        } else {
            words.push_back(a);
        }
    }
    if (help) {
        for (std::string const& w : words) {
            if (Command const* c = findCommand(w)) {
                std::printf("usage: tagdb [OPTIONS] STORE %s\n\n%s", c->usage, c->help);
                return kOk;
            }
        }
        usage(stdout);
        return kOk;
    }
    if (words.size() < 2) {
        usage(stderr);
        return kUsage;
    }
    o.store = words[0];
    o.command = words[1];
    o.args.assign(words.begin() + 2, words.end());
    if (operandsFrom != std::string::npos)
        o.args.insert(o.args.begin() + static_cast<long>(std::max<size_t>(operandsFrom, 2) - 2),
                      "--");
    Command const* c = findCommand(o.command);
    if (!c) {
        fail("unknown command '%s' (tagdb --help lists them)", o.command.c_str());
        return kUsage;
    }
    int code = c->run(o);
    if (interrupted()) endBySignal();
    return code;
}

}  // namespace tagdbtool
