// tagdb: the commands on single keys (get, set, del), listing (scan), and
// the store's figures and health (stat, check).
#include <climits>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

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
    while ((st = it.next(more)) == TagdbCommon::Ok && more) {
        std::string line = escape(keyOf(it));
        TagdbRecord* rec = nullptr;
        it.get(rec);
        if (a.has("-v")) line.append(" ").append(escape(bytesOf(rec)));
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stdout);
    }
    if (st != TagdbCommon::Ok) {
        fail("%s: a node of the store cannot be read", o.store.c_str());
        return kDamaged;
    }
    return std::fflush(stdout) == 0 ? kOk : kStoreError;
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

void showProgress(void* context, long long nodes) {
    static_cast<Progress*>(context)->update(nodes);
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
        Progress progress("check: nodes");
        st = qk::tagdb::checkTree(s.store(), 512, r, showProgress, &progress);
    }
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

}  // namespace tagdbtool
