// The formatting engine against the C library: the input is read as a
// format of literal text and up to four directives (flags, width,
// precision, conversion all from the input) with their arguments (integers,
// doubles from eight input bytes, texts), within the grammar both engines
// share.
#include <cstdio>
#include <cstring>
#include <string>
#include <variant>
#include <vector>

#include "FuzzCheck.h"
#include "qkString.h"

using qkfuzz::require;

namespace {

using Arg = std::variant<int, double, char const*>;

struct Reader {
    uint8_t const* p;
    size_t left;
    uint8_t byte() { return left ? (--left, *p++) : 0; }
    template <class T>
    T value() {
        T v{};
        size_t n = left < sizeof v ? left : sizeof v;
        std::memcpy(&v, p, n);
        p += n, left -= n;
        return v;
    }
};

char const* const kTexts[] = {"", "x", "hello world", "a%b", "0123456789abcdef"};

template <class F, class... A>
std::string spread(F const& f, std::vector<Arg> const& args, size_t i, A... a) {
    if constexpr (sizeof...(A) < 4) {
        if (i < args.size()) {
            return std::visit([&](auto v) { return spread(f, args, i + 1, a..., v); }, args[i]);
        }
    }
    return f(a...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    Reader r{data, size};
    std::string format;
    std::vector<Arg> args;
    int directives = r.byte() % 5;
    for (int d = 0; d <= directives; ++d) {
        for (int n = r.byte() % 4; n > 0; --n) {
            // Printable ASCII: the engine's own rules for backslashes and
            // double-byte lead bytes are not the C library's.
            char c = char(0x20 + r.byte() % 0x5f);
            if (c == '%' || c == '\\') c = '.';
            format += c;
        }
        if (d == directives) break;
        uint8_t shape = r.byte();
        format += '%';
        for (int f = 0; f < 4; ++f)
            if (shape & (1 << f)) format += " #+-"[f];
        if (shape & 16) format += '0';
        if (shape & 32) format += std::to_string(r.byte() % 30);
        if (shape & 64) format += "." + std::to_string(r.byte() % 30);
        int kind = r.byte() % 3;
        std::string const conversions = kind == 0 ? "diuoxX" : kind == 1 ? "s" : "eEfgG";
        format += conversions[r.byte() % conversions.size()];
        if (kind == 0) args.emplace_back(r.value<int>());
        if (kind == 1) args.emplace_back(kTexts[r.byte() % 5]);
        if (kind == 2) args.emplace_back(r.value<double>());
    }
    std::string want = spread(
        [&](auto... a) {
            int n = std::snprintf(nullptr, 0, format.c_str(), a...);
            std::string out(size_t(n), '\0');
            std::snprintf(out.data(), size_t(n) + 1, format.c_str(), a...);
            return out;
        },
        args, 0);
    qkString s;
    std::string got = spread(
        [&](auto... a) {
            if (s.sprintf(format.c_str(), a...) != 1) return std::string("(refused)");
            return std::string(static_cast<char const*>(s), s.length());
        },
        args, 0);
    if (got != want) {
        std::fprintf(stderr, "format [%s]\n  engine [%s]\n  C      [%s]\n", format.c_str(),
                     got.c_str(), want.c_str());
        qkfuzz::fail("the engine differs from the C library");
    }
    return 0;
}
