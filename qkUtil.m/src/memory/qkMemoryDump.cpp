// The dump: every superblock of the keep pool and of the heaps' bucket-0
// lists, block by block, as a hex listing or as debugger commands; and the
// debugger-script lines of the manager's field offsets.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "memory/qkMemoryInternal.h"
#include "platform/platform_file.h"

using namespace qk::memory;

namespace {

struct DumpCounts {
    size_t* bytes;
    size_t* blocks;
    size_t* superblocks;
};

// The C runtime's "%p": 16 upper-case hexadecimal digits, no 0x.
void putPointer(FILE* out, void const* p) {
    std::fprintf(out, "%016" PRIXPTR, reinterpret_cast<uintptr_t>(p));
}

// "0x%08lx: " and two 8-byte words, each from its most significant byte.
void hexLine(FILE* out, unsigned char const* at) {
    std::fprintf(out, "0x%08lx: 0x", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(at)));
    for (int i = 7; i >= 0; --i)
        std::fprintf(out, "%02x", at[i]);
    std::fputs(" 0x", out);
    for (int i = 15; i >= 8; --i)
        std::fprintf(out, "%02x", at[i]);
    std::fputc('\n', out);
}

void listBlock(qkMemory* m, FILE* out, MEMORY_HEADER* h, bool summary, bool script) {
    auto const* bytes = reinterpret_cast<unsigned char const*>(h);
    if (!summary) {
        std::fputs(" address ", out);
        putPointer(out, h);
        std::fputc('\n', out);
        for (int line = 0; line < 2 + m->debugHeaderCount; ++line)
            hexLine(out, bytes + 16 * line);
        std::fputc('\n', out);
    } else if (script) {
        std::fputs("x/i 0x", out);
        for (int i = 7; i >= 0; --i)
            std::fprintf(out, "%02x", bytes[16 + i]);
        std::fputc('\n', out);
    }
}

void listSuperblock(qkMemory* m, FILE* out, MEMORY_SUPERBLOCK* sb, bool summary, bool script,
                    DumpCounts const& c) {
    if (c.superblocks) *c.superblocks += 1;
    int freeCount = sb->freeCount.load(std::memory_order_relaxed);
    bool empty = sb->allocCount == 0 && freeCount == 0;
    if (!script) {
        std::fputs(" superblock ", out);
        putPointer(out, sb);
        std::fprintf(out, " size %d allocCount %d freeCount %d blockCount %d%s\n", sb->blockSize,
                     sb->allocCount, empty ? 0 : freeCount, sb->blockCount,
                     empty ? " <-- empty" : "");
    }
    int stride = qkMemoryInternals::strideOf(m, sb);
    auto* at = reinterpret_cast<char*>(sb->firstBlock());
    for (int i = 0; i < sb->blockCount; ++i, at += stride) {
        auto* h = reinterpret_cast<MEMORY_HEADER*>(at);
        if (h->tag == TAG_SMALL_FREE) continue;
        listBlock(m, out, h, summary, script);
        if (c.bytes) *c.bytes += size_t(sb->blockSize);
        if (c.blocks) *c.blocks += 1;
    }
}

void listList(qkMemory* m, FILE* out, LinkedList& head, bool summary, bool script,
              DumpCounts const& c) {
    for (LinkedList* n = head.next(); n->ref(); n = n->next()) {
        listSuperblock(m, out, qkMemoryInternals::superblockOf(n), summary, script, c);
    }
}

// A non-empty path truncated for writing; else a stream of its own on a
// duplicate of standard output, so that closing it leaves stdout open.
FILE* openOutput(char const* path) {
    if (path && *path) return std::fopen(path, "w");
    std::fflush(stdout);
    return qk::platform::duplicateStdout();
}

}  // namespace

int qkMemory::dump(char const* path, size_t* bytes, size_t* blocks, size_t* superblocks,
                   unsigned char summary, unsigned char script) {
    qkMemoryInternals::dismantle(this, getThread());
    FILE* out = openOutput(path);
    if (!out) {
        warn("cannot open output file", kManagerFile, 546);
        return 0;
    }
    if (bytes) *bytes = 0;
    if (blocks) *blocks = 0;
    DumpCounts c{bytes, blocks, superblocks};
    for (int b = 0; b < kBucketLimit; ++b) {
        allocLock[b]->lock();
        if (!script) std::fprintf(out, "bucket %d\n", b);
        listList(this, out, keep[b], summary, script, c);
        allocLock[b]->unlock();
    }
    int active = 0, inactive = 0;
    threadLock->lock();
    for (LinkedList* n = threads.next(); n->ref(); n = n->next()) {
        auto* record = static_cast<qkMemoryThreadRecord*>(n->ref());
        (qkThread::active(record) ? active : inactive) += 1;
        if (!script) {
            std::fputs("thread ", out);
            putPointer(out, record);
            std::fputs(" \n", out);
        }
        listList(this, out, record->heap.partial[0], summary, script, c);
        listList(this, out, record->heap.reclaim[0], summary, script, c);
    }
    threadLock->unlock();
    if (!script) std::fprintf(out, "threads active/inactive %d/%d\n", active, inactive);
    std::fclose(out);
    storeRelaxed(fill, static_cast<unsigned char>(0xAA));
    return 1;
}

int qkMemoryDump(char const* path, size_t* bytes, size_t* blocks, size_t* superblocks,
                 unsigned char summary, unsigned char script) {
    qkMemory* m = manager();
    return m ? m->dump(path, bytes, blocks, superblocks, summary, script) : 0;
}

// ---- The debugger's offsets -------------------------------------------------------

struct qkMemoryOffsets {
    static void write(FILE* f) {
        line(f, "qkMemory_infoKey", offsetof(qkMemory, infoKey));
        line(f, "qkMemory_reserve", offsetof(qkMemory, reserve));
        line(f, "qkMemory_printLock", offsetof(qkMemory, printLock));
        line(f, "qkMemory_threadLock", offsetof(qkMemory, threadLock));
        line(f, "qkMemory_allocLock", offsetof(qkMemory, allocLock));
        line(f, "qkMemory_threads", offsetof(qkMemory, threads));
        line(f, "qkMemory_keep", offsetof(qkMemory, keep));
        line(f, "qkMemory_systemStats", offsetof(qkMemory, systemStats));
        line(f, "qkMemory_keepStats", offsetof(qkMemory, keepStats));
        line(f, "qkMemory_summarySystemStats", offsetof(qkMemory, summarySystemStats));
        line(f, "qkMemory_summaryKeepStats", offsetof(qkMemory, summaryKeepStats));
        line(f, "qkMemory_buckets", offsetof(qkMemory, buckets));
        line(f, "qkMemory_bucketSize", offsetof(qkMemory, bucketSize));
        line(f, "qkMemory_bucketNumber", offsetof(qkMemory, bucketNumber));
        line(f, "qkMemory_allocCount", offsetof(qkMemory, allocCount));
        line(f, "qkMemory_allocLimit", offsetof(qkMemory, allocLimit));
        line(f, "qkMemory_countBySize", offsetof(qkMemory, countBySize));
        line(f, "qkMemory_debugHeaderCount", offsetof(qkMemory, debugHeaderCount));
        line(f, "qkMemory_debugHeaderSize", offsetof(qkMemory, debugHeaderSize));
        line(f, "MEMORY_HEADER_SIZE", kHeaderSize);
        line(f, "DEBUG_MEMORY_HEADER_SIZE", kDebugSlotSize);
        line(f, "superBlock_bucket", offsetof(MEMORY_SUPERBLOCK, bucket));
        line(f, "superBlock_blockSize", offsetof(MEMORY_SUPERBLOCK, blockSize));
        line(f, "superBlock_blockCount", offsetof(MEMORY_SUPERBLOCK, blockCount));
        line(f, "superBlock_allocCount", offsetof(MEMORY_SUPERBLOCK, allocCount));
        line(f, "superBlock_link", offsetof(MEMORY_SUPERBLOCK, link));
        line(f, "superBlock_reclaim", offsetof(MEMORY_SUPERBLOCK, reclaim));
        line(f, "superBlock_free", offsetof(MEMORY_SUPERBLOCK, free));
        line(f, "superBlock_pending", offsetof(MEMORY_SUPERBLOCK, pending));
        line(f, "superBlock_thread", offsetof(MEMORY_SUPERBLOCK, thread));
        line(f, "superBlock_freeCount", offsetof(MEMORY_SUPERBLOCK, freeCount));
        line(f, "superBlock_size", kSuperblockHeader);
    }
    static void line(FILE* f, char const* name, size_t value) {
        std::fprintf(f, "set $%s = 0x%x\n", name, static_cast<unsigned>(value));
    }
};

void qkMemory::printOffsets(char const* path) {
    FILE* f = std::fopen(path, "a");
    if (!f) {
        std::printf("error opening %s for append\n", path);
        return;
    }
    qkMemoryOffsets::write(f);
    std::fclose(f);
}
