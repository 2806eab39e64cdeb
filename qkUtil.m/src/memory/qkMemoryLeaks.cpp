// The leak report of debug mode: the blocks in use, grouped by the site that
// allocated them, with counts and bytes, the sites named.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "memory/qkMemoryInternal.h"
#include "platform/platform_file.h"
#include "platform/platform_symbols.h"

using namespace qk::memory;

namespace {

struct Site {
    size_t blocks = 0;
    size_t bytes = 0;
};
using Sites = std::map<void const*, Site>;

// The allocation site of a block in use: its current slot's allocCaller.
void const* siteOf(qkMemory* m, MEMORY_HEADER const* h) {
    int slot = h->slot >= 0 && h->slot < m->debugHeaderCount ? h->slot : 0;
    return reinterpret_cast<void* const*>(h + 1)[2 * slot];
}

void countList(qkMemory* m, LinkedList& head, Sites& sites) {
    for (LinkedList* n = head.next(); n->ref(); n = n->next()) {
        MEMORY_SUPERBLOCK* sb = qkMemoryInternals::superblockOf(n);
        int stride = qkMemoryInternals::strideOf(m, sb);
        auto* at = reinterpret_cast<char*>(sb->firstBlock());
        for (int i = 0; i < sb->blockCount; ++i, at += stride) {
            auto* h = reinterpret_cast<MEMORY_HEADER*>(at);
            if (h->tag != TAG_SMALL_USED) continue;
            Site& s = sites[siteOf(m, h)];
            s.blocks += 1, s.bytes += size_t(sb->blockSize);
        }
    }
}

struct LargeWalk {
    qkMemory* m;
    Sites* sites;
};

void countLarge(MEMORY_HEADER* h, void* context) {
    auto* walk = static_cast<LargeWalk*>(context);
    Site& s = (*walk->sites)[siteOf(walk->m, h)];
    s.blocks += 1, s.bytes += size_t(h->size);
}

// Every block in use: the keep pool's superblocks and every heap's lists,
// each bucket under its lock, and the registered large blocks.
Sites collect(qkMemory* m) {
    Sites sites;
    m->threadLock->lock();
    for (int b = 0; b < kBucketLimit; ++b) {
        m->allocLock[b]->lock();
        countList(m, m->keep[b], sites);
        for (LinkedList* n = m->threads.next(); n->ref(); n = n->next()) {
            MEMORY_THREAD& heap = static_cast<qkMemoryThreadRecord*>(n->ref())->heap;
            countList(m, heap.partial[b], sites);
            countList(m, heap.reclaim[b], sites);
            if (b == 0) countList(m, heap.full, sites);
        }
        m->allocLock[b]->unlock();
    }
    m->threadLock->unlock();
    LargeWalk walk{m, &sites};
    qkMemoryInternals::forEachLarge(countLarge, &walk);
    return sites;
}

void write(FILE* out, Sites const& sites, size_t bytes, size_t blocks) {
    std::vector<std::pair<void const*, Site>> order(sites.begin(), sites.end());
    std::sort(order.begin(), order.end(), [](auto const& a, auto const& b) {
        return a.second.bytes != b.second.bytes ? a.second.bytes > b.second.bytes
                                                : a.second.blocks > b.second.blocks;
    });
    std::vector<void const*> addresses;
    for (auto const& [site, s] : order)
        addresses.push_back(site);
    std::vector<std::string> names = qk::platform::nameAddresses(addresses);
    std::fprintf(out, "memory in use: %zu bytes in %zu blocks from %zu allocation sites\n", bytes,
                 blocks, order.size());
    std::fprintf(out, "%10s %12s  %s\n", "blocks", "bytes", "allocated at");
    for (size_t i = 0; i < order.size(); ++i) {
        std::fprintf(out, "%10zu %12zu  %s\n", order[i].second.blocks, order[i].second.bytes,
                     order[i].first ? names[i].c_str() : "(no site recorded)");
    }
}

void reportAtExit() {
    if (char const* path = std::getenv("QK_MEMORY_REPORT")) qkMemoryLeakReport(path);
}

}  // namespace

int qkMemory::leakReport(char const* path, size_t* bytes, size_t* blocks) {
    if (!debugHeaderCount) return 0;
    Sites sites = collect(this);
    size_t totalBytes = 0, totalBlocks = 0;
    for (auto const& [site, s] : sites)
        totalBytes += s.bytes, totalBlocks += s.blocks;
    if (bytes) *bytes = totalBytes;
    if (blocks) *blocks = totalBlocks;
    FILE* out = path && *path ? std::fopen(path, "w") : qk::platform::duplicateStdout();
    if (!out) return 0;
    write(out, sites, totalBytes, totalBlocks);
    std::fclose(out);
    return 1;
}

int qkMemoryLeakReport(char const* path) {
    qkMemory* m = manager();
    return m ? m->leakReport(path, nullptr, nullptr) : 0;
}

void qkMemoryInternals::armReportAtExit() {
    static std::once_flag once;
    char const* path = std::getenv("QK_MEMORY_REPORT");
    if (!path || !*path) return;
    std::call_once(once, [] { std::atexit(reportAtExit); });
}
