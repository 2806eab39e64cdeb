// The memory manager and its entry points.
//
// qkMemory is the process-wide memory manager behind every allocation of the
// library and of the modules that link it: requests of up to 512 bytes are cut
// from 16384-byte superblocks that belong to the requesting thread (no lock on
// the common path); larger ones go to the C runtime heap with a 16-byte header
// in front. Blocks freed by another thread are parked on their superblock until
// the owner takes them back. Superblocks a thread no longer needs go to a
// shared keep pool; they return to the C runtime only under the keep limit or
// when memory runs short. After enough small requests the manager adds up to
// eight buckets fitted to the sizes asked for most.
//
// Life: the host creates the one manager with qkMemory::setPassthru(0, handler)
// and never destroys it. Until then (and for ever after setPassthru(1, ...))
// every entry point passes straight to the C runtime. Memory taken before the
// manager existed may be released through it afterwards.
//
// Ownership: a block belongs to whoever asked for it until it is released with
// qkFree (or operator delete); any thread may release it. MEMORY_THREAD records
// and superblocks belong to the manager.
//
// Thread-safety: every entry point and every static member may be called from
// any thread. The statistics records may be read at any time; they change
// concurrently, so read their fields with qkMemory::loadStats (or relaxed
// atomic loads). Limits and hooks are plain process-wide values; a change
// applies to the charges made after it.
//
// Alignment: blocks of the base buckets and large blocks are 16-aligned; in a
// tuned bucket of t bytes with t = 8 mod 16 every other block is only
// 8-aligned, so qkMalloc may return 8-aligned memory. The library's operator
// new asks for small sizes rounded up to a multiple of 16, which no such
// bucket serves, so its blocks are always 16-aligned.
//
// When memory runs out. Requests (qkMalloc, qkCalloc, qkStrdup, operator new
// and qkRealloc of null) of a size whose total with the 16-byte header does
// not fit a signed 32-bit int are refused: null (operator new throws
// std::bad_alloc). Any other request the C runtime refuses, even after the
// keep pool went back to it, ends the process: "out of memory allocating N
// bytes" (N with the header) on standard output, the warning "out of memory",
// abort. qkRealloc by kind of block (a block that holds the size is returned
// as it is, for every kind):
// - small: moved to a new block made as qkMalloc makes it; null for a size
//   that does not fit (the block is left untouched); the process ends when
//   the C runtime refuses the new block ("out of memory allocating").
// - large: grown by the C runtime's realloc; null for a size that does not
//   fit (the block is left untouched); when the C runtime refuses, the
//   process ends: "out of memory reallocating N bytes".
// - foreign (not made by the manager): the C runtime's realloc at any size
//   (no 32-bit bound; 0 counts as 1); when it refuses, the process ends:
//   "out of memory reallocating N bytes".
// N is printed in full. libqkmalloc.so serves malloc & co. with the C
// runtime's contract instead: null with errno ENOMEM, the block untouched.
#pragma once

#include <cstddef>

#include "LinkedList.h"
#include "qkExport.h"

class qkMutex;

// A count of blocks, a byte count and the byte count's high-water mark.
struct MEMORY_STATS {
    long long count;
    long long bytes;
    long long highwater;
};

enum qkMemoryErrorId {
    QK_MEMORY_SYSTEM_LIMIT = 0,  // the system limit was crossed
    QK_MEMORY_THREAD_LIMIT = 1,  // a thread's limit was crossed
};

// One thread's heap: its superblocks per bucket and what is charged to it.
// Index 24 of `stats` is for large blocks.
struct MEMORY_THREAD {
    LinkedList full;            // superblocks found without a free block
    LinkedList partial[24];     // per bucket: superblocks that may have free blocks
    LinkedList reclaim[24];     // per bucket: superblocks other threads freed into
    MEMORY_STATS stats[25];     // per bucket: superblocks; [24]: large blocks
    MEMORY_STATS summaryStats;  // the sum over stats, checked against the thread limit
};

struct MEMORY_SUPERBLOCK;

class QK_EXPORT qkMemory {
  public:
    // ---- The manager's life -------------------------------------------------
    // Creates the manager unless `passthru` is non-zero or one exists, and
    // installs `handler` with it. Honours "KorSysPreAllocation" on every call.
    static void setPassthru(int passthru, void (*handler)(qkMemoryErrorId));
    // The one manager, null until created.
    static qkMemory* getManager();

    // ---- Blocks -------------------------------------------------------------
    // `caller` is an opaque pointer-sized tag of the call site and `line` a
    // line number; both only feed warnings and debugging aids.
    void* allocMemory(size_t size, char const* caller, int line);
    // Null is ignored; a pointer the manager did not make goes to the C runtime.
    void freeMemory(void* p, char const* caller, int line);
    // Blocks never shrink: a request that fits returns `p` itself.
    void* reallocMemory(void* p, size_t size, char const* caller, int line);
    // The calling thread's heap, made on first use.
    MEMORY_THREAD* getThread();

    // ---- Statistics and limits ----------------------------------------------
    // The summaries; the zero record when no manager exists.
    static MEMORY_STATS* getSystemStats();
    static MEMORY_STATS* getKeepStats();
    static MEMORY_STATS* getThreadStats();
    // A consistent-enough copy of a record that other threads may be changing.
    static MEMORY_STATS loadStats(MEMORY_STATS const* stats);
    // Byte limits, 0 for none. Crossing one warns and tells the handler; it
    // never refuses an allocation.
    static unsigned long long getSystemLimit();
    static void setSystemLimit(unsigned long long limit);
    static unsigned long long getThreadLimit();
    static void setThreadLimit(unsigned long long limit);
    static unsigned long long getKeepLimit();
    static void setKeepLimit(unsigned long long limit);
    // Would `count` blocks of `size` bytes cross the system or the calling
    // thread's limit? Advisory: it reserves nothing.
    static int systemLimitReached(int size, int count);
    // Restarts the high-water marks of the system and the calling thread.
    static void setSystemHighwater();

    // ---- Debug mode, dumps and checkpoints ----------------------------------
    // Debug mode: every block carries `count` slots (at least 1) of 16 bytes,
    // a ring of its last allocation and release call sites. It changes the
    // block layout, so it is chosen before the manager hands out its first
    // block: once blocks exist, setDebug may only turn recording off and on
    // again over the slots already laid out (another count is kept as it
    // was, and turning it on without slots warns and changes nothing).
    // Nothing without a manager.
    static void setDebug(unsigned char on, int count);
    static unsigned char getDebug();
    static int getDebugHeaderCount();
    static int getDebugHeaderSize();
    // Hands the calling thread's superblocks to the keep pool, then writes
    // every superblock of the keep pool and each heap's bucket-0 lists:
    // a listing (summary 0: each block in use with its header, slots and
    // first data bytes in hex) or, with summary and script, one debugger
    // command "x/i <allocation site>" per block in use. path null or empty:
    // standard output. Adds to *superblocks, sets *bytes and *blocks (any of
    // the three may be null). 1, or 0 (and a warning) when the file cannot
    // be opened. From then on small blocks are handed out filled with 0xAA.
    int dump(char const* path, size_t* bytes, size_t* blocks, size_t* superblocks,
             unsigned char summary, unsigned char script);
    // Hands the heap `current` on: its full superblocks (with a target or
    // `all`), and its partial ones except the oldest of each bucket unless
    // `all`, to `target` (which takes them in on its next shortage) or to the
    // keep pool; its reclaim lists to the keep pool. The statistics follow
    // each superblock, so a superblock that stays keeps its charge; the
    // large blocks' charge goes to a target. A target that is `current`
    // itself changes nothing.
    void checkpoint(MEMORY_THREAD* current, MEMORY_THREAD* target, int all);
    // Appends the debugger-script lines of the manager's and the superblock's
    // field offsets to the file at path.
    static void printOffsets(char const* path);
    // The blocks in use now (debug mode: by allocation site), grouped by site
    // with counts and bytes, sites named by function and source line where
    // the program's symbols tell them, largest first. Written to path (null
    // or empty: standard output); 1, or 0 when the file cannot be opened or
    // the manager is not in debug mode. Meant for a quiet moment (at exit,
    // or with the other threads idle): it walks every heap.
    int leakReport(char const* path, size_t* bytes, size_t* blocks);

    // ---- Warnings -----------------------------------------------------------
    // Prints "message (0xcaller:line)" through the print function (standard
    // output without one), serialised; a warning raised while one is being
    // printed on the same thread is dropped. Nothing without a manager.
    static void warn(char const* message, char const* caller, int line);
    static void setPrintFunction(void (*print)(char const* text));
    static void (*getPrintFunction())(char const*);
    // Part of the interface for hosts that install them; they do nothing.
    static void setThreadFunction(void* (*function)());
    static void* setThreadTag(void* tag);

    // Ends the process at once, abnormally.
    [[noreturn]] static void abort();
    // Stored only; the superblock size stays 16384.
    static void setPageSize(size_t size);

    // ---- State ----------------------------------------------------------------
    // Public for diagnostics and debugger scripts; only the manager changes it.
    MEMORY_STATS summarySystemStats;  // held from the C runtime
    MEMORY_STATS summaryKeepStats;    // superblocks in the keep pool
    int infoKey;                      // thread-local key of the heap records
    void* reserve;                    // 1 MiB kept for the out-of-memory path
    // Lock order wherever two are held: printLock, threadLock, one allocLock.
    // (A print function may allocate and so tune; nothing waits for
    // printLock while it holds either of the others.)
    qkMutex* printLock;      // serialises warnings
    qkMutex* threadLock;     // threads, tuning, the last allocation retry
    qkMutex* allocLock[25];  // per bucket; [24]: large blocks
    LinkedList threads;      // every heap record, live or dead
    LinkedList keep[24];     // per bucket: superblocks owned by no thread
    MEMORY_STATS systemStats[25];
    MEMORY_STATS keepStats[25];
    int buckets;                    // buckets in use, 16..24
    int bucketSize[24];             // block size of each bucket
    signed char bucketNumber[513];  // bucket of each small request size
    int allocCount;                 // small requests since the last tuning
    int allocLimit;                 // count that starts the next tuning
    int countBySize[513];           // small requests per exact size
    unsigned char fill;             // non-zero: small blocks are handed out filled
    unsigned char debug;            // debug mode
    int debugHeaderCount;           // debug slots per block
    int debugHeaderSize;            // 16 * debugHeaderCount

    static qkMemory* _This;
    static void (*_printFunction)(char const*);
    static unsigned long long _systemLimit;
    static unsigned long long _threadLimit;
    static unsigned long long _keepLimit;
    static void (*_memoryErrorHandler)(qkMemoryErrorId);
    static unsigned long long _pageSize;

  protected:
    qkMemory();
    ~qkMemory();

    void* sys_alloc(int size, char const* caller, int line);
    // keep: hands a superblock to the keep pool (named apart from the `keep` lists).
    void keepSuperblock(MEMORY_SUPERBLOCK* sb);
    void reclaim(MEMORY_SUPERBLOCK* sb);
    void freeAll(int bucket);
    void tune(int size);
    // Charges a change to one entry of `array` and to `summary`; 1 when this
    // change crossed `limit` upward.
    int bumpStats(MEMORY_STATS& summary, MEMORY_STATS* array, int index, long long bytes,
                  long long count, unsigned long long limit);
    void summarizeStats(MEMORY_STATS& summary, MEMORY_STATS* array);
    // The ring step on its own: in debug mode, the caller into the block's
    // current slot (as its allocation, or as its release, which moves the
    // ring on).
    void padAllocation(void* header, void* caller, unsigned char isAlloc);
    // No guard bytes are written or checked: these do nothing.
    void addPadding(void*, int) {}
    void checkPadding(void*, int) {}

    friend struct qkMemoryInternals;
};

// Frame offsets used by the library's operator new / operator delete to pick
// the caller tag (see getCaller); set from "QK_MEMORY_ALLOC_STACK_OFFSET" and
// "QK_MEMORY_FREE_STACK_OFFSET" when the manager is made.
QK_EXPORT extern int allocStackOffset;
QK_EXPORT extern int freeStackOffset;

// ---- The plain entry points ----------------------------------------------------
// With the manager they use it; without it they are the C runtime's.
QK_EXPORT_C void* qkMalloc(size_t size, char const* caller, int line);
QK_EXPORT_C void qkFree(void* p, char const* caller, int line);
// count * size is not checked for overflow: the caller keeps it in range.
QK_EXPORT_C void* qkCalloc(size_t count, size_t size, char const* caller, int line);
QK_EXPORT_C void* qkRealloc(void* p, size_t size, char const* caller, int line);
QK_EXPORT_C char* qkStrdup(char const* s, char const* caller, int line);
// The usable size of a block of the manager (a small block's bucket size, a
// large block's requested size); 0 for null, foreign pointers, or no manager.
QK_EXPORT_C size_t qkMemSize(void* p);
// A fresh temporary file name in `dir` (else $TMPDIR, else /tmp) starting
// with `pfx`; release it with qkFree. Null on failure.
QK_EXPORT_C char* qkTempnam(char const* dir, char const* pfx);
// The calling thread's heap, null without a manager.
QK_EXPORT_C MEMORY_THREAD* qkMemoryThread();
// The machine word `offset` bytes above the base of getCaller's own frame;
// with 16, getCaller's return address, an address inside its caller. Larger
// offsets reach further up the caller's stack, one word per 8.
QK_EXPORT_C void* getCaller(int offset);
// qkMemory::dump of the manager; 0 without one.
QK_EXPORT_C int qkMemoryDump(char const* path, size_t* bytes, size_t* blocks, size_t* superblocks,
                             unsigned char summary, unsigned char script);
// qkMemory::checkpoint of the calling thread's heap; nothing without a manager.
QK_EXPORT_C void qkMemoryCheckpoint(MEMORY_THREAD* target, int all);
// qkMemory::leakReport of the manager; 0 without one. Setting
// QK_MEMORY_REPORT=path before the manager goes into debug mode writes the
// report to path when the process exits.
QK_EXPORT_C int qkMemoryLeakReport(char const* path);
