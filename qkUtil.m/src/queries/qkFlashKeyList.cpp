// FlashKeyList: texts separated by the byte 0x02 in one key.
#include <cstring>

#include "qkFlashKey.h"

void FlashKeyList::append(char const* s) {
    int pos = static_cast<int>(std::strlen(*this));
    if (pos == 0) {
        // The first entry: no separator, and the list is not emptied again
        // (an outside buffer it holds is kept).
        if (s) appendBytes(pos, s, std::strlen(s));
        return;
    }
    append(pos, s);
}

unsigned char FlashKeyList::next(int& pos, FlashKey& out) {
    char const* entry = static_cast<char const*>(*this) + pos;
    if (*entry == 0) return 0;
    char const* separator = std::strchr(entry, kListTag);
    size_t length = separator ? size_t(separator - entry) : std::strlen(entry);
    // set copies before it lets go of out's storage, so out may be this list.
    pos += int(length) + (separator ? 1 : 0);
    out.set(entry, length);
    return 1;
}
