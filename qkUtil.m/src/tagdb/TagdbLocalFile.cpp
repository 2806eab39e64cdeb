// TagdbLocalFile: the file primitives on a POSIX descriptor, with the retry
// rules for interrupted system calls, and the lock files.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "TagdbFile.h"
#include "platform/platform.h"
#include "platform/platform_file.h"
#include "qkMemory.h"
#include "tagdb/TagdbLockFile.h"

namespace plat = qk::platform;

namespace {

// A system call interrupted by a signal is tried again, this many times in
// all, before the operation gives up.
constexpr int kAttempts = 100;

// The stage a file object keeps between files: the node files of a store
// fit it, so a node costs one read or one write.
constexpr int kStageSize = 128 * 1024;
// The most bytes gathered before they are written, and the largest piece
// read ahead from a file that does not fit the stage.
constexpr int kStageLimit = 1024 * 1024;

// Runs call, a system call that fails with a negative result and errno,
// again while it is interrupted (or, with busyToo, finds the file busy), at
// most kAttempts times in all; returns the last result.
template <typename Call>
auto retried(Call call, bool busyToo = false) {
    auto result = call();
    for (int attempt = 1; attempt < kAttempts && result < 0; ++attempt) {
        if (errno != EINTR && !(busyToo && errno == EBUSY)) break;
        result = call();
    }
    return result;
}

}  // namespace

TagdbLocalFile::TagdbLocalFile()
    : descriptor(-1),
      cutAtClose(0),
      stage(nullptr),
      stageCapacity(0),
      stageUsed(0),
      stageNext(0),
      writeLost(0),
      offset(0) {}

TagdbLocalFile::~TagdbLocalFile() {
    close();
    qkFree(stage, __FILE__, __LINE__);
}

TagdbLocalFile::TagdbLocalFile(TagdbLocalFile const& other)
    : TagdbFile(other),
      descriptor(other.descriptor),
      cutAtClose(other.cutAtClose),
      stage(nullptr),
      stageCapacity(0) {
    copyStage(other);
}

TagdbLocalFile& TagdbLocalFile::operator=(TagdbLocalFile const& other) {
    if (this == &other) return *this;
    TagdbFile::operator=(other);
    descriptor = other.descriptor;
    cutAtClose = other.cutAtClose;
    copyStage(other);
    return *this;
}

// The copy continues where the original stands, with the same bytes
// gathered or read ahead; without memory for them it cannot, and is closed.
void TagdbLocalFile::copyStage(TagdbLocalFile const& other) {
    stageUsed = stageNext = 0;
    writeLost = other.writeLost;
    offset = other.offset;
    if (other.stageUsed > 0 && !reserve(other.stageUsed)) {
        descriptor = -1;
        resetStage();
        return;
    }
    if (other.stageUsed > 0) std::memcpy(stage, other.stage, static_cast<size_t>(other.stageUsed));
    stageUsed = other.stageUsed;
    stageNext = other.stageNext;
}

TagdbFile* TagdbLocalFile::newInstance() {
    return new (std::nothrow) TagdbLocalFile();
}

int TagdbLocalFile::isOpen() {
    return descriptor >= 0;
}

TagdbCommon::Status TagdbLocalFile::open(char const* path, FileMode m) {
    close();
    init(m);
    if (!path) return Failed;
    descriptor = retried([path, m] {
        if (m == CreateMode) return plat::fileCreateExclusive(path);
        return m == WriteMode ? plat::fileOpenOverwrite(path) : plat::fileOpenRead(path);
    });
    if (descriptor < 0) descriptor = -1;
    // A file written over may have been longer: close cuts what is left of
    // its old content. A file CreateMode made is new.
    cutAtClose = isOpen() && m == WriteMode;
    return isOpen() ? Ok : Failed;
}

TagdbCommon::Status TagdbLocalFile::openUnique(char* pattern) {
    close();
    init(WriteMode);
    if (!pattern) return Failed;
    descriptor = retried([pattern] { return plat::fileCreateUnique(pattern); });
    if (descriptor < 0) descriptor = -1;
    cutAtClose = 0;
    return isOpen() ? Ok : Failed;
}

TagdbCommon::Status TagdbLocalFile::close() {
    if (!isOpen()) return Ok;
    bool failed = false;
    if (mode == WriteMode && position > 0) {
        if (write(buffer, position) == Ok) {
            position = 0;
        } else {
            failed = true;
        }
    }
    if (mode == WriteMode && !failed && drain() != Ok) failed = true;
    if (cutAtClose && !failed) {
        // Only a file that was longer than what was written over it needs
        // cutting (the version file is rewritten at its own length).
        long long size = retried([this] { return plat::fileSize(descriptor); });
        if (size < 0) failed = true;
        if (size > offset &&
            retried([this] { return plat::fileTruncate(descriptor, offset); }) != 0)
            failed = true;
    }
    cutAtClose = 0;
    // A close that fails has released the descriptor all the same on Linux,
    // and its number may already belong to a file opened since: never close
    // it again.
    if (systemClose() != 0) failed = true;
    descriptor = -1;
    resetStage();
    return failed ? Failed : Ok;
}

// Forgets what the stage holds; a stage grown for a large file goes back,
// the usual one stays for the next file.
void TagdbLocalFile::resetStage() {
    stageUsed = stageNext = 0;
    writeLost = 0;
    offset = 0;
    if (stageCapacity > kStageSize) {
        qkFree(stage, __FILE__, __LINE__);
        stage = nullptr;
        stageCapacity = 0;
    }
}

// Grows the stage to hold `size` bytes, keeping what it holds.
bool TagdbLocalFile::reserve(int size) {
    if (size <= stageCapacity) return true;
    if (size > kStageLimit) return false;
    int capacity = stageCapacity > 0 ? stageCapacity : kStageSize;
    while (capacity < size)
        capacity = capacity <= kStageLimit / 2 ? capacity * 2 : kStageLimit;
    void* grown = qkRealloc(stage, static_cast<size_t>(capacity), __FILE__, __LINE__);
    if (!grown) return false;
    stage = static_cast<unsigned char*>(grown);
    stageCapacity = capacity;
    return true;
}

// ---- Reading ----------------------------------------------------------------

TagdbCommon::Status TagdbLocalFile::read(void* buf, int size, int& got) {
    got = 0;
    if (!isOpen() || size <= 0) return Failed;
    if (stageNext >= stageUsed) {
        // Without memory for a stage the file is read as asked, piece by piece.
        if (!reserve(kStageSize)) return readInto(buf, size, got);
        stageUsed = stageNext = 0;
        Status st = readInto(stage, fillSize(), stageUsed);
        if (st != Ok || stageUsed <= 0) {
            stageUsed = 0;
            return st;  // Ok with nothing read: interrupted every time
        }
    }
    got = stageUsed - stageNext < size ? stageUsed - stageNext : size;
    std::memcpy(buf, stage + stageNext, static_cast<size_t>(got));
    stageNext += got;
    return Ok;
}

// How much to read ahead. The first piece of a file fills the stage as it
// is, which holds most files whole; a file that goes on beyond it is sized
// with fstat, and the stage grown to take the rest (up to kStageLimit at a
// time).
int TagdbLocalFile::fillSize() {
    if (offset > 0) {
        long long rest = plat::fileSize(descriptor) - offset;
        int want = rest < kStageLimit ? static_cast<int>(rest) : kStageLimit;
        reserve(want);  // without the memory, the stage as it is
    }
    return stageCapacity;
}

// One read of at most `size` bytes into buf: interruptions are retried, at
// most kAttempts times in all, after which it is Ok with the last count,
// which the buffered reader takes as the end of the file.
TagdbCommon::Status TagdbLocalFile::readInto(void* buf, int size, int& got) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        long n = systemRead(buf, static_cast<size_t>(size));
        got = static_cast<int>(n);
        if (n > 0) {
            offset += n;
            return Ok;
        }
        if (n == 0 || errno != EINTR) return Failed;  // end of file or a real error
    }
    return Ok;
}

// ---- Writing ----------------------------------------------------------------

// Gathers the bytes in the stage; they reach the file when the stage is full
// or the file is closed. A run too large to gather, or one the stage has no
// memory for, goes straight to the file after what was gathered before it.
TagdbCommon::Status TagdbLocalFile::write(void const* buf, int size) {
    if (!isOpen() || size < 0 || mode != WriteMode || writeLost) return Failed;
    if (size > kStageLimit - stageUsed && drain() != Ok) return Failed;
    if (size == 0) return Ok;
    if (size <= kStageLimit && reserve(stageUsed + size)) {
        std::memcpy(stage + stageUsed, buf, static_cast<size_t>(size));
        stageUsed += size;
        return Ok;
    }
    if (drain() != Ok) return Failed;
    return writeThrough(buf, size);
}

TagdbCommon::Status TagdbLocalFile::drain() {
    if (writeLost) return Failed;
    if (stageUsed == 0) return Ok;
    Status st = writeThrough(stage, stageUsed);
    stageUsed = 0;
    return st;
}

// Partial writes continue with the bytes not yet written (rewriting them all
// would duplicate the part that reached the file). Each interruption uses up
// one of the attempts; running out of them is a failure, since Ok promises
// that every byte was written. After a failure the file lacks bytes that
// were reported written: every later write, and close, fail.
TagdbCommon::Status TagdbLocalFile::writeThrough(void const* buf, int size) {
    char const* at = static_cast<char const*>(buf);
    long left = size;
    int interrupted = 0;
    while (left > 0) {
        long n = systemWrite(at, static_cast<size_t>(left));
        if (n > 0) {
            at += n;
            left -= n;
            offset += n;
        } else if (n < 0 && errno == EINTR && ++interrupted < kAttempts) {
            continue;
        } else {
            writeLost = 1;  // an error, a write that took nothing, or too many interruptions
            return Failed;
        }
    }
    return Ok;
}

// ---- The system calls -------------------------------------------------------

long TagdbLocalFile::systemRead(void* buf, size_t size) {
    return plat::fileRead(descriptor, buf, size);
}

long TagdbLocalFile::systemWrite(void const* buf, size_t size) {
    return plat::fileWrite(descriptor, buf, size);
}

int TagdbLocalFile::systemClose() {
    return plat::fileClose(descriptor);
}

TagdbCommon::Status TagdbLocalFile::remove(char const* path) {
    if (!path) return Failed;
    return retried([path] { return plat::fileUnlink(path); }, true) == 0 ? Ok : Failed;
}

namespace {

// name + "-lock" in a qkMalloc buffer of strlen(name) + 32 bytes.
char* lockPath(char const* name) {
    size_t size = std::strlen(name) + 32;
    char* path = static_cast<char*>(qkMalloc(size, __FILE__, __LINE__));
    if (path) std::snprintf(path, size, "%s-lock", name);
    return path;
}

}  // namespace

TagdbCommon::Status TagdbLocalFile::lock(char const* name) {
    if (!name) return Failed;
    char* path = lockPath(name);
    if (!path) return Failed;
    Status st = qk::tagdb::acquireLockFile(path, qk::tagdb::kLockTimeoutMs, qk::tagdb::kLockPollMs);
    qkFree(path, __FILE__, __LINE__);
    return st;
}

TagdbCommon::Status TagdbLocalFile::unlock(char const* name) {
    if (!name) return Failed;
    char* path = lockPath(name);
    if (!path) return Failed;
    Status st = remove(path);
    qkFree(path, __FILE__, __LINE__);
    return st;
}

namespace qk::tagdb {

// Polls rather than blocks: the lock is a plain file, there is nothing to
// wait on. Time is measured on the monotonic tick, so clock changes neither
// cut the wait short nor stretch it.
TagdbCommon::Status acquireLockFile(char const* path, unsigned timeoutMs, unsigned pollMs) {
    uint32_t start = plat::tickCount();
    while (plat::fileMakeExclusive(path) != 0) {
        if (plat::tickCount() - start > timeoutMs) return TagdbCommon::LockTimeout;
        plat::sleepMs(pollMs);
    }
    return TagdbCommon::Ok;
}

}  // namespace qk::tagdb
