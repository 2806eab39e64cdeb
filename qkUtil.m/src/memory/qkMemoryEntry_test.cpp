// The library's operator new / delete with the manager in place: where each
// form routes, what a refused request does, and the caller tags that
// getCaller gives the operators.
#include <new>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

__attribute__((noinline)) void* callerOfGetCaller() {
    void* caller = getCaller(16);
    asm volatile("");  // keeps the call from becoming a tail jump
    return caller;
}

__attribute__((noinline)) void deleteIt(int* p) {
    delete p;
    asm volatile("");
}

// Whether `address` (or its low 32 bits) lies just inside `function`.
bool inside(uintptr_t address, void* function) {
    uintptr_t f = reinterpret_cast<uintptr_t>(function);
    if (address <= 0xFFFFFFFF) address |= f & ~uintptr_t{0xFFFFFFFF};
    return address > f && address < f + 128;
}

TEST(qkMemoryEntry, TheOperatorsRouteEveryFormAndTagTheCallSite) {
    EXPECT_TRUE(inside(reinterpret_cast<uintptr_t>(callerOfGetCaller()),
                       reinterpret_cast<void*>(&callerOfGetCaller)));
    char* one = new char[100];
    // The sanitizers bring their own operator new, which then serves the process.
    if (qkMemSize(one) == 0) GTEST_SKIP() << "operator new is the sanitizer's";
    EXPECT_EQ(qkMemSize(one), 128u);
    delete[] one;
    Warnings::install();
    int* p = new int(1);
    deleteIt(p), deleteIt(p);  // the second release is reported with the caller's address
    unsigned tag = 0;
    std::string got = Warnings::take();
    ASSERT_EQ(std::sscanf(got.c_str(), "duplicate free (0x%x:", &tag), 1) << got;
    char line[64];
    std::snprintf(line, sizeof line, "duplicate free (0x%x:0)\n", tag);
    EXPECT_EQ(got, line);
    EXPECT_TRUE(inside(tag, reinterpret_cast<void*>(&deleteIt))) << got;

    struct alignas(64) Wide {
        char bytes[64];
    };
    Wide* wide = new Wide[3];
    // From the C runtime's aligned heap.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(wide) % 64 + qkMemSize(wide), 0u);
    delete[] wide;
    ::operator delete(qk::platform::rawAlloc(24));  // a block of the C runtime
    // A refused request consults the new handler, then fails its way.
    EXPECT_EQ(::operator new (size_t{1} << 31, std::nothrow), nullptr);
    static int handlerRuns = 0;
    std::set_new_handler([] {
        ++handlerRuns;
        std::set_new_handler(nullptr);
    });
    EXPECT_THROW((void)::operator new (size_t{1} << 31), std::bad_alloc);
    EXPECT_EQ(handlerRuns, 1);
}

#ifdef __SANITIZE_ADDRESS__
// The manager's superblocks are single allocations to the sanitizer; the
// data of free blocks is poisoned so that misuse inside them is still seen.
TEST(qkMemorySanitizer, UseAfterFreeInsideASuperblockIsReported) {
    char* p = static_cast<char*>(qkMalloc(100, "uaf", 1));
    qkFree(p, "uaf", 2);
    EXPECT_DEATH(*static_cast<char volatile*>(p + 3) = 1, "use-after-poison");
}
#endif

}  // namespace
