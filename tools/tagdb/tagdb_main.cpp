// tagdb: command line, help texts, the session around one store, and the
// small helpers the commands share.
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>

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
    {"get", cmdGet, "get [-z] KEY",
     "Writes the record stored under KEY to standard output, byte for byte.\n"
     "  -z  drop one NUL that ends the record (text stored by programs)\n"
     "Exit 1 when KEY has no record.\n"},
    {"set", cmdSet, "set [-z] KEY [VALUE | -f FILE]",
     "Stores a record under KEY: VALUE, the contents of FILE, or standard\n"
     "input when neither is given. One transaction.\n"
     "  -z  end the record with a NUL, as programs store text\n"},
    {"del", cmdDel, "del KEY",
     "Deletes KEY and its record. One transaction. Exit 1 when KEY was absent.\n"},
    {"scan", cmdScan, "scan [-v] [PREFIX]",
     "Lists the keys that begin with PREFIX (every key without one) in order,\n"
     "one a line, in the escaped form of dump.\n"
     "  -v  also the record: KEY, a space, VALUE\n"},
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
};

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: tagdb [OPTIONS] STORE COMMAND [ARGS]\n"
                 "       tagdb COMMAND --help\n\n"
                 "STORE is the store's base name: the path of its version file.\n\n"
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
                 "4 check found problems\n");
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

// ---- Session ----------------------------------------------------------------

Session::Session(Options const& o) : o_(o), db_(o.cacheSize, o.maxEntries) {}

// The library waits out a lock it cannot create for 30 seconds, whatever
// the reason; a missing directory is told at once instead.
int Session::begin(Access access) {
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
    if (locking && fs::exists(lockFile, ec)) {
        fail("waiting for %s: another process holds the store, or one that died left the file",
             lockFile.c_str());
    }
    if (db_.start(locking ? TagdbCommon::Update : TagdbCommon::Deferred) != TagdbCommon::Ok) {
        if (locking && fs::exists(lockFile, ec)) {
            fail(
                "%s: could not take the lock in 30 seconds; if no process uses the store, "
                "remove %s",
                o_.store.c_str(), lockFile.c_str());
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

bool Session::commit() {
    TagdbCommon::Status st = db_.commit();
    if (st == TagdbCommon::Ok) return true;
    fail("%s: the commit failed%s; the store is unchanged", o_.store.c_str(),
         st == TagdbCommon::RollbackFailed ? " and could not be rolled back" : "");
    if (st == TagdbCommon::RollbackFailed) db_.abort();
    return false;
}

void Session::abort() {
    if (db_.inTransaction()) db_.abort();
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

}  // namespace tagdbtool

using namespace tagdbtool;

int main(int argc, char** argv) {
    Options o;
    bool help = false;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
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
    Command const* c = findCommand(o.command);
    if (!c) {
        fail("unknown command '%s' (tagdb --help lists them)", o.command.c_str());
        return kUsage;
    }
    return c->run(o);
}
