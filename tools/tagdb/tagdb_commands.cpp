// tagdb: the commands on single keys (get, set, del), listing (scan), the
// store's figures and health (stat, check) and its upkeep (clean).
#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "tagdb/TagdbCheck.h"
#include "tagdb_tool.h"

namespace fs = std::filesystem;

namespace tagdbtool {

namespace {

// The KEY operand: as given, or in the escaped form with -e.
bool keyOperand(Args const& a, size_t i, std::string& key) {
    if (!a.has("-e")) {
        key = a.operands[i];
        return true;
    }
    if (unescape(a.operands[i], key, false)) return true;
    fail("%s: not an escaped key", a.operands[i].c_str());
    return false;
}

bool readAll(std::istream& in, std::string& out) {
    out.assign(std::istreambuf_iterator<char>(in), {});
    return !in.bad();
}

}  // namespace

int cmdGet(Options const& o) {
    Args a;
    std::string key;
    if (!parseArgs(o, {"-z", "-e"}, a) || a.operands.size() != 1) return usageOf(o);
    if (!keyOperand(a, 0, key)) return kUsage;
    Session s(o);
    if (int e = s.begin(Session::Read)) return e;
    TagdbRecord* rec = nullptr;
    if (s.db().get(key.c_str(), rec) != TagdbCommon::Ok) {
        fail("%s: a node of the store cannot be read", o.store.c_str());
        return kDamaged;
    }
    if (!rec) {
        fail("%s: not found", escape(key).c_str());
        return kNotFound;
    }
    std::string_view bytes = bytesOf(rec);
    if (a.has("-z") && !bytes.empty() && bytes.back() == '\0') bytes.remove_suffix(1);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    return std::fflush(stdout) == 0 ? kOk : kStoreError;
}

int cmdSet(Options const& o) {
    Args a;
    std::string key, value;
    if (!parseArgs(o, {"-z", "-e", "-f="}, a)) return usageOf(o);
    bool fromFile = a.has("-f");
    size_t operands = a.operands.size();
    if (operands < 1 || operands > (fromFile ? 1u : 2u)) return usageOf(o);
    if (!keyOperand(a, 0, key)) return kUsage;
    if (fromFile) {
        std::ifstream in(a.value("-f"), std::ios::binary);
        if (!in || !readAll(in, value)) {
            fail("%s: cannot read", a.value("-f").c_str());
            return kUsage;
        }
    } else if (a.operands.size() == 2) {
        value = a.operands[1];
    } else if (!readAll(std::cin, value)) {
        fail("cannot read standard input");
        return kUsage;
    }
    if (a.has("-z")) value += '\0';
    if (value.size() > static_cast<size_t>(INT_MAX)) {
        fail("a record holds at most %d bytes", INT_MAX);
        return kUsage;
    }
    Session s(o);
    if (int e = s.begin(Session::Change)) return e;
    if (s.db().set(key.c_str(), value.data(), static_cast<int>(value.size())) != TagdbCommon::Ok) {
        s.abort();
        fail("%s: the record could not be stored; the store is unchanged", o.store.c_str());
        return kStoreError;
    }
    return s.commit() ? kOk : kStoreError;
}

int cmdDel(Options const& o) {
    Args a;
    std::string key;
    if (!parseArgs(o, {"-e"}, a) || a.operands.size() != 1) return usageOf(o);
    if (!keyOperand(a, 0, key)) return kUsage;
    Session s(o);
    if (int e = s.begin(Session::Change)) return e;
    TagdbRecord* rec = nullptr;
    if (s.db().get(key.c_str(), rec) != TagdbCommon::Ok) {
        s.abort();
        fail("%s: a node of the store cannot be read", o.store.c_str());
        return kDamaged;
    }
    if (!rec) {
        s.abort();
        fail("%s: not found", escape(key).c_str());
        return kNotFound;
    }
    if (s.db().set(key.c_str(), static_cast<TagdbRecord*>(nullptr)) != TagdbCommon::Ok) {
        s.abort();
        fail("%s: the key could not be deleted; the store is unchanged", o.store.c_str());
        return kStoreError;
    }
    return s.commit() ? kOk : kStoreError;
}

int cmdScan(Options const& o) {
    Args a;
    std::string prefix;
    if (!parseArgs(o, {"-v", "-e"}, a) || a.operands.size() > 1) return usageOf(o);
    if (a.operands.size() == 1 && !keyOperand(a, 0, prefix)) return kUsage;
    Session s(o);
    if (int e = s.begin(Session::Read)) return e;
    TagdbItr it(&s.db(), prefix.c_str());
    int more = 0;
    TagdbCommon::Status st;
    while (!interrupted() && !std::ferror(stdout) && (st = it.next(more)) == TagdbCommon::Ok &&
           more) {
        std::string line = escape(keyOf(it));
        TagdbRecord* rec = nullptr;
        it.get(rec);
        if (a.has("-v")) line.append(" ").append(escape(bytesOf(rec)));
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stdout);
    }
    if (interrupted() || std::ferror(stdout) || std::fflush(stdout) != 0)
        return outputFailed(s, "scan");
    if (st != TagdbCommon::Ok) {
        fail("%s: a node of the store cannot be read", o.store.c_str());
        return kDamaged;
    }
    return kOk;
}

namespace {

// Bytes of the files the current version uses: the version file, the node
// index and one file per node in use.
long long bytesOnDisk(TagdbStore* s) {
    std::error_code ec;
    auto size = [&](char const* path) {
        auto n = fs::file_size(path, ec);
        return ec ? 0LL : static_cast<long long>(n);
    };
    long long total = size(s->versionPath());
    if (s->version > 1) total += size(s->indexPath(s->version));
    for (long long id = 0; id < s->nodeCount; ++id) {
        int v = s->committedVersions[id];
        if (v > 0 && !(s->version == 1 && id == 0)) total += size(s->nodePath(id, v));
    }
    return total;
}

struct CheckRun {
    Session& session;
    Progress progress;
};

// The walk cannot be stopped from here, so an interrupted check lets go of
// the lock and ends at once.
void showProgress(void* context, long long nodes) {
    auto* run = static_cast<CheckRun*>(context);
    if (interrupted()) {
        run->session.abort();
        fail("check: interrupted");
        endBySignal();
    }
    run->progress.update(nodes);
}

}  // namespace

int cmdStat(Options const& o) {
    Args a;
    if (!parseArgs(o, {}, a) || !a.operands.empty()) return usageOf(o);
    Session s(o);
    if (int e = s.begin(Session::Read)) return e;
    qk::tagdb::TreeReport r;
    TagdbCommon::Status st = qk::tagdb::checkTree(s.store(), 512, r);
    std::printf(
        "store    %s\nversion  %d\nnodes    %lld\nheight   %d\nentries  %lld\nbytes    %lld\n",
        o.store.c_str(), s.store()->version, r.liveIds, r.height, r.entries,
        bytesOnDisk(s.store()));
    if (st != TagdbCommon::Ok) {
        fail("%s: the tree has problems; tagdb check lists them", o.store.c_str());
        return kDamaged;
    }
    return kOk;
}

int cmdCheck(Options const& o) {
    Args a;
    if (!parseArgs(o, {}, a) || !a.operands.empty()) return usageOf(o);
    Session s(o);
    if (int e = s.begin(o.lock ? Session::LockedRead : Session::Read)) return e;
    qk::tagdb::TreeReport r;
    TagdbCommon::Status st;
    {
        CheckRun run{s, Progress("check: nodes")};
        st = qk::tagdb::checkTree(s.store(), 512, r, showProgress, &run);
    }
    if (interrupted()) return outputFailed(s, "check");
    for (std::string const& p : r.problems)
        std::printf("%s\n", p.c_str());
    if (st != TagdbCommon::Ok) {
        std::printf("%s: %zu problem%s\n", o.store.c_str(), r.problems.size(),
                    r.problems.size() == 1 ? "" : "s");
        return kDamaged;
    }
    std::printf("%s: ok, version %d, %lld nodes, height %d, %lld entries\n", o.store.c_str(),
                s.store()->version, r.nodes, r.height, r.entries);
    return kOk;
}

namespace {

bool allDigits(std::string_view s) {
    return !s.empty() && s.find_first_not_of("0123456789") == std::string_view::npos;
}

// Whether a file name in the store's directory has the form of one of the
// store's node indexes (BASE-x-V) or node files (BASE-ID-V).
bool storeFileName(std::string_view name, std::string_view base) {
    if (name.size() <= base.size() + 1 || name.substr(0, base.size()) != base ||
        name[base.size()] != '-')
        return false;
    std::string_view rest = name.substr(base.size() + 1);
    size_t dash = rest.find('-');
    if (dash == std::string_view::npos) return false;
    std::string_view first = rest.substr(0, dash), second = rest.substr(dash + 1);
    return (first == "x" || allDigits(first)) && allDigits(second);
}

}  // namespace

// Every node index and node file of the store that the published version
// does not name is a leftover: of a transaction that was killed before it
// could roll back, or of a commit whose clean-up did not finish. Holding
// the lock, no writer of this store is running meanwhile.
int cmdClean(Options const& o) {
    Args a;
    if (!parseArgs(o, {"--stale-lock"}, a) || !a.operands.empty()) return usageOf(o);
    std::string lockFile = o.store + "-lock";
    std::error_code ec;
    if (fs::exists(fs::symlink_status(lockFile, ec))) {
        if (!a.has("--stale-lock")) {
            fail(
                "%s: %s exists: a process is changing the store, or one that died left it; "
                "nothing was removed. When no process uses the store, clean --stale-lock "
                "removes the lock file too",
                o.store.c_str(), lockFile.c_str());
            return kStoreError;
        }
        if (!fs::remove(lockFile, ec)) {
            fail("%s: cannot remove: %s", lockFile.c_str(), ec.message().c_str());
            return kStoreError;
        }
        std::printf("removed %s (stale lock)\n", lockFile.c_str());
    }
    Options locked = o;
    locked.lock = true;
    locked.lockWaitMs = 0;  // a writer that started meanwhile is not waited for
    Session s(locked);
    if (int e = s.begin(Session::LockedRead)) return e;
    TagdbStore* st = s.store();
    fs::path store(o.store);
    std::string base = store.filename().string();
    fs::path dir = store.has_parent_path() ? store.parent_path() : fs::path(".");
    std::set<std::string> published;
    if (st->version > 1) {  // an empty store (version 1) has no index and no node file
        published.insert(fs::path(st->indexPath(st->version)).filename().string());
        for (long long id = 0; id < st->nodeCount; ++id) {
            int v = st->committedVersions[id];
            if (v > 0) published.insert(fs::path(st->nodePath(id, v)).filename().string());
        }
    }
    std::vector<fs::path> leftovers;  // named as the store is: with its directory if it has one
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (storeFileName(name, base) && !published.count(name) && it->is_regular_file(ec))
            leftovers.push_back(store.has_parent_path() ? store.parent_path() / name
                                                        : fs::path(name));
    }
    if (ec) {
        s.abort();
        fail("%s: cannot list: %s", dir.c_str(), ec.message().c_str());
        return kStoreError;
    }
    std::sort(leftovers.begin(), leftovers.end());
    int removed = 0, failed = 0;
    for (fs::path const& p : leftovers) {
        if (fs::remove(p, ec)) {
            std::printf("removed %s\n", p.c_str());
            ++removed;
        } else {
            fail("%s: cannot remove: %s", p.c_str(), ec.message().c_str());
            ++failed;
        }
    }
    s.abort();  // nothing was changed: this only lets go of the lock
    std::printf("%s: %d leftover file%s removed\n", o.store.c_str(), removed,
                removed == 1 ? "" : "s");
    if (std::fflush(stdout) != 0) return kStoreError;
    return failed ? kStoreError : kOk;
}

}  // namespace tagdbtool
