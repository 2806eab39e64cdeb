// TagdbFile: the 512-byte buffer and the typed reads and writes on top of the
// abstract primitives. Every typed operation is one or two buffered
// transfers: the number or length word (reversed when swapBytes is set),
// then the raw bytes that follow it (never reversed).
#include <climits>
#include <cstring>

#include "TagdbFile.h"
#include "qkMemory.h"

namespace {

// Byte runs above this size are read in growing pieces, so that a corrupt
// length word costs no more memory than the file really holds.
constexpr size_t kEagerAllocation = 64 * 1024;

void reverse(unsigned char* p, int n) {
    for (int i = 0, j = n - 1; i < j; ++i, --j) {
        unsigned char t = p[i];
        p[i] = p[j];
        p[j] = t;
    }
}

}  // namespace

TagdbFile::TagdbFile() : position(0), limit(0), mode(ReadMode), swapBytes(False), buffer{} {}

TagdbCommon::Status TagdbFile::init(FileMode m) {
    mode = m == ReadMode ? ReadMode : WriteMode;  // a created file is written like any other
    swapBytes = False;
    limit = mode == WriteMode ? kBufferSize : 0;
    position = 0;
    return Ok;
}

TagdbCommon::Status TagdbFile::bufferedRead(void* dst, int n, Boolean swap) {
    if (n <= 0) return Ok;
    unsigned char* out = static_cast<unsigned char*>(dst);
    int done = 0;
    while (done < n) {
        if (position >= limit) {
            if (read(buffer, kBufferSize, limit) != Ok) return Failed;
            position = 0;
            if (limit < 1) return Failed;                  // end of file inside a value
            if (limit > kBufferSize) limit = kBufferSize;  // a misbehaving read()
        }
        int piece = limit - position;
        if (piece > n - done) piece = n - done;
        std::memcpy(out + done, buffer + position, static_cast<size_t>(piece));
        position += piece;
        done += piece;
    }
    if (swap && n >= 2) reverse(out, n);
    return Ok;
}

TagdbCommon::Status TagdbFile::bufferedWrite(void const* src, int n, Boolean swap) {
    unsigned char scratch[8];
    if (swap && n > 0) {
        if (n > 8) return Failed;  // only numbers are reversed
        std::memcpy(scratch, src, static_cast<size_t>(n));
        reverse(scratch, n);
        src = scratch;
    }
    if (n <= 0) return Ok;
    if (mode != WriteMode) return Failed;  // the buffer holds bytes read
    unsigned char const* in = static_cast<unsigned char const*>(src);
    int done = 0;
    while (done < n) {
        // A full buffer goes out only when more bytes must go in, so one
        // filled to exactly 512 bytes waits for flush or close.
        if (position >= limit && mode == WriteMode && position >= 1) {
            if (write(buffer, position) != Ok) return Failed;
            position = 0;
        }
        int piece = limit - position;
        if (piece <= 0 || limit > kBufferSize) return Failed;  // a buffer state gone wrong
        if (piece > n - done) piece = n - done;
        std::memcpy(buffer + position, in + done, static_cast<size_t>(piece));
        position += piece;
        done += piece;
    }
    return Ok;
}

TagdbCommon::Status TagdbFile::flush() {
    if (mode != WriteMode || position < 1) return Ok;
    if (write(buffer, position) != Ok) return Failed;
    position = 0;
    return Ok;
}

TagdbCommon::Status TagdbFile::readByte(unsigned char& v) {
    return bufferedRead(&v, 1, False);
}
TagdbCommon::Status TagdbFile::writeByte(unsigned char v) {
    return bufferedWrite(&v, 1, False);
}
TagdbCommon::Status TagdbFile::readShort(short& v) {
    return bufferedRead(&v, 2, swapBytes);
}
TagdbCommon::Status TagdbFile::writeShort(short v) {
    return bufferedWrite(&v, 2, swapBytes);
}
TagdbCommon::Status TagdbFile::readInteger(int& v) {
    return bufferedRead(&v, 4, swapBytes);
}
TagdbCommon::Status TagdbFile::writeInteger(int v) {
    return bufferedWrite(&v, 4, swapBytes);
}
TagdbCommon::Status TagdbFile::readDouble(double& v) {
    return bufferedRead(&v, 8, swapBytes);
}
TagdbCommon::Status TagdbFile::writeDouble(double v) {
    return bufferedWrite(&v, 8, swapBytes);
}
TagdbCommon::Status TagdbFile::readTagDbId(long long& v) {
    return bufferedRead(&v, 8, swapBytes);
}
TagdbCommon::Status TagdbFile::writeTagDbId(long long v) {
    return bufferedWrite(&v, 8, swapBytes);
}

TagdbCommon::Status TagdbFile::writeString(char const* s) {
    if (!s) return writeInteger(-1);
    size_t length = std::strlen(s) + 1;
    if (length > INT_MAX) return Failed;
    int stored = static_cast<int>(length);
    if (writeInteger(stored) != Ok) return Failed;
    return bufferedWrite(s, stored, False);
}

TagdbCommon::Status TagdbFile::writeBytes(void const* p, int n) {
    if (!p) return writeInteger(-1);
    if (n < 0) return Failed;
    if (writeInteger(n) != Ok) return Failed;
    return bufferedWrite(p, n, False);
}

TagdbCommon::Status TagdbFile::readString(char const*& s) {
    void* p = nullptr;
    int n = 0;
    Status st = readCounted(p, n);
    s = static_cast<char const*>(p);
    return st;
}

TagdbCommon::Status TagdbFile::readBytes(void const*& p, int& n) {
    void* q = nullptr;
    Status st = readCounted(q, n);
    p = q;
    return st;
}

TagdbCommon::Status TagdbFile::readCounted(void*& p, int& n) {
    p = nullptr;
    n = 0;
    int stored;
    if (readInteger(stored) != Ok) return Failed;
    if (stored < 0) return Ok;
    // The buffer always has one zero byte behind the stored ones: a stored
    // text stays a C string even when the file lacks its NUL, and an empty
    // run is a real buffer rather than null.
    size_t want = static_cast<size_t>(stored);
    size_t have = want < kEagerAllocation ? want : kEagerAllocation;
    unsigned char* data = static_cast<unsigned char*>(qkMalloc(have + 1, __FILE__, __LINE__));
    if (!data) return Failed;
    size_t done = 0;
    while (true) {
        if (bufferedRead(data + done, static_cast<int>(have - done), False) != Ok) {
            data[have] = 0;
            p = data;  // the caller owns what was read so far
            return Failed;
        }
        done = have;
        if (done == want) break;
        size_t next = have * 2 < want ? have * 2 : want;
        void* grown = qkRealloc(data, next + 1, __FILE__, __LINE__);
        if (!grown) {
            qkFree(data, __FILE__, __LINE__);
            return Failed;
        }
        data = static_cast<unsigned char*>(grown);
        have = next;
    }
    data[want] = 0;
    p = data;
    n = stored;
    return Ok;
}
