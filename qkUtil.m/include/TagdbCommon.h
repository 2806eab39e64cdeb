// TagdbCommon: the common base of every tag database class and the home of
// the subsystem's four enums.
//
// Every operation of the tag database reports its outcome as a Status; no
// exception ever leaves it. TagdbCommon has no state; the static conversions
// let a node's 64-bit value slot hold either a record pointer (leaves) or a
// child node id (inner nodes).
//
// Thread-safety: stateless; the conversions may be called from any thread.
#pragma once

#include <cstdint>

#include "qkExport.h"

class TagdbRecord;

class QK_EXPORT TagdbCommon {
  public:
    enum Status {
        Ok = 0,
        Failed = 1,          // I/O failure, unexpected end of file, a store file that
                             // cannot be loaded, too many stores
        LockTimeout = 2,     // the lock file could not be created within 30 seconds
        Split = 3,           // internal to the node tree: a child split during an insertion
        Restart = 4,         // internal: the store's version moved on, its cache was dropped
        NotOpen = 5,         // no store is active
        NoTransaction = 6,   // the operation needs an open transaction
        Aborted = 7,         // the transaction was rolled back
        RollbackFailed = 8,  // a commit failed and the version files could not all be put back
    };
    // Any non-zero value counts as true.
    enum Boolean { False = 0, True = 1 };
    enum FileMode {
        ReadMode = 0,    // open an existing file for reading
        WriteMode = 1,   // create or truncate, then write
        CreateMode = 2,  // create a file that must not exist yet (fails when it does), then write
    };
    enum TransMode { Update = 0, Deferred = 1, Recreate = 2 };

    virtual ~TagdbCommon() = default;

    // The pointer's 64 bits as an integer, and back, unchanged.
    static long long ptr2id(TagdbRecord const* p) {
        return static_cast<long long>(reinterpret_cast<intptr_t>(p));
    }
    static TagdbRecord* id2ptr(long long id) {
        return reinterpret_cast<TagdbRecord*>(static_cast<intptr_t>(id));
    }
};
