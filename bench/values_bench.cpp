// Value conversions: text into int, double and date values and back, beside
// the C++ library's from_chars/to_chars and the C library's strtol/strtof/
// snprintf on the same texts. Dates go through a small host format (the
// library has no date text of its own), timed beside that format alone.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "qkScalarValues.h"

namespace {

std::vector<std::string> texts(bool fractional) {
    std::mt19937 rng(7);
    std::vector<std::string> out;
    for (int i = 0; i < 1024; ++i) {
        char buf[32];
        if (fractional) {
            std::snprintf(buf, sizeof buf, "%.3f", (rng() % 2000000) / 1000.0 - 1000.0);
        } else {
            std::snprintf(buf, sizeof buf, "%d", static_cast<int>(rng() % 2000000) - 1000000);
        }
        out.push_back(buf);
    }
    return out;
}

std::vector<qkString> asStrings(std::vector<std::string> const& in) {
    std::vector<qkString> out;
    for (auto const& s : in)
        out.emplace_back(s.c_str());
    return out;
}

// ---- int -------------------------------------------------------------------

void IntSetText(benchmark::State& state) {
    auto in = asStrings(texts(false));
    qkIntValue v;
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(v.set(in[i++ & 1023]));
}
void IntFromChars(benchmark::State& state) {
    auto in = texts(false);
    size_t i = 0;
    for (auto _ : state) {
        std::string const& s = in[i++ & 1023];
        int n;
        std::from_chars(s.data(), s.data() + s.size(), n);
        benchmark::DoNotOptimize(n);
    }
}
void IntStrtol(benchmark::State& state) {
    auto in = texts(false);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(std::strtol(in[i++ & 1023].c_str(), nullptr, 10));
}
// The numbers vary, so that no conversion is folded away.
int numberAt(uint32_t i) {
    return static_cast<int>(i * 2654435761u) >> 8;
}

void IntGetText(benchmark::State& state) {
    qkIntValue v;
    qkString out;
    uint32_t i = 0;
    for (auto _ : state) {
        v.value = numberAt(i++);
        v.get(out);
        benchmark::DoNotOptimize(out.sanitize());
    }
}
void IntToChars(benchmark::State& state) {
    char buf[16];
    uint32_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::to_chars(buf, buf + sizeof buf, numberAt(i++)));
        benchmark::ClobberMemory();
    }
}
void IntSnprintf(benchmark::State& state) {
    char buf[16];
    uint32_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buf, sizeof buf, "%d", numberAt(i++)));
        benchmark::ClobberMemory();
    }
}

// ---- double ----------------------------------------------------------------

void DoubleSetText(benchmark::State& state) {
    auto in = asStrings(texts(true));
    qkDoubleValue v;
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(v.set(in[i++ & 1023]));
}
void DoubleFromChars(benchmark::State& state) {
    auto in = texts(true);
    size_t i = 0;
    for (auto _ : state) {
        std::string const& s = in[i++ & 1023];
        float f;
        std::from_chars(s.data(), s.data() + s.size(), f);
        benchmark::DoNotOptimize(f);
    }
}
void DoubleStrtof(benchmark::State& state) {
    auto in = texts(true);
    size_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(std::strtof(in[i++ & 1023].c_str(), nullptr));
}
// The cache is emptied each time, so that every get formats.
void DoubleGetText(benchmark::State& state) {
    qkDoubleValue v;
    qkString out;
    for (auto _ : state) {
        v.set(-1234.5625);
        v.get(out);
        benchmark::DoNotOptimize(out.sanitize());
    }
}
void DoubleToChars(benchmark::State& state) {
    char buf[64];
    double d = -1234.5625;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed, 6));
        benchmark::ClobberMemory();
    }
}
void DoubleSnprintf(benchmark::State& state) {
    char buf[64];
    double d = -1234.5625;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buf, sizeof buf, "%f", d));
        benchmark::ClobberMemory();
    }
}

// ---- date, through a host format --------------------------------------------

void parseIso(char const* s, qkTimebase& t) {
    auto num = [&](int n) {
        int v = 0;
        for (int k = 0; k < n; ++k)
            v = v * 10 + (*s++ - '0');
        ++s;  // the separator
        return static_cast<uint16_t>(v);
    };
    uint16_t y = num(4), mo = num(2), d = num(2), h = num(2), mi = num(2), sec = num(2);
    t = qkTimebase(y, mo, d, h, mi, sec);
}
void formatIso(qkTimebase const& t, qkString& s) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%04u-%02u-%02u %02u:%02u:%02u", t.year(), t.month(), t.day(),
                  t.hour(), t.minute(), static_cast<unsigned>(t.second()));
    s = buf;
}

void DateSetText(benchmark::State& state) {
    qkValue::setString2time(parseIso);
    qkString text("2026-11-24 18:05:59");
    qkDateValue v;
    for (auto _ : state)
        benchmark::DoNotOptimize(v.set(text));
    qkValue::setString2time(nullptr);
}
void DateHostParseAlone(benchmark::State& state) {
    qkTimebase t;
    for (auto _ : state) {
        parseIso("2026-11-24 18:05:59", t);
        benchmark::DoNotOptimize(t);
    }
}
void DateGetText(benchmark::State& state) {
    qkValue::setTime2string(formatIso);
    qkDateValue v;
    v.set(qkTimebase(2026, 11, 24, 18, 5, 59));
    qkString out;
    for (auto _ : state) {
        v.get(out);
        benchmark::DoNotOptimize(out.sanitize());
    }
    qkValue::setTime2string(nullptr);
}
void DateHostFormatAlone(benchmark::State& state) {
    qkTimebase t(2026, 11, 24, 18, 5, 59);
    qkString out;
    for (auto _ : state) {
        formatIso(t, out);
        benchmark::DoNotOptimize(out.sanitize());
    }
}

}  // namespace

BENCHMARK(IntSetText);
BENCHMARK(IntFromChars);
BENCHMARK(IntStrtol);
BENCHMARK(IntGetText);
BENCHMARK(IntToChars);
BENCHMARK(IntSnprintf);
BENCHMARK(DoubleSetText);
BENCHMARK(DoubleFromChars);
BENCHMARK(DoubleStrtof);
BENCHMARK(DoubleGetText);
BENCHMARK(DoubleToChars);
BENCHMARK(DoubleSnprintf);
BENCHMARK(DateSetText);
BENCHMARK(DateHostParseAlone);
BENCHMARK(DateGetText);
BENCHMARK(DateHostFormatAlone);

BENCHMARK_MAIN();
