// TagdbStringKey and TagdbBlobRecord: the string keys and byte-run records
// that the library provides, each one qkMalloc block disposed of by release().
#include <cstring>
#include <new>

#include "TagdbFile.h"
#include "TagdbKey.h"
#include "qkMemory.h"

// ---- TagdbStringKey -------------------------------------------------------

TagdbStringKey::TagdbStringKey(char const* s) : string(s), length(-1), ownsData(0) {}

// The object in a qkMalloc block with `extra` bytes behind it.
TagdbStringKey* TagdbStringKey::allocate(size_t extra) {
    void* block = qkMalloc(sizeof(TagdbStringKey) + extra, __FILE__, __LINE__);
    return block ? new (block) TagdbStringKey(nullptr) : nullptr;
}

TagdbStringKey* TagdbStringKey::newInstance(char const* s) {
    size_t n = s ? std::strlen(s) : 0;
    TagdbStringKey* key = allocate(s ? n + 1 : 0);
    if (!key || !s) return key;
    char* text = reinterpret_cast<char*>(key + 1);
    std::memcpy(text, s, n + 1);
    key->string = text;
    key->length = static_cast<int>(n);
    return key;
}

TagdbCommon::Status TagdbStringKey::newInstance(TagdbKey*& key, TagdbFile* file, void*) {
    key = nullptr;
    if (!file) {
        key = allocate(0);
        return key ? Ok : Failed;
    }
    char const* text = nullptr;
    if (file->readString(text) != Ok) {
        qkFree(const_cast<char*>(text), __FILE__, __LINE__);
        return Failed;
    }
    if (!text) return Ok;  // the stored empty key
    TagdbStringKey* k = allocate(0);
    if (!k) {
        qkFree(const_cast<char*>(text), __FILE__, __LINE__);
        return Failed;
    }
    k->string = text;
    k->ownsData = 1;
    key = k;
    return Ok;
}

TagdbKey* TagdbStringKey::copy() {
    return newInstance(string);
}

int TagdbStringKey::compare(TagdbKey* other) {
    // A null text (the empty key) reads as the empty text rather than
    // faulting; the tree never compares it, but a caller might.
    char const* theirs = static_cast<TagdbStringKey*>(other)->string;
    // strcmp compares as unsigned char, and the C library's is vectorised:
    // keys in a store tend to share long prefixes, which it skips fast.
    int c = std::strcmp(string ? string : "", theirs ? theirs : "");
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

int TagdbStringKey::match(TagdbKey* other) {
    if (length < 0) length = string ? static_cast<int>(std::strlen(string)) : 0;
    if (length == 0) return 1;
    char const* text = static_cast<TagdbStringKey*>(other)->string;
    return text && std::strncmp(string, text, static_cast<size_t>(length)) == 0 ? 1 : 0;
}

TagdbCommon::Status TagdbStringKey::write(TagdbFile* file) {
    return file->writeString(string);
}

void TagdbStringKey::release() {
    if (ownsData) qkFree(const_cast<char*>(string), __FILE__, __LINE__);
    this->~TagdbStringKey();
    qkFree(this, __FILE__, __LINE__);
}

// ---- TagdbBlobRecord ------------------------------------------------------

TagdbBlobRecord::TagdbBlobRecord(void const* p, int n) : data(p), length(n), ownsData(0) {}

TagdbBlobRecord* TagdbBlobRecord::allocate(size_t extra) {
    void* block = qkMalloc(sizeof(TagdbBlobRecord) + extra, __FILE__, __LINE__);
    return block ? new (block) TagdbBlobRecord(nullptr, 0) : nullptr;
}

TagdbBlobRecord* TagdbBlobRecord::newInstance(void const* p, int n) {
    if (n < 0) n = 0;
    TagdbBlobRecord* rec = allocate(p ? static_cast<size_t>(n) : 0);
    if (!rec || !p) return rec;
    void* bytes = rec + 1;
    std::memcpy(bytes, p, static_cast<size_t>(n));
    rec->data = bytes;
    rec->length = n;
    return rec;
}

TagdbCommon::Status TagdbBlobRecord::newInstance(TagdbRecord*& rec, TagdbFile* file, void*) {
    rec = nullptr;
    if (!file) {
        rec = allocate(0);
        return rec ? Ok : Failed;
    }
    void const* bytes = nullptr;
    int n = 0;
    if (file->readBytes(bytes, n) != Ok) {
        qkFree(const_cast<void*>(bytes), __FILE__, __LINE__);
        return Failed;
    }
    if (!bytes) return Ok;  // the stored empty record
    TagdbBlobRecord* r = allocate(0);
    if (!r) {
        qkFree(const_cast<void*>(bytes), __FILE__, __LINE__);
        return Failed;
    }
    r->data = bytes;
    r->length = n;
    r->ownsData = 1;
    rec = r;
    return Ok;
}

TagdbCommon::Status TagdbBlobRecord::write(TagdbFile* file) {
    return file->writeBytes(data, length);
}

void TagdbBlobRecord::release() {
    if (ownsData) qkFree(const_cast<void*>(data), __FILE__, __LINE__);
    this->~TagdbBlobRecord();
    qkFree(this, __FILE__, __LINE__);
}
