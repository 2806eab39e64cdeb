// The formatting engine behind qkString::sprintf and vsprintf.
//
// The engine walks the format itself and formats one directive at a time,
// each into a temporary sized from its argument, so that the result can be
// of any length and the set of conversions stays fixed: a format with any
// other conversion is refused as a whole and the target string keeps its
// text. Directives with flags, a width or a precision are handed to the C
// runtime unchanged; the bare common ones ("%d", "%s", "%x", "%.2f", ...)
// are written here to the same bytes, since a call into the C runtime's
// printf costs more than the whole of a short line otherwise.
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "strings/qkStringInternal.h"

using namespace qk::str;

namespace {

// A directive's flags, width and precision are passed on to the C runtime
// unchanged; the numbers parsed here only size the temporary.
struct Directive {
    char const* start;  // the "%"
    char const* conv;   // the conversion character
    int64_t width;      // 0 when absent
    int64_t precision;  // 6 when there is no "."
    bool hasPrecision;
};

// A run of decimal digits; saturates instead of overflowing (the C runtime
// refuses such widths itself, and the engine then refuses the format).
int64_t readNumber(char const*& p) {
    int64_t n = 0;
    while (*p >= '0' && *p <= '9') {
        n = n * 10 + (*p++ - '0');
        if (n > INT32_MAX) n = int64_t{INT32_MAX} + 1;
    }
    return n;
}

Directive parseDirective(char const* percent) {
    Directive d{percent, nullptr, 0, 6, false};
    char const* p = percent + 1;
    while (*p == ' ' || *p == '#' || *p == '+' || *p == '-')
        ++p;
    d.width = readNumber(p);
    if (*p == '.') {
        ++p;
        d.precision = readNumber(p);
        d.hasPrecision = true;
    }
    d.conv = p;
    return d;
}

// How a byte >= 0x80 of the format is read, decided once per call from LANG.
enum class Lang { Unknown, C, SJIS, Other };

Lang readLang() {
    char const* lang = std::getenv("LANG");
    if (!lang || std::strcmp(lang, "C") == 0) return Lang::C;
    return std::strcmp(lang, "SJIS") == 0 ? Lang::SJIS : Lang::Other;
}

// The bytes the walk stops at: the terminator, "%", "\\" and high bytes.
struct SpecialBytes {
    bool is[256] = {};
    constexpr SpecialBytes() {
        is[0] = is[static_cast<unsigned char>('%')] = is[static_cast<unsigned char>('\\')] = true;
        for (int b = 0x80; b < 256; ++b)
            is[b] = true;
    }
};
constexpr SpecialBytes kSpecial;

inline bool isSpecial(char c) {
    return kSpecial.is[static_cast<unsigned char>(c)];
}

bool isSingleByte(Lang lang, unsigned char b) {
    return lang == Lang::C || (lang == Lang::SJIS && b >= 0xA0 && b <= 0xDF);
}

// The length of v's "%d" form.
int64_t decimalDigits(int v) {
    int64_t n = v < 0 ? 2 : 1;
    for (uint32_t u = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v); u >= 10;
         u /= 10)
        ++n;
    return n;
}

// The size the temporary of a floating directive gets: the integer digits
// the value's magnitude needs plus the precision (or the width, if larger),
// and room for sign, point and exponent.
int64_t doubleSize(Directive const& d, double v) {
    double a = std::fabs(v);
    int64_t exponent = a > 0 && std::isfinite(a) ? static_cast<int64_t>(std::log10(a)) : 0;
    int64_t n = exponent + 1 + d.precision;
    return (d.width > n ? d.width : n) + 7;
}

int64_t max3(int64_t a, int64_t b, int64_t c) {
    int64_t m = a > b ? a : b;
    return m > c ? m : c;
}

}  // namespace

int qkString::sprintf(char const* format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = vsprintf(format, ap);
    va_end(ap);
    return r;
}

namespace {

// Formats one value with the C runtime into tmp, sized first to `size` bytes
// and enlarged when the C runtime needs more (the size is an estimate for
// the unusual cases, such as a long precision on a tiny value). Returns the
// number of bytes, or -1 when the C runtime or the size limit refuses.
template <class T>
int64_t runtimeFormat(qkString& tmp, int64_t size, char const* directive, T value) {
    if (size > kMaxText) return -1;
    tmp.resize(static_cast<unsigned>(size), 0);
    int n = std::snprintf(tmp.head(), tmp.size(), directive, value);
    if (n >= 0 && static_cast<unsigned>(n) >= tmp.size()) {
        tmp.resize(static_cast<unsigned>(n), 0);
        n = std::snprintf(tmp.head(), tmp.size(), directive, value);
    }
    return n;
}

}  // namespace

// The engine's access to qkString's appending of byte ranges.
struct qkStringFormatter {
    static void appendRange(qkString& s, char const* from, char const* to) {
        if (to > from) s.appendBytes(from, static_cast<unsigned>(to - from));
    }
    // Appends one directive's output; false when the result would outgrow
    // what a string can hold.
    static bool appendOutput(qkString& result, char const* text, uint64_t len) {
        if (result.length() + len > kMaxText) return false;
        appendRange(result, text, text + len);
        return true;
    }
    template <class T>
    static bool appendRuntime(Directive const& d, int64_t size, T value, qkString& result);
    template <class T>
    static bool appendInteger(Directive const& d, T value, int base, qkString& result);
    static bool appendDouble(Directive const& d, double value, qkString& result);
    static bool formatDirective(Directive const& d, va_list* ap, qkString& result);
    static int format(qkString& s, char const* format, va_list* ap);
};

// Hands the directive, flags, width and precision unchanged, to the C
// runtime with a temporary of `size` bytes. "%S" is a narrow text here: it
// goes to the C runtime as "%s" (where "%S" would mean a wide one).
template <class T>
bool qkStringFormatter::appendRuntime(Directive const& d, int64_t size, T value, qkString& result) {
    qkString directive;
    appendRange(directive, d.start, d.conv + 1);
    if (*d.conv == 'S') directive[static_cast<unsigned>(d.conv - d.start)] = 's';
    qkString tmp;
    int64_t n = runtimeFormat(tmp, size, directive.sanitize(), value);
    return n >= 0 && appendOutput(result, tmp.sanitize(), static_cast<uint64_t>(n));
}

// The bare directives "%d", "%i", "%u", "%x", "%X" and "%o" are written
// here, digit for digit what the C runtime writes, without its per-call
// cost; any flag, width or precision goes to the C runtime.
template <class T>
bool qkStringFormatter::appendInteger(Directive const& d, T value, int base, qkString& result) {
    if (d.conv != d.start + 1) {
        int v = static_cast<int>(value);
        return appendRuntime(d, max3(d.width, d.precision, decimalDigits(v)) + 4, value, result);
    }
    char digits[16];
    char* end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    if (*d.conv == 'X')
        for (char* p = digits; p < end; ++p)
            *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
    return appendOutput(result, digits, end - digits);
}

// "%f", "%e" and "%E" with at most a precision, of a finite value, are
// written with std::to_chars, which is defined to give what printf gives in
// the C locale (correctly rounded, ties to even); everything else goes to
// the C runtime.
bool qkStringFormatter::appendDouble(Directive const& d, double value, qkString& result) {
    char conv = *d.conv;
    bool simple = d.conv == d.start + 1 || (d.start[1] == '.' && d.precision <= 40);
    if (!simple || !std::isfinite(value) || (conv != 'f' && conv != 'e' && conv != 'E'))
        return appendRuntime(d, doubleSize(d, value), value, result);
    char text[400];  // 309 integer digits, sign, point and 40 decimals at most
    auto format = conv == 'f' ? std::chars_format::fixed : std::chars_format::scientific;
    auto r = std::to_chars(text, text + sizeof text, value, format, static_cast<int>(d.precision));
    if (r.ec != std::errc()) return appendRuntime(d, doubleSize(d, value), value, result);
    if (conv == 'E')
        for (char* p = text; p < r.ptr; ++p)
            if (*p == 'e') *p = 'E';
    return appendOutput(result, text, r.ptr - text);
}

// Formats the directive d, taking its argument from ap, and appends the
// output to result. False for an unknown conversion or a directive the C
// runtime refuses.
bool qkStringFormatter::formatDirective(Directive const& d, va_list* ap, qkString& result) {
    switch (*d.conv) {
        case 'c':
        case 'C': {
            char c = static_cast<char>(va_arg(*ap, int));
            if (c) result += c;
            return true;
        }
        case 'd':
        case 'i':
            return appendInteger(d, va_arg(*ap, int), 10, result);
        case 'u':
            return appendInteger(d, static_cast<unsigned>(va_arg(*ap, int)), 10, result);
        case 'x':
        case 'X':
            return appendInteger(d, static_cast<unsigned>(va_arg(*ap, int)), 16, result);
        case 'o':
            return appendInteger(d, static_cast<unsigned>(va_arg(*ap, int)), 8, result);
        case 'e':
        case 'E':
        case 'f':
        case 'g':
        case 'G':
            return appendDouble(d, va_arg(*ap, double), result);
        case 's':
        case 'S': {
            char const* s = va_arg(*ap, char const*);
            if (!s) return true;
            if (d.conv == d.start + 1) return appendOutput(result, s, std::strlen(s));
            // With a precision the C runtime reads no further than it, and
            // neither may we: the text need not be terminated.
            size_t len =
                d.hasPrecision ? strnlen(s, static_cast<size_t>(d.precision)) : std::strlen(s);
            return appendRuntime(d, (d.width > int64_t(len) ? d.width : int64_t(len)) + 1, s,
                                 result);
        }
        case 'p': {
            // What the platform's C runtime gave: 16 upper-case digits, no "0x".
            void* v = va_arg(*ap, void*);
            char text[24];
            int n = std::snprintf(text, sizeof text, "%016llX",
                                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(v)));
            return appendOutput(result, text, n);
        }
        default:
            return false;
    }
}

int qkString::vsprintf(char const* format, va_list ap) {
    if (!format) return 0;
    // A copy the directives can share: each takes its argument from it.
    va_list args;
    va_copy(args, ap);
    int ok = qkStringFormatter::format(*this, format, &args);
    va_end(args);
    return ok;
}

// Walks the format, copying literal text and formatting each directive into
// a result that replaces s's text only when the whole format succeeded.
int qkStringFormatter::format(qkString& s, char const* format, va_list* ap) {
    qkString result;
    Lang lang = Lang::Unknown;
    char const* segment = format;  // start of the literal text not yet copied
    char const* p = format;
    while (*p) {
        while (!isSpecial(*p))
            ++p;
        unsigned char b = static_cast<unsigned char>(*p);
        if (!b) break;
        if (b >= 0x80) {
            if (lang == Lang::Unknown) lang = readLang();
            ++p;
            // A lead byte takes its trail byte with it, so a trail byte is
            // never read as "%" or "\".
            if (!isSingleByte(lang, b) && *p) ++p;
            continue;
        }
        if (b == '\\') {
            ++p;
            if (*p) ++p;
            continue;
        }
        qkStringFormatter::appendRange(result, segment, p);  // b is "%": a directive
        Directive d = parseDirective(p);
        if (!qkStringFormatter::formatDirective(d, ap, result)) return 0;
        p = d.conv + 1;
        segment = p;
    }
    qkStringFormatter::appendRange(result, segment, p);
    s = result;
    return 1;
}
