// The C runtime's contract as libqkmalloc.so offers it (mallocC, reallocC)
// and the alignment of the library's operator new: 16-aligned blocks before
// and after buckets of 8 mod 16 bytes are tuned; null with errno ENOMEM and
// the block passed in untouched when the C runtime refuses (injected through
// sysMalloc and sysRealloc), with the heap and its statistics as they were;
// and the manager's own entry points still ending the process.
#include <errno.h>

#include <new>

#include "memory/qkMemoryTestUtil.h"

namespace {

using namespace qktest;
using C = qkMemoryInternals;

bool aligned16(void* p) {
    return reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

// Every size 0..4096 through every allocation without an explicit alignment
// of operator new and of the C contract, three blocks of each held at once
// (neighbours in a bucket whose stride is 8 mod 16 alternate between the two
// alignments).
void checkEverySize(char const* when) {
    using Form = std::pair<void* (*)(size_t), void (*)(void*)>;
    auto cfree = [](void* p) { qkFree(p, "c", 0); };
    Form const forms[] = {
        {[](size_t n) { return ::operator new(n); }, [](void* p) { ::operator delete(p); }},
        {[](size_t n) { return ::operator new[](n); }, [](void* p) { ::operator delete[](p); }},
        {[](size_t n) { return ::operator new(n, std::nothrow); },
         [](void* p) { ::operator delete(p, std::nothrow); }},
        {[](size_t n) { return ::operator new[](n, std::nothrow); },
         [](void* p) { ::operator delete[](p, std::nothrow); }},
        {[](size_t n) { return C::mallocC(n, "c"); }, cfree},
        {[](size_t n) { return C::reallocC(nullptr, n, "c"); }, cfree},
        {[](size_t n) { return C::reallocC(C::mallocC(n / 2, "c"), n, "c"); }, cfree},
    };
    for (size_t size = 0; size <= 4096; ++size) {
        for (size_t f = 0; f < std::size(forms); ++f) {
            void* blocks[3];
            for (void*& p : blocks)
                p = forms[f].first(size);
            for (void* p : blocks)
                ASSERT_TRUE(aligned16(p)) << when << ": form " << f << ", size " << size;
            for (void* p : blocks)
                forms[f].second(p);
        }
    }
}

// Makes small requests of `size` through qkMalloc until the manager tunes a
// bucket for it.
void tuneFor(int size) {
    qkMemory* m = mgr();
    for (long long i = 0; i < 4000000 && m->bucketNumber[size] < kBaseBuckets; ++i)
        qkFree(qkMalloc(static_cast<size_t>(size), "tune", 0), "tune", 0);
}

TEST(qkMemoryAlignment, OperatorNewAndTheCContractAlign16InTunedBucketsToo) {
    onFreshThread([] { checkEverySize("base buckets"); });
    qkMemory* m = mgr();
    for (int size : {100, 200, 40})
        tuneFor(size);
    for (int size : {100, 200, 40}) {  // tuned buckets whose stride is 8 mod 16
        int b = m->bucketNumber[size];
        ASSERT_GE(b, kBaseBuckets) << size;
        ASSERT_EQ(m->bucketSize[b] % 16, 8) << size;
    }
    onFreshThread([] {
        // The manager's own contract is as it was: a 104-byte block whose
        // neighbours are only 8-aligned.
        std::vector<void*> blocks = take(100, 4);
        EXPECT_EQ(qkMemSize(blocks[0]), 104u);
        EXPECT_TRUE(
            std::any_of(blocks.begin(), blocks.end(), [](void* p) { return !aligned16(p); }));
        release(blocks);
        checkEverySize("tuned buckets");
    });
}

// ---- Refusals -------------------------------------------------------------------

void* refuse(size_t) {
    return nullptr;
}
// Refuses the requests of the C contract only: the test's own (and those of
// a failure report) are served.
void* refuseSoftly(size_t size) {
    return RefusalMode::soft() ? nullptr : qk::platform::rawAlloc(size);
}
void* refuseResize(void*, size_t) {
    return nullptr;
}

// What must not change when a request is refused.
struct Charges {
    MEMORY_STATS system, thread, large;
    explicit Charges(MEMORY_THREAD* mt)
        : system(mgr()->summarySystemStats), thread(mt->summaryStats), large(mt->stats[24]) {}
    auto tie() const {
        return std::make_tuple(system.count, system.bytes, system.highwater, thread.count,
                               thread.bytes, thread.highwater, large.count, large.bytes);
    }
};

// The refused call returns null with ENOMEM, prints nothing, charges nothing
// and keeps the reserve; the heap stays sound.
template <class Call>
void expectRefused(Call call, char const* what) {
    MEMORY_THREAD* mt = qkMemoryThread();
    Charges before(mt);
    Warnings::install();
    errno = 0;
    EXPECT_EQ(call(), nullptr) << what;
    EXPECT_EQ(errno, ENOMEM) << what;
    EXPECT_EQ(Charges(mt).tie(), before.tie()) << what;
    EXPECT_EQ(Warnings::take(), "") << what;
    EXPECT_NE(mgr()->reserve, nullptr);
    checkHeap(mt);
}

// A bucket whose superblocks are all full, a large block, the growth of a
// small, a large and a foreign block: each refused, each block as it was and
// still usable afterwards.
TEST(qkMemoryFailSoftly, RefusedRequestsReturnNullAndLeaveEverythingAsItWas) {
    onFreshThread([] {
        std::vector<void*> full = take(300, 16288 / 336);  // one superblock, every block in use
        ASSERT_EQ(superblockOf(full[0]), superblockOf(full.back()));
        char* small = static_cast<char*>(C::mallocC(100, "c"));
        char* large = static_cast<char*>(C::mallocC(5000, "c"));
        char* foreign = static_cast<char*>(qk::platform::rawAlloc(700));
        stamp(small, 100, 1), stamp(large, 5000, 2), stamp(foreign, 700, 3);
        sysMalloc = refuseSoftly;
        sysRealloc = refuseResize;
        expectRefused([] { return C::mallocC(300, "c"); }, "empty bucket");
        expectRefused([] { return C::mallocC(3000, "c"); }, "large");
        expectRefused([&] { return C::reallocC(small, 3000, "c"); }, "small grown");
        expectRefused([&] { return C::reallocC(large, 60000, "c"); }, "large grown");
        expectRefused([&] { return C::reallocC(foreign, 900, "c"); }, "foreign grown");
        expectRefused([&] { return C::reallocC(foreign, size_t{1} << 44, "c"); }, "foreign 16T");
        sysMalloc = qk::platform::rawAlloc;
        sysRealloc = qk::platform::rawRealloc;
        EXPECT_TRUE(stamp(small, 100, 1, true) && stamp(large, 5000, 2, true) &&
                    stamp(foreign, 700, 3, true));
        EXPECT_EQ(qkMemSize(small), 128u);
        EXPECT_EQ(qkMemSize(large), 5000u);
        small = static_cast<char*>(C::reallocC(small, 3000, "c"));
        large = static_cast<char*>(C::reallocC(large, 60000, "c"));
        foreign = static_cast<char*>(C::reallocC(foreign, 900, "c"));
        EXPECT_TRUE(stamp(small, 100, 1, true) && stamp(large, 5000, 2, true) &&
                    stamp(foreign, 700, 3, true));
        full.insert(full.end(), {small, large, foreign, C::mallocC(300, "c")});
        release(full);
        checkHeap(qkMemoryThread());
    });
}

// A thread's first request: its heap is made with the manager's contract (the
// record and what binding it to the thread takes), then the request's
// superblock is refused.
TEST(qkMemoryFailSoftly, TheFirstRequestOfAThread) {
    static int refusals;
    refusals = 0;
    onFreshThread([] {
        sysMalloc = [](size_t size) -> void* {
            if (!RefusalMode::soft()) return qk::platform::rawAlloc(size);
            ++refusals;
            return nullptr;
        };
        errno = 0;
        EXPECT_EQ(C::mallocC(64, "first"), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        sysMalloc = qk::platform::rawAlloc;
        EXPECT_EQ(refusals, 2);  // the superblock and its retry
        MEMORY_THREAD* mt = qkMemoryThread();
        ASSERT_NE(mt, nullptr);
        for (int b = 0; b < kBucketLimit; ++b)
            EXPECT_EQ(mt->stats[b].count, 0);
        checkHeap(mt);
        qkFree(C::mallocC(64, "first"), "first", 0);
    });
}

// Random requests, growths and releases of small, large and foreign blocks
// while the C runtime refuses about one request in three: every block keeps
// its pattern, a refused growth leaves the block in place, and the heap and
// its large-block charges match the model throughout.
TEST(qkMemoryFailSoftly, RandomRefusalsAgainstAModel) {
    onFreshThread([] {
        static std::mt19937 faults(99);
        // Requests of the manager's contract (the test's own) are never refused.
        sysMalloc = [](size_t n) {
            return !RefusalMode::soft() || faults() % 3 ? qk::platform::rawAlloc(n) : nullptr;
        };
        sysRealloc = [](void* p, size_t n) {
            return faults() % 3 ? qk::platform::rawRealloc(p, n) : nullptr;
        };
        // "memory critical" when a retry succeeds; room for it is made now,
        // while nothing is refused.
        Warnings::install();
        Warnings::text.reserve(4096);
        std::mt19937 rng(4321);
        std::vector<Block> live;
        live.reserve(20000);  // the model takes no memory while the C runtime refuses
        MEMORY_THREAD* mt = qkMemoryThread();
        long long large[2] = {mt->stats[24].bytes, mt->stats[24].count};  // the model's own
        long long const modelBlocks = large[1];
        auto charge = [&](Block const& b, int sign) {
            if (b.usable > 512)
                large[0] += sign * static_cast<long long>(b.usable), large[1] += sign;
        };
        // A new block of the manager has the usable size of the rounded request.
        auto fresh = [](size_t size) { return usableSize(C::alignedRequest(size)); };
        auto add = [&](char* p, size_t size, uint32_t seed, size_t usable) {
            ASSERT_TRUE(aligned16(p));
            ASSERT_EQ(qkMemSize(p), usable);
            Block b{p, size, usable, seed};
            stamp(p, size, seed);
            charge(b, 1);
            live.push_back(b);
        };
        auto checkCharges = [&] {
            EXPECT_EQ(std::make_pair(mt->stats[24].bytes, mt->stats[24].count),
                      std::make_pair(large[0], large[1]));
            checkHeap(mt);
        };
        int refused = 0;
        for (int step = 0; step < 20000 && !::testing::Test::HasFailure(); ++step) {
            if (step % 500 == 0) checkCharges();
            Warnings::text.clear();
            unsigned op = rng() % 100;
            size_t size = randomSize(rng);
            if (op < 40 || live.empty()) {
                bool foreign = op < 5;
                char* p = static_cast<char*>(foreign ? qk::platform::rawAlloc(size + 1)
                                                     : C::mallocC(size, "model"));
                if (p) add(p, size, static_cast<uint32_t>(rng()), foreign ? 0 : fresh(size));
                refused += !p;
                continue;
            }
            size_t index = rng() % live.size();
            Block was = live[index];
            auto drop = [&] { live[index] = live.back(), live.pop_back(); };
            ASSERT_TRUE(was.intact()) << "step " << step;
            if (op < 70) {
                drop();
                charge(was, -1);
                qkFree(was.p, "model", step);
                continue;
            }
            char* q = static_cast<char*>(C::reallocC(was.p, size, "model"));
            refused += !q;
            if (!q) continue;  // the block stays as it was, in the model too
            ASSERT_TRUE(stamp(q, std::min(size, was.size), was.seed, true)) << "step " << step;
            drop();
            charge(was, -1);
            if (was.usable == 0) {  // the C runtime's block, moved or not
                add(q, std::min(size, was.size), was.seed, 0);
            } else if (was.usable >= size) {  // kept in place, pattern and all
                ASSERT_EQ(q, was.p) << "step " << step;
                add(q, was.size, was.seed, was.usable);
            } else {
                add(q, size, was.seed, fresh(size));
            }
        }
        sysMalloc = qk::platform::rawAlloc;
        sysRealloc = qk::platform::rawRealloc;
        EXPECT_GT(refused, 100);
        checkCharges();
        for (Block& block : live) {
            EXPECT_TRUE(block.intact());
            qkFree(block.p, "model", 0);
        }
        EXPECT_EQ(mt->stats[24].count, modelBlocks);
        checkHeap(mt);
    });
}

// The print function and the error handler run while a C-contract request is
// being served; their own requests keep the manager's contract (here: are
// not refused, as the injection refuses only C-contract requests of 7000).
TEST(qkMemoryFailSoftly, CallersCodeRunByTheManagerKeepsItsOwnContract) {
    static int made, asked[2], firstRefused;  // asked by the print function, the handler
    made = asked[0] = asked[1] = firstRefused = 0;
    static void (*inner)(int) = [](int who) {
        void* p = qkMalloc(7000, "inner", 0);
        ++asked[who], made += p != nullptr;
        qkFree(p, "inner", 0);
    };
    onFreshThread([] {
        void* held = qkMalloc(100, "held", 0);  // the heap is made and something is charged
        qkMemory::setPrintFunction([](char const*) { inner(0); });
        qkMemory::_memoryErrorHandler = [](qkMemoryErrorId) { inner(1); };
        qkMemory::setSystemLimit(static_cast<unsigned long long>(mgr()->summarySystemStats.bytes));
        // The first try of the outer request is refused, its retry succeeds
        // with a warning ("memory critical"); the requests cross the limit.
        sysMalloc = [](size_t size) -> void* {
            bool refuse = RefusalMode::soft() && (size == 7016 || firstRefused++ == 0);
            return refuse ? nullptr : qk::platform::rawAlloc(size);
        };
        void* outer = C::mallocC(3000, "outer");
        sysMalloc = qk::platform::rawAlloc;
        qkMemory::setSystemLimit(0);
        qkMemory::_memoryErrorHandler = nullptr;
        qkMemory::setPrintFunction(nullptr);
        EXPECT_NE(outer, nullptr);
        EXPECT_GE(asked[0], 1);
        EXPECT_GE(asked[1], 1);
        EXPECT_EQ(made, asked[0] + asked[1]);
        qkFree(outer, "outer", 0);
        qkFree(held, "held", 0);
    });
}

// The manager's entry points end the process as before, even on a thread
// whose C-contract request was just refused, and print the size in full.
TEST(qkMemoryFailSoftly, TheManagersOwnEntryPointsStillEndTheProcess) {
    auto killed = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(
        {
            dup2(2, 1);
            qkMemoryThread();  // the heap is there (all but its record are refused)
            sysMalloc = refuse;
            if (C::mallocC(3000, "soft") == nullptr) qkMalloc(3000, "hard", 7);
        },
        killed, "out of memory allocating 3016 bytes\nout of memory \\(0x[0-9a-f]+:7\\)\n");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            sysRealloc = refuseResize;
            qkRealloc(qk::platform::rawAlloc(64), size_t{1} << 44, "grow", 8);
        },
        killed, "out of memory reallocating 17592186044416 bytes\nout of memory \\(0x");
}

}  // namespace
