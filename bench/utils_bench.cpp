// Identifiers and encodings: Base64 throughput against a plain table codec
// written here (one table lookup per character, the textbook loop), the
// value record's write and read per value, and getuuid per call.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qkBase64.h"
#include "qkMemory.h"
#include "qkScalarValues.h"
#include "qkUuid.h"

namespace {

constexpr size_t kBytes = 1 << 20;

std::string const& randomBytes() {
    static std::string const bytes = [] {
        std::mt19937 rng(1);
        std::string s(kBytes, '\0');
        for (char& c : s)
            c = char(rng());
        return s;
    }();
    return bytes;
}

// ---- the plain codec ----------------------------------------------------------------

char const kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

size_t plainEncode(unsigned char const* in, size_t n, char* out) {
    char* o = out;
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        *o++ = kAlphabet[in[i] >> 2];
        *o++ = kAlphabet[((in[i] & 3) << 4) | (in[i + 1] >> 4)];
        *o++ = kAlphabet[((in[i + 1] & 15) << 2) | (in[i + 2] >> 6)];
        *o++ = kAlphabet[in[i + 2] & 63];
    }
    if (n - i == 1) {
        *o++ = kAlphabet[in[i] >> 2];
        *o++ = kAlphabet[(in[i] & 3) << 4];
        *o++ = '=', *o++ = '=';
    } else if (n - i == 2) {
        *o++ = kAlphabet[in[i] >> 2];
        *o++ = kAlphabet[((in[i] & 3) << 4) | (in[i + 1] >> 4)];
        *o++ = kAlphabet[(in[i + 1] & 15) << 2];
        *o++ = '=';
    }
    *o = 0;
    return size_t(o - out);
}

struct PlainTable {
    unsigned char value[256];
    PlainTable() {
        std::memset(value, 0, sizeof value);
        for (int i = 0; i < 64; ++i)
            value[static_cast<unsigned char>(kAlphabet[i])] = uint8_t(i);
    }
};

size_t plainDecode(char const* in, size_t n, unsigned char* out) {
    static PlainTable const t;
    unsigned char* o = out;
    while (n && in[n - 1] == '=')
        --n;
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        uint32_t v = uint32_t(t.value[uint8_t(in[i])]) << 18 |
                     uint32_t(t.value[uint8_t(in[i + 1])]) << 12 |
                     uint32_t(t.value[uint8_t(in[i + 2])]) << 6 | t.value[uint8_t(in[i + 3])];
        *o++ = uint8_t(v >> 16), *o++ = uint8_t(v >> 8), *o++ = uint8_t(v);
    }
    if (n - i >= 2) *o++ = uint8_t(t.value[uint8_t(in[i])] << 2 | t.value[uint8_t(in[i + 1])] >> 4);
    if (n - i == 3)
        *o++ = uint8_t(t.value[uint8_t(in[i + 1])] << 4 | t.value[uint8_t(in[i + 2])] >> 2);
    *o = 0;
    return size_t(o - out);
}

// Both codecs agree before anything is timed.
void checkCodecs() {
    std::string const& in = randomBytes();
    std::string a(4 * kBytes / 3 + 8, '\0'), b(a.size(), '\0');
    int n = encode64(in.data(), int(in.size()), a.data());
    size_t m = plainEncode(reinterpret_cast<unsigned char const*>(in.data()), in.size(), b.data());
    std::string x(kBytes + 8, '\0'), y(kBytes + 8, '\0');
    int k = decode64(a.data(), size_t(n), x.data());
    size_t l = plainDecode(b.data(), m, reinterpret_cast<unsigned char*>(y.data()));
    if (size_t(n) != m || a != b || size_t(k) != kBytes || l != kBytes ||
        std::memcmp(x.data(), in.data(), kBytes) || std::memcmp(y.data(), in.data(), kBytes)) {
        std::fprintf(stderr, "the codecs disagree\n");
        std::abort();
    }
}

void Encode64(benchmark::State& state) {
    checkCodecs();
    std::string const& in = randomBytes();
    std::string out(4 * kBytes / 3 + 8, '\0');
    for (auto _ : state) {
        benchmark::DoNotOptimize(encode64(in.data(), int(in.size()), out.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

void PlainEncode(benchmark::State& state) {
    std::string const& in = randomBytes();
    std::string out(4 * kBytes / 3 + 8, '\0');
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            plainEncode(reinterpret_cast<unsigned char const*>(in.data()), in.size(), out.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

// Decoding is counted in bytes produced, as encoding is in bytes consumed.
void Decode64(benchmark::State& state) {
    std::string const& in = randomBytes();
    std::string text(4 * kBytes / 3 + 8, '\0');
    int n = encode64(in.data(), int(in.size()), text.data());
    std::string out(kBytes + 8, '\0');
    for (auto _ : state) {
        benchmark::DoNotOptimize(decode64(text.data(), size_t(n), out.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

void PlainDecode(benchmark::State& state) {
    std::string const& in = randomBytes();
    std::string text(4 * kBytes / 3 + 8, '\0');
    size_t n =
        plainEncode(reinterpret_cast<unsigned char const*>(in.data()), in.size(), text.data());
    std::string out(kBytes + 8, '\0');
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            plainDecode(text.data(), n, reinterpret_cast<unsigned char*>(out.data())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

void IsBase64(benchmark::State& state) {
    std::string const& in = randomBytes();
    std::string text(4 * kBytes / 3 + 8, '\0');
    int n = encode64(in.data(), int(in.size()), text.data());
    for (auto _ : state)
        benchmark::DoNotOptimize(isBase64(text.data(), size_t(n)));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

// ---- value records ------------------------------------------------------------------

// A mix: small and large integers, a short and a long text, a double, a date.
std::vector<std::unique_ptr<qkValue>> recordMix() {
    std::vector<std::unique_ptr<qkValue>> v;
    v.push_back(std::make_unique<qkIntValue>(0, 7));
    v.push_back(std::make_unique<qkIntValue>(1, 123456789));
    auto s = std::make_unique<qkStringValue>(2);
    s->set(qkString("ORD-1042"));
    v.push_back(std::move(s));
    auto l = std::make_unique<qkStringValue>(3);
    l->set(qkString(std::string(100, 'n').c_str()));
    v.push_back(std::move(l));
    auto d = std::make_unique<qkDoubleValue>(4);
    d->set(19.9);
    v.push_back(std::move(d));
    auto t = std::make_unique<qkDateValue>(5);
    t->set(qkTimebase(2026, 11, 24, 9, 30, 0.0f));
    v.push_back(std::move(t));
    return v;
}

void WriteObject(benchmark::State& state) {
    auto values = recordMix();
    char* buf = nullptr;
    int capacity = 0;
    for (auto _ : state) {
        int pos = 0;
        for (auto& v : values)
            v->writeObject(buf, pos, capacity);
        benchmark::DoNotOptimize(buf);
    }
    qkFree(buf, "bench", 0);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(values.size()));
}

void ReadObject(benchmark::State& state) {
    auto values = recordMix();
    char* buf = nullptr;
    int pos = 0, capacity = 0;
    for (auto& v : values)
        v->writeObject(buf, pos, capacity);
    int length = pos;
    for (auto _ : state) {
        int at = 0;
        while (at < length)
            delete qkValue::readObject(buf, at, length, 0);
    }
    qkFree(buf, "bench", 0);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(values.size()));
}

// ---- identifiers --------------------------------------------------------------------

void GetUuid(benchmark::State& state) {
    int32_t counter = 0;
    unsigned char id[16];
    for (auto _ : state) {
        getuuid(&counter, id);
        benchmark::DoNotOptimize(id);
    }
}

BENCHMARK(Encode64);
BENCHMARK(PlainEncode);
BENCHMARK(Decode64);
BENCHMARK(PlainDecode);
BENCHMARK(IsBase64);
BENCHMARK(WriteObject);
BENCHMARK(ReadObject);
BENCHMARK(GetUuid);

}  // namespace

BENCHMARK_MAIN();
