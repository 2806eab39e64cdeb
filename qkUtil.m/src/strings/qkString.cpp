// qkString: the representation's life cycle (init, update, resize, release),
// construction, assignment and the reading operations.
#include <cstdio>
#include <cstdlib>

#include "strings/qkStringInternal.h"

using namespace qk::str;

void qk::str::fatal(char const* what, size_t bytes) {
    std::printf("qkString: %s (%zu bytes)\n", what, bytes);
    std::fflush(stdout);
    std::abort();
}

// ---- representation -------------------------------------------------------

void qkString::init() {
    if (sp) return;
    static_.reqLen = 0;
    static_.allocLen = sizeof static_.buf;
    static_.refCount = 0;
    static_.thread = nullptr;
    static_.buf[0] = 0;
    sp = &static_;
}

void qkString::release() {
    if (!sp) return;
    if (onHeap()) {
        if (sp->refCount > 1)
            sp->refCount -= 1;
        else
            qkFree(sp, QK_STRING_FREE_TAG, __LINE__);
    }
    sp = nullptr;
}

void qkString::update(unsigned char keep) {
    if (!sp) {
        init();
    } else if (onHeap() && sp->refCount > 1) {
        // The other sharers keep the shared block alive while we copy from it.
        qkStringRef const* shared = sp;
        release();
        if (keep) {
            unsigned n = textLength(shared);
            resize(n, 0);
            std::memcpy(sp->buf, shared->buf, n);  // resize wrote the terminator
        } else {
            init();
        }
    }
    sp->reqLen = -1;
}

int qkString::resize(unsigned int len, unsigned char keep) {
    update(keep);
    if (len >= static_cast<unsigned>(sp->allocLen)) grow(len);
    // A heap block's text runs past the declared 32 bytes of buf; address it
    // from the block so the compiler does not take buf's size for the limit.
    (reinterpret_cast<char*>(sp) + kHeader)[len] = 0;
    return 1;
}

// Gives this string (whose text is already private) a heap block of exactly
// len + 32 bytes of text.
void qkString::grow(unsigned int len) {
    if (len > kMaxText) fatal("text too long", len);
    size_t bytes = kHeader + len + kSlack;
    qkStringRef* r;
    if (onHeap()) {
        r = static_cast<qkStringRef*>(qkRealloc(sp, bytes, QK_STRING_ALLOC_TAG, __LINE__));
        if (!r) fatal("out of memory", bytes);
    } else {
        r = static_cast<qkStringRef*>(qkMalloc(bytes, QK_STRING_ALLOC_TAG, __LINE__));
        if (!r) fatal("out of memory", bytes);
        std::memcpy(r->buf, static_.buf, sizeof static_.buf);
        r->refCount = 1;
    }
    r->thread = currentThread();
    r->allocLen = static_cast<int>(len + kSlack);
    r->reqLen = -1;
    sp = r;
}

// ---- construction and assignment -------------------------------------------

qkString::qkString(char const* s) : sp(nullptr) {
    if (s) *this = s;
}

qkString::qkString(qkString const& o) : sp(nullptr) {
    *this = o;
}

qkString& qkString::operator=(qkString const& o) {
    if (&o == this) return *this;
    // Only a heap text made by this thread is shared; its count is then only
    // ever touched by this thread. o's representation is judged by address,
    // not by its count, which its own thread may be changing.
    if (o.onHeap() && o.sp->thread == currentThread()) {
        qkStringRef* r = o.sp;
        r->refCount += 1;  // before release(): this may already share r
        release();
        sp = r;
        return *this;
    }
    if (!o.sp) {
        resize(0, 0);
        sp->reqLen = 0;
        return *this;
    }
    assignBytes(o.sp->buf, textLength(o.sp));
    return *this;
}

// Replaces the text by the n bytes at text, which lie outside this string's
// text. Short texts go straight into a null or private string, which is what
// resize(n, 0) followed by the copy comes to in those cases.
void qkString::assignBytes(char const* text, unsigned n) {
    if (!sp && n < sizeof static_.buf) {
        init();
    } else if (!isPrivate() || n >= static_cast<unsigned>(sp->allocLen)) {
        resize(n, 0);
    }
    std::memcpy(sp->buf, text, n);
    sp->text()[n] = 0;
    sp->reqLen = static_cast<int>(n);
}

qkString& qkString::operator=(char const* s) {
    if (!s) {
        release();
        return *this;
    }
    unsigned n = checkedLength(s);
    // s may lie inside this string's own text. A private text is long enough
    // already and is moved down in place (resize would cut the source); a
    // shared one stays alive with its other sharers while this string gets a
    // text of its own.
    bool inside = onHeap() ? s >= sp->buf && s < sp->text() + sp->allocLen
                           : sp && s >= static_.buf && s < static_.buf + sizeof static_.buf;
    if (inside && isPrivate()) {
        std::memmove(sp->buf, s, n + 1);
        sp->reqLen = static_cast<int>(n);
    } else {
        assignBytes(s, static_cast<unsigned>(n));
    }
    return *this;
}

// ---- reading ----------------------------------------------------------------

unsigned int qkString::length() const {
    return sp ? textLength(sp) : 0;
}

char const* qkString::constText() const {
    if (!sp) const_cast<qkString*>(this)->init();
    return sp->buf;
}

unsigned char qkString::hasWild() const {
    unsigned n = length();
    char const* t = sanitize();
    for (unsigned i = 0; i < n; ++i)
        if (t[i] == '*' || t[i] == '?') return 1;
    return 0;
}

// ---- writable access --------------------------------------------------------

char* qkString::head() const {
    if (!sp) return nullptr;
    const_cast<qkString*>(this)->update(1);
    return sp->buf;
}

char& qkString::operator[](int i) {
    update(1);
    return sp->text()[i];
}

char& qkString::operator[](unsigned int i) {
    update(1);
    return sp->text()[i];
}
