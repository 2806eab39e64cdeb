// The tree check: a walk from the root that carries, for every subtree, the
// open interval its keys must fall in. An inner entry's key is the greatest
// key of its child's subtree, held there only implicitly by the last entry
// of the rightmost leaf below it; so every key written in the subtree lies
// strictly between the entry's left neighbour and the entry's own key.
#include "tagdb/TagdbCheck.h"

#include <cstdio>

#include "tagdb/TagdbHeads.h"

namespace qk::tagdb {

namespace {

constexpr int kMaxWalks = 10;  // walks a store that keeps moving on may take

std::string describe(TagdbKey* key) {
    auto* s = dynamic_cast<TagdbStringKey*>(key);
    if (!s || !s->getString()) return "<key>";
    std::string out = "\"";
    for (char const* p = s->getString(); *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out + "\"";
}

class Walker {
  public:
    Walker(TagdbStore* s, int maxEntries, TreeReport& r, void (*progress)(void*, long long),
           void* context)
        : store_(s),
          maxEntries_(maxEntries),
          report_(r),
          progress_(progress),
          context_(context),
          seen_(static_cast<size_t>(s->nodeCount), 0) {}

    void run() {
        TagdbNodeRef root;
        if (store_->loadNode(0, root) != TagdbCommon::Ok) {
            problem("node 0 (the root) cannot be loaded" + why());
            return;
        }
        report_.height = root.node->level;
        if (root.node->level > TagdbStore::kMaxHeight) {
            problem("the root's level " + std::to_string(root.node->level) + " is impossible");
            return;
        }
        walk(root, nullptr, nullptr);
        findUnreached();
    }

  private:
    void problem(std::string text) { report_.problems.push_back(std::move(text)); }

    // A reader without the lock may see the node table grow under it.
    char& seen(long long id) {
        if (static_cast<size_t>(id) >= seen_.size()) seen_.resize(static_cast<size_t>(id) + 1, 0);
        return seen_[static_cast<size_t>(id)];
    }

    std::string name(TagdbNode* n) { return "node " + std::to_string(n->id); }

    // Visits the node held by ref, whose written keys must lie in (low,
    // high); a null bound is open. A null high also means that the node is
    // on the rightmost path and its last entry is the end of the tree.
    void walk(TagdbNodeRef& ref, TagdbKey* low, TagdbKey* high) {
        TagdbNode* n = ref.node;
        seen(n->id) = 1;
        ++report_.nodes;
        if (progress_) progress_(context_, report_.nodes);
        checkEntries(n, low, high);
        if (n->isLeaf()) {
            countLeaf(n, high);
            return;
        }
        for (int i = 0; i < n->count; ++i) {
            long long id = n->values[i].id;
            if (id <= 0 || id >= store_->nodeCount) {
                problem(name(n) + " entry " + std::to_string(i) + " names no node (" +
                        std::to_string(id) + ")");
                continue;
            }
            if (seen(id)) {
                problem("node " + std::to_string(id) + " is reached twice");
                continue;
            }
            seen(id) = 1;  // reached: a node reported here is not reported again as unreached
            TagdbNodeRef child;
            if (store_->loadNode(id, child) != TagdbCommon::Ok) {
                problem("node " + std::to_string(id) + " cannot be loaded" + why());
                continue;
            }
            if (child.node->level != n->level - 1) {
                problem("node " + std::to_string(id) + " has level " +
                        std::to_string(child.node->level) + " below " + name(n) + " of level " +
                        std::to_string(n->level));
                continue;
            }
            walk(child, i > 0 ? n->keys[i - 1] : low, i < n->count - 1 ? n->keys[i] : high);
        }
    }

    void checkEntries(TagdbNode* n, TagdbKey* low, TagdbKey* high) {
        if (n->count < 1 || n->count > maxEntries_) {
            problem(name(n) + " holds " + std::to_string(n->count) + " entries (at most " +
                    std::to_string(maxEntries_) + ")");
        }
        if (n->count >= 1 && n->keys[n->count - 1]) problem(name(n) + ": its last entry has a key");
        TagdbKey* before = low;
        for (int i = 0; i + 1 < n->count; ++i) {
            TagdbKey* k = n->keys[i];
            if (!k) {
                problem(name(n) + " entry " + std::to_string(i) + " has no key");
                continue;
            }
            if (before && before->compare(k) >= 0) {
                problem(name(n) + ": key " + describe(k) + " is not above " + describe(before));
            }
            before = k;
        }
        if (!qk::tagdb::headsAgree(n)) problem(name(n) + ": its search heads are stale");
        if (before && high && before->compare(high) >= 0) {
            problem(name(n) + ": key " + describe(before) + " is not below its separator " +
                    describe(high));
        }
    }

    void countLeaf(TagdbNode* n, TagdbKey* high) {
        for (int i = 0; i + 1 < n->count; ++i) {
            ++report_.keys;
            if (n->values[i].record) ++report_.entries;
        }
        TagdbRecord* last = n->values[n->count - 1].record;
        if (high) {
            ++report_.keys;
            if (last) ++report_.entries;
        } else if (last) {
            problem(name(n) + ": the end of the tree holds a record");
        }
    }

    // Every id in use must hang in the tree, and every file must load.
    void findUnreached() {
        for (long long id = 0; id < store_->nodeCount; ++id) {
            if (store_->effectiveVersion(id) <= 0) continue;
            ++report_.liveIds;
            if (seen(id)) continue;
            if (id == 0) continue;  // already reported
            TagdbNodeRef ref;
            if (store_->loadNode(id, ref) != TagdbCommon::Ok) {
                problem("node " + std::to_string(id) + " cannot be loaded" + why() +
                        " (and is not reached)");
            } else {
                problem("node " + std::to_string(id) + " is in use but not reached from the root");
            }
        }
    }

    // Why the last load failed, when the store can tell.
    std::string why() const {
        return store_->lastRefusalWasDisorder() ? ": its keys are out of order" : "";
    }

    TagdbStore* store_;
    int maxEntries_;
    TreeReport& report_;
    void (*progress_)(void*, long long);
    void* context_;
    std::vector<char> seen_;
};

}  // namespace

TagdbCommon::Status checkTree(TagdbStore* store, int maxEntries, TreeReport& report,
                              void (*progress)(void*, long long), void* context) {
    report = TreeReport();
    if (!store) {
        report.problems.push_back("no store");
        return TagdbCommon::Failed;
    }
    // A reader without the lock may see the store move on to a newer
    // version during the walk; a walk over nodes of two versions proves
    // nothing, so it is made again.
    for (int attempt = 0;; ++attempt) {
        int reloads = store->reloadCount();
        Walker(store, maxEntries, report, progress, context).run();
        if (store->reloadCount() == reloads) break;
        report = TreeReport();
        if (attempt == kMaxWalks) {
            report.problems.push_back("the store kept changing during the check");
            break;
        }
    }
    return report.problems.empty() ? TagdbCommon::Ok : TagdbCommon::Failed;
}

}  // namespace qk::tagdb
