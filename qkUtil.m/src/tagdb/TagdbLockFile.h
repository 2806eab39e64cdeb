// Lock files between processes: the lock is the existence of a file that
// was created exclusively. Internal to the tag database (and its tests,
// which shorten the time-out).
#pragma once

#include "TagdbCommon.h"

namespace qk::tagdb {

// How long TagdbLocalFile::lock waits, and how often it tries.
constexpr unsigned kLockTimeoutMs = 30000;
constexpr unsigned kLockPollMs = 20;

// Creates `path` exclusively, trying every `pollMs` until more than
// `timeoutMs` have passed (then LockTimeout). The file is made without
// being opened and stays on disk.
QK_EXPORT TagdbCommon::Status acquireLockFile(char const* path, unsigned timeoutMs,
                                              unsigned pollMs);

}  // namespace qk::tagdb
