// TagdbFile and TagdbLocalFile: the file layer of the tag database.
//
// TagdbFile is an abstract file with a 512-byte buffer and the typed reads
// and writes that fix the stored form of every number, text and byte run of
// the database:
//   byte 1 byte; short 2; integer 4; double and id 8 bytes, in the host's
//   native order (little-endian here), reversed when `swapBytes` is set;
//   string: 4-byte length L = strlen + 1, then the L bytes with the NUL
//   (a null string: the 4-byte -1); bytes: 4-byte count n, then n bytes
//   (null: -1). The text and byte runs themselves are never reversed.
// All traffic goes through the buffer: a write-mode file reaches the disk
// when the buffer is full and more must go in, or on flush/close.
//
// TagdbLocalFile implements the primitives on a POSIX descriptor and adds the
// lock files by which processes exclude each other: lock(name) creates
// name + "-lock" exclusively, polling every 20 ms, and gives up with
// LockTimeout after 30 seconds; the file's existence is the lock, so a lock
// left by a dead process blocks until someone deletes the file.
// TagdbLocalFile keeps a stage of its own below the 512-byte buffer, so that
// a file costs few system calls whatever its size: what is written gathers
// there and goes to the file in one write at close (or whenever 1 MiB has
// gathered), and a file being read is read ahead into it, whole when it fits
// (128 KiB; a larger file is sized with fstat and read in pieces of up to
// 1 MiB). A write therefore returns Ok once its bytes are gathered; a failure
// to put them on disk (a short write that cannot be completed, a full disk,
// an I/O error) is reported by the next write that drains the stage, or by
// close, which a writer must check. Interrupted calls are retried and short
// reads and writes completed, as everywhere in this layer.
// A file opened in WriteMode is written from its start and cut to the length
// written when it is closed, rather than emptied when it is opened: a file
// rewritten in place (the store's version file) then holds its old content
// or its new one, never nothing, whenever the writing process dies.
// CreateMode writes as WriteMode does, but only into a file it creates: when
// the path exists already the open fails and the file stays as it is (the
// check and the creation are one step of the file system).
// System calls interrupted by a signal (EINTR) are retried up to 100 times in
// open, close, read, write and remove; remove also retries EBUSY.
//
// Ownership: strings and byte runs returned by readString/readBytes come
// from qkMalloc and belong to the caller (qkFree), also when the read fails
// part-way. Objects are copyable; a TagdbLocalFile copy shares the
// descriptor (so only one of the two may close it) and has its own copy of
// the stage (a copy that cannot get the memory for it is closed).
//
// Thread-safety: none; a file object belongs to one thread at a time.
#pragma once

#include <cstddef>

#include "TagdbCommon.h"

class QK_EXPORT TagdbFile : public TagdbCommon {
  public:
    static constexpr int kBufferSize = 512;

    TagdbFile();
    ~TagdbFile() override = default;
    TagdbFile(TagdbFile const&) = default;
    TagdbFile& operator=(TagdbFile const&) = default;

    // The primitives a file implementation provides.
    virtual int isOpen() = 0;
    virtual Status open(char const* path, FileMode mode) = 0;
    virtual Status close() = 0;
    // Reads at most `size` bytes; `got` is the count (Ok only when positive).
    virtual Status read(void* buf, int size, int& got) = 0;
    // Ok only when every byte was written.
    virtual Status write(void const* buf, int size) = 0;
    virtual Status lock(char const* name) = 0;
    virtual Status unlock(char const* name) = 0;
    virtual Status remove(char const* path) = 0;

    // Resets the buffer state for `m`, for implementations that do not open
    // through TagdbLocalFile::open.
    Status init(FileMode m);

    Status readByte(unsigned char& v);
    Status writeByte(unsigned char v);
    Status readShort(short& v);
    Status writeShort(short v);
    Status readInteger(int& v);
    Status writeInteger(int v);
    Status readDouble(double& v);
    Status writeDouble(double v);
    Status readTagDbId(long long& v);
    Status writeTagDbId(long long v);
    Status writeString(char const* s);
    // s = a new qkMalloc buffer with the stored text (always NUL-terminated,
    // even when the stored bytes lack the NUL), or null for a stored -1.
    Status readString(char const*& s);
    Status writeBytes(void const* p, int n);
    // p = a new qkMalloc buffer with the n stored bytes (non-null also for
    // n = 0), or null with n = 0 for a stored -1.
    Status readBytes(void const*& p, int& n);

  protected:
    Status bufferedRead(void* dst, int n, Boolean swap);
    Status bufferedWrite(void const* src, int n, Boolean swap);
    Status flush();

    int position;  // next byte of `buffer` to read or write
    int limit;     // read: valid bytes in the buffer; write: its capacity
    FileMode mode;
    Boolean swapBytes;
    unsigned char buffer[kBufferSize];

  private:
    // Reads a stored length word, then that many bytes into a new buffer.
    Status readCounted(void*& p, int& n);
};

class QK_EXPORT TagdbLocalFile : public TagdbFile {
  public:
    TagdbLocalFile();
    ~TagdbLocalFile() override;
    TagdbLocalFile(TagdbLocalFile const& other);
    TagdbLocalFile& operator=(TagdbLocalFile const& other);

    int isOpen() override;
    Status open(char const* path, FileMode mode) override;
    Status close() override;
    Status read(void* buf, int size, int& got) override;
    Status write(void const* buf, int size) override;
    Status lock(char const* name) override;
    Status unlock(char const* name) override;
    Status remove(char const* path) override;

    // Creates a new file of unique name from `pattern` (its last six
    // characters "XXXXXX" are replaced in place), exclusively, readable and
    // writable only by its owner, and opens it in WriteMode.
    Status openUnique(char* pattern);

    // The default file factory of a Tagdb: a new TagdbLocalFile.
    static TagdbFile* newInstance();

  protected:
    // The system calls under the stage, one place each, so that a test can
    // make the disk misbehave (short transfers, interruptions, a full disk,
    // I/O errors). They report as the system does: a count, or -1 and errno.
    virtual long systemRead(void* buf, size_t size);
    virtual long systemWrite(void const* buf, size_t size);
    virtual int systemClose();

    int descriptor;  // -1 when closed
    int cutAtClose;  // write mode over an existing file: trim its old tail at close

  private:
    Status drain();
    Status writeThrough(void const* buf, int size);
    int fillSize();
    Status readInto(void* buf, int size, int& got);
    bool reserve(int size);
    void resetStage();
    void copyStage(TagdbLocalFile const& other);

    unsigned char* stage;  // gathered writes, or the bytes read ahead
    int stageCapacity;
    int stageUsed;     // bytes gathered, or read ahead
    int stageNext;     // read: the next byte to hand out
    int writeLost;     // gathered bytes failed to reach the file: close fails
    long long offset;  // bytes moved between the file and the stage since open
};
