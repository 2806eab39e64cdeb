// The plain entry points and the library's operator new / delete with the
// manager in place: what each gives back, where each form routes, and the
// caller tags they pass on.
#include <cstring>
#include <new>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;

TEST(qkMemoryEntry, CallocStrdupAndThreadHeaps) {
    unsigned char* dirty = static_cast<unsigned char*>(qkMalloc(100, "e", 1));
    std::memset(dirty, 0xFF, 128);
    qkFree(dirty, "e", 2);
    unsigned char* z = static_cast<unsigned char*>(qkCalloc(10, 10, "e", 3));
    EXPECT_EQ(z, dirty);  // the same block, cleared
    EXPECT_EQ(qkMemSize(z), 128u);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(z[i], 0) << i;
    qkFree(z, "e", 4);

    char* s = qkStrdup("a string", "e", 5);
    EXPECT_STREQ(s, "a string");
    EXPECT_EQ(qkMemSize(s), 32u);
    qkFree(s, "e", 6);
    EXPECT_EQ(qkStrdup(nullptr, "e", 7), nullptr);
    qkFree(nullptr, "e", 8);
    EXPECT_EQ(qkMemSize(nullptr), 0u);
    // Blocks of the process's malloc (the C runtime's, or a sanitizer's) are
    // recognised as not the manager's and released where they came from.
    for (size_t n : {0, 1, 24, 5000, 200000}) {
        void* foreign = std::malloc(n);
        EXPECT_EQ(qkMemSize(foreign), 0u);
        foreign = qkRealloc(foreign, n + 10, "e", 9);
        EXPECT_EQ(qkMemSize(foreign), 0u);
        qkFree(foreign, "e", 10);
    }

    MEMORY_THREAD* mine = qkMemoryThread();
    EXPECT_EQ(qkMemoryThread(), mine);
    EXPECT_EQ(mgr()->getThread(), mine);
    MEMORY_THREAD* other = nullptr;
    std::thread([&] { other = qkMemoryThread(); }).join();
    EXPECT_NE(other, mine);
}

// Whether the process's operator new is the library's: the sanitizers bring
// their own, which then serves the whole process instead.
bool libraryOperatorNew() {
    void* p = ::operator new(100);
    bool ours = qkMemSize(p) != 0;
    ::operator delete(p);
    return ours;
}

__attribute__((noinline)) void* callerOfGetCaller() {
    void* caller = getCaller(16);
    asm volatile("");  // keeps the call from becoming a tail jump
    return caller;
}

__attribute__((noinline)) void deleteIt(int* p) {
    delete p;
    asm volatile("");  // keeps the call from becoming a tail jump
}

bool inside(void* address, void* function) {
    uintptr_t a = reinterpret_cast<uintptr_t>(address);
    uintptr_t f = reinterpret_cast<uintptr_t>(function);
    return a > f && a < f + 128;
}

TEST(qkMemoryEntry, GetCallerAndTheOperatorsTagTheCallSite) {
    EXPECT_TRUE(inside(callerOfGetCaller(), reinterpret_cast<void*>(callerOfGetCaller)));
    if (!libraryOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
    std::vector<std::string> lines;
    qkMemory::setPrintFunction([](char const* text) { Warnings::print(text); });
    int* p = new int(1);
    deleteIt(p);
    deleteIt(p);  // the second release is reported with the caller's address
    auto got = Warnings::take();
    ASSERT_EQ(got.size(), 1u);
    unsigned tag = 0;
    ASSERT_EQ(std::sscanf(got[0].c_str(), "duplicate free (0x%x:0)", &tag), 1) << got[0];
    uint32_t low = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&deleteIt));
    EXPECT_GT(tag, low);
    EXPECT_LT(tag, low + 128);
}

TEST(qkMemoryEntry, EveryFormOfNewAndDeleteRoutesConsistently) {
    if (!libraryOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
    char* one = new char[100];
    EXPECT_EQ(qkMemSize(one), 128u);
    delete[] one;
    auto* sized = new std::string("sized delete goes through the manager too");
    EXPECT_NE(qkMemSize(sized), 0u);
    delete sized;
    int* quiet = new (std::nothrow) int[1000];
    EXPECT_EQ(qkMemSize(quiet), 4000u);
    ::operator delete[](quiet, std::nothrow);

    struct alignas(64) Wide {
        char bytes[64];
    };
    Wide* wide = new Wide[3];
    EXPECT_EQ(reinterpret_cast<uintptr_t>(wide) % 64, 0u);
    EXPECT_EQ(qkMemSize(wide), 0u);  // the C runtime's aligned heap
    delete[] wide;
    void* aligned = ::operator new (10, std::align_val_t{256}, std::nothrow);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % 256, 0u);
    ::operator delete (aligned, std::align_val_t{256});

    // A block made before the manager existed is released to the C runtime.
    void* early = qk::platform::rawAlloc(24);
    ::operator delete(early);
}

int handlerRuns = 0;
void giveUp() {
    ++handlerRuns;
    std::set_new_handler(nullptr);
}

TEST(qkMemoryEntry, ARefusedNewConsultsTheNewHandlerThenThrows) {
    if (!libraryOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
    size_t tooLarge = size_t{1} << 31;
    EXPECT_EQ(::operator new(tooLarge, std::nothrow), nullptr);
    std::set_new_handler(giveUp);
    EXPECT_THROW((void)::operator new(tooLarge), std::bad_alloc);
    EXPECT_EQ(handlerRuns, 1);
}

#ifdef __SANITIZE_ADDRESS__
// The manager's superblocks are single allocations to the sanitizer; the
// data of free blocks is poisoned so that misuse inside them is still seen.
TEST(qkMemorySanitizer, UseAfterFreeAndOverrunIntoAFreeBlockAreReported) {
    EXPECT_DEATH(
        {
            char* p = static_cast<char*>(qkMalloc(100, "uaf", 1));
            qkFree(p, "uaf", 2);
            *static_cast<char volatile*>(p + 3) = 1;
        },
        "use-after-poison");
    EXPECT_DEATH(
        {
            char* p = static_cast<char*>(qkMalloc(200, "over", 1));  // highest free block first
            char* below = static_cast<char*>(qkMalloc(200, "over", 2));
            qkFree(p, "over", 3);
            std::memset(below, 0, 224 + 16 + 8);  // runs through the header into freed data
        },
        "use-after-poison");
}
#endif

}  // namespace
