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

// Closes a descriptor; true when it is released. An interrupted close has
// released it too, so there is nothing to retry.
bool closeDescriptor(int fd) {
    return plat::fileClose(fd) == 0;
}

// Cuts the file at the current offset, retrying interruptions.
bool cutHere(int fd) {
    return retried([fd] { return plat::fileCut(fd); }) == 0;
}

}  // namespace

TagdbLocalFile::TagdbLocalFile() : descriptor(-1), cutAtClose(0) {}

TagdbLocalFile::~TagdbLocalFile() {
    close();
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
    // A new file (the common case: node and index files get new names, and
    // CreateMode makes one or fails) needs no cut; an existing one is cut
    // after the last byte written.
    cutAtClose = isOpen() && m == WriteMode && plat::fileSize(descriptor) != 0;
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
    if (cutAtClose && !failed && !cutHere(descriptor)) failed = true;
    cutAtClose = 0;
    // A close that fails has released the descriptor all the same on Linux,
    // and its number may already belong to a file opened since: never close
    // it again.
    if (!closeDescriptor(descriptor)) failed = true;
    descriptor = -1;
    return failed ? Failed : Ok;
}

TagdbCommon::Status TagdbLocalFile::read(void* buf, int size, int& got) {
    got = 0;
    if (!isOpen() || size <= 0) return Failed;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        got = static_cast<int>(plat::fileRead(descriptor, buf, static_cast<size_t>(size)));
        if (got > 0) return Ok;
        if (got == 0 || errno != EINTR) return Failed;  // end of file or a real error
    }
    // Interrupted every time: Ok with the last count, which the buffered
    // reader takes as the end of the file.
    return Ok;
}

// Partial writes continue with the bytes not yet written (rewriting them all
// would duplicate the part that reached the file). Each interruption uses up
// one of the attempts; running out of them is a failure, since Ok promises
// that every byte was written.
TagdbCommon::Status TagdbLocalFile::write(void const* buf, int size) {
    if (!isOpen() || size < 0) return Failed;
    char const* at = static_cast<char const*>(buf);
    long left = size;
    int interrupted = 0;
    while (left > 0) {
        long n = plat::fileWrite(descriptor, at, static_cast<size_t>(left));
        if (n > 0) {
            at += n;
            left -= n;
        } else if (n < 0 && errno == EINTR) {
            if (++interrupted >= kAttempts) return Failed;
        } else {
            return Failed;  // an error, or a write that took nothing
        }
    }
    return Ok;
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
    int fd;
    while ((fd = plat::fileCreateExclusive(path)) < 0) {
        if (plat::tickCount() - start > timeoutMs) return TagdbCommon::LockTimeout;
        plat::sleepMs(pollMs);
    }
    closeDescriptor(fd);
    return TagdbCommon::Ok;
}

}  // namespace qk::tagdb
