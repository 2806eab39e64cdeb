// Files: the low-level file services of the library, one system call each.
//
// Every function makes exactly one attempt and reports failure the way the
// system does: -1 with `errno` set (readable through <cerrno>). Retrying
// interrupted calls (EINTR) and busy files (EBUSY) is left to the caller, so
// the tag database can apply its own retry counts (TagdbLocalFile).
//
// Descriptors are opened close-on-exec. Files are created with mode 0666
// less the process umask, except unique temporary files, which are 0600.
//
// Thread-safety: every function may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdio>

#include "qkExport.h"

namespace qk::platform {

// Opens an existing file for reading.
QK_EXPORT int fileOpenRead(char const* path);
// Opens a file for writing from its start, creating it but keeping what it
// holds: a file rewritten in place is never seen empty, not even by a reader
// that comes while the writer is stopped. fileTruncate then trims the old
// tail.
QK_EXPORT int fileOpenOverwrite(char const* path);
// The size of an open file in bytes, -1 on error.
QK_EXPORT long long fileSize(int fd);
// Cuts the file to `length` bytes.
QK_EXPORT int fileTruncate(int fd, long long length);
// Creates a file that must not exist yet (atomic in the file system), opened
// for reading and writing; fails with EEXIST when it exists.
QK_EXPORT int fileCreateExclusive(char const* path);
// Creates an empty file that must not exist yet, as fileCreateExclusive
// does, without opening it: 0, or -1 with errno set (EEXIST when it exists).
// One system call where the file system allows it, two (open and close)
// where it does not.
QK_EXPORT int fileMakeExclusive(char const* path);

// Reads up to `size` bytes; the count read, 0 at end of file, -1 on error.
QK_EXPORT long fileRead(int fd, void* buf, size_t size);
// Writes up to `size` bytes; the count written (possibly short), -1 on error.
QK_EXPORT long fileWrite(int fd, void const* buf, size_t size);
// Releases the descriptor. On Linux the descriptor is gone even when close
// reports EINTR, and retrying could close a descriptor that another thread
// has opened meanwhile; an interrupted close is therefore reported as done.
QK_EXPORT int fileClose(int fd);
// Removes a name from the file system.
QK_EXPORT int fileUnlink(char const* path);
// A stream of its own for writing on a duplicate of standard output (so
// that closing it leaves standard output open); null on failure.
QK_EXPORT FILE* duplicateStdout();

// The directory for temporary files: $TMPDIR when set and not empty, else
// "/tmp". The text stays valid until the environment changes.
QK_EXPORT char const* tempDirectory();
// Creates a new file of unique name from `pattern`, which ends in "XXXXXX"
// (replaced in place), exclusively (no existing file or link is reused) with
// mode 0600. Returns its descriptor, or -1 with errno set.
QK_EXPORT int fileCreateUnique(char* pattern);

// Calls fn(name, ctx) for every entry of directory `dir` ("" or null: the
// current directory), "." and ".." excepted, in no particular order.
// Returns 0, or -1 with errno set when the directory cannot be read.
// Whether standard input is a terminal with no character waiting in stdio's
// own buffer of stdin: looking at the next character would then wait for the
// user to type one.
QK_EXPORT bool stdinWaitsForTerminal();

QK_EXPORT int listDirectory(char const* dir, void (*fn)(char const* name, void* ctx), void* ctx);

}  // namespace qk::platform
