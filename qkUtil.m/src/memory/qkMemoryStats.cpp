// Accounting, limits and speech: the statistics records and bumpStats, the
// limits and hooks, warn with its recursion guard, and setPassthru, which
// makes the manager.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

qkMemory* qkMemory::_This = nullptr;
void (*qkMemory::_printFunction)(char const*) = nullptr;
unsigned long long qkMemory::_systemLimit = 0;
unsigned long long qkMemory::_threadLimit = 0;
unsigned long long qkMemory::_keepLimit = 0;
void (*qkMemory::_memoryErrorHandler)(qkMemoryErrorId) = nullptr;
unsigned long long qkMemory::_pageSize = 0;

namespace qk::memory {
FastState fast = {nullptr, -1, 0, nullptr};
}

// Stands in for every summary while no manager exists.
static MEMORY_STATS noStats = {0, 0, 0};

// Set while a warning is being printed; only read and written under printLock,
// so it only ever stops the thread that is printing (from its print function).
static int warnBusy = 0;

// ---- Statistics --------------------------------------------------------------------

// Per-bucket entries never go below 0; the summary changes by the clamped
// amount. A limit is reported once per upward crossing, and never when the
// summary stood at 0 before the change.
int qkMemory::bumpStats(MEMORY_STATS& summary, MEMORY_STATS* array, int index, long long bytes,
                        long long count, unsigned long long limit) {
    long long old = loadRelaxed(summary.bytes);
    MEMORY_STATS& entry = array[index];
    long long entryBytes = loadRelaxed(entry.bytes) + bytes;
    if (entryBytes < 0) {
        bytes -= entryBytes;
        entryBytes = 0;
    }
    storeRelaxed(entry.bytes, entryBytes);
    long long entryCount = loadRelaxed(entry.count) + count;
    if (entryCount < 0) {
        count -= entryCount;
        entryCount = 0;
    }
    storeRelaxed(entry.count, entryCount);
    if (bytes) addAtomic(summary.bytes, bytes);
    if (count) addAtomic(summary.count, count);
    long long now = old + bytes;
    if (loadRelaxed(summary.highwater) < now) storeRelaxed(summary.highwater, now);
    return limit != 0 && old >= 1 && static_cast<unsigned long long>(old) <= limit && now >= 1 &&
           static_cast<unsigned long long>(now) > limit;
}

void qkMemory::summarizeStats(MEMORY_STATS&, MEMORY_STATS*) {}

MEMORY_STATS* qkMemory::getSystemStats() {
    qkMemory* m = manager();
    return m ? &m->summarySystemStats : &noStats;
}

MEMORY_STATS* qkMemory::getKeepStats() {
    qkMemory* m = manager();
    return m ? &m->summaryKeepStats : &noStats;
}

MEMORY_STATS* qkMemory::getThreadStats() {
    qkMemory* m = manager();
    return m ? &qkMemoryInternals::thread(m)->summaryStats : &noStats;
}

MEMORY_STATS qkMemory::loadStats(MEMORY_STATS const* stats) {
    return MEMORY_STATS{loadRelaxed(stats->count), loadRelaxed(stats->bytes),
                        loadRelaxed(stats->highwater)};
}

// ---- Limits --------------------------------------------------------------------------

unsigned long long qkMemory::getSystemLimit() {
    return loadRelaxed(_systemLimit);
}
void qkMemory::setSystemLimit(unsigned long long limit) {
    storeRelaxed(_systemLimit, limit);
}
unsigned long long qkMemory::getThreadLimit() {
    return loadRelaxed(_threadLimit);
}
void qkMemory::setThreadLimit(unsigned long long limit) {
    storeRelaxed(_threadLimit, limit);
}
unsigned long long qkMemory::getKeepLimit() {
    return loadRelaxed(_keepLimit);
}
void qkMemory::setKeepLimit(unsigned long long limit) {
    storeRelaxed(_keepLimit, limit);
}

int qkMemory::systemLimitReached(int size, int count) {
    qkMemory* m = manager();
    long long header = kHeaderSize + (m ? m->debugHeaderSize : 0);
    long long need = (static_cast<long long>(size) + header) * count;
    unsigned long long systemLimit = loadRelaxed(_systemLimit);
    long long bytes = loadRelaxed(getSystemStats()->bytes);
    if (systemLimit && bytes >= 1 && static_cast<unsigned long long>(bytes + need) > systemLimit) {
        return 1;
    }
    unsigned long long threadLimit = loadRelaxed(_threadLimit);
    if (!threadLimit) return 0;
    bytes = loadRelaxed(getThreadStats()->bytes);
    return bytes >= 1 && static_cast<unsigned long long>(bytes + need) > threadLimit;
}

void qkMemory::setSystemHighwater() {
    for (MEMORY_STATS* s : {getSystemStats(), getThreadStats()})
        storeRelaxed(s->highwater, loadRelaxed(s->bytes));
}

// ---- Hooks and warnings ------------------------------------------------------------

void qkMemory::setPrintFunction(void (*print)(char const*)) {
    storeRelaxed(_printFunction, print);
}

void (*qkMemory::getPrintFunction())(char const*) {
    return loadRelaxed(_printFunction);
}

void qkMemory::setThreadFunction(void* (*)()) {}

void* qkMemory::setThreadTag(void*) {
    return nullptr;
}

void qkMemory::warn(char const* message, char const* caller, int line) {
    qkMemory* m = manager();
    if (!m) return;
    char tag[16];
    std::snprintf(tag, sizeof tag, "0x%x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(caller)));
    m->printLock->lock();
    char text[1024];
    std::snprintf(text, sizeof text, "%s (%s:%d)\n", message, tag, line);
    if (!warnBusy) {
        warnBusy = 1;
        // The print function's requests keep their own contract.
        RefusalMode mode(Contract::manager);
        if (void (*print)(char const*) = loadRelaxed(_printFunction)) {
            print(text);
        } else {
            std::printf("%s", text);
        }
        warnBusy = 0;
    }
    m->printLock->unlock();
}

void qkMemory::abort() {
    std::fflush(stdout);
    std::abort();
}

void qkMemory::setPageSize(size_t size) {
    storeRelaxed(_pageSize, static_cast<unsigned long long>(size));
}

// ---- Creation ------------------------------------------------------------------------

// Blocks taken for "KorSysPreAllocation", chained through their first word
// so that they stay reachable (leak checkers see them held, not lost).
static void* preAllocations = nullptr;

static void preAllocate() {
    char const* text = std::getenv("KorSysPreAllocation");
    unsigned bytes = 0;
    if (!text || std::sscanf(text, "%u", &bytes) != 1) return;
    void* block = sysMalloc(bytes < sizeof(void*) ? sizeof(void*) : bytes);
    if (!block) return;
    *static_cast<void**>(block) = preAllocations;
    preAllocations = block;
}

void qkMemory::setPassthru(int passthru, void (*handler)(qkMemoryErrorId)) {
    static std::mutex creation;
    std::lock_guard<std::mutex> hold(creation);
    preAllocate();
    if (passthru != 0 || manager() != nullptr) return;
    // operator new still passes to the C runtime: no manager is published.
    qkMemory* m = new qkMemory;
    storeRelaxed(_memoryErrorHandler, handler);
    fast.infoKey = m->infoKey;
    storeRelaxed(fast.tuning, 1);
    std::atomic_ref<qkMemory*>(_This).store(m, std::memory_order_release);
    std::atomic_ref<qkMemory*>(fast.manager).store(m, std::memory_order_release);
    registerForkHandlers();
}
