// Debug mode: the slot ring of every block, its settings, and the registry
// of large blocks that a leak report walks.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "memory/qkMemoryInternal.h"

using namespace qk::memory;

namespace {

// Whether the manager holds any block or superblock, whose layout a change
// of the slot count would break.
bool layoutInUse(qkMemory* m) {
    return qkMemory::loadStats(&m->summarySystemStats).count != 0;
}

}  // namespace

void qkMemory::setDebug(unsigned char on, int count) {
    qkMemory* m = manager();
    if (!m) return;
    if (!on) {
        storeRelaxed(m->debug, static_cast<unsigned char>(0));
        return;
    }
    if (layoutInUse(m)) {
        // Only recording over the slots already laid out can be switched.
        if (m->debugHeaderCount == 0) {
            warn("debug mode must be set before the first allocation", kManagerFile, __LINE__);
            return;
        }
        storeRelaxed(m->debug, static_cast<unsigned char>(1));
        return;
    }
    m->debugHeaderCount = count > 0 ? count : 1;
    m->debugHeaderSize = kDebugSlotSize * m->debugHeaderCount;
    storeRelaxed(m->debug, static_cast<unsigned char>(1));
    qkMemoryInternals::armReportAtExit();
}

unsigned char qkMemory::getDebug() {
    qkMemory* m = manager();
    return m ? loadRelaxed(m->debug) : 0;
}

int qkMemory::getDebugHeaderCount() {
    qkMemory* m = manager();
    return m ? m->debugHeaderCount : 0;
}

int qkMemory::getDebugHeaderSize() {
    qkMemory* m = manager();
    return m ? m->debugHeaderSize : 0;
}

void qkMemory::padAllocation(void* header, void* caller, unsigned char isAlloc) {
    if (!debug) return;
    qkMemoryInternals::debugStep(this, static_cast<MEMORY_HEADER*>(header),
                                 static_cast<char const*>(caller), isAlloc != 0);
}

// ---- The large blocks of debug mode ---------------------------------------------
//
// An open-addressing set of header addresses in memory from the C runtime
// (so that it never asks the manager it serves), behind a lock of its own
// that is never held while another lock is taken.

namespace {

struct LargeRegistry {
    std::atomic_flag busy = ATOMIC_FLAG_INIT;
    MEMORY_HEADER** slots = nullptr;  // null or a header; kTomb for a removed one
    size_t capacity = 0;              // a power of two
    size_t used = 0;                  // slots not null (headers and tombs)
    size_t live = 0;
};
LargeRegistry registry;
MEMORY_HEADER* const kTomb = reinterpret_cast<MEMORY_HEADER*>(uintptr_t{1});

struct RegistryLock {
    RegistryLock() {
        while (registry.busy.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~RegistryLock() { registry.busy.clear(std::memory_order_release); }
};

size_t home(MEMORY_HEADER* h, size_t capacity) {
    return (reinterpret_cast<uintptr_t>(h) >> 4) * 0x9E3779B97F4A7C15ull & (capacity - 1);
}

void insertSlot(MEMORY_HEADER** slots, size_t capacity, MEMORY_HEADER* h) {
    for (size_t i = home(h, capacity);; i = (i + 1) & (capacity - 1)) {
        if (!slots[i] || slots[i] == kTomb) {
            slots[i] = h;
            return;
        }
    }
}

// Keeps at most half the slots taken, tombs included.
void makeRoom() {
    if (2 * (registry.used + 1) <= registry.capacity) return;
    size_t capacity = registry.capacity ? registry.capacity * 2 : 256;
    while (4 * (registry.live + 1) > capacity)
        capacity *= 2;
    auto** slots = static_cast<MEMORY_HEADER**>(std::calloc(capacity, sizeof(MEMORY_HEADER*)));
    if (!slots) std::abort();
    for (size_t i = 0; i < registry.capacity; ++i) {
        MEMORY_HEADER* h = registry.slots[i];
        if (h && h != kTomb) insertSlot(slots, capacity, h);
    }
    std::free(registry.slots);
    registry.slots = slots;
    registry.capacity = capacity;
    registry.used = registry.live;
}

}  // namespace

void qkMemoryInternals::registerLarge(MEMORY_HEADER* h) {
    RegistryLock hold;
    makeRoom();
    insertSlot(registry.slots, registry.capacity, h);
    ++registry.used, ++registry.live;
}

void qkMemoryInternals::unregisterLarge(MEMORY_HEADER* h) {
    RegistryLock hold;
    if (!registry.capacity) return;
    for (size_t i = home(h, registry.capacity); registry.slots[i];
         i = (i + 1) & (registry.capacity - 1)) {
        if (registry.slots[i] == h) {
            registry.slots[i] = kTomb;
            --registry.live;
            return;
        }
    }
}

void qkMemoryInternals::forEachLarge(void (*f)(MEMORY_HEADER*, void*), void* context) {
    RegistryLock hold;
    for (size_t i = 0; i < registry.capacity; ++i) {
        MEMORY_HEADER* h = registry.slots[i];
        if (h && h != kTomb) f(h, context);
    }
}
