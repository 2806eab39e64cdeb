// tagdb: dump and load, the portable text form of a whole store.
//
//   tagdb-dump 1
//   KEY VALUE        (escaped, one entry a line, in key order)
//   end COUNT
//
// The closing count lets load tell a complete dump from one cut short.
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>

#include "tagdb_tool.h"

namespace tagdbtool {

namespace {

constexpr char kHeader[] = "tagdb-dump 1";

}  // namespace

int cmdDump(Options const& o) {
    Args a;
    if (!parseArgs(o, {}, a) || !a.operands.empty()) return usageOf(o);
    Session s(o);
    if (int e = s.begin(o.lock ? Session::LockedRead : Session::Read)) return e;
    std::printf("%s\n", kHeader);
    long long count = 0;
    TagdbCommon::Status st = TagdbCommon::Ok;
    {
        Progress progress("dump: entries");
        TagdbItr it(&s.db(), "");
        int more = 0;
        // A write blocked on a full pipe returns on a signal; one to a
        // closed pipe fails (EPIPE): either ends the loop.
        while (!interrupted() && !std::ferror(stdout) && (st = it.next(more)) == TagdbCommon::Ok &&
               more) {
            TagdbRecord* rec = nullptr;
            it.get(rec);
            std::string line = escape(keyOf(it)) + " " + escape(bytesOf(rec)) + "\n";
            std::fwrite(line.data(), 1, line.size(), stdout);
            progress.update(++count);
        }
    }
    // No closing line in any of these cases: load refuses what was written.
    if (interrupted() || std::ferror(stdout)) return outputFailed(s, "dump");
    if (st != TagdbCommon::Ok) {
        fail("%s: a node of the store cannot be read; the dump is incomplete", o.store.c_str());
        return kDamaged;
    }
    std::printf("end %lld\n", count);
    if (std::fflush(stdout) != 0) return outputFailed(s, "dump");
    return kOk;
}

namespace {

// Deletes every key of the store, through one iterator.
bool clearStore(Tagdb& db) {
    TagdbItr it(&db, "");
    int more = 0;
    TagdbCommon::Status st;
    while ((st = it.next(more)) == TagdbCommon::Ok && more) {
        if (it.set(static_cast<TagdbRecord*>(nullptr)) != TagdbCommon::Ok) return false;
    }
    return st == TagdbCommon::Ok;
}

// Parses one entry line into key and value.
bool parseEntry(std::string const& line, std::string& key, std::string& value) {
    size_t space = line.find(' ');
    if (space == std::string::npos || line.find(' ', space + 1) != std::string::npos) return false;
    return unescape(std::string_view(line).substr(0, space), key, false) &&
           unescape(std::string_view(line).substr(space + 1), value, true) &&
           value.size() <= static_cast<size_t>(INT_MAX);
}

// Reads the dump and stores its entries; false (with a message) on the
// first problem.
bool loadEntries(std::istream& in, char const* source, Tagdb& db) {
    std::string line, key, value;
    long long lineNo = 1, count = 0;
    if (!std::getline(in, line) || line != kHeader) {
        fail("%s: not a tagdb dump (no '%s' line)", source, kHeader);
        return false;
    }
    Progress progress("load: entries");
    while (!interrupted() && std::getline(in, line)) {
        ++lineNo;
        if (line.compare(0, 4, "end ") == 0) {
            if (line != "end " + std::to_string(count) || std::getline(in, line)) {
                fail("%s:%lld: the dump holds %lld entries, not what its last line says", source,
                     lineNo, count);
                return false;
            }
            return true;
        }
        if (!parseEntry(line, key, value)) {
            fail("%s:%lld: not an entry (KEY VALUE in escaped form)", source, lineNo);
            return false;
        }
        if (db.set(key.c_str(), value.data(), static_cast<int>(value.size())) != TagdbCommon::Ok) {
            fail("%s:%lld: the entry could not be stored", source, lineNo);
            return false;
        }
        progress.update(++count);
    }
    // A read blocked on a terminal or pipe returns on a signal.
    if (!interrupted()) fail("%s: the dump is cut short (no 'end' line)", source);
    return false;
}

}  // namespace

int cmdLoad(Options const& o) {
    Args a;
    if (!parseArgs(o, {"--replace"}, a) || a.operands.size() > 1) return usageOf(o);
    std::ifstream file;
    if (!a.operands.empty()) {
        file.open(a.operands[0], std::ios::binary);
        if (!file) {
            fail("%s: cannot read", a.operands[0].c_str());
            return kUsage;
        }
    }
    std::istream& in = a.operands.empty() ? std::cin : file;
    char const* source = a.operands.empty() ? "standard input" : a.operands[0].c_str();
    Session s(o);
    if (int e = s.begin(Session::Change)) return e;
    if (a.has("--replace") && !clearStore(s.db())) {
        s.abort();
        fail("%s: the store could not be cleared; it is unchanged", o.store.c_str());
        return kDamaged;
    }
    if (!loadEntries(in, source, s.db())) {
        s.abort();
        fail("%snothing was loaded; the store is unchanged", interrupted() ? "interrupted; " : "");
        return interrupted() ? kStoreError : kUsage;
    }
    return s.commit() ? kOk : kStoreError;
}

}  // namespace tagdbtool
