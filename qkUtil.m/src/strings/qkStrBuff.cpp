// qkStrBuff: pieces collected in one growing buffer.
#include "qkStrBuff.h"

#include <cstring>

#include "qkMemory.h"

qkStrBuff::~qkStrBuff() {
    qkFree(text, __FILE__, __LINE__);
}

// Room for a piece of n bytes, a line feed and the terminator, and as much
// again for what follows; the old buffer stays when no block can be had.
size_t qkStrBuff::resize(size_t n) {
    size_t want = used + 2 * n;
    if (want < used + n + 2) want = used + n + 2;
    void* grown =
        text ? qkRealloc(text, want, __FILE__, __LINE__) : qkMalloc(want, __FILE__, __LINE__);
    if (!grown) return capacity;
    text = static_cast<char*>(grown);
    capacity = want;
    return capacity;
}

void qkStrBuff::add(char const* s, size_t n) {
    std::memcpy(text + used, s, n);
    used += n;
    if (!raw && (used == 0 || text[used - 1] != '\n')) text[used++] = '\n';
    text[used] = 0;
    room = capacity - used;
}

qkStrBuff& qkStrBuff::operator+=(char const* s) {
    if (!s) return *this;
    size_t n = std::strlen(s);
    if (room <= n + 1) resize(n);
    // A piece, its line feed and the terminator must fit.
    if (capacity >= used + n + 2) add(s, n);
    return *this;
}

char* qkStrBuff::getBuffer(int n) {
    resize(n > 0 ? size_t(n) : 0);
    return capacity ? text : nullptr;
}
