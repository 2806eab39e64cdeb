// Keys and records of the tag database.
//
// TagdbKey and TagdbRecord are the abstract pair a store maps from and to.
// The database only compares, copies, matches, writes and releases keys and
// only writes and releases records; it reads them back through two reader
// functions given when a store is opened. A reader called with a null file
// makes the type's empty instance; reading the empty instance's stored form
// gives null.
//
// TagdbStringKey (NUL-terminated text, unsigned byte order, prefix match) and
// TagdbBlobRecord (a run of bytes) are the pair the library provides.
// Stored forms: a string key is a 4-byte length L = strlen + 1 and the L bytes
// with the NUL; a blob record is a 4-byte count n and the n bytes; the empty
// key and the empty (null-data) record are the 4-byte -1.
//
// Ownership: every key and record made here is ONE qkMalloc block, disposed
// of by release(), never by delete or the destructor. Objects made from
// values in memory carry a copy of the text or bytes in the same block
// (ownsData 0); objects read from a file point to the buffer the read
// allocated and free it in release() (ownsData 1); objects made by the
// protected constructors point to the caller's memory (ownsData 0).
//
// Thread-safety: none; an object belongs to one thread at a time.
#pragma once

#include <cstddef>

#include "TagdbCommon.h"

class TagdbFile;

class QK_EXPORT TagdbKey : public TagdbCommon {
  public:
    // A new, independent key equal to this one.
    virtual TagdbKey* copy() = 0;
    // Negative, 0 or positive as this key sorts before, equal to or after other.
    virtual int compare(TagdbKey* other) = 0;
    // Non-zero when other falls in the range this key selects.
    virtual int match(TagdbKey* other) = 0;
    // Appends the key's stored form to file.
    virtual Status write(TagdbFile* file) = 0;
    // Disposes of the key and everything it owns.
    virtual void release() = 0;
};

class QK_EXPORT TagdbRecord : public TagdbCommon {
  public:
    virtual Status write(TagdbFile* file) = 0;
    virtual void release() = 0;
};

class QK_EXPORT TagdbStringKey : public TagdbKey {
  public:
    TagdbStringKey(TagdbStringKey const&) = default;
    TagdbStringKey& operator=(TagdbStringKey const&) = default;

    // The key reader of string keys. With a file: reads one stored key; a
    // stored -1 gives key = null and Ok, a short file Failed. With a null
    // file: key = a new empty key. userData is not used.
    static Status newInstance(TagdbKey*& key, TagdbFile* file, void* userData);

    TagdbKey* copy() override;
    // Unsigned byte order of the two texts; both must be non-null.
    int compare(TagdbKey* other) override;
    // 1 when other's text begins with this key's text (the empty key
    // matches every key), else 0.
    int match(TagdbKey* other) override;
    Status write(TagdbFile* file) override;
    void release() override;

    char const* getString() const { return string; }

  protected:
    // Points to s without copying it.
    explicit TagdbStringKey(char const* s);
    // One block holding the object and a copy of s; null s gives the empty key.
    static TagdbStringKey* newInstance(char const* s);

    char const* string;  // the text, or null for the empty key
    int length;          // strlen(string), -1 until computed
    int ownsData;        // release() frees `string` separately

  private:
    friend class Tagdb;  // builds string keys in place for its by-name forms
    friend class TagdbItr;
    static TagdbStringKey* allocate(size_t extra);
};

class QK_EXPORT TagdbBlobRecord : public TagdbRecord {
  public:
    TagdbBlobRecord(TagdbBlobRecord const&) = default;
    TagdbBlobRecord& operator=(TagdbBlobRecord const&) = default;

    // The record reader of blob records. With a file: reads one stored
    // record; a stored -1 gives rec = null and Ok, a short file Failed. With
    // a null file: rec = a new empty record. userData is not used.
    static Status newInstance(TagdbRecord*& rec, TagdbFile* file, void* userData);

    // A null `data` is stored as -1 (the empty record).
    Status write(TagdbFile* file) override;
    void release() override;

    void getData(void const*& p, int& n) const {
        p = data;
        n = length;
    }

  protected:
    // Points to p without copying it.
    TagdbBlobRecord(void const* p, int n);
    // One block holding the object and a copy of the n bytes; a null p gives
    // a record with null data and length 0.
    static TagdbBlobRecord* newInstance(void const* p, int n);

    void const* data;  // the bytes, or null
    int length;        // number of bytes
    int ownsData;      // release() frees `data` separately

  private:
    friend class Tagdb;  // makes records from bytes for its by-name forms
    friend class TagdbItr;
    static TagdbBlobRecord* allocate(size_t extra);
};

// The reader functions a store is opened with (TagdbStringKey::newInstance
// and TagdbBlobRecord::newInstance are the library's): read one key or record
// from file, or make the empty instance when file is null.
typedef TagdbCommon::Status (*TagdbKeyReader)(TagdbKey*& key, TagdbFile* file, void* userData);
typedef TagdbCommon::Status (*TagdbRecordReader)(TagdbRecord*& rec, TagdbFile* file,
                                                 void* userData);
