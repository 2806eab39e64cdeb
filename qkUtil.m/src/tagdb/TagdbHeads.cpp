// Search heads: for each key of a node, the eight bytes after the prefix
// that all its keys share. Keys in a node are close neighbours in key order
// and share long prefixes, so their first bytes rarely tell them apart; the
// bytes after the shared prefix usually do. A binary search over the heads
// reads one array instead of following two pointers (key object, then its
// text) per step.
//
// Order: texts that share the prefix and differ within the next eight bytes
// differ first at a byte inside the heads, where a text that has ended reads
// as 0, below any byte of a longer text; that is strcmp's unsigned order.
#include "tagdb/TagdbHeads.h"

#include <cstring>
#include <typeinfo>

#include "TagdbKey.h"
#include "tagdb/TagdbNameKey.h"

static_assert(sizeof(TagdbSearchHeads{}.head) / sizeof(unsigned long long) == TagdbNode::kSlots);

namespace qk::tagdb {

namespace {

// The text of a key when it is exactly a TagdbStringKey, or the by-name
// forms' NameKey (the empty text for a null one); null for a key of any
// other class, whose order is its own.
char const* textOf(TagdbKey const* key) {
    if (!key) return nullptr;
    std::type_info const& type = typeid(*key);
    if (type != typeid(TagdbStringKey) && type != typeid(NameKey)) return nullptr;
    char const* s = static_cast<TagdbStringKey const*>(key)->getString();
    return s ? s : "";
}

// Up to eight bytes of text, big-endian, zero after the NUL; never reads past it.
unsigned long long headOf(char const* text) {
    unsigned long long h = 0;
    int k = 0;
    for (; k < 8 && text[k]; ++k)
        h = (h << 8) | static_cast<unsigned char>(text[k]);
    return k == 0 ? 0 : h << (8 * (8 - k));
}

bool hasPrefix(TagdbSearchHeads const& heads, char const* text) {
    return std::strncmp(text, reinterpret_cast<char const*>(heads.prefix),
                        static_cast<size_t>(heads.prefixLength)) == 0;
}

// Sets head i of n, or rebuilds all when key i does not share the prefix.
void setHead(TagdbNode* n, int i) {
    char const* text = textOf(n->keys[i]);
    if (!text) {
        n->heads.valid = 0;
    } else if (!hasPrefix(n->heads, text)) {
        rebuildHeads(n);  // a key below or above the others: a shorter prefix
    } else {
        n->heads.head[i] = headOf(text + n->heads.prefixLength);
    }
}

}  // namespace

void resetHeads(TagdbNode* n) {
    n->heads.valid = 1;
    n->heads.prefixLength = 0;
}

// Sorted keys share what the first and the last share.
void rebuildHeads(TagdbNode* n) {
    int keys = n->count - 1;
    resetHeads(n);
    if (keys < 1) return;
    for (int i = 0; i < keys; ++i) {
        if (!textOf(n->keys[i])) {
            n->heads.valid = 0;
            return;
        }
    }
    char const* first = textOf(n->keys[0]);
    char const* last = textOf(n->keys[keys - 1]);
    int shared = 0;
    while (shared < TagdbSearchHeads::kPrefixMax && first[shared] && first[shared] == last[shared])
        ++shared;
    std::memcpy(n->heads.prefix, first, static_cast<size_t>(shared));
    n->heads.prefixLength = shared;
    for (int i = 0; i < keys; ++i)
        n->heads.head[i] = headOf(textOf(n->keys[i]) + shared);
}

void headsInserted(TagdbNode* n, int i) {
    if (!n->heads.valid || i >= n->count - 1) return;
    int moved = n->count - 2 - i;  // heads of the keys that moved up
    if (moved > 0)
        std::memmove(&n->heads.head[i + 1], &n->heads.head[i],
                     static_cast<size_t>(moved) * sizeof n->heads.head[0]);
    // A node grown to 8, 16, 32, ... keys looks for a longer prefix: a node
    // filled from empty starts with none.
    int keys = n->count - 1;
    if (keys >= 8 && (keys & (keys - 1)) == 0) {
        rebuildHeads(n);
    } else {
        setHead(n, i);
    }
}

void headsRemoved(TagdbNode* n, int i) {
    if (!n->heads.valid) return;
    int moved = n->count - 1 - i;  // heads of the keys that moved down
    if (moved > 0)
        std::memmove(&n->heads.head[i], &n->heads.head[i + 1],
                     static_cast<size_t>(moved) * sizeof n->heads.head[0]);
}

void headsChanged(TagdbNode* n, int i) {
    if (n->heads.valid && i < n->count - 1) setHead(n, i);
}

HeadProbe probeHeads(TagdbNode const* n, TagdbKey& key) {
    if (!n->heads.valid) return {false, 0};
    char const* text = textOf(&key);
    if (!text || !hasPrefix(n->heads, text)) return {false, 0};
    return {true, headOf(text + n->heads.prefixLength)};
}

bool headsAgree(TagdbNode const* n) {
    if (!n->heads.valid) return true;
    for (int i = 0; i + 1 < n->count; ++i) {
        char const* text = textOf(n->keys[i]);
        if (!text || !hasPrefix(n->heads, text)) return false;
        if (n->heads.head[i] != headOf(text + n->heads.prefixLength)) return false;
    }
    return true;
}

}  // namespace qk::tagdb
