// The shared string against the peers a caller would otherwise use:
// std::string for copying, assigning and appending; snprintf into a fixed
// buffer and fmt for formatting; std::shared_ptr and a plain counter for the
// cost of sharing by reference count.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <string>

#include "qkString.h"

namespace {

std::string sample(int64_t len) {
    std::string s;
    for (int64_t i = 0; i < len; ++i)
        s += static_cast<char>('a' + i % 26);
    return s;
}

// ---- copy: a same-thread copy of a heap text is a count increment ----

void BM_Copy_qkString(benchmark::State& state) {
    qkString s(sample(state.range(0)).c_str());
    for (auto _ : state) {
        qkString t = s;
        benchmark::DoNotOptimize(t.sanitize());
    }
}
BENCHMARK(BM_Copy_qkString)->Arg(16)->Arg(64)->Arg(1024)->Arg(65536);

void BM_Copy_stdString(benchmark::State& state) {
    std::string s = sample(state.range(0));
    for (auto _ : state) {
        std::string t = s;
        benchmark::DoNotOptimize(t.data());
    }
}
BENCHMARK(BM_Copy_stdString)->Arg(16)->Arg(64)->Arg(1024)->Arg(65536);

void BM_Copy_sharedPtr(benchmark::State& state) {
    auto s = std::make_shared<std::string>(sample(state.range(0)));
    for (auto _ : state) {
        std::shared_ptr<std::string> t = s;
        benchmark::DoNotOptimize(t.get());
    }
}
BENCHMARK(BM_Copy_sharedPtr)->Arg(64);

// A plain (non-atomic) count raised and lowered through a pointer: the
// floor for any reference-counted copy.
void BM_Copy_plainCount(benchmark::State& state) {
    int count = 1;
    int* p = &count;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        *p += 1;
        benchmark::ClobberMemory();
        *p -= 1;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Copy_plainCount);

// ---- assign a text to an existing string ----

void BM_Assign_qkString(benchmark::State& state) {
    std::string text = sample(state.range(0));
    qkString s;
    for (auto _ : state) {
        s = text.c_str();
        benchmark::DoNotOptimize(s.sanitize());
    }
}
BENCHMARK(BM_Assign_qkString)->Arg(16)->Arg(200);

void BM_Assign_stdString(benchmark::State& state) {
    std::string text = sample(state.range(0));
    std::string s;
    for (auto _ : state) {
        s = text.c_str();
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_Assign_stdString)->Arg(16)->Arg(200);

// ---- append: build a 1000-byte text ----

void BM_AppendChar_qkString(benchmark::State& state) {
    for (auto _ : state) {
        qkString s;
        for (int i = 0; i < 1000; ++i)
            s += 'x';
        benchmark::DoNotOptimize(s.sanitize());
    }
}
BENCHMARK(BM_AppendChar_qkString);

void BM_AppendChar_stdString(benchmark::State& state) {
    for (auto _ : state) {
        std::string s;
        for (int i = 0; i < 1000; ++i)
            s += 'x';
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_AppendChar_stdString);

void BM_AppendText_qkString(benchmark::State& state) {
    for (auto _ : state) {
        qkString s;
        for (int i = 0; i < 100; ++i)
            s += "0123456789";
        benchmark::DoNotOptimize(s.sanitize());
    }
}
BENCHMARK(BM_AppendText_qkString);

void BM_AppendText_stdString(benchmark::State& state) {
    for (auto _ : state) {
        std::string s;
        for (int i = 0; i < 100; ++i)
            s += "0123456789";
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_AppendText_stdString);

// ---- format a typical line ----

char const* key() {
    static char const k[] = "status";
    benchmark::DoNotOptimize(k);
    return k;
}

void BM_Format_qkString(benchmark::State& state) {
    qkString s;
    int i = 0;
    for (auto _ : state) {
        s.sprintf("%s=%d (%.2f)", key(), ++i, 3.14159);
        benchmark::DoNotOptimize(s.sanitize());
    }
}
BENCHMARK(BM_Format_qkString);

void BM_Format_snprintf(benchmark::State& state) {
    char buf[128];
    int i = 0;
    for (auto _ : state) {
        std::snprintf(buf, sizeof buf, "%s=%d (%.2f)", key(), ++i, 3.14159);
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_Format_snprintf);

void BM_Format_fmtFormat(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        std::string s = fmt::format("{}={} ({:.2f})", key(), ++i, 3.14159);
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_Format_fmtFormat);

void BM_Format_fmtFormatTo(benchmark::State& state) {
    char buf[128];
    int i = 0;
    for (auto _ : state) {
        auto end = fmt::format_to_n(buf, sizeof buf - 1, "{}={} ({:.2f})", key(), ++i, 3.14159);
        *end.out = 0;
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_Format_fmtFormatTo);

// Integers only, and a line longer than the inline buffer.
void BM_FormatLong_qkString(benchmark::State& state) {
    qkString s;
    int i = 0;
    for (auto _ : state) {
        s.sprintf("row %d of table %s: id=%08X next=%d", ++i, key(), i * 7, i + 1);
        benchmark::DoNotOptimize(s.sanitize());
    }
}
BENCHMARK(BM_FormatLong_qkString);

void BM_FormatLong_snprintf(benchmark::State& state) {
    char buf[128];
    int i = 0;
    for (auto _ : state) {
        std::snprintf(buf, sizeof buf, "row %d of table %s: id=%08X next=%d", ++i, key(), i * 7,
                      i + 1);
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_FormatLong_snprintf);

}  // namespace

BENCHMARK_MAIN();
